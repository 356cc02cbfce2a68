// QXMemory.h: the memory services of the library.
//
// Bulk operations: QXmemcpy, QXmemmove and QXmemfill are the library's own block moves. Each
// call reads TWIN_QXGlobals::gMMX and takes the wide (vector) path when it is true, the plain
// path otherwise; both give the same bytes. Lengths are signed 32-bit: 0 or less does nothing.
#ifndef QXMEMORY_H
#define QXMEMORY_H

#include "QXBase.h"

// The allocator. Every block of the library and its host comes from here. Nothing here throws:
// failure is a null result and a code in the sticky error word (QXMemLastError).
QX_EXPORT void* QXmalloc(uint32_t size);
QX_EXPORT void* QXnewMalloc(uint32_t size);       // the same as QXmalloc
QX_EXPORT void* QXnewArrayMalloc(uint32_t size);  // the same as QXmalloc
QX_EXPORT void* QXrealloc(void* block, uint32_t size);
QX_EXPORT void QXfree(void* block);
QX_EXPORT void QXdeleteFree(void* block);       // the same as QXfree
QX_EXPORT void QXdeleteArrayFree(void* block);  // the same as QXfree
QX_EXPORT uint32_t QXMemLastError();

// Class-scope allocation for the library's own classes: `new T` takes its memory from the
// allocator instead of the global operator new (which the library never replaces), aligned for
// any type, and gives null instead of throwing when the allocator has nothing, so the new
// expression yields null and constructs nothing.
void* QXObjectMalloc(size_t size) noexcept;
void QXObjectFree(void* p) noexcept;
#define QX_CLASS_ALLOCATION                                                                 \
  static void* operator new(size_t size) noexcept { return QXObjectMalloc(size); }          \
  static void* operator new[](size_t size) noexcept { return QXObjectMalloc(size); }        \
  static void operator delete(void* p) noexcept { QXObjectFree(p); }                        \
  static void operator delete[](void* p) noexcept { QXObjectFree(p); }

// Copies n bytes; the regions must not overlap.
QX_EXPORT void QXmemcpy(void* dst, const void* src, int32_t n);
// Copies n bytes; the regions may overlap.
QX_EXPORT void QXmemmove(void* dst, const void* src, int32_t n);
// Fills n bytes. The whole words of the region (n >> 2 of them, counted from dst) get the four
// bytes of `value` in phase with the address: a byte at address a gets byte (a & 3) of value,
// counted from the low byte. The last n & 3 bytes get the low byte of value. So
// QXmemfill(0x04030201, p, 6) at an aligned p writes 01 02 03 04 01 01.
QX_EXPORT void QXmemfill(int32_t value, void* dst, int32_t n);

#endif  // QXMEMORY_H
