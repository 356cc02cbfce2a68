// The memory role's contract, run against the Linux side and the fake (with nothing scripted to
// fail); the test names say which backend ran.
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <cstring>
#include <random>
#include <vector>

#include "Platform/Fake/QXFakeMemory.h"
#include "Platform/QXPlatformMemory.h"

namespace {

struct LinuxBackend {
  static const char* Name() { return "Linux"; }
  TQXPlatformMemory& Get() { return TQXPlatformMemory::System(); }
};

struct FakeBackend {
  static const char* Name() { return "Fake"; }
  TQXPlatformMemory& Get() { return fake; }
  TQXFakeMemory fake;
};

struct BackendNames {
  template <class T>
  static std::string GetName(int) {
    return T::Name();
  }
};

template <class Backend>
class PlatformMemoryContract : public ::testing::Test {
 protected:
  TQXPlatformMemory& Memory() { return backend_.Get(); }
  // One heap for the suite: heaps are never destroyed, like the allocator's own.
  TQXPlatformMemory::Heap SharedHeap() {
    static TQXPlatformMemory::Heap heap = TQXPlatformMemory::System().HeapCreate(1 << 20);
    return heap;
  }
  Backend backend_;
};

using Backends = ::testing::Types<LinuxBackend, FakeBackend>;
TYPED_TEST_SUITE(PlatformMemoryContract, Backends, BackendNames);

bool Overlap(uintptr_t a, size_t an, uintptr_t b, size_t bn) {
  return a < b + bn && b < a + an;
}

TYPED_TEST(PlatformMemoryContract, HeapBlocksAreAlignedSizedAndDisjoint) {
  TQXPlatformMemory& m = this->Memory();
  auto heap = this->SharedHeap();
  ASSERT_NE(heap, nullptr);
  EXPECT_EQ(m.HeapAlloc(nullptr, 16), nullptr);
  // A fixed-seed mix of sizes, each block filled with its own byte and checked at the end.
  std::mt19937 rng(7);
  struct Live {
    unsigned char* p;
    size_t n;
    unsigned char fill;
  };
  std::vector<Live> live;
  const size_t sizes[] = {0, 1, 15, 16, 17, 4100, 16384, 100000, 300000, 3u << 20, 9u << 20};
  for (int step = 0; step < 3000; ++step) {
    if (!live.empty() && rng() % 3 == 0) {
      size_t i = rng() % live.size();
      for (size_t k = 0; k < live[i].n; k += 97)
        ASSERT_EQ(live[i].p[k], live[i].fill) << "block changed under its owner";
      EXPECT_TRUE(m.HeapFree(heap, live[i].p));
      live[i] = live.back();
      live.pop_back();
      continue;
    }
    size_t n = rng() % 8 ? rng() % 5000 : sizes[rng() % std::size(sizes)];
    auto* p = static_cast<unsigned char*>(m.HeapAlloc(heap, n));
    ASSERT_NE(p, nullptr) << n;
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u);
    EXPECT_EQ(m.HeapSize(heap, p), n);  // exactly the size asked for
    for (const Live& l : live)
      ASSERT_FALSE(Overlap(uintptr_t(p), n ? n : 1, uintptr_t(l.p), l.n ? l.n : 1));
    unsigned char fill = static_cast<unsigned char>(rng());
    std::memset(p, fill, n);
    live.push_back({p, n, fill});
  }
  for (const Live& l : live)
    m.HeapFree(heap, l.p);
  EXPECT_TRUE(m.HeapFree(heap, nullptr));
}

TYPED_TEST(PlatformMemoryContract, FreedHeapBlockKeepsItsFirstBytes) {
  TQXPlatformMemory& m = this->Memory();
  auto heap = this->SharedHeap();
  for (size_t n : {size_t(8), size_t(5000), size_t(16384), size_t(1) << 20}) {
    auto* p = static_cast<unsigned char*>(m.HeapAlloc(heap, n));
    ASSERT_NE(p, nullptr);
    std::memset(p, 0xA1, 8);
    m.HeapFree(heap, p);
    // Until the heap hands the memory out again (nothing here asks it to), the bytes stay.
    for (int i = 0; i < 8; ++i)
      EXPECT_EQ(p[i], 0xA1) << n;
  }
}

TYPED_TEST(PlatformMemoryContract, PagesCommitDecommitLockRelease) {
  TQXPlatformMemory& m = this->Memory();
  const uint32_t page = m.PageSize();
  ASSERT_GE(page, 4096u);
  EXPECT_EQ(page & (page - 1), 0u);
  EXPECT_EQ(m.PageCommit(0), nullptr);

  auto* p = static_cast<unsigned char*>(m.PageCommit(3 * page - 10));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % page, 0u);
  for (uint32_t i = 0; i < 3 * page; ++i)
    ASSERT_EQ(p[i], 0) << "committed pages start zeroed";
  std::memset(p, 0x5A, 3 * page);

  EXPECT_TRUE(m.PageLock(p, page));
  EXPECT_TRUE(m.PageUnlock(p, page));
  // A range that runs past the region is refused and changes nothing.
  EXPECT_FALSE(m.PageDecommit(p + page, 2 * page + 1));
  EXPECT_EQ(p[page], 0x5A);
  // Decommit the middle page only: its neighbours keep their bytes.
  EXPECT_TRUE(m.PageDecommit(p + page + 5, 10));
  EXPECT_EQ(p[page - 1], 0x5A);
  EXPECT_EQ(p[2 * page], 0x5A);
  int local = 0;
  EXPECT_FALSE(m.PageRelease(&local, page)) << "not the base of a region";
  EXPECT_FALSE(m.PageRelease(p + page, page)) << "inside a region, not its base";
  EXPECT_TRUE(m.PageRelease(p, 3 * page));
  EXPECT_FALSE(m.PageRelease(p, 3 * page)) << "already released";
  EXPECT_FALSE(m.PageLock(p, page));
}

TYPED_TEST(PlatformMemoryContract, WorkingSetRoundTrip) {
  TQXPlatformMemory& m = this->Memory();
  rlimit lock0, rss0;  // the Linux side works on these: put them back exactly afterwards
  getrlimit(RLIMIT_MEMLOCK, &lock0);
  getrlimit(RLIMIT_RSS, &rss0);
  uint32_t min0 = 0, max0 = 0;
  ASSERT_TRUE(m.GetWorkingSet(&min0, &max0));
  const uint32_t page = m.PageSize();
  // Values within what an unprivileged process may ask for: at most the current minimum.
  uint32_t lo = (min0 >= 2 * page ? min0 / 2 : page) / page * page;
  uint32_t hi = lo + 64 * page;
  EXPECT_FALSE(m.SetWorkingSet(hi, lo)) << "minimum above maximum";
  ASSERT_TRUE(m.SetWorkingSet(lo, hi));
  uint32_t minimum = 0, maximum = 0;
  ASSERT_TRUE(m.GetWorkingSet(&minimum, &maximum));
  EXPECT_EQ(minimum, lo);
  EXPECT_EQ(maximum, hi);
  EXPECT_TRUE(m.SetWorkingSet(0xFFFFFFFFu, 0xFFFFFFFFu));  // trim: accepted, nothing changes
  ASSERT_TRUE(m.GetWorkingSet(&minimum, &maximum));
  EXPECT_EQ(minimum, lo);
  setrlimit(RLIMIT_MEMLOCK, &lock0);
  setrlimit(RLIMIT_RSS, &rss0);
}

TYPED_TEST(PlatformMemoryContract, GlobalBlocksLeadBackToTheirHandles) {
  TQXPlatformMemory& m = this->Memory();
  void* h = m.GlobalAlloc(0, 40);
  ASSERT_NE(h, nullptr);
  auto* p = static_cast<unsigned char*>(m.GlobalLock(h));
  ASSERT_NE(p, nullptr);
  std::memset(p, 1, 40);
  EXPECT_EQ(m.GlobalHandle(p), h);
  EXPECT_EQ(m.GlobalHandle(p + 1), nullptr);
  int local = 0;
  EXPECT_EQ(m.GlobalHandle(&local), nullptr);
  EXPECT_EQ(m.GlobalLock(&local), nullptr);
  void* zero = m.GlobalAlloc(0, 0);
  EXPECT_NE(zero, nullptr);
  EXPECT_NE(zero, h);
  EXPECT_TRUE(m.GlobalUnlock(h));
  EXPECT_EQ(m.GlobalFree(h), nullptr);
  EXPECT_EQ(m.GlobalHandle(p), nullptr) << "freed";
  EXPECT_EQ(m.GlobalFree(h), h) << "a second free fails";
  EXPECT_EQ(m.GlobalFree(zero), nullptr);
}

// The fake's own scripting: the nth heap allocation, once or from then on.
TEST(FakeMemory, FailsTheNthHeapAllocation) {
  TQXFakeMemory fake;
  auto heap = fake.HeapCreate(1 << 20);
  std::vector<void*> got;
  fake.FailHeapAlloc(3);
  for (int i = 0; i < 5; ++i)
    got.push_back(fake.HeapAlloc(heap, 32));
  EXPECT_NE(got[0], nullptr);
  EXPECT_NE(got[1], nullptr);
  EXPECT_EQ(got[2], nullptr);
  EXPECT_NE(got[3], nullptr);
  fake.FailHeapAlloc(2, true);
  got.push_back(fake.HeapAlloc(heap, 32));
  EXPECT_NE(got.back(), nullptr);
  EXPECT_EQ(fake.HeapAlloc(heap, 32), nullptr);
  EXPECT_EQ(fake.HeapAlloc(heap, 32), nullptr);
  EXPECT_EQ(fake.heapAllocsFailed, 3u);
  for (void* p : got)
    fake.HeapFree(heap, p);
}

}  // namespace
