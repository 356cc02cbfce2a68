// QXBase.h: the few definitions every public header of QXCore stands on.
//
// Widths. The library's interface was laid out for a 32-bit platform on which `long` is 32 bits.
// Every such value (sizes, lengths, error codes, 16.16 positions, on-disk integers) is written
// here as int32_t or uint32_t so that it keeps its 32-bit meaning on a 64-bit host: results of
// -1 are 0xFFFFFFFF, sums wrap at 2^32.
//
// Exports. libQXCore.so is built with hidden visibility; only declarations marked QX_EXPORT
// form its interface. The list of exported symbols is checked by a test.
#ifndef QXBASE_H
#define QXBASE_H

#include <cstddef>
#include <cstdint>

#if defined(__GNUC__) || defined(__clang__)
#define QX_EXPORT __attribute__((visibility("default")))
#define QX_HIDDEN __attribute__((visibility("hidden")))
#else
#define QX_EXPORT
#define QX_HIDDEN
#endif

// A four-character code: the first character is the top byte, so QX_FOURCC('S','T','R','#')
// is 0x53545223 whatever the byte order of the machine.
#define QX_FOURCC(a, b, c, d)                                                                  \
  ((uint32_t(uint8_t(a)) << 24) | (uint32_t(uint8_t(b)) << 16) | (uint32_t(uint8_t(c)) << 8) | \
   uint32_t(uint8_t(d)))

#endif  // QXBASE_H
