// A memory role that stands in front of the system's memory: it hands the real work on to
// TQXPlatformMemory::System(), so that blocks made before it was installed can be given back while
// it is installed and the other way round (the allocator's heap and pools live for the whole
// process), and it counts every call, logs the page calls in order and fails on demand:
//   - the nth HeapAlloc from now (1 = the next), once or from then on;
//   - HeapCreate, PageCommit, PageLock, SetWorkingSet, GlobalAlloc.
// Locking and the working set are kept in memory: nothing is pinned and no process limit changes.
// The fake's page size is its own (pageSize), used for the working set only; pages themselves are
// the system's.
#ifndef QXFAKEMEMORY_H
#define QXFAKEMEMORY_H

#include <string>
#include <vector>

#include "Platform/QXPlatformMemory.h"

class TQXFakeMemory final : public TQXPlatformMemory {
 public:
  // The nth HeapAlloc from now fails (1: the next one); with `persistent` every one after it too.
  // 0 stops failing.
  void FailHeapAlloc(uint32_t nth, bool persistent = false) {
    heapAllocCountdown = nth;
    heapAllocPersistent = persistent;
  }

  Heap HeapCreate(size_t initialSize) override;
  void* HeapAlloc(Heap heap, size_t n) override;
  bool HeapFree(Heap heap, void* block) override;
  size_t HeapSize(Heap heap, const void* block) override;

  uint32_t PageSize() override { return pageSize; }
  void* PageCommit(size_t n) override;
  bool PageDecommit(void* p, size_t n) override;
  bool PageRelease(void* base, size_t n) override;
  bool PageLock(void* p, size_t n) override;
  bool PageUnlock(void* p, size_t n) override;
  bool SetWorkingSet(uint32_t minimum, uint32_t maximum) override;
  bool GetWorkingSet(uint32_t* minimum, uint32_t* maximum) override;

  void* GlobalAlloc(uint32_t flags, size_t n) override;
  void* GlobalLock(void* handle) override;
  void* GlobalHandle(const void* p) override;
  bool GlobalUnlock(void* handle) override;
  void* GlobalFree(void* handle) override;

  // Scripted failures.
  uint32_t heapAllocCountdown = 0;
  bool heapAllocPersistent = false;
  bool failHeapCreate = false;
  bool failCommit = false;
  bool failLock = false;
  bool failSetWorkingSet = false;
  bool failGlobalAlloc = false;
  uint32_t pageSize = 4096;

  // What happened.
  uint32_t heapCreates = 0;
  uint32_t heapAllocs = 0;  // calls, failed ones included
  uint32_t heapAllocsFailed = 0;
  uint32_t heapFrees = 0;
  uint32_t globalAllocs = 0;
  uint32_t globalFrees = 0;
  std::vector<size_t> heapAllocSizes;
  // Page and global calls in order, as "Commit 100", "Lock", "Unlock", "Decommit", "Release",
  // "GlobalAlloc 8", "GlobalFree".
  std::vector<std::string> log;
  uint32_t workingSetMin = 204800;
  uint32_t workingSetMax = 1413120;
};

#endif  // QXFAKEMEMORY_H
