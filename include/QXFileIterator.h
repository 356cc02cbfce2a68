// QXFileIterator.h: walking the entries of one folder. The iterator hands entries over by
// pointing an existing file object at each in turn (its full path, a folder's with a trailing
// separator). It can keep to one file type (folders pass every filter) and look through
// shortcuts. Entries come in the system's order; "." and ".." never.
//
// Use: Create, First(file), then while HasMore() use `file` and call Next(file); delete the
// iterator. Every live iterator is in the chain gFileIterators; an iterator made on a folder
// that another live iterator has (compared without case) yields nothing, so a recursive walk
// that comes back to a folder through a shortcut ends. No operation reports an error: an
// unreadable folder shows as a folder without entries.
#ifndef QXFILEITERATOR_H
#define QXFILEITERATOR_H

#include <string>

#include "QXBase.h"
#include "QXMemory.h"
#include "QXStringUTF8.h"

class IQXFile;
class TQXFileType;

class QX_EXPORT TQXFileIterator {
 public:
  QX_CLASS_ALLOCATION

  virtual ~TQXFileIterator();
  // Without a platform class these raise kQXErrNotImplemented.
  virtual void First(IQXFile* file);
  virtual void Next(IQXFile* file);
  virtual bool HasMore() const { return hasMore; }

  // A new iterator, or null when out of memory. `filter` is not owned; null means all.
  static TQXFileIterator* Create(const TQXStringUTF8& folder, TQXFileType* filter,
                                 bool resolveShortcuts);
  static TQXFileIterator* Create(const std::string& folder, TQXFileType* filter,
                                 bool resolveShortcuts);

  // Whether another live iterator had this folder when this one was made.
  bool IsValid() const { return isValid; }

 protected:
  TQXFileIterator(const TQXStringUTF8& folder, TQXFileType* filter, bool resolveShortcuts);

  TQXStringUTF8 folder;  // empty when refused
  TQXFileType* filter;
  bool isValid;
  bool hasMore;
  bool resolveShortcuts;
  TQXFileIterator* nextIterator;
};

// The head of the chain of live iterators.
extern TQXFileIterator* gFileIterators;

#endif  // QXFILEITERATOR_H
