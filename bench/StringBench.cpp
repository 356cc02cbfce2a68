// The heap string against std::string in the same binary: building a text by appends (pieces of
// 16 bytes and single characters), SearchStr against std::string::find, and
// IsEqualNotCaseSensitive against a case-folding comparison of two std::strings. The heap
// string grows to exactly what each append needs, one reallocation per append, where
// std::string grows geometrically; the append rows show what that policy costs.
//
// The text role in force is the Linux one for the process locale (single-byte mode under the
// usual UTF-8 locales). Ends with the ratio table: our time over std::string's, medians of the
// repetitions (3, interleaved at random, unless --benchmark_repetitions says otherwise).
#include <benchmark/benchmark.h>

#include "QXBenchMain.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "QXString.h"

namespace {

// Up to 32 KiB: std::string then stays below glibc's mmap threshold, so the anchor measures
// appends and not the mapping and faulting of fresh pages on every iteration.
constexpr int64_t kAppendSizes[] = {256, 4 << 10, 32 << 10};
constexpr int64_t kSearchSizes[] = {256, 4 << 10, 64 << 10};
constexpr int64_t kCompareSizes[] = {16, 256, 1000};

std::string RandomLetters(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::string s(n, ' ');
  for (char& c : s)
    c = char('a' + rng() % 26);
  return s;
}

// --- Appends ------------------------------------------------------------------------------------

void AppendPiecesOurs(benchmark::State& state) {
  const auto n = size_t(state.range(0));
  TQXString15 piece("0123456789abcdef");
  for (auto _ : state) {
    TQXDynamicString s;
    for (size_t k = 0; k < n; k += 15)
      s += piece;
    benchmark::DoNotOptimize(s.StrGet());
  }
}

void AppendPiecesStd(benchmark::State& state) {
  const auto n = size_t(state.range(0));
  const std::string piece("0123456789abcde");
  for (auto _ : state) {
    std::string s;
    for (size_t k = 0; k < n; k += 15)
      s += piece;
    benchmark::DoNotOptimize(s.data());
  }
}

void AppendCharsOurs(benchmark::State& state) {
  const auto n = size_t(state.range(0));
  for (auto _ : state) {
    TQXDynamicString s;
    for (size_t k = 0; k < n; ++k)
      s += char('a' + k % 26);
    benchmark::DoNotOptimize(s.StrGet());
  }
}

void AppendCharsStd(benchmark::State& state) {
  const auto n = size_t(state.range(0));
  for (auto _ : state) {
    std::string s;
    for (size_t k = 0; k < n; ++k)
      s += char('a' + k % 26);
    benchmark::DoNotOptimize(s.data());
  }
}

// --- Search
// ---------------------------------------------------------------------------------------

// A needle that occurs once, near the end.
std::string Haystack(size_t n) {
  std::string h = RandomLetters(n, 1);
  h.replace(n - 12, 8, "NEEDLE!!");
  return h;
}

void SearchOurs(benchmark::State& state) {
  const TQXDynamicString hay(Haystack(size_t(state.range(0))));
  const TQXString15 needle("NEEDLE!!");
  for (auto _ : state)
    benchmark::DoNotOptimize(hay.SearchStr(needle, 0));
}

void SearchStd(benchmark::State& state) {
  const std::string hay = Haystack(size_t(state.range(0)));
  const std::string needle("NEEDLE!!");
  for (auto _ : state)
    benchmark::DoNotOptimize(hay.find(needle));
}

// --- Case-insensitive equality
// ----------------------------------------------------------------------

void EqualNoCaseOurs(benchmark::State& state) {
  std::string text = RandomLetters(size_t(state.range(0)), 2);
  std::string upper = text;
  for (char& c : upper)
    c = char(std::toupper(static_cast<unsigned char>(c)));
  const TQXDynamicString a(text), b(upper);
  for (auto _ : state)
    benchmark::DoNotOptimize(a.IsEqualNotCaseSensitive(b));
}

void EqualNoCaseStd(benchmark::State& state) {
  std::string text = RandomLetters(size_t(state.range(0)), 2);
  std::string upper = text;
  for (char& c : upper)
    c = char(std::toupper(static_cast<unsigned char>(c)));
  const std::string a(text), b(upper);
  for (auto _ : state) {
    bool equal =
        a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
          return std::toupper(static_cast<unsigned char>(x)) ==
                 std::toupper(static_cast<unsigned char>(y));
        });
    benchmark::DoNotOptimize(equal);
  }
}

struct Pair {
  const char* title;
  const char* ours;
  const char* anchor;
  void (*oursFn)(benchmark::State&);
  void (*anchorFn)(benchmark::State&);
  const int64_t* sizes;
};

const Pair kPairs[] = {
    {"append 15-byte pieces", "append-pieces/ours", "append-pieces/std", AppendPiecesOurs,
     AppendPiecesStd, kAppendSizes},
    {"append single chars", "append-chars/ours", "append-chars/std", AppendCharsOurs,
     AppendCharsStd, kAppendSizes},
    {"SearchStr / find", "search/ours", "search/std", SearchOurs, SearchStd, kSearchSizes},
    {"IsEqualNotCaseSensitive", "equal-nocase/ours", "equal-nocase/std", EqualNoCaseOurs,
     EqualNoCaseStd, kCompareSizes},
};

std::string SizeName(int64_t size) {
  if (size >= 1 << 10) return std::to_string(size >> 10) + " KiB";
  return std::to_string(size) + " B";
}

void PrintRatios(QXBenchMedians& reporter) {
  std::printf("\nTime TQXDynamicString / std::string (medians; above 1 is slower)\n");
  std::printf("%-26s %8s %10s %14s\n", "operation", "size", "ratio", "std::string ns");
  for (const Pair& p : kPairs) {
    for (int i = 0; i < 3; ++i) {
      const std::string arg = std::to_string(p.sizes[i]);
      const double ours = reporter.Time(std::string(p.ours) + "/" + arg);
      const double anchor = reporter.Time(std::string(p.anchor) + "/" + arg);
      if (ours <= 0 || anchor <= 0) continue;  // filtered out
      std::printf("%-26s %8s %10.2f %14.1f\n", p.title, SizeName(p.sizes[i]).c_str(), ours / anchor,
                  anchor);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<char*> args(argv, argv + argc);
  if (!QXBenchInitialize(args)) return 1;
  for (const Pair& p : kPairs) {
    auto* ours = benchmark::RegisterBenchmark(p.ours, p.oursFn);
    auto* anchor = benchmark::RegisterBenchmark(p.anchor, p.anchorFn);
    for (int i = 0; i < 3; ++i) {
      ours->Arg(p.sizes[i]);
      anchor->Arg(p.sizes[i]);
    }
  }
  QXBenchMedians reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  PrintRatios(reporter);
  benchmark::Shutdown();
  return 0;
}
