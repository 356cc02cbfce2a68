// In-place byte reversal. Values are reversed through their bit patterns, so floats and doubles
// that are not numbers in host order (a swapped NaN, say) pass unchanged in their bytes.
#include "QXByteSwap.h"

#include <bit>
#include <cstring>

namespace TQXByteSwap {

int16_t SwapInt16(int16_t& v) {
  v = int16_t(__builtin_bswap16(uint16_t(v)));
  return v;
}

int32_t SwapInt32(int32_t& v) {
  v = int32_t(__builtin_bswap32(uint32_t(v)));
  return v;
}

uint32_t SwapUInt32(uint32_t& v) {
  v = __builtin_bswap32(v);
  return v;
}

int64_t SwapInt64(int64_t& v) {
  v = int64_t(__builtin_bswap64(uint64_t(v)));
  return v;
}

float SwapFloat(float& v) {
  uint32_t bits;
  std::memcpy(&bits, &v, 4);
  bits = __builtin_bswap32(bits);
  std::memcpy(&v, &bits, 4);
  return v;
}

double SwapDouble(double& v) {
  uint64_t bits;
  std::memcpy(&bits, &v, 8);
  bits = __builtin_bswap64(bits);
  std::memcpy(&v, &bits, 8);
  return v;
}

}  // namespace TQXByteSwap
