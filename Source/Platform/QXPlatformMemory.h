// QXPlatformMemory.h: the role of the system's memory: a private heap, pages and global blocks.
//
// Contract. Three independent services, all on the caller's thread:
//   - A private heap: a growable heap made once by HeapCreate, from which the allocator takes its
//     large blocks, its pool blocks and its own records. HeapAlloc gives at least 16-byte aligned
//     memory; HeapSize gives back the size that was asked for, exactly. A freed block's bytes are
//     left as they are until the heap hands the memory out again (the allocator's double-free test
//     reads the tag of a freed block), except that the pages of a large freed block past its first
//     page may be given back to the system.
//   - Pages: page-granular memory that is reserved and committed in one step (PageCommit, zeroed
//     and read-write), decommitted (contents dropped, address range still reserved, access faults),
//     released (the whole region made by one PageCommit), pinned and unpinned in RAM, and the
//     working-set request that bounds how much may be pinned.
//   - Global blocks: fixed blocks from a second allocator, for clipboard-style uses. A block's
//     handle leads to its pointer (GlobalLock) and the pointer back to its handle (GlobalHandle),
//     which is null for any pointer that is not a live global block.
// Sizes are byte counts. Failure is a null or false result; nothing here throws or sets the
// allocator's error word.
#ifndef QXPLATFORMMEMORY_H
#define QXPLATFORMMEMORY_H

#include <cstddef>
#include <cstdint>

class TQXPlatformMemory {
 public:
  using Heap = void*;

  virtual ~TQXPlatformMemory() = default;

  // --- Private heap ---
  // A new growable heap whose first reservation is `initialSize` bytes; null on failure.
  virtual Heap HeapCreate(size_t initialSize) = 0;
  // n bytes (0 allowed: a unique block) from `heap`; null if the heap cannot deliver or is null.
  virtual void* HeapAlloc(Heap heap, size_t n) = 0;
  // Gives back a block of `heap`. Null is accepted and does nothing.
  virtual bool HeapFree(Heap heap, void* block) = 0;
  // The size asked for when `block` (live, of `heap`) was made.
  virtual size_t HeapSize(Heap heap, const void* block) = 0;

  // --- Pages ---
  virtual uint32_t PageSize() = 0;
  // Reserves and commits n bytes rounded up to pages, zeroed, read-write. Null for 0 or failure.
  virtual void* PageCommit(size_t n) = 0;
  // Decommits the pages that hold any byte of [p, p + n). The pages must all lie in one region
  // made by PageCommit; otherwise nothing changes and the result is false.
  virtual bool PageDecommit(void* p, size_t n) = 0;
  // Releases the whole region whose base is `base` (n, the size given to PageCommit, is not
  // needed to find it). False if `base` is not the base of a region.
  virtual bool PageRelease(void* base, size_t n) = 0;
  // Pins / unpins the pages of [p, p + n) in RAM. Same range rule as PageDecommit.
  virtual bool PageLock(void* p, size_t n) = 0;
  virtual bool PageUnlock(void* p, size_t n) = 0;
  // The process's working-set request in bytes: the minimum bounds what may be pinned.
  virtual bool SetWorkingSet(uint32_t minimum, uint32_t maximum) = 0;
  virtual bool GetWorkingSet(uint32_t* minimum, uint32_t* maximum) = 0;

  // --- Global blocks (fixed: the handle is the pointer) ---
  // A handle to a new block of n bytes; null on failure. `flags` 0 asks for a fixed block.
  virtual void* GlobalAlloc(uint32_t flags, size_t n) = 0;
  // The block's pointer, or null if `handle` is not a live global block.
  virtual void* GlobalLock(void* handle) = 0;
  // The handle of the block at `p`, or null if `p` is not a live global block's pointer.
  virtual void* GlobalHandle(const void* p) = 0;
  virtual bool GlobalUnlock(void* handle) = 0;
  // Frees the block; null on success, `handle` itself on failure.
  virtual void* GlobalFree(void* handle) = 0;

  // The Linux implementation: a private heap of its own over mmap (QXLinuxHeap), mmap'ed pages
  // with mlock, RLIMIT_MEMLOCK as the working set, and global blocks from the C library's malloc.
  static TQXPlatformMemory& System();
};

#endif  // QXPLATFORMMEMORY_H
