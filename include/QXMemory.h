// QXMemory.h: the memory services of the library.
//
// Bulk operations: QXmemcpy, QXmemmove and QXmemfill are the library's own block moves. Each
// call reads TWIN_QXGlobals::gMMX and takes the wide (vector) path when it is true, the plain
// path otherwise; both give the same bytes. Lengths are signed 32-bit: 0 or less does nothing.
#ifndef QXMEMORY_H
#define QXMEMORY_H

#include "QXBase.h"

// The allocator. Every block of the library and its host comes from here. Nothing here throws:
// failure is a null result and a code in the sticky error word (QXMemLastError), which is only
// ever overwritten, never cleared.
//
// Every block carries its kind in the byte just before it (the block tag): 0xA1 a large block
// from the private heap, 0xA3 a sub-block of a pool, 0xF1 and 0xF3 the same once freed. That one
// byte is the whole ownership test of QXfree, QXrealloc and QXmsize: a pointer that does not come
// from here is caught only if its preceding byte is none of the four values. Payloads are 4-byte
// aligned, no more; QXalignedMalloc gives more.
//
// Requests of 1 to 4096 bytes are served by size-class pools (4 bytes apart up to 32, then four
// classes per power of two); larger ones by the private heap behind a 4-byte header.
//
// Error words: 0x80010002 an allocation failed (also an injected failure) or a pointer has no
// known tag; 0x80010009 a block was freed twice; 0x8001006C the heap could not deliver (raw
// allocation, overwritten by 0x80010002 when QXmalloc then fails); 0x80010001 the pool table is
// full (QXMemPoolCreate).
QX_EXPORT void* QXmalloc(uint32_t size);
QX_EXPORT void* QXnewMalloc(uint32_t size);       // the same as QXmalloc
QX_EXPORT void* QXnewArrayMalloc(uint32_t size);  // the same as QXmalloc
// Never resizes in place: a new block, the lesser of the two sizes copied, the old one freed.
// Size 0 frees and gives null; on failure the old block is untouched.
QX_EXPORT void* QXrealloc(void* block, uint32_t size);
QX_EXPORT void QXfree(void* block);
QX_EXPORT void QXdeleteFree(void* block);       // the same as QXfree
QX_EXPORT void QXdeleteArrayFree(void* block);  // the same as QXfree
QX_EXPORT uint32_t QXMemLastError();

// count * size bytes (the product wraps at 2^32, unchecked), cleared.
QX_EXPORT void* QXcalloc(uint32_t count, uint32_t size);
// Like QXrealloc, but with no failure test or error of its own.
QX_EXPORT void* QXreallocCopy(void* block, uint32_t size);
// Payload size: the heap block's size for a large block, the class size (not the size asked for)
// for a pool block; 0 and 0x80010002 for a pointer with no known tag.
QX_EXPORT uint32_t QXmsize(void* block);

// A block aligned to 2 << e bytes (e from 0 to 6: 2 to 128 bytes), from QXmalloc. The byte before
// the block holds the distance back to the QXmalloc block. Larger alignments cannot be told in
// that byte and fail with 0x80010002.
QX_EXPORT void* QXalignedMalloc(uint32_t size, uint8_t e);
QX_EXPORT void QXalignedFree(void* block);

// Whole pages, pinned in RAM once QXMemEnableLocking has succeeded; the free needs the size that
// was asked for. No error word.
QX_EXPORT void* QXlockedMalloc(uint32_t size);
QX_EXPORT void QXlockedFree(void* block, uint32_t size);
// Whole pages with a size word in front. QXvirtualFree decommits the pages and keeps their
// addresses reserved.
QX_EXPORT void* QXvirtualMalloc(uint32_t size);
QX_EXPORT void QXvirtualFree(void* block);
QX_EXPORT uint32_t QXvirtualSize(void* block);
// Fixed blocks of the system's second allocator, for clipboard-style uses.
QX_EXPORT void* QXglobalMalloc(uint32_t size);
QX_EXPORT void QXglobalFree(void* block);
// Asks for a working set of *minimum to *maximum bytes and, on success, writes back the values in
// force and turns page locking on for QXlockedMalloc. Returns the success.
QX_EXPORT bool QXMemEnableLocking(uint32_t* minimum, uint32_t* maximum);

// The low-memory hook: called after every raw heap allocation (large blocks, pool blocks, the
// pool manager's record) with the block just obtained (may be null), its size and the user value.
// It returns 1 to have the allocation tried again (up to four tries; the block it saw is given
// back first), 0 to keep what was obtained, anything else to give up.
using QXMemHookProc = int32_t (*)(void* block, uint32_t size, uint32_t userData);
QX_EXPORT void QXMemSetHook(QXMemHookProc hook, uint32_t userData);
QX_EXPORT void QXMemGetHook(QXMemHookProc* hook, uint32_t* userData);
// Keeps the hook from being called while it lives. Nests.
class QX_EXPORT QXMemHookGuard {
 public:
  QXMemHookGuard();
  ~QXMemHookGuard();
  QXMemHookGuard(const QXMemHookGuard&) = delete;
  QXMemHookGuard& operator=(const QXMemHookGuard&) = delete;

 private:
  uint32_t fSaved;
};

// The fault injector: each call flips it on or off and sets its band of width `width` centred on
// 2^31. While on, QXmalloc, QXrealloc (non-zero size) and QXglobalMalloc draw a number from a
// linear congruential generator (state * 1103515245 + 12345, seeded from the tick count) and fail
// with 0x80010002 when it falls strictly inside the band. Returns the new state, 0 or 1.
QX_EXPORT uint32_t QXMemToggleFailures(uint32_t width);

// User pools of fixed-size blocks, beside the library's own size classes (indices 50 to 99).
// QXMemPoolCreate gives the new pool's index (past 99: 0x80010001, see QXMemMgr::AddPool).
// QXMemPoolMalloc gives a block of the pool; on failure it gives the pointer value 4, not null.
// QXMemPoolFree is QXfree.
QX_EXPORT int16_t QXMemPoolCreate(int16_t size);
QX_EXPORT void* QXMemPoolMalloc(int16_t index);
QX_EXPORT void QXMemPoolFree(void* block);

// Class-scope allocation for the library's own classes: `new T` takes its memory from the
// allocator instead of the global operator new (which the library never replaces), aligned for
// any type, and gives null instead of throwing when the allocator has nothing, so the new
// expression yields null and constructs nothing.
// Exported: the class-scope operators are inline, so a host that news a library class calls these.
QX_EXPORT void* QXObjectMalloc(size_t size) noexcept;
QX_EXPORT void QXObjectFree(void* p) noexcept;
#define QX_CLASS_ALLOCATION                           \
  static void* operator new(size_t size) noexcept {   \
    return QXObjectMalloc(size);                      \
  }                                                   \
  static void* operator new[](size_t size) noexcept { \
    return QXObjectMalloc(size);                      \
  }                                                   \
  static void operator delete(void* p) noexcept {     \
    QXObjectFree(p);                                  \
  }                                                   \
  static void operator delete[](void* p) noexcept {   \
    QXObjectFree(p);                                  \
  }

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
