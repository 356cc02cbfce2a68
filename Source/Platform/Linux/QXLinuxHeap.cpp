// The private heap over mmap: see QXLinuxHeap.h for the chunk layout and the free lists.
#include "Platform/Linux/QXLinuxHeap.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <new>

struct TQXLinuxHeap::Chunk {
  size_t prevSize;
  size_t sizeFlags;
  union {
    struct {
      Chunk* next;
      Chunk* prev;
    } free;
    struct {
      size_t requested;
      size_t unused;
    } used;
  };
};

namespace {

constexpr size_t kUsed = 1;
constexpr size_t kPrevFree = 2;
constexpr size_t kFlags = kUsed | kPrevFree;
constexpr size_t kHeader = 32;
constexpr size_t kMinChunk = 48;
// Requests above this are refused outright: it keeps every size sum below overflow and every
// size inside the bin table.
constexpr size_t kMaxRequest = size_t(1) << 40;
// Freed blocks at least this large give their pages past the first back to the system.
constexpr size_t kDropThreshold = 256 * 1024;
constexpr size_t kMaxSegmentStep = 64u << 20;

size_t AlignUp(size_t v, size_t a) {
  return (v + a - 1) & ~(a - 1);
}

void* Map(size_t bytes) {
  void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                 MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  return p == MAP_FAILED ? nullptr : p;
}

// First and second level of the bin of a free chunk of `size` bytes. Below 128 bytes one bin per
// 16 bytes; above, eight bins per power of two.
void Mapping(size_t size, int& fl, int& sl) {
  if (size < 128) {
    fl = 0;
    sl = int(size >> 4);
  } else {
    int f = std::bit_width(size) - 1;
    sl = int((size >> (f - 3)) & 7);
    fl = f - 6;
  }
}

}  // namespace

TQXLinuxHeap* TQXLinuxHeap::Create(size_t initialSize) {
  void* self = Map(AlignUp(sizeof(TQXLinuxHeap), 4096));
  if (!self) return nullptr;
  auto* heap = new (self) TQXLinuxHeap(initialSize);
  // The first segment is reserved now; a heap that cannot get it still works and maps later.
  if (Chunk* first = heap->AddSegment(0)) heap->Insert(first);
  return heap;
}

TQXLinuxHeap::TQXLinuxHeap(size_t initialSize) {
  long page = sysconf(_SC_PAGESIZE);
  fPageSize = page > 0 ? size_t(page) : 4096;
  fNextSegment = AlignUp(std::max<size_t>(initialSize, 1u << 20), fPageSize);
}

TQXLinuxHeap::Chunk* TQXLinuxHeap::AddSegment(size_t chunkSize) {
  // Segment: a 32-byte segment header (unused but for alignment), the chunks, a sentinel header.
  size_t bytes = std::max(fNextSegment, AlignUp(chunkSize + 2 * kHeader + 32, fPageSize));
  auto* base = static_cast<unsigned char*>(Map(bytes));
  if (!base) return nullptr;
  fNextSegment = std::min(fNextSegment * 2, std::max(fNextSegment, kMaxSegmentStep));
  ++fSegmentCount;
  auto* first = reinterpret_cast<Chunk*>(base + 32);
  size_t size = bytes - 32 - kHeader;
  auto* sentinel = reinterpret_cast<Chunk*>(base + 32 + size);
  first->prevSize = 0;
  first->sizeFlags = size;
  sentinel->prevSize = size;
  sentinel->sizeFlags = kUsed | kPrevFree;
  return first;
}

void TQXLinuxHeap::Insert(Chunk* c) {
  int fl, sl;
  Mapping(c->sizeFlags & ~kFlags, fl, sl);
  Chunk* head = fLists[fl][sl];
  c->free.next = head;
  c->free.prev = nullptr;
  if (head) head->free.prev = c;
  fLists[fl][sl] = c;
  fFLMap |= uint64_t(1) << fl;
  fSLMap[fl] = uint8_t(fSLMap[fl] | (1u << sl));
}

void TQXLinuxHeap::Unlink(Chunk* c) {
  int fl, sl;
  Mapping(c->sizeFlags & ~kFlags, fl, sl);
  if (c->free.next) c->free.next->free.prev = c->free.prev;
  if (c->free.prev) {
    c->free.prev->free.next = c->free.next;
  } else {
    fLists[fl][sl] = c->free.next;
    if (!fLists[fl][sl]) {
      fSLMap[fl] = uint8_t(fSLMap[fl] & ~(1u << sl));
      if (!fSLMap[fl]) fFLMap &= ~(uint64_t(1) << fl);
    }
  }
}

// A free chunk of at least `size` bytes. The head of the request's own bin is taken when it is
// large enough (the common case of many requests of one size, such as pool blocks, reuses freed
// chunks exactly); otherwise the size is rounded up to the next bin boundary, so that any chunk
// of the bin found fits.
TQXLinuxHeap::Chunk* TQXLinuxHeap::FindFit(size_t size) {
  int fl, sl;
  Mapping(size, fl, sl);
  if (fl >= kFLCount) return nullptr;
  if (Chunk* c = fLists[fl][sl]; c && (c->sizeFlags & ~kFlags) >= size) return c;
  if (size >= 128) {
    size += (size_t(1) << (std::bit_width(size) - 1 - kSLBits)) - 1;
    Mapping(size, fl, sl);
    if (fl >= kFLCount) return nullptr;
  }
  unsigned slBits = fSLMap[fl] & (~0u << sl);
  if (!slBits) {
    uint64_t flBits = fl + 1 < 64 ? fFLMap & (~uint64_t(0) << (fl + 1)) : 0;
    if (!flBits) return nullptr;
    fl = std::countr_zero(flBits);
    slBits = fSLMap[fl];
  }
  return fLists[fl][std::countr_zero(slBits)];
}

void* TQXLinuxHeap::Allocate(size_t n) {
  if (n > kMaxRequest) return nullptr;
  size_t size = std::max(kMinChunk, AlignUp(n + kHeader, 16));
  std::lock_guard<std::mutex> guard(fLock);
  Chunk* c = FindFit(size);
  if (c) {
    Unlink(c);
  } else {
    // A new segment's chunk holds `size` even when it is below the rounded size that FindFit
    // looks for, so it is used directly.
    c = AddSegment(size);
    if (!c) return nullptr;
  }
  auto* bytes = reinterpret_cast<unsigned char*>(c);
  size_t have = c->sizeFlags & ~kFlags;
  if (have - size >= kMinChunk) {
    auto* rest = reinterpret_cast<Chunk*>(bytes + size);
    rest->sizeFlags = have - size;
    reinterpret_cast<Chunk*>(bytes + have)->prevSize = have - size;
    Insert(rest);
    c->sizeFlags = size | kUsed;
  } else {
    c->sizeFlags = have | kUsed;
    reinterpret_cast<Chunk*>(bytes + have)->sizeFlags &= ~kPrevFree;
  }
  c->used.requested = n;
  return bytes + kHeader;
}

void TQXLinuxHeap::Free(void* block) {
  if (!block) return;
  auto* bytes = static_cast<unsigned char*>(block) - kHeader;
  auto* c = reinterpret_cast<Chunk*>(bytes);
  size_t size = c->sizeFlags & ~kFlags;
  if (size >= kDropThreshold) {
    // Keep the page that holds the start of the block (and its tag); drop the rest.
    uintptr_t from = AlignUp(reinterpret_cast<uintptr_t>(block) + 64, fPageSize);
    uintptr_t to = (reinterpret_cast<uintptr_t>(bytes) + size) & ~uintptr_t(fPageSize - 1);
    if (to > from) madvise(reinterpret_cast<void*>(from), to - from, MADV_DONTNEED);
  }
  std::lock_guard<std::mutex> guard(fLock);
  auto* next = reinterpret_cast<Chunk*>(bytes + size);
  if (!(next->sizeFlags & kUsed)) {
    Unlink(next);
    size += next->sizeFlags & ~kFlags;
  }
  if (c->sizeFlags & kPrevFree) {
    auto* prev = reinterpret_cast<Chunk*>(bytes - c->prevSize);
    Unlink(prev);
    size += prev->sizeFlags & ~kFlags;
    c = prev;
    bytes = reinterpret_cast<unsigned char*>(c);
  }
  c->sizeFlags = size;
  next = reinterpret_cast<Chunk*>(bytes + size);
  next->prevSize = size;
  next->sizeFlags |= kPrevFree;
  Insert(c);
}

size_t TQXLinuxHeap::Size(const void* block) const {
  return reinterpret_cast<const Chunk*>(static_cast<const unsigned char*>(block) - kHeader)
      ->used.requested;
}
