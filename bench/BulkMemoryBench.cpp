// Bulk memory against glibc in the same binary: QXmemcpy against memcpy, QXmemmove with dst one
// and 64 bytes above src (a backward move) against memmove, QXmemfill against memset, each on the
// plain path (gMMX false) and the wide path, at 64 B, 4 KiB, 256 KiB and 16 MiB. A fill with a
// 4-byte pattern whose bytes differ (the pixel rows' case, which memset cannot do) is measured
// against memset as well. Ends with the ratio table: our bytes per second over glibc's, medians
// of the repetitions (3, interleaved at random, unless --benchmark_repetitions says otherwise).
// --kernels=NAME measures the wide path with another kernel set this processor can run (portable,
// sse2, avx2, avx512).
#include <benchmark/benchmark.h>

#include <gnu/libc-version.h>
#include "QXBenchMain.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "QXGlobals.h"
#include "QXMemory.h"
#include "memory/QXBulkMemoryWide.h"

namespace {

enum class Op { kCopy, kMove1, kMove64, kFill, kFillPattern };
enum class Impl { kGlibc, kPlain, kWide };

constexpr const char* kOpNames[] = {"copy", "move+1", "move+64", "fill", "fill-pattern"};
constexpr const char* kOpTitles[] = {"QXmemcpy / memcpy", "QXmemmove +1 / memmove",
                                     "QXmemmove +64 / memmove", "QXmemfill / memset",
                                     "QXmemfill 0x04030201 / memset"};
constexpr const char* kImplNames[] = {"glibc", "plain", "wide"};
constexpr int64_t kSizes[] = {64, 4 << 10, 256 << 10, 16 << 20};

// Two 64-byte aligned blocks of n + 64 bytes, made once per size and touched at once, so that no
// page fault lands in a timed loop and every implementation works on the very same pages: fresh
// pages of 16 MiB were seen to run at 40 or at 90 GB/s from one allocation to the next here.
struct Blocks {
  unsigned char* a;
  unsigned char* b;
};
Blocks BlocksFor(size_t n) {
  static std::map<size_t, Blocks> made;
  Blocks& blocks = made[n];
  if (blocks.a == nullptr) {
    const size_t bytes = (n + 64 + 63) / 64 * 64;
    blocks.a = static_cast<unsigned char*>(std::aligned_alloc(64, bytes));
    blocks.b = static_cast<unsigned char*>(std::aligned_alloc(64, bytes));
    std::memset(blocks.a, 1, bytes);
    std::memset(blocks.b, 2, bytes);
  }
  return blocks;  // kept to the end of the program
}

template <Op op, Impl impl>
void Measure(benchmark::State& state) {
  const size_t n = size_t(state.range(0));
  const size_t shift = op == Op::kMove1 ? 1 : op == Op::kMove64 ? 64 : 0;
  const Blocks blocks = BlocksFor(n);
  unsigned char* src = blocks.a;
  unsigned char* dst = op == Op::kCopy ? blocks.b : blocks.a + shift;  // moves, fills: one block
  const int32_t len = int32_t(n);
  TWIN_QXGlobals::gMMX = impl == Impl::kWide;
  for (auto _ : state) {
    if constexpr (op == Op::kCopy) {
      if constexpr (impl == Impl::kGlibc)
        std::memcpy(dst, src, n);
      else
        QXmemcpy(dst, src, len);
    } else if constexpr (op == Op::kMove1 || op == Op::kMove64) {
      if constexpr (impl == Impl::kGlibc)
        std::memmove(dst, src, n);
      else
        QXmemmove(dst, src, len);
    } else {
      const int32_t value = op == Op::kFill ? 0x3C3C3C3C : 0x04030201;
      if constexpr (impl == Impl::kGlibc)
        std::memset(dst, value & 0xFF, n);
      else
        QXmemfill(value, dst, len);
    }
    benchmark::DoNotOptimize(dst);
    benchmark::ClobberMemory();
  }
  TWIN_QXGlobals::gMMX = false;
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(n));
}

template <Op op>
void RegisterOp() {
  using Fn = void (*)(benchmark::State&);
  const Fn fns[] = {Measure<op, Impl::kGlibc>, Measure<op, Impl::kPlain>, Measure<op, Impl::kWide>};
  for (int impl = 0; impl < 3; ++impl) {
    if (op == Op::kFillPattern && impl == 0) continue;  // the anchor is the fill's memset
    const std::string name = std::string(kOpNames[int(op)]) + "/" + kImplNames[impl];
    auto* b = benchmark::RegisterBenchmark(name.c_str(), fns[impl]);
    for (int64_t size : kSizes)
      b->Arg(size);
  }
}

// The name under which a run is registered: "op/impl/size".
std::string Key(const char* op, const char* impl, int64_t size) {
  char key[64];
  std::snprintf(key, sizeof key, "%s/%s/%lld", op, impl, static_cast<long long>(size));
  return key;
}

std::string SizeName(int64_t size) {
  if (size >= 1 << 20) return std::to_string(size >> 20) + " MiB";
  if (size >= 1 << 10) return std::to_string(size >> 10) + " KiB";
  return std::to_string(size) + " B";
}

void PrintRatios(QXBenchMedians& reporter) {
  std::printf("\nRatio ours / glibc in bytes per second (medians). glibc %s, wide kernels: %s\n",
              gnu_get_libc_version(), QXBulkWide().name);
  std::printf("%-30s %8s %8s %8s %12s\n", "operation", "size", "plain", "wide", "glibc GB/s");
  for (int op = 0; op < 5; ++op) {
    const char* anchorOp = op == int(Op::kFillPattern) ? "fill" : kOpNames[op];
    for (int64_t size : kSizes) {
      const double glibc = reporter.Rate(Key(anchorOp, "glibc", size));
      const double plain = reporter.Rate(Key(kOpNames[op], "plain", size));
      const double wide = reporter.Rate(Key(kOpNames[op], "wide", size));
      if (glibc <= 0 || (plain <= 0 && wide <= 0)) continue;  // filtered out
      std::printf("%-30s %8s %8.2f %8.2f %12.2f\n", kOpTitles[op], SizeName(size).c_str(),
                  plain / glibc, wide / glibc, glibc / 1e9);
    }
  }
}

}  // namespace

// Pins the kernel set named by --kernels=NAME, if any, and takes the option out of the arguments.
bool PinKernels(std::vector<char*>& args) {
  for (auto a = args.begin(); a != args.end(); ++a) {
    if (std::strncmp(*a, "--kernels=", 10) != 0) continue;
    const char* name = *a + 10;
    args.erase(a);
    const QXBulkKernels* sets[8];
    const int count = QXBulkAvailableKernels(sets, 8);
    for (int k = 0; k < count; ++k) {
      if (std::strcmp(sets[k]->name, name) == 0) {
        QXBulkPinKernels(sets[k]);
        return true;
      }
    }
    std::fprintf(stderr, "no kernel set '%s' on this processor\n", name);
    return false;
  }
  QXBulkChooseKernels();
  return true;
}

int main(int argc, char** argv) {
  std::vector<char*> args(argv, argv + argc);
  if (!PinKernels(args)) return 1;
  if (!QXBenchInitialize(args)) return 1;
  RegisterOp<Op::kCopy>();
  RegisterOp<Op::kMove1>();
  RegisterOp<Op::kMove64>();
  RegisterOp<Op::kFill>();
  RegisterOp<Op::kFillPattern>();
  QXBenchMedians reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  PrintRatios(reporter);
  benchmark::Shutdown();
  return 0;
}
