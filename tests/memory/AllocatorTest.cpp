// The allocator's entry points: routing and tags, frees good and bad, realloc, the low-memory
// hook, the fault injector and its generator, the side roads over the memory role, class-scope
// objects, a long randomized run against a shadow model, and failure sweeps.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>
#include <vector>

#include "Platform/Fake/QXFakeClock.h"
#include "Platform/Fake/QXFakeMemory.h"
#include "Platform/QXPlatform.h"
#include "QXException.h"
#include "QXMemory.h"
#include "memory/QXAllocatorInternal.h"
#include "memory/QXMemMgr.h"
#include "support/QXFailureInjection.h"

namespace {

uint8_t Tag(const void* p) {
  return static_cast<const unsigned char*>(p)[-4];
}

// The last error, cleared for the next check.
uint32_t TakeError() {
  const uint32_t e = QXMemLastError();
  gQXMemError = 0;
  return e;
}

// Saves the allocator's knobs and puts them back, so that every test starts from the same state.
class AllocatorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QXfree(QXmalloc(1));  // the manager and the seed exist from here on
    gQXMemError = 0;
  }
  void TearDown() override {
    QXMemSetHook(saved_.hook, saved_.data);
    gQXMemHookOff = saved_.off;
    gQXMemFailEnabled = saved_.enabled;
    gQXMemFailLow = saved_.low;
    gQXMemFailHigh = saved_.high;
    gQXMemLocking = saved_.locking;
    QXMemFailAllocation(0, false);
  }
  struct Saved {
    QXMemHookProc hook = gQXMemHook;
    uint32_t data = gQXMemHookData;
    uint32_t off = gQXMemHookOff;
    uint8_t enabled = gQXMemFailEnabled;
    uint32_t low = gQXMemFailLow;
    uint32_t high = gQXMemFailHigh;
    uint8_t locking = gQXMemLocking;
  } saved_;
};

// --- Routing and tags
// -------------------------------------------------------------------------------

TEST_F(AllocatorTest, RoutesEverySizeAndTagsEveryBlock) {
  EXPECT_EQ(QXmalloc(0), nullptr);
  EXPECT_EQ(QXMemLastError(), 0u) << "a zero request sets no error";
  // Every size from 1 to 4200, then 100000. Up to 4096 a size class: the classes are 4 bytes
  // apart up to 32, then a quarter of the power of two below; past that the exact heap size.
  const std::map<uint32_t, uint32_t> pinned = {{1, 4}, {4, 4}, {5, 8}, {33, 40}, {4096, 4096}};
  for (uint32_t i = 1; i <= 4201; ++i) {
    const uint32_t n = i == 4201 ? 100000 : i;
    auto* p = static_cast<unsigned char*>(QXmalloc(n));
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % 4, 0u);
    const uint32_t size = QXmsize(p);
    const bool pooled = n <= 4096;
    ASSERT_EQ(Tag(p), pooled ? 0xA3 : 0xA1) << n;
    if (pooled) {
      ASSERT_EQ(p[-3], QXMemMgr::PoolIndex(n));
      ASSERT_GE(size, n);
      ASSERT_LT(size - n, n <= 32 ? 4u : std::bit_floor(n - 1) / 4) << n;
      if (pinned.count(n)) {
        ASSERT_EQ(size, pinned.at(n));
      }
    } else {
      ASSERT_EQ(p[-3] | p[-2] | p[-1], 0);
      ASSERT_EQ(size, n);
    }
    std::memset(p, 0xEE, size);
    QXfree(p);
    ASSERT_EQ(Tag(p), pooled ? 0xF3 : 0xF1);
  }
  EXPECT_EQ(QXMemLastError(), 0u);
  // The aliases are the same functions.
  void* a = QXnewMalloc(24);
  void* b = QXnewArrayMalloc(5000);
  EXPECT_EQ(Tag(a), 0xA3);
  EXPECT_EQ(Tag(b), 0xA1);
  QXdeleteFree(a);
  QXdeleteArrayFree(b);
  EXPECT_EQ(Tag(a), 0xF3);
}

TEST_F(AllocatorTest, DoubleFreesAndForeignPointers) {
  void* small = QXmalloc(16);
  QXfree(small);
  QXfree(small);
  EXPECT_EQ(TakeError(), kQXErrDoubleFree);
  void* large = QXmalloc(6000);
  QXfree(large);
  QXfree(large);  // the heap has not handed that memory out again
  EXPECT_EQ(TakeError(), kQXErrDoubleFree);
  QXfree(nullptr);
  EXPECT_EQ(QXMemLastError(), 0u);
  alignas(8) unsigned char foreign[16] = {0x12, 0, 0, 0, 0xA3 ^ 0xFF};
  QXfree(foreign + 4);
  EXPECT_EQ(TakeError(), kQXErrFailed);
  EXPECT_EQ(QXmsize(foreign + 4), 0u);
  EXPECT_EQ(TakeError(), kQXErrFailed);
  QXfree(reinterpret_cast<void*>(uintptr_t(4)));  // QXMemPoolMalloc's failure value
  EXPECT_EQ(QXMemLastError(), kQXErrFailed);
  EXPECT_EQ(foreign[0], 0x12) << "left alone";
}

// --- Realloc and friends
// --------------------------------------------------------------------------

// The prefix a move keeps is checked by the shadow model below.
TEST_F(AllocatorTest, ReallocAlwaysMovesAndFreesTheOldBlock) {
  auto* p = static_cast<unsigned char*>(QXrealloc(nullptr, 16));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(Tag(p), 0xA3);
  auto* q = static_cast<unsigned char*>(QXrealloc(p, 16));  // same class: moves all the same
  ASSERT_NE(q, p);
  EXPECT_EQ(Tag(p), 0xF3);
  auto* r = static_cast<unsigned char*>(QXrealloc(q, 9000));
  EXPECT_EQ(Tag(q), 0xF3);
  auto* s = static_cast<unsigned char*>(QXrealloc(r, 5));
  EXPECT_EQ(Tag(r), 0xF1);
  EXPECT_EQ(QXrealloc(s, 0), nullptr);
  EXPECT_EQ(Tag(s), 0xF3) << "size 0 frees";
  EXPECT_EQ(QXMemLastError(), 0u);
}

TEST_F(AllocatorTest, ReallocFailuresLeaveTheBlockAndABadTagLeaksTheNewOne) {
  auto* p = static_cast<unsigned char*>(QXmalloc(40));
  std::memset(p, 0x3C, 40);
  QXMemFailAllocation(1, false);
  EXPECT_EQ(QXrealloc(p, 80), nullptr);
  EXPECT_EQ(QXMemLastError(), kQXErrFailed);
  EXPECT_EQ(Tag(p), 0xA3);
  QXMemFailAllocation(2, false);  // the allocation inside fails this time
  EXPECT_EQ(QXrealloc(p, 80), nullptr);
  EXPECT_EQ(p[39], 0x3C);
  QXfree(p);

  alignas(8) unsigned char foreign[12] = {};
  const uint32_t live = QXMemLiveBlocks();
  gQXMemError = 0;
  EXPECT_EQ(QXrealloc(foreign + 4, 10), nullptr);
  EXPECT_EQ(QXMemLastError(), kQXErrFailed);
  EXPECT_EQ(QXMemLiveBlocks(), live + 1) << "the block made for the copy stays allocated";
}

TEST_F(AllocatorTest, CallocClearsAndReallocCopyHasNoErrorOfItsOwn) {
  auto* dirty = static_cast<unsigned char*>(QXmalloc(100));
  std::memset(dirty, 0xFF, 100);
  QXfree(dirty);
  auto* z = static_cast<unsigned char*>(QXcalloc(25, 4));
  ASSERT_EQ(z, dirty) << "the freed sub-block comes back first";
  for (int i = 0; i < 100; ++i)
    ASSERT_EQ(z[i], 0);
  EXPECT_EQ(QXcalloc(0, 5), nullptr);
  EXPECT_EQ(QXcalloc(0x10000, 0x10000), nullptr) << "the product wraps to 0";

  std::memcpy(z, "abcdef", 6);
  auto* c = static_cast<unsigned char*>(QXreallocCopy(z, 3));
  EXPECT_EQ(std::memcmp(c, "abc", 3), 0);
  EXPECT_EQ(Tag(z), 0xF3);
  EXPECT_NE(QXreallocCopy(nullptr, 8), nullptr);
  EXPECT_EQ(QXreallocCopy(c, 0), nullptr);
  EXPECT_EQ(Tag(c), 0xF3);
  EXPECT_EQ(QXMemLastError(), 0u);
}

TEST_F(AllocatorTest, UserPoolsThroughTheExportedCalls) {
  const int16_t pool = QXMemPoolCreate(10);
  ASSERT_GE(pool, 50);
  ASSERT_LT(pool, 100);
  EXPECT_EQ(gQXMemMgr->dataSize[pool], 10);
  auto* p = static_cast<unsigned char*>(QXMemPoolMalloc(pool));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(Tag(p), 0xA3);
  EXPECT_EQ(p[-3], pool);
  EXPECT_EQ(QXmsize(p), 10u);
  std::memset(p, 0x10, 10);
  QXMemPoolFree(p);
  EXPECT_EQ(Tag(p), 0xF3);
  EXPECT_EQ(QXMemPoolMalloc(pool), p) << "the same sub-block again";
  QXfree(p);
  EXPECT_EQ(QXMemLastError(), 0u);
  // An index that names no table entry fails, and the 4 is added all the same.
  EXPECT_EQ(QXMemPoolMalloc(-1), reinterpret_cast<void*>(uintptr_t(4)));
  EXPECT_EQ(QXMemLastError(), kQXErrFailed);
  EXPECT_EQ(QXMemPoolMalloc(100), reinterpret_cast<void*>(uintptr_t(4)));
}

// --- The low-memory hook ------------------------------------------------------------------------

struct HookScript {
  std::vector<int32_t> answers;  // the last one repeats
  struct Call {
    void* block;
    uint32_t size, data;
    uint8_t busy;
    bool operator==(const Call&) const = default;
  };
  std::vector<Call> calls;
};
HookScript* gScript = nullptr;

int32_t ScriptedHook(void* block, uint32_t size, uint32_t data) {
  gScript->calls.push_back({block, size, data, gQXMemHookBusy});
  size_t i = std::min(gScript->calls.size(), gScript->answers.size()) - 1;
  return gScript->answers[i];
}

class HookTest : public AllocatorTest {
 protected:
  void Use(std::vector<int32_t> answers) {
    script_.answers = std::move(answers);
    script_.calls.clear();
    gScript = &script_;
    QXMemSetHook(ScriptedHook, 77);
  }
  HookScript script_;
  TQXFakeMemory fake_;
  QXPlatform::ScopedRole<TQXPlatformMemory> role_{fake_};
};

TEST_F(HookTest, WatchesEveryRawAllocation) {
  Use({0});
  QXMemHookProc got = nullptr;
  uint32_t data = 0;
  QXMemGetHook(&got, &data);
  EXPECT_EQ(got, &ScriptedHook);
  EXPECT_EQ(data, 77u);
  auto* p = static_cast<unsigned char*>(QXmalloc(5000));
  ASSERT_EQ(script_.calls.size(), 1u);
  EXPECT_EQ(script_.calls[0], (HookScript::Call{p - 4, 5004, 77, 1}));
  EXPECT_EQ(gQXMemHookBusy, 0);
  QXfree(p);
  // A heap that gives nothing: the hook sees null, keeps it, the request fails.
  fake_.FailHeapAlloc(1);
  EXPECT_EQ(QXmalloc(5000), nullptr);
  EXPECT_EQ(script_.calls.back().block, nullptr);
  EXPECT_EQ(QXMemLastError(), kQXErrFailed);
}

TEST_F(HookTest, RetriesFourTimesThenGivesUp) {
  Use({1});
  const uint32_t frees = fake_.heapFrees;
  EXPECT_EQ(QXmalloc(5000), nullptr);
  EXPECT_EQ(script_.calls.size(), 4u);
  EXPECT_EQ(fake_.heapFrees, frees + 4) << "every block the hook saw went back";
  EXPECT_EQ(QXMemLastError(), kQXErrFailed) << "QXmalloc overwrote the heap layer's code";
  script_.calls.clear();
  gQXMemError = 0;
  EXPECT_EQ(QXMemRawAlloc(5000), nullptr);
  EXPECT_EQ(script_.calls.size(), 4u);
  EXPECT_EQ(TakeError(), kQXErrNoMemory);
  EXPECT_EQ(QXMemRawAlloc(0), nullptr);
  EXPECT_EQ(QXMemLastError(), 0u) << "no error for a zero size";
}

TEST_F(HookTest, RetryThenKeepAndOtherAnswersGiveUp) {
  Use({1, 0});
  auto* p = static_cast<unsigned char*>(QXmalloc(7000));
  ASSERT_EQ(script_.calls.size(), 2u);
  EXPECT_EQ(script_.calls[1].block, p - 4);
  QXfree(p);
  Use({-1});
  const uint32_t frees = fake_.heapFrees;
  EXPECT_EQ(QXmalloc(7000), nullptr);
  EXPECT_EQ(script_.calls.size(), 1u);
  EXPECT_EQ(fake_.heapFrees, frees + 1);
}

TEST_F(HookTest, GuardKeepsTheHookQuietAndNests) {
  Use({0});
  {
    QXMemHookGuard outer;
    {
      QXMemHookGuard inner;
      QXfree(QXmalloc(5000));
    }
    EXPECT_EQ(gQXMemHookOff, 1u);
    QXfree(QXmalloc(5000));
  }
  EXPECT_EQ(gQXMemHookOff, 0u);
  EXPECT_TRUE(script_.calls.empty());
  QXfree(QXmalloc(5000));
  EXPECT_EQ(script_.calls.size(), 1u);
}

// --- The fault injector
// ---------------------------------------------------------------------------

// Each band in turn, the widest failing nearly everything: every draw as the generator gives it,
// frees working while the injector is on, and nothing failing once it is off.
TEST_F(AllocatorTest, InjectorDrawsFromItsExactGenerator) {
  void* kept = QXmalloc(64);
  std::mt19937 rng(3);
  void* block = nullptr;
  struct Band {
    uint32_t width, low, high;
  };
  for (Band band :
       {Band{0x40000000u, 0x5FFFFFFFu, 0x9FFFFFFFu}, Band{0xFFFFFFFFu, 0, 0xFFFFFFFFu}}) {
    gQXMemRandomState = 12345;
    ASSERT_EQ(QXMemToggleFailures(band.width), 1u);
    EXPECT_EQ(gQXMemFailLow, band.low);
    EXPECT_EQ(gQXMemFailHigh, band.high);
    uint32_t model = 12345;
    auto draw = [&model, band] {
      model = model * 1103515245u + 12345u;
      return model > band.low && model < band.high;
    };
    int failures = 0;
    for (int i = 0; i < 3000; ++i) {
      switch (rng() % 3) {
        case 0: {  // QXmalloc: one draw
          bool fails = draw();
          void* p = QXmalloc(1 + rng() % 6000);
          ASSERT_EQ(p == nullptr, fails) << i;
          if (fails) {
            ASSERT_EQ(QXMemLastError(), kQXErrFailed);
          }
          failures += fails;
          QXfree(p);
          break;
        }
        case 1: {  // QXrealloc: its own draw, then QXmalloc's
          bool fails = draw() || draw();
          void* p = QXrealloc(block, 1 + rng() % 300);
          ASSERT_EQ(p == nullptr, fails) << i;
          if (p) block = p;
          break;
        }
        default: {  // QXglobalMalloc: one draw
          bool fails = draw();
          void* p = QXglobalMalloc(32);
          ASSERT_EQ(p == nullptr, fails) << i;
          QXglobalFree(p);
          break;
        }
      }
    }
    EXPECT_EQ(gQXMemRandomState, model);
    EXPECT_GT(failures, band.width == 0xFFFFFFFFu ? 900 : 100);
    if (band.low == 0) {
      QXfree(kept);  // frees still work
      EXPECT_EQ(Tag(kept), 0xF3);
    }
    EXPECT_EQ(QXMemToggleFailures(band.width), 0u);
  }
  QXfree(block);
  for (int i = 0; i < 100; ++i) {
    void* p = QXmalloc(16);
    ASSERT_NE(p, nullptr);
    QXfree(p);
  }
}

TEST_F(AllocatorTest, InjectorSeedsFromTheTickCountOnce) {
  TQXFakeClock clock(5);  // 5 ms: tick 0
  QXPlatform::ScopedRole<TQXPlatformClock> role(clock);
  gQXMemRandomSeed = 0;
  QXfree(QXmalloc(8));
  EXPECT_EQ(gQXMemRandomSeed, 0u);
  QXfree(QXmalloc(8));
  EXPECT_EQ(clock.Reads(), 2u) << "a zero tick is read again next time";
  clock.Set(1600);
  QXfree(QXmalloc(8));
  EXPECT_EQ(gQXMemRandomSeed, 100u);
  EXPECT_EQ(gQXMemRandomState, 100u);
  QXfree(QXmalloc(8));
  EXPECT_EQ(clock.Reads(), 3u);
}

// --- Side roads
// -------------------------------------------------------------------------------------

class SideRoadTest : public AllocatorTest {
 protected:
  TQXFakeMemory fake_;
  QXPlatform::ScopedRole<TQXPlatformMemory> role_{fake_};
};

TEST_F(SideRoadTest, LockingRequestAndLockedPages) {
  uint32_t minimum = 100000, maximum = 200000;
  EXPECT_TRUE(QXMemEnableLocking(&minimum, &maximum));
  EXPECT_EQ(minimum, 102400u) << "the values in force come back";
  EXPECT_EQ(maximum, 200704u);
  EXPECT_EQ(gQXMemPageSize, 4096u);
  EXPECT_EQ(gQXMemPageMask, 0xFFFFF000u);
  EXPECT_EQ(gQXMemLocking, 1);

  auto* p = static_cast<unsigned char*>(QXlockedMalloc(10000));
  ASSERT_NE(p, nullptr);
  p[9999] = 1;
  QXlockedFree(p, 10000);
  EXPECT_EQ(fake_.log,
            (std::vector<std::string>{"Commit 10000", "Lock", "Unlock", "Decommit", "Release"}));
  fake_.log.clear();
  fake_.failLock = true;
  EXPECT_EQ(QXlockedMalloc(10000), nullptr);
  EXPECT_EQ(fake_.log, (std::vector<std::string>{"Commit 10000", "Lock", "Decommit", "Release"}));

  fake_.failSetWorkingSet = true;
  EXPECT_FALSE(QXMemEnableLocking(&minimum, &maximum));
  EXPECT_EQ(gQXMemLocking, 0);
  EXPECT_EQ(minimum, 102400u) << "untouched on failure";
  EXPECT_FALSE(QXMemEnableLocking(nullptr, &maximum));
  fake_.log.clear();
  p = static_cast<unsigned char*>(QXlockedMalloc(100));
  QXlockedFree(p, 100);
  EXPECT_EQ(fake_.log, (std::vector<std::string>{"Commit 100", "Decommit", "Release"}))
      << "locking off: no lock, no unlock";
  QXlockedFree(nullptr, 100);
  EXPECT_EQ(fake_.log.size(), 3u);
}

TEST_F(SideRoadTest, VirtualPagesKeepTheirReservation) {
  EXPECT_EQ(QXvirtualMalloc(0), nullptr);
  auto* p = static_cast<unsigned char*>(QXvirtualMalloc(100));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(QXvirtualSize(p), 100u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(p - 4) % TQXPlatformMemory::System().PageSize(), 0u);
  std::memset(p, 9, 100);
  QXvirtualFree(p);
  EXPECT_EQ(fake_.log.back(), "Decommit");
  EXPECT_TRUE(fake_.PageRelease(p - 4, 0)) << "the addresses were still reserved";

  // A size word whose range from the caller's pointer runs past the region: nothing decommitted.
  const uint32_t page = TQXPlatformMemory::System().PageSize();
  auto* q = static_cast<unsigned char*>(QXvirtualMalloc(page - 6));
  q[0] = 42;
  QXvirtualFree(q);
  EXPECT_EQ(q[0], 42) << "still committed";
  fake_.PageRelease(q - 4, 0);
  QXvirtualFree(nullptr);
  EXPECT_EQ(QXvirtualSize(nullptr), 0u);
}

TEST_F(SideRoadTest, GlobalBlocks) {
  auto* p = static_cast<unsigned char*>(QXglobalMalloc(64));
  ASSERT_NE(p, nullptr);
  std::memset(p, 1, 64);
  QXglobalFree(p);
  EXPECT_EQ(fake_.log, (std::vector<std::string>{"GlobalAlloc 64", "GlobalFree"}));
  int local = 0;
  QXglobalFree(&local);
  EXPECT_EQ(fake_.globalFrees, 1u) << "not a global block: nothing freed";
  fake_.failGlobalAlloc = true;
  EXPECT_EQ(QXglobalMalloc(64), nullptr);
  EXPECT_EQ(QXMemLastError(), kQXErrFailed);
}

// --- Aligned blocks and library objects
// -----------------------------------------------------------

TEST_F(AllocatorTest, AlignedBlocksForEveryExponent) {
  const uint32_t live = QXMemLiveBlocks();
  std::vector<void*> blocks;
  for (uint8_t e = 0; e <= 6; ++e) {
    const uint32_t a = 2u << e;
    for (uint32_t n : {0u, 1u, 7u, 100u, 5000u}) {
      auto* p = static_cast<unsigned char*>(QXalignedMalloc(n, e));
      ASSERT_NE(p, nullptr);
      EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % a, 0u);
      EXPECT_GE(p[-1], 1);
      EXPECT_LE(p[-1], a);
      if (n) std::memset(p, 0xAB, n);
      blocks.push_back(p);
    }
  }
  EXPECT_EQ(QXMemLiveBlocks(), live + blocks.size());
  for (void* p : blocks)
    QXalignedFree(p);
  EXPECT_EQ(QXMemLiveBlocks(), live);
  QXalignedFree(nullptr);
  EXPECT_EQ(QXalignedMalloc(16, 7), nullptr) << "256 does not fit the distance byte";
  EXPECT_EQ(QXMemLastError(), kQXErrFailed);
}

struct alignas(16) Particle {
  QX_CLASS_ALLOCATION
  double position[3] = {1, 2, 3};
  long double weight = 0.5L;
};

TEST_F(AllocatorTest, LibraryObjectsAreAlignedAndNullOnFailure) {
  const uint32_t live = QXMemLiveBlocks();
  std::vector<Particle*> objects;
  for (int i = 0; i < 50; ++i) {
    objects.push_back(new Particle);
    ASSERT_EQ(reinterpret_cast<uintptr_t>(objects.back()) % 16, 0u);
    EXPECT_EQ(objects.back()->position[2], 3);
  }
  Particle* many = new Particle[300];  // a large block, still aligned
  EXPECT_EQ(reinterpret_cast<uintptr_t>(many) % 16, 0u);
  delete[] many;
  for (Particle* p : objects)
    delete p;
  EXPECT_EQ(QXMemLiveBlocks(), live);
  QXMemFailAllocation(1, false);
  EXPECT_EQ(new Particle, nullptr);
}

// --- A long run against a shadow model
// ---------------------------------------------------------------

TEST_F(AllocatorTest, RandomizedAgainstAShadowModel) {
  struct Shadow {
    uint32_t size;
    uint8_t seed;
  };
  std::map<unsigned char*, Shadow> live;  // the model: which blocks live, their sizes, contents
  auto fill = [](unsigned char* p, uint32_t n, uint8_t seed) {
    for (uint32_t i = 0; i < n; ++i)
      p[i] = uint8_t(seed + i * 7);
  };
  auto intact = [](unsigned char* p, uint32_t n, uint8_t seed) {
    for (uint32_t i = 0; i < n; ++i)
      if (p[i] != uint8_t(seed + i * 7)) return false;
    return true;
  };
  std::mt19937 rng(1234);
  auto size = [&rng]() -> uint32_t {  // a tenth large, a tenth middling, the rest small
    const uint32_t k = rng() % 10;
    return k == 0 ? 4097 + rng() % 30000 : k == 1 ? 257 + rng() % 3840 : 1 + rng() % 256;
  };
  const uint32_t liveBefore = QXMemLiveBlocks();
#ifdef QX_SANITIZED_BUILD
  const int steps = 30000;
#else
  const int steps = 200000;
#endif
  for (int step = 0; step < steps; ++step) {
    uint32_t r = rng() % 100;
    bool grow = live.size() < 3000 && (live.size() < 50 || r < 45);
    if (grow) {
      uint32_t n = size();
      auto* p = static_cast<unsigned char*>(QXmalloc(n));
      ASSERT_NE(p, nullptr);
      ASSERT_EQ(live.count(p), 0u) << "handed out twice";
      ASSERT_GE(QXmsize(p), n);
      uint8_t seed = uint8_t(rng());
      fill(p, n, seed);
      live[p] = {n, seed};
    } else {
      auto it = live.begin();
      std::advance(it, rng() % live.size());
      auto [p, shadow] = *it;
      ASSERT_TRUE(intact(p, shadow.size, shadow.seed)) << "step " << step;
      live.erase(it);
      if (r < 70) {
        uint32_t n = size();
        auto* q = static_cast<unsigned char*>(QXrealloc(p, n));
        ASSERT_NE(q, nullptr);
        ASSERT_TRUE(intact(q, std::min(n, shadow.size), shadow.seed));
        uint8_t seed = uint8_t(rng());
        fill(q, n, seed);
        live[q] = {n, seed};
      } else {
        QXfree(p);
        ASSERT_EQ(Tag(p), shadow.size > 4096 ? 0xF1 : 0xF3);
      }
    }
    if (step % 2000 == 0) {
      ASSERT_TRUE(gQXMemMgr->Check());
      ASSERT_EQ(QXMemLiveBlocks(), liveBefore + live.size());
    }
  }
  for (auto& [p, shadow] : live) {
    ASSERT_TRUE(intact(p, shadow.size, shadow.seed));
    QXfree(p);
  }
  EXPECT_EQ(QXMemLiveBlocks(), liveBefore);
  EXPECT_TRUE(gQXMemMgr->Check());
  EXPECT_EQ(QXMemLastError(), 0u);
}

// --- Failure sweeps
// -------------------------------------------------------------------------------

// A growing byte buffer, as a string or a stream would keep it: on a failed growth it gives back
// what it has and reports the failure.
bool BuildBuffer(uint32_t target) {
  unsigned char* data = nullptr;
  uint32_t size = 0;
  while (size < target) {
    uint32_t grown = size ? size * 2 : 8;
    auto* bigger = static_cast<unsigned char*>(QXrealloc(data, grown));
    if (!bigger) {
      QXfree(data);
      return false;
    }
    std::memset(bigger + size, int(size & 0xFF), grown - size);
    data = bigger;
    size = grown;
  }
  QXfree(data);
  return true;
}

// A small tree of library objects, each owning a block: a constructor that cannot get its block
// throws, and the destructors of what was built run on the way out.
struct Node {
  QX_CLASS_ALLOCATION
  explicit Node(int depth) {
    try {
      payload = QXmalloc(uint32_t(24 + depth * 300));
      if (!payload) throw TQXException(kQXErrNoMemory, 0, "", 0);
      if (depth > 0) {
        left = new Node(depth - 1);
        if (!left) throw TQXException(kQXErrNoMemory, 0, "", 0);
        right = new Node(depth - 1);
        if (!right) throw TQXException(kQXErrNoMemory, 0, "", 0);
      }
    } catch (...) {
      Release();  // no destructor runs for a half-built object
      throw;
    }
  }
  ~Node() { Release(); }
  void Release() {
    delete left;
    delete right;
    QXfree(payload);
  }
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;
  void* payload = nullptr;
  Node* left = nullptr;
  Node* right = nullptr;
};

TEST_F(AllocatorTest, FailureSweepsLeakNothing) {
  int failedBuilds = 0;
  QXFailureSweep buffer = QXSweepAllocationFailures([&] {
    if (!BuildBuffer(20000)) {
      ++failedBuilds;
      EXPECT_EQ(QXMemLastError(), kQXErrFailed);
    }
  });
  // 13 growths (8 to 32768 bytes), each a realloc whose test and inner allocation can both fail.
  EXPECT_EQ(buffer.allocations, 26u);
  EXPECT_EQ(failedBuilds, 26);

  QXFailureSweep tree = QXSweepAllocationFailures([] {
    Node* root = new Node(4);
    delete root;
  });
  EXPECT_EQ(tree.allocations, 62u);  // 31 nodes, each an object and a payload
  EXPECT_GT(tree.exceptions, 0u);
  EXPECT_EQ(tree.failingRuns, 62u);

  QXFailureSweep persistent = QXSweepAllocationFailures([] { delete new Node(3); }, true);
  EXPECT_EQ(persistent.allocations, 30u);
}

}  // namespace
