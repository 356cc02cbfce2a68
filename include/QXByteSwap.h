// QXByteSwap.h: in-place byte reversal of values read from big-endian data.
//
// Each function reverses the bytes of the value it is given, stores the result back and returns
// it. The library's file formats are big-endian on every platform.
#ifndef QXBYTESWAP_H
#define QXBYTESWAP_H

#include "QXBase.h"

namespace TQXByteSwap {
QX_EXPORT int16_t SwapInt16(int16_t& v);
QX_EXPORT int32_t SwapInt32(int32_t& v);
QX_EXPORT uint32_t SwapUInt32(uint32_t& v);
QX_EXPORT int64_t SwapInt64(int64_t& v);
QX_EXPORT float SwapFloat(float& v);
QX_EXPORT double SwapDouble(double& v);
}  // namespace TQXByteSwap

#endif  // QXBYTESWAP_H
