// The memory role on Linux.
//
// Heap: TQXLinuxHeap, a heap of its own over mmap (see QXLinuxHeap.h for why not malloc).
// Pages: each PageCommit is one anonymous mapping, zeroed and read-write; the role remembers the
// regions it made, so that a decommit, lock or release is checked against its region and never
// reaches a neighbouring mapping. Decommit maps the range afresh with PROT_NONE: the contents are
// dropped, access faults, and the addresses stay reserved until the region is released. Locking is
// mlock; the working set's minimum is RLIMIT_MEMLOCK's soft limit (the amount that may be pinned,
// which is what the minimum working set bounds on the original platform) and its maximum
// RLIMIT_RSS's soft limit, which Linux records and reports but does not enforce. A request of
// 0xFFFFFFFF for both (the original's "trim the working set") is accepted and changes nothing.
// Global blocks: fixed blocks from the C library's malloc, the handle being the pointer; the role
// keeps the live ones in a table so that GlobalHandle answers null for any other pointer.
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "Platform/Linux/QXLinuxHeap.h"
#include "Platform/QXPlatform.h"
#include "Platform/QXPlatformMemory.h"

namespace {

// A sorted table of address ranges [base, base + size), kept in C-library memory.
class RegionTable {
 public:
  struct Region {
    uintptr_t base;
    size_t size;
  };

  bool Insert(uintptr_t base, size_t size) {
    if (fCount == fCapacity) {
      size_t capacity = fCapacity ? fCapacity * 2 : 16;
      auto* grown = static_cast<Region*>(std::realloc(fRegions, capacity * sizeof(Region)));
      if (!grown) return false;
      fRegions = grown;
      fCapacity = capacity;
    }
    size_t i = LowerBound(base);
    std::memmove(fRegions + i + 1, fRegions + i, (fCount - i) * sizeof(Region));
    fRegions[i] = {base, size};
    ++fCount;
    return true;
  }
  // Index of the region that holds address a, or -1.
  long Containing(uintptr_t a) const {
    size_t i = LowerBound(a + 1);  // first region with base > a
    if (i == 0) return -1;
    const Region& r = fRegions[i - 1];
    return a - r.base < r.size ? long(i - 1) : -1;
  }
  const Region& operator[](long i) const { return fRegions[i]; }
  void Erase(long i) {
    std::memmove(fRegions + i, fRegions + i + 1, (fCount - size_t(i) - 1) * sizeof(Region));
    --fCount;
  }

 private:
  size_t LowerBound(uintptr_t base) const {
    size_t lo = 0, hi = fCount;
    while (lo < hi) {
      size_t mid = (lo + hi) / 2;
      if (fRegions[mid].base < base) {
        lo = mid + 1;
      } else {
        hi = mid;
      }
    }
    return lo;
  }

  Region* fRegions = nullptr;
  size_t fCount = 0;
  size_t fCapacity = 0;
};

class TQXLinuxMemory final : public TQXPlatformMemory {
 public:
  TQXLinuxMemory() {
    long page = sysconf(_SC_PAGESIZE);
    fPageSize = page > 0 ? uint32_t(page) : 4096u;
  }

  Heap HeapCreate(size_t initialSize) override { return TQXLinuxHeap::Create(initialSize); }
  void* HeapAlloc(Heap heap, size_t n) override {
    return heap ? static_cast<TQXLinuxHeap*>(heap)->Allocate(n) : nullptr;
  }
  bool HeapFree(Heap heap, void* block) override {
    if (!heap) return false;
    static_cast<TQXLinuxHeap*>(heap)->Free(block);
    return true;
  }
  size_t HeapSize(Heap heap, const void* block) override {
    return heap && block ? static_cast<TQXLinuxHeap*>(heap)->Size(block) : 0;
  }

  uint32_t PageSize() override { return fPageSize; }

  void* PageCommit(size_t n) override {
    if (n == 0 || n > (size_t(1) << 46)) return nullptr;
    size_t bytes = RoundUp(n);
    void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) return nullptr;
    if (!fRegions.Insert(reinterpret_cast<uintptr_t>(p), bytes)) {
      munmap(p, bytes);
      return nullptr;
    }
    return p;
  }

  bool PageDecommit(void* p, size_t n) override {
    uintptr_t from, to;
    if (!PagesInOneRegion(p, n, from, to)) return false;
    void* r = mmap(reinterpret_cast<void*>(from), to - from, PROT_NONE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED | MAP_NORESERVE, -1, 0);
    return r != MAP_FAILED;
  }

  bool PageRelease(void* base, size_t) override {
    long i = fRegions.Containing(reinterpret_cast<uintptr_t>(base));
    if (i < 0 || fRegions[i].base != reinterpret_cast<uintptr_t>(base)) return false;
    if (munmap(base, fRegions[i].size) != 0) return false;
    fRegions.Erase(i);
    return true;
  }

  bool PageLock(void* p, size_t n) override {
    uintptr_t from, to;
    return PagesInOneRegion(p, n, from, to) && mlock(reinterpret_cast<void*>(from), to - from) == 0;
  }
  bool PageUnlock(void* p, size_t n) override {
    uintptr_t from, to;
    return PagesInOneRegion(p, n, from, to) &&
           munlock(reinterpret_cast<void*>(from), to - from) == 0;
  }

  bool SetWorkingSet(uint32_t minimum, uint32_t maximum) override {
    if (minimum == 0xFFFFFFFFu && maximum == 0xFFFFFFFFu) return true;
    if (minimum > maximum) return false;
    rlimit lock, rss;
    if (getrlimit(RLIMIT_MEMLOCK, &lock) != 0 || getrlimit(RLIMIT_RSS, &rss) != 0) return false;
    rlimit newLock = {minimum, lock.rlim_max};
    rlimit newRss = {maximum, rss.rlim_max};
    if (setrlimit(RLIMIT_MEMLOCK, &newLock) != 0) return false;
    if (setrlimit(RLIMIT_RSS, &newRss) != 0) {
      setrlimit(RLIMIT_MEMLOCK, &lock);
      return false;
    }
    return true;
  }
  bool GetWorkingSet(uint32_t* minimum, uint32_t* maximum) override {
    rlimit lock, rss;
    if (getrlimit(RLIMIT_MEMLOCK, &lock) != 0 || getrlimit(RLIMIT_RSS, &rss) != 0) return false;
    *minimum = Clamp32(lock.rlim_cur);
    *maximum = Clamp32(rss.rlim_cur);
    return true;
  }

  void* GlobalAlloc(uint32_t, size_t n) override {
    void* p = std::malloc(n ? n : 1);
    if (!p) return nullptr;
    if (!fGlobals.Insert(reinterpret_cast<uintptr_t>(p), 1)) {
      std::free(p);
      return nullptr;
    }
    return p;
  }
  void* GlobalLock(void* handle) override { return IsGlobal(handle) ? handle : nullptr; }
  void* GlobalHandle(const void* p) override {
    return IsGlobal(p) ? const_cast<void*>(p) : nullptr;
  }
  bool GlobalUnlock(void* handle) override { return IsGlobal(handle); }
  void* GlobalFree(void* handle) override {
    long i = fGlobals.Containing(reinterpret_cast<uintptr_t>(handle));
    if (i < 0 || fGlobals[i].base != reinterpret_cast<uintptr_t>(handle)) return handle;
    fGlobals.Erase(i);
    std::free(handle);
    return nullptr;
  }

 private:
  size_t RoundUp(size_t n) const { return (n + fPageSize - 1) & ~size_t(fPageSize - 1); }
  static uint32_t Clamp32(rlim_t v) { return v >= 0xFFFFFFFFu ? 0xFFFFFFFFu : uint32_t(v); }

  bool IsGlobal(const void* p) const {
    long i = fGlobals.Containing(reinterpret_cast<uintptr_t>(p));
    return i >= 0 && fGlobals[i].base == reinterpret_cast<uintptr_t>(p);
  }

  // The page range [from, to) that covers [p, p + n), if it lies in one region of ours.
  bool PagesInOneRegion(void* p, size_t n, uintptr_t& from, uintptr_t& to) const {
    uintptr_t a = reinterpret_cast<uintptr_t>(p);
    long i = fRegions.Containing(a);
    if (i < 0) return false;
    const auto& r = fRegions[i];
    from = a & ~uintptr_t(fPageSize - 1);
    size_t span = a - r.base;
    if (n > r.size - span) return false;  // runs past the region's end
    to = r.base + RoundUp(span + n);
    if (to == from) to = from + fPageSize;  // an empty range still names its page
    return true;
  }

  uint32_t fPageSize;
  RegionTable fRegions;
  RegionTable fGlobals;
};

}  // namespace

TQXPlatformMemory& TQXPlatformMemory::System() {
  static QXPlatform::NoDestructor<TQXLinuxMemory> memory;
  return memory.get();
}
