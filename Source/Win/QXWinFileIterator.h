// QXWinFileIterator.h: the platform class of the folder iterator, on the role's find calls.
//
// Shortcuts: this system has no shell links, so ResolveShortcut fails for every path and
// resolving them has no effect, unless a resolver is installed (tests install one to walk the
// shortcut branches).
#ifndef QXWINFILEITERATOR_H
#define QXWINFILEITERATOR_H

#include "Platform/QXPlatformFileSystem.h"
#include "QXFileIterator.h"

// Resolves the shortcut file at `path` into `target` (kMaxPath bytes); negative on failure.
using TQXShortcutResolver = int32_t (*)(const char* path, char* target);

class TWIN_QXFileIterator : public TQXFileIterator {
 public:
  TWIN_QXFileIterator(const TQXStringUTF8& folder, TQXFileType* filter, bool resolveShortcuts)
      : TQXFileIterator(folder, filter, resolveShortcuts) {}
  ~TWIN_QXFileIterator() override;

  void First(IQXFile* file) override;
  void Next(IQXFile* file) override;

  // `*target` = 0, then the installed resolver's answer; without one 0x80004005 (a failure).
  static int32_t ResolveShortcut(const char* path, char* target);
  static TQXShortcutResolver fgResolver;

  static constexpr uint32_t kShortcutCode = 0x6C6E6B00;  // "lnk"

 private:
  void Advance(IQXFile* file);

  TQXFindHandle findHandle = 0;
  TQXFindEntry entry;
};

#endif  // QXWINFILEITERATOR_H
