// QXTextState.h: what the strings read of the text role on every walk, cached.
//
// The cache is filled from the role in force at first use and belongs to that role: installing
// another role (QXPlatform::ScopedRole) makes the next read fill it again, and
// QXTextResetCaches() does the same for a role whose answers changed. The cached path is two
// loads and a compare, with no call into the role.
#ifndef QXTEXTSTATE_H
#define QXTEXTSTATE_H

#include <cstdint>

#include "Platform/QXPlatform.h"
#include "Platform/QXPlatformText.h"

struct TQXTextState {
  TQXPlatformText* role;  // the installed role the values belong to (null: the system's)
  bool valid;
  bool doubleByte;  // QXIsJapanSystem(): Japanese, Chinese or Korean system language
  bool japanese, chinese, korean;
  char decimalChar;  // GetDecimalChar's cache; 0 until read
  bool lead[256];    // the lead-byte table of the role's code page
  bool anyLead;      // the code page has lead bytes at all
};

extern TQXTextState gQXTextState;

// Fills the cache from the role in force.
void QXTextStateRefresh();

inline const TQXTextState& QXTextStateGet() {
  if (!gQXTextState.valid ||
      gQXTextState.role != QXPlatform::RoleSlot<TQXPlatformText>::installed) {
    QXTextStateRefresh();
  }
  return gQXTextState;
}

inline bool QXTextDoubleByte() {
  return QXTextStateGet().doubleByte;
}

inline bool QXTextIsLead(uint8_t b) {
  return QXTextStateGet().lead[b];
}

// One byte, one character, with no lead bytes in the code page either: positions are byte
// offsets and searches may run as plain byte scans.
inline bool QXTextPlainBytes() {
  const TQXTextState& s = QXTextStateGet();
  return !s.doubleByte && !s.anyLead;
}

#endif  // QXTEXTSTATE_H
