// QXMemMgr.h: the pool manager behind QXmalloc, a segregated-fit small-object allocator.
//
// Vocabulary.
//   pool       a list of blocks whose sub-blocks all have one payload size (dataSize). Indices 1 to
//              39 are the library's size classes (some indices unused), 50 to 99 user pools.
//   block      QXMemMgrBlock: 16384 bytes from the private heap, a 32-byte header, then equal
//              sub-blocks from offset 32. No sub-block starts at or past `limit`, which is block
//              start + 16380 - dataSize, so the last one ends at most at byte 16384.
//   sub-block  a 4-byte header and dataSize payload bytes (stride dataSize + 4):
//                byte 0     tag: 0xF3 free, 0xA3 in use
//                byte 1     pool index
//                bytes 2-3  (16 bits, unaligned) free: offset of the next free sub-block from the
//                           block start, 0 at the end of the list; in use: its own offset, which
//                           is how a free finds its block with no search.
//
// Block header, 32 bytes on every platform: next, prev (the pool's list), freeHead (offset of
// the first free sub-block, 0 when full), reserved, size (16384), used (sub-blocks in use),
// poolIndex, dataSize. On a 64-bit machine the two pointers take 16 bytes, so the original's
// stored `first` and `limit` pointers are derived instead (first() and limit()).
//
// Invariants: a block lies on exactly one pool's list; the tags 0xA3 of a block number `used`;
// list order is creation order (blocks are appended, never moved); a pool keeps its head block for
// ever once made, any other block goes back to the heap as soon as it is empty.
//
// Hand-out order. Alloc tries the pool's cached block (`current`), then the first block in list
// order that has a free sub-block, then a new block at the tail. Finding that first block must not
// cost a walk over full blocks, so the manager keeps a side index (QXMemMgrIndex, below): each
// block gets a slot number that grows with list order, and a bitmap hierarchy over the slots
// marks the blocks that may have room. The index lives in the manager and in memory taken from
// the private heap, never in the blocks or the pools.
#ifndef QXMEMMGR_H
#define QXMEMMGR_H

#include <bit>
#include <cstdint>
#include <cstring>

#include "QXBase.h"

extern uint32_t gQXMemError;  // the allocator's sticky error word (QXAllocator.cpp)

class QXMemMgrBlock {
 public:
  static constexpr uint32_t kBlockSize = 16384;
  static constexpr uint32_t kHeaderSize = 32;
  static constexpr uint8_t kTagUsed = 0xA3;
  static constexpr uint8_t kTagFree = 0xF3;

  // Carves `bytes` of memory (16384; more only for a user pool whose one sub-block would not fit,
  // see QXMemMgr::NewBlock) into free sub-blocks of `dataSize` payload bytes.
  QXMemMgrBlock(uint16_t pool, int16_t dataSize, uint32_t bytes = kBlockSize);

  // The first free sub-block, now in use, or null when the block is full. A free-list head
  // without tag 0xF3 (or pointing outside the block) sets 0x80010002 and takes the block out of
  // service: freeHead becomes 0, so the block counts as full until a sub-block is given back.
  unsigned char* Take();
  // Puts a sub-block of this block back on its free list; returns the previous freeHead.
  uint16_t Give(unsigned char* subBlock);
  // True if every sub-block from first() to limit() has tag 0xF3 or 0xA3; else 0x80010002.
  bool Check();

  unsigned char* Base() { return reinterpret_cast<unsigned char*>(this); }
  unsigned char* first() { return Base() + kHeaderSize; }
  unsigned char* limit() { return Base() + LimitOffset(); }
  uint32_t LimitOffset() const { return size - 4 - uint32_t(dataSize); }
  uint32_t Stride() const { return uint32_t(dataSize) + 4; }
  // Sub-blocks carved in this block (the first one always is).
  uint32_t SubBlockCount() const;

  QXMemMgrBlock* next;
  QXMemMgrBlock* prev;
  uint16_t freeHead;
  uint16_t reserved;
  uint32_t size;
  int32_t used;
  uint16_t poolIndex;
  int16_t dataSize;

 private:
  unsigned char* TakeBad();
};
static_assert(sizeof(QXMemMgrBlock) == 32, "sub-block offsets count from a 32-byte header");

// The side index of the manager: per pool, the blocks in list order by slot, a bitmap hierarchy
// over the slots marking blocks that may have room, the tail block; for all pools, a hash table
// from block to slot. A bit is set for every block whose freeHead is not 0; a set bit whose block
// has filled up since is cleared when a search meets it (so filling a block costs nothing here).
// Slots are handed out in increasing order and renumbered (in list order) when they run out, at a
// capacity of twice the live blocks, so every operation is O(1) amortised; finding the first
// marked slot reads one word per level (64 slots per word, at most six levels).
class QXMemMgrIndex {
 public:
  QXMemMgrIndex() = default;
  ~QXMemMgrIndex();
  QXMemMgrIndex(const QXMemMgrIndex&) = delete;
  QXMemMgrIndex& operator=(const QXMemMgrIndex&) = delete;

  // Makes room for one more block of `pool`, whose list starts at `listHead`; false if the side
  // memory cannot be had.
  bool Reserve(int pool, QXMemMgrBlock* listHead);
  // Records a new block at the tail of `pool` (after Reserve) and marks it as having room.
  void Add(int pool, QXMemMgrBlock* block);
  // Forgets a block that leaves its pool.
  void Remove(int pool, QXMemMgrBlock* block);
  // A block of `pool` that was full has room again.
  void MarkNotFull(int pool, QXMemMgrBlock* block);
  // The first block in list order with a non-zero freeHead, or null. Its slot goes to *slot.
  QXMemMgrBlock* FirstNotFull(int pool, uint32_t* slot);
  // Unmarks a slot found by FirstNotFull whose block turned out to be full.
  void Unmark(int pool, uint32_t slot) { ClearBit(fPools[pool], slot); }
  QXMemMgrBlock* Tail(int pool) const { return fPools[pool].tail; }
  uint32_t Blocks(int pool) const { return fPools[pool].blocks; }

 private:
  static constexpr int kMaxLevels = 6;
  struct Pool {
    QXMemMgrBlock** slots = nullptr;  // slot -> block; null once the block is gone
    uint64_t* words = nullptr;        // the bitmap levels, finest first, one allocation with slots
    uint32_t capacity = 0;            // slots, a multiple of 64
    uint32_t nextSlot = 0;
    uint32_t blocks = 0;
    uint32_t levels = 0;
    uint32_t levelStart[kMaxLevels] = {};
    QXMemMgrBlock* tail = nullptr;
  };
  struct Entry {
    QXMemMgrBlock* block;
    uint32_t slot;
  };

  static void SetBit(Pool& p, uint32_t slot);
  static void ClearBit(Pool& p, uint32_t slot);
  bool Renumber(Pool& p, QXMemMgrBlock* listHead);
  Entry* Find(QXMemMgrBlock* block);
  bool GrowTable();

  Pool fPools[100];
  Entry* fTable = nullptr;
  uint32_t fTableMask = 0;  // capacity - 1, capacity a power of two (0: no table yet)
  uint32_t fTableCount = 0;
};

class QXMemMgr {
 public:
  static constexpr int kPools = 100;
  static constexpr int kFirstUserPool = 50;
  static constexpr uint32_t kLargestPooled = 4096;

  QXMemMgr();
  // Gives every block back. The library's own manager (gQXMemMgr) is never destroyed; this is for
  // managers that tests make.
  ~QXMemMgr();
  QXMemMgr(const QXMemMgr&) = delete;
  QXMemMgr& operator=(const QXMemMgr&) = delete;

  // The pool of a request of n bytes, 1 to 4096: one class per 4 bytes up to 32, then four per
  // power of two. Compares and shifts only.
  static constexpr int PoolIndex(uint32_t n) {
    if (n <= 32) return int((n - 1) >> 2) + 1;
    int g = std::bit_width(n - 1);
    return 4 * g - 16 + int((n - 1) >> (g - 3));
  }

  // A sub-block header of `pool` (now in use, byte 1 = pool), or null with 0x80010002. A pool
  // index outside 0 to 99 fails the same way (it names no table entry).
  unsigned char* Alloc(int pool) {
    if (uint32_t(pool) >= uint32_t(kPools)) return BadPool();
    return AllocInRange(pool);
  }
  // Alloc for a pool index known to lie in 0 to 99 (QXmalloc's own).
  unsigned char* AllocInRange(int pool) {
    ++requests[pool];
    if (QXMemMgrBlock* b = current[pool]) {
      if (unsigned char* s = b->Take()) {
        s[1] = uint8_t(pool);
        return s;
      }
    }
    return AllocSlow(pool);
  }

  // Gives a sub-block (its header) back; an emptied block other than its pool's head goes back to
  // the heap, and the pool's current cache is dropped then.
  void Free(unsigned char* subBlock) {
    uint16_t offset;
    std::memcpy(&offset, subBlock + 2, 2);
    auto* b = reinterpret_cast<QXMemMgrBlock*>(subBlock - offset);
    uint16_t previousHead = b->Give(subBlock);
    if (b->used < 1 && b->prev) [[unlikely]] {
      Release(b);
    } else if (previousHead == 0) [[unlikely]] {
      fIndex.MarkNotFull(b->poolIndex, b);
    }
  }

  // Adds a user pool of `size` payload bytes (negative: 0) at index nextPool and returns it.
  int16_t AddPool(int16_t size);
  // True if every block of pools 0 to nextPool - 1 passes its Check.
  bool Check();

  // Blocks on the pool's list.
  uint32_t BlockCount(int pool) const { return fIndex.Blocks(pool); }

  // The words after the pool sizes. dataSize[100] is `marker` (0xFFFF, read by nobody) and
  // dataSize[101] is `nextPool` (signed), so that an AddPool past index 99 writes over them exactly
  // as the original's overrun did, through one defined array.
  uint16_t marker() const { return dataSize[kPools]; }
  int16_t nextPool() const { return int16_t(dataSize[kPools + 1]); }

  QXMemMgrBlock* head[kPools];
  QXMemMgrBlock* current[kPools];
  uint32_t requests[kPools];
  uint16_t dataSize[kPools + 2];

 private:
  unsigned char* AllocSlow(int pool);
  unsigned char* BadPool();
  QXMemMgrBlock* NewBlock(int pool);
  void Release(QXMemMgrBlock* block);

  QXMemMgrIndex fIndex;
};

inline unsigned char* QXMemMgrBlock::Take() {
  uint32_t offset = freeHead;
  if (offset == 0) return nullptr;
  unsigned char* s = Base() + offset;
  // One compare for offset < 32 or offset > limit (the first wraps), then the tag.
  if (offset - kHeaderSize > LimitOffset() - kHeaderSize || s[0] != kTagFree) [[unlikely]]
    return TakeBad();
  uint16_t link;
  std::memcpy(&link, s + 2, 2);
  freeHead = link;
  uint16_t own = uint16_t(offset);
  std::memcpy(s + 2, &own, 2);
  s[0] = kTagUsed;
  ++used;
  return s;
}

inline uint16_t QXMemMgrBlock::Give(unsigned char* subBlock) {
  uint16_t previous = freeHead;
  uint16_t own = uint16_t(subBlock - Base());
  subBlock[0] = kTagFree;
  std::memcpy(subBlock + 2, &previous, 2);
  freeHead = own;
  --used;
  return previous;
}

#endif  // QXMEMMGR_H
