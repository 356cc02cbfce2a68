// PLACEHOLDER: a minimal allocator over the C library, with the 4-byte tag header, so that other
// families can be built and tested while the real allocator and its pools are written. It is
// replaced as a whole by the allocator's own implementation.
#include <cstdlib>
#include <cstring>

#include "QXException.h"
#include "QXMemory.h"

namespace {
uint32_t gQXMemError = 0;
}

void* QXmalloc(uint32_t size) {
  if (size == 0) return nullptr;
  auto* p = static_cast<unsigned char*>(std::malloc(size_t(size) + 8));
  if (!p) {
    gQXMemError = kQXErrFailed;
    return nullptr;
  }
  std::memcpy(p + 4, &size, 4);
  p[4 + 3] = 0;
  p[4] = 0xA1;
  return p + 8;
}
void* QXnewMalloc(uint32_t size) { return QXmalloc(size); }
void* QXnewArrayMalloc(uint32_t size) { return QXmalloc(size); }
void QXfree(void* block) {
  if (!block) return;
  auto* p = static_cast<unsigned char*>(block);
  if (p[-4] != 0xA1) {
    gQXMemError = p[-4] == 0xF1 ? kQXErrDoubleFree : kQXErrFailed;
    return;
  }
  p[-4] = 0xF1;
  std::free(p - 8);
}
void QXdeleteFree(void* block) { QXfree(block); }
void QXdeleteArrayFree(void* block) { QXfree(block); }
void* QXrealloc(void* block, uint32_t size) {
  if (size == 0) {
    QXfree(block);
    return nullptr;
  }
  void* n = QXmalloc(size);
  if (!n || !block) return n;
  uint32_t old;
  std::memcpy(&old, static_cast<unsigned char*>(block) - 8, 4);
  std::memcpy(n, block, old < size ? old : size);
  QXfree(block);
  return n;
}
uint32_t QXMemLastError() { return gQXMemError; }
void* QXObjectMalloc(size_t size) noexcept { return std::aligned_alloc(16, (size + 15) & ~size_t(15)); }
void QXObjectFree(void* p) noexcept { std::free(p); }
