#include "Platform/Fake/QXFakeMemory.h"

namespace {
TQXPlatformMemory& Real() {
  return TQXPlatformMemory::System();
}
}  // namespace

TQXPlatformMemory::Heap TQXFakeMemory::HeapCreate(size_t initialSize) {
  ++heapCreates;
  return failHeapCreate ? nullptr : Real().HeapCreate(initialSize);
}

void* TQXFakeMemory::HeapAlloc(Heap heap, size_t n) {
  ++heapAllocs;
  heapAllocSizes.push_back(n);
  if (heapAllocCountdown != 0) {
    if (heapAllocCountdown == 1) {
      if (!heapAllocPersistent) heapAllocCountdown = 0;
      ++heapAllocsFailed;
      return nullptr;
    }
    --heapAllocCountdown;
  }
  return Real().HeapAlloc(heap, n);
}

bool TQXFakeMemory::HeapFree(Heap heap, void* block) {
  ++heapFrees;
  return Real().HeapFree(heap, block);
}

size_t TQXFakeMemory::HeapSize(Heap heap, const void* block) {
  return Real().HeapSize(heap, block);
}

void* TQXFakeMemory::PageCommit(size_t n) {
  log.push_back("Commit " + std::to_string(n));
  return failCommit ? nullptr : Real().PageCommit(n);
}

bool TQXFakeMemory::PageDecommit(void* p, size_t n) {
  log.push_back("Decommit");
  return Real().PageDecommit(p, n);
}

bool TQXFakeMemory::PageRelease(void* base, size_t n) {
  log.push_back("Release");
  return Real().PageRelease(base, n);
}

// Nothing is pinned. The range is checked against the system's regions through an unlock, which
// pins nothing and fails exactly where a lock would for want of a region.
bool TQXFakeMemory::PageLock(void* p, size_t n) {
  log.push_back("Lock");
  return !failLock && Real().PageUnlock(p, n);
}

bool TQXFakeMemory::PageUnlock(void* p, size_t n) {
  log.push_back("Unlock");
  return Real().PageUnlock(p, n);
}

bool TQXFakeMemory::SetWorkingSet(uint32_t minimum, uint32_t maximum) {
  if (failSetWorkingSet || minimum > maximum) return false;
  if (minimum == 0xFFFFFFFFu) return true;  // the request to trim: nothing to record
  // Rounded up to pages, as the system reports what it put in force.
  auto round = [this](uint32_t v) {
    uint64_t page = pageSize ? pageSize : 1;
    uint64_t r = (uint64_t(v) + page - 1) / page * page;
    return r > 0xFFFFFFFFu ? 0xFFFFFFFFu : uint32_t(r);
  };
  workingSetMin = round(minimum);
  workingSetMax = round(maximum);
  return true;
}

bool TQXFakeMemory::GetWorkingSet(uint32_t* minimum, uint32_t* maximum) {
  *minimum = workingSetMin;
  *maximum = workingSetMax;
  return true;
}

void* TQXFakeMemory::GlobalAlloc(uint32_t flags, size_t n) {
  ++globalAllocs;
  log.push_back("GlobalAlloc " + std::to_string(n));
  return failGlobalAlloc ? nullptr : Real().GlobalAlloc(flags, n);
}

void* TQXFakeMemory::GlobalLock(void* handle) {
  return Real().GlobalLock(handle);
}

void* TQXFakeMemory::GlobalHandle(const void* p) {
  return Real().GlobalHandle(p);
}

bool TQXFakeMemory::GlobalUnlock(void* handle) {
  return Real().GlobalUnlock(handle);
}

void* TQXFakeMemory::GlobalFree(void* handle) {
  ++globalFrees;
  log.push_back("GlobalFree");
  return Real().GlobalFree(handle);
}
