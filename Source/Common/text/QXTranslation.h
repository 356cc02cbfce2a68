// QXTranslation.h: the translation record between the stored character set of the host's files
// and the system's (internal to the library).
//
// Each direction has a 256-entry table and an optional expansion list. An entry of 0 drops the
// character, 0x1B expands it to the text the list gives for it, any other value replaces it.
// An expansion list is a length byte n followed by n bytes of entries: a source byte, its
// replacement text, a zero byte. The record keeps each list with one extra zero byte behind it,
// so that a last entry cut short by its length byte still ends inside the block.
#ifndef QXTRANSLATION_H
#define QXTRANSLATION_H

#include <cstdint>

#include "QXMemory.h"

class TQXAsciiTranslation {
 public:
  QX_CLASS_ALLOCATION

  TQXAsciiTranslation() = default;
  ~TQXAsciiTranslation();
  TQXAsciiTranslation(const TQXAsciiTranslation&) = delete;
  TQXAsciiTranslation& operator=(const TQXAsciiTranslation&) = delete;

  // The replacement text of `c` in the list of direction `toStored`, or null.
  const unsigned char* FindExpansion(unsigned char c, bool toStored) const;

  unsigned char fromStored[256] = {};  // direction false: stored form to system form
  unsigned char toStored[256] = {};    // direction true: system form to stored form
  unsigned char* fromStoredExtra = nullptr;
  unsigned char* toStoredExtra = nullptr;
};

// The installed record; null until InitAsciiTranslationTable.
extern TQXAsciiTranslation* gQXAsciiTranslation;

// Removes the installed record, as before installation (for tests).
void QXRemoveAsciiTranslationTable();

#endif  // QXTRANSLATION_H
