// QXLinuxHeap.h: the private heap of the Linux memory role, a heap of its own over mmap.
//
// Why not the C library's malloc: the allocator reads the tag of a block that was freed to tell a
// double free, so a freed block must keep its bytes until the heap hands them out again. malloc
// writes its own links into freed blocks, returns large ones to the system at once, and under
// AddressSanitizer forbids the read outright.
//
// Representation. Memory comes in segments mapped with mmap (MAP_NORESERVE: untouched pages cost
// nothing). A segment is a run of chunks, 16-byte aligned, ended by a zero-sized sentinel chunk
// that is always in use. Every chunk starts with a 32-byte header:
//   prevSize   size of the chunk before, valid while that chunk is free (boundary tag)
//   sizeFlags  chunk size (header included, a multiple of 16) | kUsed | kPrevFree
//   two words  free chunk: its links in a free list; chunk in use: the size asked for
// so a freed block's own bytes are never written by the heap. Free chunks are kept in segregated
// lists, eight per power of two, found through two levels of bitmaps (a two-level segregated fit):
// allocation and free are O(1), with neighbours merged at once on free. Segments are never
// unmapped; the pages of a large freed block past its first page go back to the system with
// MADV_DONTNEED, so a freed block keeps its tag and the process does not keep its pages.
//
// The heap serialises its own calls with a mutex, as the original platform's heaps do.
#ifndef QXLINUXHEAP_H
#define QXLINUXHEAP_H

#include <cstddef>
#include <cstdint>
#include <mutex>

class TQXLinuxHeap {
 public:
  // A heap whose first segment holds `initialSize` bytes; null if the system refuses the mapping.
  static TQXLinuxHeap* Create(size_t initialSize);

  void* Allocate(size_t n);  // 16-byte aligned; n 0 gives a unique block; null on failure
  void Free(void* block);    // null does nothing
  size_t Size(const void* block) const;  // the n given to Allocate

  size_t SegmentCount() const { return fSegmentCount; }

 private:
  struct Chunk;
  static constexpr int kSLBits = 3;
  static constexpr int kSLCount = 1 << kSLBits;
  static constexpr int kFLCount = 48;

  explicit TQXLinuxHeap(size_t initialSize);
  Chunk* AddSegment(size_t chunkSize);  // the segment's one free chunk, not in a list
  Chunk* FindFit(size_t size);
  void Insert(Chunk* c);
  void Unlink(Chunk* c);

  std::mutex fLock;
  size_t fNextSegment;
  size_t fSegmentCount = 0;
  size_t fPageSize;
  uint64_t fFLMap = 0;
  uint8_t fSLMap[kFLCount] = {};
  Chunk* fLists[kFLCount][kSLCount] = {};
};

#endif  // QXLINUXHEAP_H
