// The allocator against glibc malloc and mimalloc, single thread, in one binary.
//
// Workloads:
//   pair16, pair64   allocate and free n bytes, 10 million times
//   churn4096        10,000 live slots; each step frees a random slot and allocates 1 to 4096
//                    bytes into it (fixed seed, the same sequence for every allocator)
//   churn256         the same with 1 to 256 bytes
//   scattered/N      N live 16-byte blocks, then steps of one free at a random place and one
//                    allocation; the cost per step must not grow with N (each step leaves a
//                    single hole somewhere among N / 800 full blocks for the next allocation)
//   holes/N          N live 16-byte blocks; rounds of 1024 frees at random places (not timed)
//                    and 1024 allocations (timed): the cost of one allocation that has to find
//                    the first block with room, among N / 800 blocks
// The column "QX+walk" is QXmalloc preceded by the walk that the pool's list would need without
// the manager's side index (from the head to the first block with a free sub-block): what an
// allocation would cost if it walked the full blocks.
// Each measurement runs in a child process of its own, so that no allocator inherits another's
// heap, and reports its time and its peak resident memory above the child's start (VmHWM reset
// through /proc/self/clear_refs). Each is repeated and the median printed, with the ratio of the
// anchors' time to ours (above 1: we are faster) and of our peak memory to glibc's.
//
// mimalloc is loaded with dlopen(RTLD_LOCAL): Debian's libmimalloc.so defines malloc and free
// itself, and linking it would silently turn the glibc anchor (and every other malloc of the
// process) into mimalloc.
//
//   qx_allocator_bench [--benchmark_filter=SUBSTRING] [--allocator=NAME] [--repeat=N] [--scale=F]
//                      [--walk] [--floor]
// (--walk adds the QX+walk column, --floor a column for the harness alone.)
// (--allocator keeps one column, for a profiler's counts of one allocator alone.)
#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "QXMemory.h"
#include "memory/QXAllocatorInternal.h"
#include "memory/QXMemMgr.h"

namespace {

struct Allocator {
  const char* name;
  void* (*alloc)(size_t);
  void (*release)(void*);
};

volatile uintptr_t gWalkSink;

void* QXAlloc(size_t n) {
  return QXmalloc(uint32_t(n));
}
void QXRelease(void* p) {
  QXfree(p);
}
// The walk from the head of the 16-byte pool to its first block with room.
void* WalkThenAlloc(size_t n) {
  if (gQXMemMgr && n == 16) {
    QXMemMgrBlock* b = gQXMemMgr->head[QXMemMgr::PoolIndex(16)];
    while (b && b->freeHead == 0)
      b = b->next;
    gWalkSink = reinterpret_cast<uintptr_t>(b);
  }
  return QXmalloc(uint32_t(n));
}

// The harness alone: one static buffer, nothing freed. Its time is the floor of every column.
alignas(64) unsigned char gScratch[4096];
void* NoAlloc(size_t) {
  return gScratch;
}
void NoRelease(void*) {}
void* LibcAlloc(size_t n) {
  return malloc(n);
}
void LibcRelease(void* p) {
  free(p);
}

// xorshift64*: the same sequence for every allocator.
struct Rng {
  uint64_t s = 0x9E3779B97F4A7C15ull;
  uint32_t Next() {
    s ^= s >> 12;
    s ^= s << 25;
    s ^= s >> 27;
    return uint32_t((s * 0x2545F4914F6CDD1Dull) >> 32);
  }
};

inline void Touch(void* p, size_t n) {
  auto* b = static_cast<volatile unsigned char*>(p);
  b[0] = 1;
  b[n - 1] = 2;
}

// Time is the process's CPU time, not the wall clock: the machine is shared, and a process that
// waits for a core does not run slower, only later.
double Now() {
  timespec ts;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

// --- Workloads: each returns its time in seconds and the operations it made ---------------------

struct Run {
  double seconds;
  double operations;
};

Run Pair(const Allocator& a, size_t n, uint64_t count) {
  const double t0 = Now();
  for (uint64_t i = 0; i < count; ++i) {
    void* p = a.alloc(n);
    Touch(p, n);
    a.release(p);
  }
  return {Now() - t0, double(count)};
}

Run Churn(const Allocator& a, uint32_t maxSize, uint64_t steps) {
  const uint32_t kSlots = 10000;
  std::vector<void*> slots(kSlots);
  Rng rng;
  for (auto& s : slots) {
    size_t n = 1 + rng.Next() % maxSize;
    s = a.alloc(n);
    Touch(s, n);
  }
  const double t0 = Now();
  for (uint64_t i = 0; i < steps; ++i) {
    uint32_t k = rng.Next() % kSlots;
    a.release(slots[k]);
    size_t n = 1 + rng.Next() % maxSize;
    slots[k] = a.alloc(n);
    Touch(slots[k], n);
  }
  Run r{Now() - t0, double(steps)};
  for (void* s : slots)
    a.release(s);
  return r;
}

Run Scattered(const Allocator& a, uint32_t live, uint64_t steps) {
  std::vector<void*> blocks(live);
  for (auto& b : blocks) {
    b = a.alloc(16);
    Touch(b, 16);
  }
  Rng rng;
  const double t0 = Now();
  for (uint64_t i = 0; i < steps; ++i) {
    uint32_t k = rng.Next() % live;
    a.release(blocks[k]);
    blocks[k] = a.alloc(16);
    Touch(blocks[k], 16);
  }
  Run r{Now() - t0, double(steps)};
  for (void* b : blocks)
    a.release(b);
  return r;
}

Run Holes(const Allocator& a, uint32_t live, uint32_t rounds) {
  const uint32_t kHoles = 1024;
  std::vector<void*> blocks(live);
  for (auto& b : blocks) {
    b = a.alloc(16);
    Touch(b, 16);
  }
  Rng rng;
  std::vector<uint32_t> freed(kHoles);
  double seconds = 0;
  for (uint32_t r = 0; r < rounds; ++r) {
    for (auto& k : freed) {
      do {
        k = rng.Next() % live;
      } while (!blocks[k]);
      a.release(blocks[k]);
      blocks[k] = nullptr;
    }
    const double t0 = Now();
    for (uint32_t k : freed) {
      blocks[k] = a.alloc(16);
      Touch(blocks[k], 16);
    }
    seconds += Now() - t0;
  }
  for (void* b : blocks)
    a.release(b);
  return {seconds, double(rounds) * kHoles};
}

// --- Child processes ----------------------------------------------------------------------------

long StatusKb(const char* field) {
  FILE* f = std::fopen("/proc/self/status", "r");
  if (!f) return 0;
  char line[256];
  long kb = 0;
  size_t len = std::strlen(field);
  while (std::fgets(line, sizeof line, f))
    if (std::strncmp(line, field, len) == 0) kb = std::atol(line + len);
  std::fclose(f);
  return kb;
}

struct Measure {
  double nsPerOp;
  long peakKb;
};

template <class Work>
Measure InChild(Work work) {
  int fds[2];
  if (pipe(fds) != 0) return {0, 0};
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    int clear = open("/proc/self/clear_refs", O_WRONLY);
    if (clear >= 0) {
      ssize_t w = write(clear, "5", 1);  // reset the peak to the current resident size
      (void)w;
      close(clear);
    }
    long base = StatusKb("VmRSS:");
    Run r = work();
    Measure m{r.seconds * 1e9 / r.operations, StatusKb("VmHWM:") - base};
    ssize_t w = write(fds[1], &m, sizeof m);
    (void)w;
    _exit(0);
  }
  close(fds[1]);
  Measure m{0, 0};
  ssize_t got = read(fds[0], &m, sizeof m);
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (got != ssize_t(sizeof m) || !WIFEXITED(status)) std::fprintf(stderr, "child failed\n");
  return m;
}

template <class Work>
Measure Median(int repeat, Work work) {
  std::vector<Measure> all;
  for (int i = 0; i < repeat; ++i)
    all.push_back(InChild(work));
  std::sort(all.begin(), all.end(),
            [](const Measure& x, const Measure& y) { return x.nsPerOp < y.nsPerOp; });
  Measure m = all[all.size() / 2];
  std::vector<long> peaks;
  for (const Measure& x : all)
    peaks.push_back(x.peakKb);
  std::sort(peaks.begin(), peaks.end());
  m.peakKb = peaks[peaks.size() / 2];
  return m;
}

}  // namespace

int main(int argc, char** argv) {
  std::string filter, only;
  int repeat = 5;
  double scale = 1.0;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg.rfind("--benchmark_filter=", 0) == 0) filter = arg.substr(19);
    if (arg.rfind("--repeat=", 0) == 0) repeat = std::max(1, std::atoi(arg.c_str() + 9));
    if (arg.rfind("--scale=", 0) == 0) scale = std::atof(arg.c_str() + 8);
    if (arg.rfind("--allocator=", 0) == 0) only = arg.substr(12);
  }

  std::vector<Allocator> allocators = {{"QXmalloc", QXAlloc, QXRelease},
                                       {"glibc", LibcAlloc, LibcRelease}};
  const bool floor = std::find(argv + 1, argv + argc, std::string("--floor")) != argv + argc;
  void* mi = dlopen(QX_MIMALLOC_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  if (mi) {
    auto alloc = reinterpret_cast<void* (*)(size_t)>(dlsym(mi, "mi_malloc"));
    auto release = reinterpret_cast<void (*)(void*)>(dlsym(mi, "mi_free"));
    if (alloc && release) allocators.push_back({"mimalloc", alloc, release});
  } else {
    std::printf("mimalloc not loaded (%s): its column is left out\n", dlerror());
  }
  if (floor) allocators.push_back({"harness", NoAlloc, NoRelease});
  const bool walk = std::find(argv + 1, argv + argc, std::string("--walk")) != argv + argc;
  if (walk) allocators.push_back({"QX+walk", WalkThenAlloc, QXRelease});
  if (!only.empty()) {
    std::erase_if(allocators, [&](const Allocator& a) { return only != a.name; });
    if (allocators.empty()) return 2;
  }
  Dl_info info;
  if (dladdr(reinterpret_cast<void*>(&malloc), &info) && info.dli_fname)
    std::printf("malloc comes from %s\n", info.dli_fname);

  auto steps = [scale](double n) { return uint64_t(std::max(1.0, n * scale)); };
  struct Workload {
    std::string name;
    std::function<Run(const Allocator&)> run;
  };
  std::vector<Workload> workloads = {
      {"pair16", [&](const Allocator& a) { return Pair(a, 16, steps(1e7)); }},
      {"pair64", [&](const Allocator& a) { return Pair(a, 64, steps(1e7)); }},
      {"churn4096", [&](const Allocator& a) { return Churn(a, 4096, steps(1e7)); }},
      {"churn256", [&](const Allocator& a) { return Churn(a, 256, steps(1e7)); }},
  };
  for (uint32_t live : {10000u, 100000u, 1000000u}) {
    workloads.push_back({"scattered/" + std::to_string(live),
                         [&, live](const Allocator& a) { return Scattered(a, live, steps(5e6)); }});
  }
  for (uint32_t live : {10000u, 100000u, 1000000u}) {
    workloads.push_back({"holes/" + std::to_string(live), [&, live](const Allocator& a) {
                           return Holes(a, live, uint32_t(steps(2000)));
                         }});
  }

  std::printf(
      "median of %d runs, each in its own process; CPU ns per step (an allocation and a free;\n"
      "holes: one allocation); ratios above 1: the anchor is slower than QXmalloc\n",
      repeat);
  std::printf("%-18s", "workload");
  for (const Allocator& a : allocators)
    std::printf(" %12s", a.name);
  for (size_t i = 1; i < allocators.size(); ++i)
    std::printf("  %s/QX", allocators[i].name);
  std::printf("   peak KiB:");
  for (const Allocator& a : allocators)
    std::printf(" %10s", a.name);
  std::printf("  QX/glibc\n");
  for (const Workload& w : workloads) {
    if (!filter.empty() && w.name.find(filter) == std::string::npos) continue;
    std::vector<Measure> m;
    for (const Allocator& a : allocators)
      m.push_back(Median(repeat, [&] { return w.run(a); }));
    std::printf("%-18s", w.name.c_str());
    for (const Measure& x : m)
      std::printf(" %12.2f", x.nsPerOp);
    for (size_t i = 1; i < m.size(); ++i)
      std::printf("  %*.2f", int(std::strlen(allocators[i].name) + 3), m[i].nsPerOp / m[0].nsPerOp);
    std::printf("   peak KiB:");
    for (const Measure& x : m)
      std::printf(" %10ld", x.peakKb);
    if (m.size() > 1)
      std::printf("  %8.2f", m[1].peakKb > 0 ? double(m[0].peakKb) / double(m[1].peakKb) : 0.0);
    std::printf("\n");
    std::fflush(stdout);
  }
  return 0;
}
