// The pool manager: block layout and sub-block offsets, hand-out order, release of emptied
// blocks, bad free-list heads, integrity checks, the pool table and its overrun, and a long
// randomized run against a small model of the list walk that the manager must reproduce.
// Each test uses a manager of its own (not the library's), so offsets and counts start afresh.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "Platform/Fake/QXFakeMemory.h"
#include "Platform/QXPlatform.h"
#include "QXException.h"
#include "QXMemory.h"
#include "memory/QXAllocatorInternal.h"
#include "memory/QXMemMgr.h"

namespace {

QXMemMgrBlock* BlockOf(unsigned char* s) {
  uint16_t offset;
  std::memcpy(&offset, s + 2, 2);
  return reinterpret_cast<QXMemMgrBlock*>(s - offset);
}

uint32_t OffsetOf(unsigned char* s) {
  return uint32_t(s - BlockOf(s)->Base());
}

int ListPosition(QXMemMgr& m, int pool, QXMemMgrBlock* block) {
  int i = 0;
  for (QXMemMgrBlock* b = m.head[pool]; b; b = b->next, ++i)
    if (b == block) return i;
  return -1;
}

class MemMgrTest : public ::testing::Test {
 protected:
  void SetUp() override { gQXMemError = 0; }
  std::unique_ptr<QXMemMgr> mgr_ = std::make_unique<QXMemMgr>();
};

// --- Tables and layout
// ----------------------------------------------------------------------------

TEST_F(MemMgrTest, SizeClassesAndPoolIndex) {
  static_assert(sizeof(QXMemMgrBlock) == 32);
  const uint16_t expected[40] = {0,   4,    8,    12,   16,   20,   24,   28,   32,   0,
                                 0,   0,    40,   48,   56,   64,   80,   96,   112,  128,
                                 160, 192,  224,  256,  320,  384,  448,  512,  640,  768,
                                 896, 1024, 1280, 1536, 1792, 2048, 2560, 3072, 3584, 4096};
  for (int i = 0; i < 100; ++i)
    EXPECT_EQ(mgr_->dataSize[i], i < 40 ? expected[i] : 0) << i;
  EXPECT_EQ(mgr_->marker(), 0xFFFF);
  EXPECT_EQ(mgr_->nextPool(), 50);
  // Every request lands in the smallest class that holds it.
  for (uint32_t n = 1; n <= 4096; ++n) {
    int best = -1;
    for (int i = 1; i < 40; ++i)
      if (expected[i] >= n && (best < 0 || expected[i] < expected[best])) best = i;
    ASSERT_EQ(QXMemMgr::PoolIndex(n), best) << n;
  }
}

TEST_F(MemMgrTest, SubBlockOffsetsOfPoolsOneAndThirtyNine) {
  // Pool 1: stride 8 from offset 32, the last one below 16376: 2043 sub-blocks.
  QXMemMgrBlock* first = nullptr;
  for (uint32_t i = 0; i < 2043; ++i) {
    unsigned char* s = mgr_->Alloc(1);
    ASSERT_NE(s, nullptr);
    if (!first) first = BlockOf(s);
    ASSERT_EQ(BlockOf(s), first);
    ASSERT_EQ(s[0], 0xA3);
    ASSERT_EQ(s[1], 1);
    ASSERT_EQ(OffsetOf(s), 32u + 8u * i);
  }
  EXPECT_EQ(first->SubBlockCount(), 2043u);
  EXPECT_EQ(first->freeHead, 0);
  EXPECT_EQ(first->used, 2043);
  EXPECT_EQ(first->size, 16384u);
  EXPECT_EQ(first->limit() - first->Base(), 16376);
  unsigned char* s = mgr_->Alloc(1);
  EXPECT_NE(BlockOf(s), first);
  EXPECT_EQ(OffsetOf(s), 32u);

  // Pool 39: 4096-byte payloads, limit at 12284: 32, 4132, 8232, then a new block.
  QXMemMgrBlock* b39 = nullptr;
  for (uint32_t expect : {32u, 4132u, 8232u}) {
    unsigned char* t = mgr_->Alloc(39);
    if (!b39) b39 = BlockOf(t);
    EXPECT_EQ(BlockOf(t), b39);
    EXPECT_EQ(OffsetOf(t), expect);
  }
  EXPECT_EQ(b39->limit() - b39->Base(), 12284);
  EXPECT_EQ(b39->SubBlockCount(), 3u);
  unsigned char* t = mgr_->Alloc(39);
  EXPECT_NE(BlockOf(t), b39);
  EXPECT_EQ(b39->next, BlockOf(t));
  EXPECT_EQ(BlockOf(t)->prev, b39);
  EXPECT_TRUE(mgr_->Check());
}

// --- Blocks coming and going
// ------------------------------------------------------------------------

TEST_F(MemMgrTest, EmptiedSecondBlockIsReleasedHeadBlockIsKept) {
  TQXFakeMemory fake;
  QXPlatform::ScopedRole<TQXPlatformMemory> role(fake);
  std::vector<unsigned char*> a, b;
  for (int i = 0; i < 3; ++i)
    a.push_back(mgr_->Alloc(39));
  for (int i = 0; i < 2; ++i)
    b.push_back(mgr_->Alloc(39));
  QXMemMgrBlock* head = BlockOf(a[0]);
  QXMemMgrBlock* second = BlockOf(b[0]);
  ASSERT_EQ(mgr_->BlockCount(39), 2u);
  EXPECT_EQ(mgr_->current[39], second);
  const uint32_t freesBefore = fake.heapFrees;

  mgr_->Free(b[0]);
  EXPECT_EQ(fake.heapFrees, freesBefore);
  mgr_->Free(b[1]);  // the second block is empty now: back to the heap
  EXPECT_EQ(fake.heapFrees, freesBefore + 1);
  EXPECT_EQ(mgr_->BlockCount(39), 1u);
  EXPECT_EQ(head->next, nullptr);
  EXPECT_EQ(mgr_->current[39], nullptr);

  for (unsigned char* s : a)
    mgr_->Free(s);
  EXPECT_EQ(fake.heapFrees, freesBefore + 1) << "the head block stays";
  EXPECT_EQ(mgr_->head[39], head);
  EXPECT_EQ(head->used, 0);
  EXPECT_EQ(mgr_->Alloc(39), a[2]) << "the last freed is first out again";
}

TEST_F(MemMgrTest, RequestsCountAttemptsNotLiveBlocks) {
  for (int i = 0; i < 10; ++i)
    mgr_->Free(mgr_->Alloc(5));
  EXPECT_EQ(mgr_->requests[5], 10u);
  EXPECT_EQ(mgr_->head[5]->used, 0);
  mgr_->Alloc(100);  // names no pool: fails, counts nothing
  EXPECT_EQ(gQXMemError, kQXErrFailed);
  EXPECT_EQ(mgr_->Alloc(-1), nullptr);
}

TEST_F(MemMgrTest, BadFreeListHeadTakesTheBlockOutOfService) {
  // Block A (head) full but for one freed sub-block; block B full; the next request walks.
  unsigned char* a[3];
  for (auto& s : a)
    s = mgr_->Alloc(39);
  unsigned char* b[3];
  for (auto& s : b)
    s = mgr_->Alloc(39);
  QXMemMgrBlock* blockA = BlockOf(a[0]);
  const uint32_t offsetA0 = OffsetOf(a[0]), offsetA1 = OffsetOf(a[1]);
  mgr_->Free(a[1]);
  ASSERT_EQ(blockA->freeHead, offsetA1);
  a[1][0] = 0x00;  // an overrun of the sub-block before it hit its tag
  gQXMemError = 0;

  unsigned char* c = mgr_->Alloc(39);
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(gQXMemError, kQXErrFailed);
  EXPECT_EQ(blockA->freeHead, 0) << "counts as full from now on";
  EXPECT_EQ(ListPosition(*mgr_, 39, BlockOf(c)), 2) << "skipped A, B full: a third block";
  gQXMemError = 0;
  EXPECT_FALSE(mgr_->Check());
  EXPECT_EQ(gQXMemError, kQXErrFailed);

  // A free-list link pointing outside the block is refused the same way, without a read there.
  a[1][0] = 0xF3;
  EXPECT_TRUE(mgr_->Check());
  mgr_->Free(a[0]);
  uint16_t wild = 0xFFF0;
  std::memcpy(a[0] + 2, &wild, 2);  // the link of a free sub-block, overwritten
  mgr_->Free(a[2]);                 // A's list: a[2], a[0], then the wild offset
  mgr_->current[39] = blockA;
  EXPECT_EQ(mgr_->Alloc(39), a[2]);
  EXPECT_EQ(blockA->freeHead, offsetA0);
  EXPECT_EQ(mgr_->Alloc(39), a[0]);
  gQXMemError = 0;
  unsigned char* d = mgr_->Alloc(39);
  EXPECT_EQ(gQXMemError, kQXErrFailed);
  EXPECT_EQ(blockA->freeHead, 0);
  EXPECT_EQ(BlockOf(d), BlockOf(c)) << "the walk went on to the block with room";
}

TEST_F(MemMgrTest, CheckFindsABadTagAnywhere) {
  std::vector<unsigned char*> s;
  for (int i = 0; i < 50; ++i)
    s.push_back(mgr_->Alloc(20));
  EXPECT_TRUE(mgr_->Check());
  s[17][0] = 0xF1;  // no tag of a sub-block
  gQXMemError = 0;
  EXPECT_FALSE(BlockOf(s[17])->Check());
  EXPECT_FALSE(mgr_->Check());
  EXPECT_EQ(gQXMemError, kQXErrFailed);
  s[17][0] = 0xA3;
  EXPECT_TRUE(mgr_->Check());
}

// --- The pool table
// -------------------------------------------------------------------------------

TEST_F(MemMgrTest, UserPoolsAndTheOverrunPastIndexNinetyNine) {
  for (int i = 50; i < 100; ++i)
    ASSERT_EQ(mgr_->AddPool(int16_t(i)), i);
  EXPECT_EQ(gQXMemError, 0u);
  EXPECT_EQ(mgr_->dataSize[99], 99);
  EXPECT_EQ(mgr_->AddPool(-5), 50 + 50) << "index 100, over the marker";
  EXPECT_EQ(gQXMemError, kQXErrTableFull);
  EXPECT_EQ(mgr_->marker(), 0) << "negative sizes are stored as 0";
  EXPECT_EQ(mgr_->nextPool(), 101);
  EXPECT_EQ(mgr_->AddPool(20), 101) << "index 101 is nextPool itself";
  EXPECT_EQ(mgr_->nextPool(), 21) << "the size written over it, then incremented";
  gQXMemError = 0;
  EXPECT_EQ(mgr_->AddPool(44), 21) << "back inside the table: overwrites a size class";
  EXPECT_EQ(gQXMemError, 0u);
  EXPECT_EQ(mgr_->dataSize[21], 44);
  EXPECT_EQ(mgr_->nextPool(), 22);
  EXPECT_TRUE(mgr_->Check());

  // Far past the table the store goes nowhere, and Check walks only the 100 pools.
  auto other = std::make_unique<QXMemMgr>();
  for (int i = 50; i < 101; ++i)
    other->AddPool(1);
  EXPECT_EQ(other->AddPool(30000), 101);
  EXPECT_EQ(other->AddPool(7), 30001);
  EXPECT_EQ(other->nextPool(), 30002);
  other->Alloc(3);
  EXPECT_TRUE(other->Check());
  other->dataSize[101] = 0x7FFF;
  EXPECT_EQ(other->AddPool(9), 32767);
  EXPECT_EQ(other->nextPool(), -32768) << "wraps as a signed 16-bit value";
  EXPECT_EQ(other->AddPool(9), -32768);
  EXPECT_TRUE(other->Check()) << "a negative bound walks nothing";
}

TEST_F(MemMgrTest, UserPoolSizesFromNothingToMoreThanABlock) {
  // Index 9 names no class: data size 0, stride 4, 4087 sub-blocks.
  unsigned char* z = mgr_->Alloc(9);
  ASSERT_NE(z, nullptr);
  EXPECT_EQ(BlockOf(z)->SubBlockCount(), 4087u);
  EXPECT_EQ(OffsetOf(mgr_->Alloc(9)), 36u);

  // A pool whose one sub-block would not fit in 16384 bytes gets a block that holds it.
  int16_t big = mgr_->AddPool(20000);
  unsigned char* s = mgr_->Alloc(big);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(OffsetOf(s), 32u);
  std::memset(s + 4, 0x11, 20000);
  unsigned char* t = mgr_->Alloc(big);
  ASSERT_NE(t, nullptr);
  EXPECT_NE(BlockOf(t), BlockOf(s));
  std::memset(t + 4, 0x22, 20000);
  EXPECT_TRUE(mgr_->Check());
  mgr_->Free(t);
  mgr_->Free(s);
  // 16348 bytes is the largest that fits the ordinary block: offset 32 + 4 + 16348 = 16384.
  int16_t edge = mgr_->AddPool(16348);
  unsigned char* e = mgr_->Alloc(edge);
  EXPECT_EQ(BlockOf(e)->size, 16384u);
  EXPECT_EQ(BlockOf(e)->SubBlockCount(), 1u);
  std::memset(e + 4, 0x33, 16348);
  EXPECT_TRUE(mgr_->Check());
}

// --- The hand-out order, against a model of the original list walk -------------------------------

// The model: per pool, a list of blocks in creation order, each with its free list as a stack of
// offsets, and the cached block. Alloc and Free as the manager describes them, with a plain walk.
struct ModelBlock {
  std::vector<uint32_t> freeList;  // back() is the head
  int used = 0;
};

struct ModelPool {
  uint32_t stride = 0, limit = 0;
  std::vector<std::unique_ptr<ModelBlock>> blocks;
  ModelBlock* current = nullptr;

  ModelBlock* NewBlock() {
    auto b = std::make_unique<ModelBlock>();
    std::vector<uint32_t> offsets;
    for (uint32_t o = 32;; o += stride) {
      offsets.push_back(o);
      if (o + stride >= limit) break;
    }
    b->freeList.assign(offsets.rbegin(), offsets.rend());
    blocks.push_back(std::move(b));
    return blocks.back().get();
  }
  static uint32_t Take(ModelBlock* b) {
    uint32_t o = b->freeList.back();
    b->freeList.pop_back();
    ++b->used;
    return o;
  }
  // The block's position in the list and the offset handed out.
  std::pair<int, uint32_t> Alloc() {
    if (current && !current->freeList.empty()) return {Position(current), Take(current)};
    if (blocks.empty()) NewBlock();
    for (auto& b : blocks) {
      if (!b->freeList.empty()) {
        current = b.get();
        return {Position(current), Take(current)};
      }
    }
    current = NewBlock();
    return {Position(current), Take(current)};
  }
  void Free(int position, uint32_t offset) {
    ModelBlock* b = blocks[position].get();
    b->freeList.push_back(offset);
    if (--b->used < 1 && position > 0) {
      blocks.erase(blocks.begin() + position);
      current = nullptr;
    }
  }
  int Position(ModelBlock* b) const {
    for (size_t i = 0; i < blocks.size(); ++i)
      if (blocks[i].get() == b) return int(i);
    return -1;
  }
};

TEST_F(MemMgrTest, RandomizedHandOutOrderMatchesTheListWalk) {
  // Pools with 2, 3, 6 and 2043 sub-blocks per block, so that lists grow to hundreds of blocks
  // (and the side index renumbers many times) while the blocks of pool 1 stay few.
  const int16_t twoPerBlock = mgr_->AddPool(8000);
  const int pools[] = {twoPerBlock, 39, 36, 1};
  ModelPool model[4];
  for (int k = 0; k < 4; ++k) {
    uint32_t d = mgr_->dataSize[pools[k]];
    model[k].stride = d + 4;
    model[k].limit = 16380 - d;
  }
  struct Live {
    int k;
    unsigned char* s;
  };
  std::vector<Live> live;
  std::mt19937 rng(20240611);
#ifdef QX_SANITIZED_BUILD
  const int steps = 20000;
#else
  const int steps = 80000;
#endif
  for (int step = 0; step < steps; ++step) {
    // Phases that grow to ~1200 live blocks and shrink to a few, then grow again.
    int phase = (step / 5000) % 2;
    bool alloc = live.empty() || int(rng() % 100) < (phase == 0 ? 62 : 36);
    if (alloc) {
      int k = int(rng() % 4);
      auto [position, offset] = model[k].Alloc();
      unsigned char* s = mgr_->Alloc(pools[k]);
      ASSERT_NE(s, nullptr);
      ASSERT_EQ(OffsetOf(s), offset) << "step " << step;
      ASSERT_EQ(ListPosition(*mgr_, pools[k], BlockOf(s)), position) << "step " << step;
      ASSERT_EQ(s[1], pools[k]);
      live.push_back({k, s});
    } else {
      size_t i = rng() % live.size();
      Live l = live[i];
      live[i] = live.back();
      live.pop_back();
      model[l.k].Free(ListPosition(*mgr_, pools[l.k], BlockOf(l.s)), OffsetOf(l.s));
      mgr_->Free(l.s);
    }
    if (step % 997 == 0) {
      ASSERT_TRUE(mgr_->Check());
      for (int k = 0; k < 4; ++k)
        ASSERT_EQ(mgr_->BlockCount(pools[k]), model[k].blocks.size());
    }
  }
  EXPECT_GT(mgr_->requests[twoPerBlock], uint32_t(steps / 10));
  for (const Live& l : live)
    mgr_->Free(l.s);
  for (int k = 0; k < 4; ++k)
    EXPECT_EQ(mgr_->BlockCount(pools[k]), 1u) << "only the head block remains";
}

}  // namespace
