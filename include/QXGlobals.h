// QXGlobals.h: the process-wide values of the library.
//
// The host writes the four TWIN_QXGlobals variables itself; the library only reads them. They are
// plain memory: gMMX is read anew on every bulk-memory and pixel call, so the host may switch it
// at any time between calls. Everything here is constant-initialised data, valid before the
// host's first call, and nothing runs at load.
#ifndef QXGLOBALS_H
#define QXGLOBALS_H

#include "QXBase.h"

namespace TWIN_QXGlobals {
// Module handle whose string table and path the library uses. Null until the host writes it.
QX_EXPORT extern void* ghInstance;
// The host's top-level window, passed on as the owner window. Null until the host writes it.
QX_EXPORT extern void* ghMainFrame;
// True selects the wide (vector) paths of the bulk memory and pixel code. False at start.
QX_EXPORT extern bool gMMX;
// Kept for the host's own use; the library never reads it.
QX_EXPORT extern bool gEMMX;
}  // namespace TWIN_QXGlobals

// 2^-16 (bits 0x37800000): turns a 16.16 fixed-point value into a float.
inline constexpr float kQXInverse65536 = 1.0f / 65536.0f;
// 65535 / 65536, computed in double precision from the constant above.
inline constexpr double kQXFull65535 = 65535.0 * double(kQXInverse65536);

#endif  // QXGLOBALS_H
