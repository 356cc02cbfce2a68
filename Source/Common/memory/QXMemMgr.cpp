// The pool manager: blocks, their free lists, the pool table and the side index that keeps
// Alloc's search for a block with room independent of the number of full blocks.
#include "memory/QXMemMgr.h"

#include <new>

#include "QXException.h"
#include "memory/QXAllocatorInternal.h"

namespace {

void Store16(unsigned char* p, uint16_t v) {
  std::memcpy(p, &v, 2);
}

}  // namespace

// --- QXMemMgrBlock ------------------------------------------------------------------------------

QXMemMgrBlock::QXMemMgrBlock(uint16_t pool, int16_t dataSize_, uint32_t bytes)
    : next(nullptr),
      prev(nullptr),
      freeHead(kHeaderSize),
      reserved(0),
      size(bytes),
      used(0),
      poolIndex(pool),
      dataSize(dataSize_) {
  const uint32_t stride = Stride();
  const uint32_t limitOffset = LimitOffset();
  uint32_t offset = kHeaderSize;
  for (;;) {
    unsigned char* s = Base() + offset;
    s[0] = kTagFree;
    s[1] = uint8_t(pool);
    uint32_t following = offset + stride;
    if (following >= limitOffset) {
      Store16(s + 2, 0);
      break;
    }
    Store16(s + 2, uint16_t(following));
    offset = following;
  }
}

unsigned char* QXMemMgrBlock::TakeBad() {
  gQXMemError = kQXErrFailed;
  freeHead = 0;
  return nullptr;
}

bool QXMemMgrBlock::Check() {
  const uint32_t stride = Stride();
  const uint32_t limitOffset = LimitOffset();
  for (uint32_t offset = kHeaderSize; offset < limitOffset; offset += stride) {
    uint8_t tag = Base()[offset];
    if (tag != kTagFree && tag != kTagUsed) {
      gQXMemError = kQXErrFailed;
      return false;
    }
  }
  return true;
}

uint32_t QXMemMgrBlock::SubBlockCount() const {
  const uint32_t limitOffset = LimitOffset();
  if (limitOffset <= kHeaderSize + Stride()) return 1;
  return 1 + (limitOffset - kHeaderSize - 1) / Stride();
}

// --- QXMemMgrIndex ------------------------------------------------------------------------------

namespace {

uint32_t HashSlot(const QXMemMgrBlock* block, uint32_t mask) {
  uint64_t key = uint64_t(reinterpret_cast<uintptr_t>(block) >> 4);
  return uint32_t((key * 0x9E3779B97F4A7C15ull) >> 32) & mask;
}

}  // namespace

QXMemMgrIndex::~QXMemMgrIndex() {
  for (Pool& p : fPools)
    QXMemSideFree(p.slots);
  QXMemSideFree(fTable);
}

void QXMemMgrIndex::SetBit(Pool& p, uint32_t slot) {
  uint32_t i = slot;
  for (uint32_t level = 0; level < p.levels; ++level) {
    uint64_t& word = p.words[p.levelStart[level] + (i >> 6)];
    bool wasEmpty = word == 0;
    word |= uint64_t(1) << (i & 63);
    if (!wasEmpty) return;
    i >>= 6;
  }
}

void QXMemMgrIndex::ClearBit(Pool& p, uint32_t slot) {
  uint32_t i = slot;
  for (uint32_t level = 0; level < p.levels; ++level) {
    uint64_t& word = p.words[p.levelStart[level] + (i >> 6)];
    word &= ~(uint64_t(1) << (i & 63));
    if (word != 0) return;
    i >>= 6;
  }
}

QXMemMgrBlock* QXMemMgrIndex::FirstNotFull(int pool, uint32_t* slot) {
  Pool& p = fPools[pool];
  while (p.levels != 0) {
    uint32_t i = 0;
    for (uint32_t level = p.levels; level-- > 0;) {
      uint64_t word = p.words[p.levelStart[level] + i];
      if (word == 0) return nullptr;  // only the top word can be empty
      i = (i << 6) | uint32_t(std::countr_zero(word));
    }
    QXMemMgrBlock* block = p.slots[i];
    if (block && block->freeHead != 0) {
      *slot = i;
      return block;
    }
    ClearBit(p, i);  // filled up since it was marked
  }
  return nullptr;
}

// Gives the pool fresh slot numbers 0, 1, ... in list order, in arrays sized for twice the live
// blocks, and marks the blocks that have room.
bool QXMemMgrIndex::Renumber(Pool& p, QXMemMgrBlock* listHead) {
  uint64_t wanted = (uint64_t(p.blocks) + 1) * 2;
  if (wanted > (uint64_t(1) << 31)) return false;
  uint32_t capacity = uint32_t(wanted + 63) & ~63u;
  uint32_t levelStart[kMaxLevels] = {};
  uint32_t levels = 0, words = 0;
  for (uint32_t n = capacity / 64;; n = (n + 63) / 64) {
    levelStart[levels++] = words;
    words += n;
    if (n == 1) break;
  }
  size_t bytes = size_t(capacity) * sizeof(QXMemMgrBlock*) + size_t(words) * sizeof(uint64_t);
  void* memory = QXMemSideAlloc(bytes);
  if (!memory) return false;
  std::memset(memory, 0, bytes);
  QXMemSideFree(p.slots);
  p.slots = static_cast<QXMemMgrBlock**>(memory);
  p.words = reinterpret_cast<uint64_t*>(p.slots + capacity);
  p.capacity = capacity;
  p.levels = levels;
  for (uint32_t l = 0; l < kMaxLevels; ++l)
    p.levelStart[l] = levelStart[l];
  uint32_t slot = 0;
  for (QXMemMgrBlock* b = listHead; b; b = b->next, ++slot) {
    p.slots[slot] = b;
    if (Entry* e = Find(b)) e->slot = slot;
    if (b->freeHead != 0) SetBit(p, slot);
  }
  p.nextSlot = slot;
  return true;
}

QXMemMgrIndex::Entry* QXMemMgrIndex::Find(QXMemMgrBlock* block) {
  if (!fTable) return nullptr;
  for (uint32_t i = HashSlot(block, fTableMask);; i = (i + 1) & fTableMask) {
    if (fTable[i].block == block) return &fTable[i];
    if (!fTable[i].block) return nullptr;
  }
}

bool QXMemMgrIndex::GrowTable() {
  uint32_t capacity = fTable ? (fTableMask + 1) * 2 : 64;
  if (capacity == 0) return false;
  auto* table = static_cast<Entry*>(QXMemSideAlloc(size_t(capacity) * sizeof(Entry)));
  if (!table) return false;
  std::memset(static_cast<void*>(table), 0, size_t(capacity) * sizeof(Entry));
  uint32_t mask = capacity - 1;
  if (fTable) {
    for (uint32_t i = 0; i <= fTableMask; ++i) {
      if (!fTable[i].block) continue;
      uint32_t j = HashSlot(fTable[i].block, mask);
      while (table[j].block)
        j = (j + 1) & mask;
      table[j] = fTable[i];
    }
    QXMemSideFree(fTable);
  }
  fTable = table;
  fTableMask = mask;
  return true;
}

bool QXMemMgrIndex::Reserve(int pool, QXMemMgrBlock* listHead) {
  // The table stays at most half full, so that a search for a missing block ends soon.
  if ((!fTable || (fTableCount + 1) * 2 > fTableMask + 1) && !GrowTable()) return false;
  Pool& p = fPools[pool];
  return p.nextSlot < p.capacity || Renumber(p, listHead);
}

void QXMemMgrIndex::Add(int pool, QXMemMgrBlock* block) {
  Pool& p = fPools[pool];
  uint32_t slot = p.nextSlot++;
  p.slots[slot] = block;
  SetBit(p, slot);
  p.tail = block;
  ++p.blocks;
  uint32_t i = HashSlot(block, fTableMask);
  while (fTable[i].block)
    i = (i + 1) & fTableMask;
  fTable[i] = {block, slot};
  ++fTableCount;
}

void QXMemMgrIndex::Remove(int pool, QXMemMgrBlock* block) {
  Entry* e = Find(block);
  if (!e) return;
  Pool& p = fPools[pool];
  uint32_t slot = e->slot;
  p.slots[slot] = nullptr;
  ClearBit(p, slot);
  if (p.tail == block) p.tail = block->prev;
  --p.blocks;
  // Delete from the linear-probing table by shifting later entries of the run back.
  uint32_t i = uint32_t(e - fTable);
  for (;;) {
    fTable[i].block = nullptr;
    uint32_t j = i;
    for (;;) {
      j = (j + 1) & fTableMask;
      if (!fTable[j].block) {
        --fTableCount;
        return;
      }
      uint32_t home = HashSlot(fTable[j].block, fTableMask);
      bool stays = i <= j ? (i < home && home <= j) : (i < home || home <= j);
      if (!stays) break;
    }
    fTable[i] = fTable[j];
    i = j;
  }
}

void QXMemMgrIndex::MarkNotFull(int pool, QXMemMgrBlock* block) {
  if (Entry* e = Find(block)) SetBit(fPools[pool], e->slot);
}

// --- QXMemMgr -----------------------------------------------------------------------------------

QXMemMgr::QXMemMgr() : head{}, current{}, requests{}, dataSize{} {
  dataSize[kPools] = 0xFFFF;  // marker
  for (int i = 1; i <= 8; ++i)
    dataSize[i] = uint16_t(4 * i);
  // From index 12: four classes per power of two, each 2^(exponent - 3) above the one before.
  uint32_t running = 32;
  int index = 12;
  for (int exponent = 6; exponent <= 12; ++exponent) {
    for (int k = 0; k < 4; ++k) {
      running += 1u << (exponent - 3);
      dataSize[index++] = uint16_t(running);
    }
  }
  dataSize[kPools + 1] = kFirstUserPool;  // nextPool
}

QXMemMgr::~QXMemMgr() {
  for (int p = 0; p < kPools; ++p) {
    for (QXMemMgrBlock* b = head[p]; b;) {
      QXMemMgrBlock* following = b->next;
      QXMemRawFree(b);
      b = following;
    }
  }
}

unsigned char* QXMemMgr::BadPool() {
  gQXMemError = kQXErrFailed;
  return nullptr;
}

// The cached block had nothing. In order: make the pool's first block if it has none; the first
// block in list order whose Take succeeds (blocks with a bad free-list head are taken out of
// service on the way, as a walk would); a new block at the tail. A pool whose first block could
// not be made tries once more at the last step.
unsigned char* QXMemMgr::AllocSlow(int pool) {
  if (!head[pool]) NewBlock(pool);
  uint32_t slot;
  while (QXMemMgrBlock* b = fIndex.FirstNotFull(pool, &slot)) {
    unsigned char* s = b->Take();
    if (b->freeHead == 0) fIndex.Unmark(pool, slot);  // full now, or out of service
    if (s) {
      current[pool] = b;
      s[1] = uint8_t(pool);
      return s;
    }
  }
  if (QXMemMgrBlock* b = NewBlock(pool)) {
    if (unsigned char* s = b->Take()) {
      current[pool] = b;
      s[1] = uint8_t(pool);
      return s;
    }
  }
  gQXMemError = kQXErrFailed;
  return nullptr;
}

// A new block at the tail of the pool's list; `current` is left alone. The block is 16384 bytes
// by the raw heap steps, hook included. A user pool whose one sub-block does not fit in 16384
// bytes (data of more than 16348 bytes) would overrun the block in the original; here the block
// is made large enough for that one sub-block instead, and its `size` says so.
QXMemMgrBlock* QXMemMgr::NewBlock(int pool) {
  int32_t data = dataSize[pool] > 0x7FFF ? 0x7FFF : dataSize[pool];
  uint32_t bytes = QXMemMgrBlock::kBlockSize;
  if (QXMemMgrBlock::kHeaderSize + 4 + uint32_t(data) > bytes)
    bytes = (QXMemMgrBlock::kHeaderSize + 4 + uint32_t(data) + 7) & ~7u;
  void* memory = QXMemRawAlloc(bytes);
  if (!memory) return nullptr;
  // The hook may have allocated or freed in this pool meanwhile: the index is asked only now.
  if (!fIndex.Reserve(pool, head[pool])) {
    QXMemRawFree(memory);
    gQXMemError = kQXErrNoMemory;
    return nullptr;
  }
  auto* block = new (memory) QXMemMgrBlock(uint16_t(pool), int16_t(data), bytes);
  if (QXMemMgrBlock* tail = fIndex.Tail(pool)) {
    tail->next = block;
    block->prev = tail;
  } else {
    head[pool] = block;
  }
  fIndex.Add(pool, block);
  return block;
}

void QXMemMgr::Release(QXMemMgrBlock* block) {
  int pool = block->poolIndex;
  current[pool] = nullptr;
  fIndex.Remove(pool, block);
  if (block->next) block->next->prev = block->prev;
  block->prev->next = block->next;
  QXMemRawFree(block);
}

// Past index 99 the store still happens, as in the original: index 100 lands on `marker` and 101
// on `nextPool` (see dataSize in the header). Indices beyond those, or below 0 once nextPool has
// been overwritten, would land outside the manager; those stores are dropped.
int16_t QXMemMgr::AddPool(int16_t size) {
  int16_t n = nextPool();
  if (n >= kPools) gQXMemError = kQXErrTableFull;
  if (n >= 0 && n < kPools + 2) dataSize[n] = size < 0 ? 0 : uint16_t(size);
  dataSize[kPools + 1] = uint16_t(dataSize[kPools + 1] + 1);
  return n;
}

bool QXMemMgr::Check() {
  // Pools past the table (a nextPool overwritten by AddPool) name no blocks.
  int pools = nextPool() < kPools ? nextPool() : kPools;
  for (int p = 0; p < pools; ++p) {
    for (QXMemMgrBlock* b = head[p]; b; b = b->next)
      if (!b->Check()) return false;
  }
  return true;
}
