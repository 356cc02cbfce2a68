// The allocator's entry points: the routing layer between the pools and the private heap, the
// block tags, the raw heap steps with the low-memory hook, the fault injector, and the side roads
// (aligned blocks, locked and plain pages, global blocks).
//
// The road of a request of n bytes: n from 1 to 4096 goes to the pool manager (QXMemMgr.h), whose
// sub-blocks carry tag 0xA3; a larger one goes to the private heap as n + 4 bytes whose first
// four are the large header: tag 0xA1, a zero byte, a zero 16-bit word. So the byte before every
// payload names its kind, and QXfree, QXrealloc and QXmsize read it instead of looking anything up.
#include <cstddef>
#include <cstring>
#include <new>

#include "Platform/QXPlatform.h"
#include "Platform/QXPlatformClock.h"
#include "Platform/QXPlatformMemory.h"
#include "QXException.h"
#include "QXMemory.h"
#include "memory/QXAllocatorInternal.h"
#include "memory/QXMemMgr.h"

uint32_t gQXMemError = 0;
QXMemMgr* gQXMemMgr = nullptr;
void* gQXMemHeap = nullptr;
QXMemHookProc gQXMemHook = nullptr;
uint32_t gQXMemHookData = 0;
uint8_t gQXMemHookBusy = 0;
uint32_t gQXMemHookOff = 0;
uint32_t gQXMemRandomSeed = 0;
uint32_t gQXMemRandomState = 0;
uint8_t gQXMemFailEnabled = 0;
uint32_t gQXMemFailLow = 0x7FFFFE0B;
uint32_t gQXMemFailHigh = 0x800001F3;
uint8_t gQXMemLocking = 0;
uint32_t gQXMemPageSize = 0;
uint32_t gQXMemPageMask = 0;

namespace {

constexpr uint8_t kTagLarge = 0xA1;
constexpr uint8_t kTagLargeFreed = 0xF1;
constexpr uint8_t kTagPool = QXMemMgrBlock::kTagUsed;
constexpr uint8_t kTagPoolFree = QXMemMgrBlock::kTagFree;
constexpr uint32_t kHeapInitialSize = 0x500000;
constexpr int kHookTries = 4;

uint32_t gLiveLarge = 0;  // large blocks handed out and not freed, for QXMemLiveBlocks

struct FailurePlan {
  bool armed = false;
  bool persistent = false;
  uint32_t nth = 0;
  uint32_t runs = 0;
  uint32_t delivered = 0;
};
FailurePlan gPlan;

TQXPlatformMemory& Memory() {
  return QXPlatform::Get<TQXPlatformMemory>();
}

void EnsureHeap(TQXPlatformMemory& memory) {
  if (!gQXMemHeap) gQXMemHeap = memory.HeapCreate(kHeapInitialSize);
}

// The fault injector's test, slow part: seeding, the deterministic plan of the tests, the draw.
bool InjectedFailureSlow() {
  if (gQXMemRandomSeed == 0) {
    // A tick count of 0 leaves the seed at 0, so the next call reads the clock again.
    uint32_t tick = QXPlatform::Get<TQXPlatformClock>().Milliseconds() >> 4;
    gQXMemRandomSeed = tick;
    gQXMemRandomState = tick;
  }
  if (gPlan.armed) {
    ++gPlan.runs;
    if (gPlan.runs == gPlan.nth || (gPlan.persistent && gPlan.runs > gPlan.nth)) {
      ++gPlan.delivered;
      return true;
    }
  }
  if (!gQXMemFailEnabled) return false;
  gQXMemRandomState = gQXMemRandomState * 1103515245u + 12345u;
  return gQXMemRandomState > gQXMemFailLow && gQXMemRandomState < gQXMemFailHigh;
}

// True when this allocation is to fail. The common case (seeded, injector off) is three loads.
inline bool InjectedFailure() {
  if (gQXMemRandomSeed != 0 && !gQXMemFailEnabled && !gPlan.armed) [[likely]]
    return false;
  return InjectedFailureSlow();
}

inline void* Fail(uint32_t code) {
  gQXMemError = code;
  return nullptr;
}

// Pointers below the first page are never blocks (QXMemPoolMalloc's failure value is 4); the
// byte before them cannot be read, so they count as pointers with no known tag.
inline bool BelowFirstPage(const void* p) {
  return reinterpret_cast<uintptr_t>(p) < 4096;
}

void* LargeMalloc(uint32_t n) {
  uint32_t total = n + 4;
  // A request within 4 bytes of 2^32 wraps here; the original took the wrapped size and wrote
  // its header past it. Here it fails like a heap that could not deliver.
  if (total < n) return Fail(kQXErrFailed);
  auto* header = static_cast<unsigned char*>(QXMemRawAlloc(total));
  if (!header) return Fail(kQXErrFailed);
  header[0] = kTagLarge;
  header[1] = 0;
  header[2] = 0;
  header[3] = 0;
  ++gLiveLarge;
  return header + 4;
}

inline void* Malloc(uint32_t n) {
  QXMemMgr* manager = gQXMemMgr;
  if (!manager) [[unlikely]]
    manager = QXMemEnsureManager();
  if (InjectedFailure()) return Fail(kQXErrFailed);
  if (n == 0) return nullptr;
  if (n > QXMemMgr::kLargestPooled) return LargeMalloc(n);
  // The original asked a manager it had failed to make; here that is a failed allocation.
  if (!manager) [[unlikely]]
    return Fail(kQXErrFailed);
  unsigned char* s = manager->AllocInRange(QXMemMgr::PoolIndex(n));
  if (!s) return Fail(kQXErrFailed);
  return s + 4;
}

// Everything but a pool block in use: large blocks, double frees, unknown tags.
[[gnu::noinline]] void FreeOther(void* block) {
  if (BelowFirstPage(block)) {
    if (block) gQXMemError = kQXErrFailed;
    return;
  }
  unsigned char* header = static_cast<unsigned char*>(block) - 4;
  switch (header[0]) {
    case kTagLarge:
      header[0] = kTagLargeFreed;
      --gLiveLarge;
      QXMemRawFree(header);
      return;
    case kTagPoolFree:
    case kTagLargeFreed:
      gQXMemError = kQXErrDoubleFree;
      return;
    default:
      // Tag 0xA3 with no manager cannot come from here; it is no block of ours either.
      gQXMemError = kQXErrFailed;
      return;
  }
}

inline void Free(void* block) {
  if (!BelowFirstPage(block) && static_cast<unsigned char*>(block)[-4] == kTagPool && gQXMemMgr)
      [[likely]] {
    gQXMemMgr->Free(static_cast<unsigned char*>(block) - 4);
    return;
  }
  FreeOther(block);
}

// The payload size by the block's tag, as QXmsize gives it; false for an unknown tag.
bool PayloadSize(void* block, uint32_t& size) {
  if (BelowFirstPage(block)) return false;
  unsigned char* header = static_cast<unsigned char*>(block) - 4;
  if (header[0] == kTagLarge) {
    size = uint32_t(Memory().HeapSize(gQXMemHeap, header)) - 4;
    return true;
  }
  if (header[0] == kTagPool) {
    uint16_t offset;
    std::memcpy(&offset, header + 2, 2);
    size = uint32_t(reinterpret_cast<QXMemMgrBlock*>(header - offset)->dataSize);
    return true;
  }
  return false;
}

// QXmemcpy and QXmemfill take signed 32-bit lengths; blocks of 2 GiB and more (which the original
// 32-bit process could not have) are handled in pieces.
void CopyBytes(void* dst, const void* src, uint32_t n) {
  auto* d = static_cast<unsigned char*>(dst);
  auto* s = static_cast<const unsigned char*>(src);
  while (n > 0) {
    int32_t piece = n > 0x40000000u ? 0x40000000 : int32_t(n);
    QXmemcpy(d, s, piece);
    d += piece;
    s += piece;
    n -= uint32_t(piece);
  }
}

void ClearBytes(void* dst, uint32_t n) {
  auto* d = static_cast<unsigned char*>(dst);
  while (n > 0) {
    int32_t piece = n > 0x40000000u ? 0x40000000 : int32_t(n);
    QXmemfill(0, d, piece);
    d += piece;
    n -= uint32_t(piece);
  }
}

}  // namespace

// --- Raw heap steps -----------------------------------------------------------------------------

void* QXMemRawAlloc(uint32_t n) {
  TQXPlatformMemory& memory = Memory();
  if (!gQXMemHook || gQXMemHookOff) {
    EnsureHeap(memory);
    void* p = memory.HeapAlloc(gQXMemHeap, n);
    if (!p && n) gQXMemError = kQXErrNoMemory;
    return p;
  }
  for (int tries = 1;; ++tries) {
    EnsureHeap(memory);
    void* p = memory.HeapAlloc(gQXMemHeap, n);
    gQXMemHookBusy = 1;
    int32_t answer = gQXMemHook(p, n, gQXMemHookData);
    gQXMemHookBusy = 0;
    if (answer == 0) {
      if (!p && n) gQXMemError = kQXErrNoMemory;
      return p;
    }
    // Retry or give up: either way the block the hook saw goes back.
    if (p) memory.HeapFree(gQXMemHeap, p);
    if (answer != 1 || tries == kHookTries) {
      if (n) gQXMemError = kQXErrNoMemory;
      return nullptr;
    }
  }
}

void QXMemRawFree(void* block) {
  Memory().HeapFree(gQXMemHeap, block);
}

void* QXMemSideAlloc(size_t n) {
  TQXPlatformMemory& memory = Memory();
  EnsureHeap(memory);
  return memory.HeapAlloc(gQXMemHeap, n);
}

void QXMemSideFree(void* block) {
  if (block) Memory().HeapFree(gQXMemHeap, block);
}

QXMemMgr* QXMemEnsureManager() {
  if (gQXMemMgr) return gQXMemMgr;
  void* record = QXMemRawAlloc(sizeof(QXMemMgr));
  if (!record) return nullptr;
  // A hook that allocated while the record was being obtained has made a manager already.
  if (gQXMemMgr) {
    QXMemRawFree(record);
    return gQXMemMgr;
  }
  gQXMemMgr = new (record) QXMemMgr();
  return gQXMemMgr;
}

// --- Main road ----------------------------------------------------------------------------------

void* QXmalloc(uint32_t size) {
  return Malloc(size);
}
void* QXnewMalloc(uint32_t size) {
  return Malloc(size);
}
void* QXnewArrayMalloc(uint32_t size) {
  return Malloc(size);
}

void QXfree(void* block) {
  Free(block);
}
void QXdeleteFree(void* block) {
  Free(block);
}
void QXdeleteArrayFree(void* block) {
  Free(block);
}

void* QXrealloc(void* block, uint32_t size) {
  if (size == 0) {
    Free(block);
    return nullptr;
  }
  if (InjectedFailure()) return Fail(kQXErrFailed);
  void* fresh = Malloc(size);
  if (!block) return fresh ? fresh : Fail(kQXErrFailed);
  if (!fresh) return Fail(kQXErrFailed);
  uint32_t old;
  // An unknown tag leaves the new block allocated and unreachable: the required behaviour.
  if (!PayloadSize(block, old)) return Fail(kQXErrFailed);
  uint32_t n = old < size ? old : size;
  if (n) CopyBytes(fresh, block, n);
  Free(block);
  return fresh;
}

uint32_t QXMemLastError() {
  return gQXMemError;
}

void* QXcalloc(uint32_t count, uint32_t size) {
  uint32_t n = count * size;  // wraps, unchecked, as documented
  void* p = Malloc(n);
  if (p) ClearBytes(p, n);
  return p;
}

void* QXreallocCopy(void* block, uint32_t size) {
  if (size == 0) {
    Free(block);
    return nullptr;
  }
  void* fresh = Malloc(size);
  if (!fresh || !block) return fresh;
  uint32_t old = QXmsize(block);
  CopyBytes(fresh, block, old < size ? old : size);
  Free(block);
  return fresh;
}

uint32_t QXmsize(void* block) {
  uint32_t size;
  if (PayloadSize(block, size)) return size;
  gQXMemError = kQXErrFailed;
  return 0;
}

// --- Aligned blocks -----------------------------------------------------------------------------
// A QXmalloc block of n + a + 1 bytes, a = 2 << e; the result is the first multiple of a past
// its start, and the byte before the result holds the distance back (1 to a). With a of 256 or
// more the distance may not fit in that byte, and the original freed the wrong pointer then; here
// such requests fail. A size that wraps the sum fails too (the distance byte would land outside
// the block).

void* QXalignedMalloc(uint32_t size, uint8_t e) {
  if (e > 6) return Fail(kQXErrFailed);
  uint32_t a = 2u << e;
  uint32_t total = size + a + 1;
  if (total < size) return Fail(kQXErrFailed);
  void* p = Malloc(total);
  if (!p) return nullptr;
  uintptr_t start = reinterpret_cast<uintptr_t>(p);
  uintptr_t aligned = (start + a) & ~uintptr_t(a - 1);
  auto* result = static_cast<unsigned char*>(p) + (aligned - start);
  result[-1] = uint8_t(aligned - start);
  return result;
}

void QXalignedFree(void* block) {
  if (!block) return;
  auto* p = static_cast<unsigned char*>(block);
  Free(p - p[-1]);
}

// A library object is aligned for any type (16 bytes on x86-64, alignof(std::max_align_t)):
// QXmalloc payloads are only 4-byte aligned, so an object's memory comes from the aligned side
// road with e = 3 (2 << 3 = 16), whose distance byte QXObjectFree reads back. A failure gives null,
// so a class-scope `new` yields null and constructs nothing.
void* QXObjectMalloc(size_t size) noexcept {
  static_assert(alignof(std::max_align_t) <= 16, "objects need the aligned road's 16 bytes");
  if (size > 0xFFFFFFFFu - 64) return Fail(kQXErrFailed);
  return QXalignedMalloc(uint32_t(size), 3);
}

void QXObjectFree(void* p) noexcept {
  QXalignedFree(p);
}

// --- Locked and plain pages ---------------------------------------------------------------------

bool QXMemEnableLocking(uint32_t* minimum, uint32_t* maximum) {
  TQXPlatformMemory& memory = Memory();
  gQXMemPageSize = memory.PageSize();
  gQXMemPageMask = 0u - gQXMemPageSize;
  // The original read through the two pointers unchecked; a null one is a failed request here.
  bool ok = minimum && maximum && memory.SetWorkingSet(*minimum, *maximum);
  if (ok) memory.GetWorkingSet(minimum, maximum);
  gQXMemLocking = ok ? 1 : 0;
  return ok;
}

void* QXlockedMalloc(uint32_t size) {
  TQXPlatformMemory& memory = Memory();
  void* p = memory.PageCommit(size);
  if (!p || !gQXMemLocking) return p;
  if (!memory.PageLock(p, size)) {
    memory.PageDecommit(p, size);
    memory.PageRelease(p, 0);
    return nullptr;
  }
  return p;
}

void QXlockedFree(void* block, uint32_t size) {
  if (!block) return;
  TQXPlatformMemory& memory = Memory();
  if (gQXMemLocking) memory.PageUnlock(block, size);
  memory.PageDecommit(block, size);
  memory.PageRelease(block, 0);
}

void* QXvirtualMalloc(uint32_t size) {
  if (size == 0) return nullptr;
  uint32_t total = size + 4;
  if (total < size) return nullptr;  // wraps: the system would refuse so small a size word
  auto* base = static_cast<unsigned char*>(Memory().PageCommit(total));
  if (!base) return nullptr;
  std::memcpy(base, &total, 4);
  return base + 4;
}

// Decommits from the caller's pointer (not the region's base) for the stored size, and releases
// nothing: the pages go, the addresses stay reserved. When that range runs past the region (a
// size within 4 bytes below a page multiple) the system refuses it and nothing is decommitted.
void QXvirtualFree(void* block) {
  if (!block) return;
  uint32_t total;
  std::memcpy(&total, static_cast<unsigned char*>(block) - 4, 4);
  Memory().PageDecommit(block, total);
}

uint32_t QXvirtualSize(void* block) {
  if (!block) return 0;  // the original read the word before null
  uint32_t total;
  std::memcpy(&total, static_cast<unsigned char*>(block) - 4, 4);
  return total - 4;
}

// --- Global blocks ------------------------------------------------------------------------------

void* QXglobalMalloc(uint32_t size) {
  if (InjectedFailure()) return Fail(kQXErrFailed);
  TQXPlatformMemory& memory = Memory();
  void* handle = memory.GlobalAlloc(gQXMemHeapFlags, size);
  if (!handle) return Fail(kQXErrFailed);
  return memory.GlobalLock(handle);
}

void QXglobalFree(void* block) {
  TQXPlatformMemory& memory = Memory();
  void* handle = memory.GlobalHandle(block);
  if (!handle) return;
  memory.GlobalUnlock(handle);
  memory.GlobalFree(handle);
}

// --- Hook and injector --------------------------------------------------------------------------

void QXMemSetHook(QXMemHookProc hook, uint32_t userData) {
  gQXMemHook = hook;
  gQXMemHookData = userData;
}

void QXMemGetHook(QXMemHookProc* hook, uint32_t* userData) {
  if (hook) *hook = gQXMemHook;
  if (userData) *userData = gQXMemHookData;
}

QXMemHookGuard::QXMemHookGuard() : fSaved(gQXMemHookOff) {
  gQXMemHookOff = 1;
}

QXMemHookGuard::~QXMemHookGuard() {
  gQXMemHookOff = fSaved;
}

uint32_t QXMemToggleFailures(uint32_t width) {
  gQXMemFailLow = 0x7FFFFFFFu - (width >> 1);
  gQXMemFailHigh = gQXMemFailLow + width;
  gQXMemFailEnabled = gQXMemFailEnabled ? 0 : 1;
  return gQXMemFailEnabled;
}

// --- User pools ---------------------------------------------------------------------------------

int16_t QXMemPoolCreate(int16_t size) {
  QXMemMgr* manager = QXMemEnsureManager();
  // The original went on with a null manager; here the pool is not made and -1 comes back, the
  // error word holding what the heap layer set.
  if (!manager) return -1;
  return manager->AddPool(size);
}

void* QXMemPoolMalloc(int16_t index) {
  QXMemMgr* manager = QXMemEnsureManager();
  unsigned char* s =
      manager ? manager->Alloc(index) : static_cast<unsigned char*>(Fail(kQXErrFailed));
  // The 4 is added whatever Alloc gave, so a failure gives the pointer value 4 (computed as an
  // integer: null plus 4 is no pointer arithmetic C++ allows).
  return reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(s) + 4);
}

void QXMemPoolFree(void* block) {
  Free(block);
}

// --- Test seams ---------------------------------------------------------------------------------

void QXMemFailAllocation(uint32_t nth, bool persistent) {
  if (nth == 0) {
    gPlan.armed = false;  // what was delivered stays readable
    return;
  }
  gPlan.armed = true;
  gPlan.persistent = persistent;
  gPlan.nth = nth;
  gPlan.runs = 0;
  gPlan.delivered = 0;
}

uint32_t QXMemFailuresDelivered() {
  return gPlan.delivered;
}

uint32_t QXMemLiveBlocks() {
  uint32_t live = gLiveLarge;
  if (gQXMemMgr) {
    for (int p = 0; p < QXMemMgr::kPools; ++p) {
      for (QXMemMgrBlock* b = gQXMemMgr->head[p]; b; b = b->next)
        live += uint32_t(b->used);
    }
  }
  return live;
}
