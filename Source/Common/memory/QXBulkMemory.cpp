// Bulk memory: block copies, moves and fills.
#include "memory/QXBulkMemory.h"

#include <cstring>

#include "QXGlobals.h"
#include "QXMemory.h"

namespace {

// Stores `n` bytes from p with the bytes of `pattern` in phase with the address.
void FillPhased(uint32_t pattern, unsigned char* p, size_t n) {
  for (size_t i = 0; i < n; ++i)
    p[i] = uint8_t(pattern >> (8 * (uintptr_t(p + i) & 3)));
}

}  // namespace

void QXmemcpy(void* dst, const void* src, int32_t n) {
  if (n <= 0) return;
  std::memcpy(dst, src, size_t(n));
}

void QXmemmove(void* dst, const void* src, int32_t n) {
  if (n <= 0) return;
  std::memmove(dst, src, size_t(n));
}

void QXmemfill(int32_t value, void* dst, int32_t n) {
  if (n <= 0) return;
  const int32_t words = n >> 2;
  auto* p = static_cast<unsigned char*>(dst);
  QXmemfill32(uint32_t(value), p, words);
  std::memset(p + size_t(words) * 4, value & 0xFF, size_t(n & 3));
}

void QXmemfill32(uint32_t value, void* dst, int32_t count) {
  if (count <= 0) return;
  FillPhased(value, static_cast<unsigned char*>(dst), size_t(count) * 4);
}

void QXmemfill16(uint16_t value, void* dst, int32_t count) {
  if (count <= 0) return;
  FillPhased(uint32_t(value) * 0x00010001u, static_cast<unsigned char*>(dst), size_t(count) * 2);
}

void QXmemfill8(uint8_t value, void* dst, int32_t count) {
  if (count <= 0) return;
  std::memset(dst, value, size_t(count));
}

void QXmemcpyLong(void* dst, const void* src, int32_t count) {
  if (count <= 0) return;
  std::memcpy(dst, src, size_t(count) * 4);
}
