// QXInternal.h: process-wide values and helpers shared by the library's own units, not part of
// its interface.
#ifndef QXINTERNAL_H
#define QXINTERNAL_H

#include <cstdint>

// Tested by the pixel effects ahead of TWIN_QXGlobals::gMMX. Nothing writes it, so it stays false
// and the branch it guards is never taken.
extern bool gQXVectorExtra;

// Wrapping 32-bit arithmetic: the library's 32-bit sums and products wrap at 2^32 where the
// C++ operators on int32_t would overflow.
constexpr int32_t QXWrapAdd(int32_t a, int32_t b) {
  return int32_t(uint32_t(a) + uint32_t(b));
}
constexpr int32_t QXWrapSub(int32_t a, int32_t b) {
  return int32_t(uint32_t(a) - uint32_t(b));
}
constexpr int32_t QXWrapMul(int32_t a, int32_t b) {
  return int32_t(uint32_t(a) * uint32_t(b));
}
constexpr int32_t QXWrapNeg(int32_t a) {
  return int32_t(0u - uint32_t(a));
}

// Double to 32-bit integer as the processor converts: truncating (or rounding, for
// QXRoundToInt32 after floor) and giving 0x80000000 for NaN and for values out of range, where a
// C++ cast would be undefined.
constexpr int32_t QXTruncToInt32(double d) {
  if (!(d > -2147483649.0 && d < 2147483648.0)) return INT32_MIN;
  return int32_t(d);
}

#endif  // QXINTERNAL_H
