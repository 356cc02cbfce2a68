// The file stream against stdio in the same binary, on a 64 MiB file in a temporary directory
// (mapped to drive F:), written once before the runs so that reads come from a warm page cache:
//  - reading the whole file in 64 KiB pieces: Read against fread;
//  - reading it byte by byte: GetChar against getc_unlocked;
//  - writing 64 MiB in 64 KiB pieces to a fresh file, closing included: Write against fwrite.
// Both sides use a 64 KiB buffer (setvbuf for stdio). Ends with the ratio table: our throughput
// over stdio's, medians of the repetitions (3, interleaved at random, unless
// --benchmark_repetitions says otherwise); 1 is parity, above 1 is faster.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "QXBenchMain.h"
#include "QXDriveMap.h"
#include "QXFStream.h"

namespace {

constexpr uint32_t kFileBytes = 64u << 20;
constexpr uint32_t kPiece = 64u << 10;
constexpr uint32_t kBuffer = 64u << 10;

std::string gDir;  // the POSIX directory behind F:

std::string PosixPath(const char* name) {
  return gDir + "/" + name;
}

// Whether the written file holds the 64 MiB that were written.
bool WroteAll() {
  std::error_code ec;
  return std::filesystem::file_size(PosixPath("out.bin"), ec) == kFileBytes && !ec;
}

// --- Large reads ---------------------------------------------------------------------------

void ReadLargeOurs(benchmark::State& state) {
  std::vector<char> piece(kPiece);
  for (auto _ : state) {
    TQXfstream s("F:\\big.bin", kQXStreamReadable, kBuffer, nullptr);
    uint64_t total = 0;
    do {
      s.Read(piece.data(), int32_t(kPiece));
      total += uint32_t(s.lastCount);
      benchmark::DoNotOptimize(piece.data());
    } while (s.state == 0);
    if (total != kFileBytes) state.SkipWithError("short read");
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * kFileBytes);
}

void ReadLargeStdio(benchmark::State& state) {
  std::vector<char> piece(kPiece);
  const std::string path = PosixPath("big.bin");
  for (auto _ : state) {
    FILE* f = std::fopen(path.c_str(), "rb");
    std::setvbuf(f, nullptr, _IOFBF, kBuffer);
    uint64_t total = 0;
    size_t got;
    while ((got = std::fread(piece.data(), 1, kPiece, f)) > 0) {
      total += got;
      benchmark::DoNotOptimize(piece.data());
    }
    std::fclose(f);
    if (total != kFileBytes) state.SkipWithError("short read");
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * kFileBytes);
}

// --- Byte by byte --------------------------------------------------------------------------

void GetCharOurs(benchmark::State& state) {
  for (auto _ : state) {
    TQXfstream s("F:\\big.bin", kQXStreamReadable, kBuffer, nullptr);
    uint32_t sum = 0;
    char c = 0;
    for (;;) {
      s.GetChar(c);
      if (s.state != 0) break;
      sum += static_cast<unsigned char>(c);
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * kFileBytes);
}

void GetCharStdio(benchmark::State& state) {
  const std::string path = PosixPath("big.bin");
  for (auto _ : state) {
    FILE* f = std::fopen(path.c_str(), "rb");
    std::setvbuf(f, nullptr, _IOFBF, kBuffer);
    uint32_t sum = 0;
    int c;
    while ((c = getc_unlocked(f)) != EOF)
      sum += uint32_t(c);
    std::fclose(f);
    benchmark::DoNotOptimize(sum);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * kFileBytes);
}

// --- Large writes --------------------------------------------------------------------------

void WriteLargeOurs(benchmark::State& state) {
  const std::vector<char> piece(kPiece, 'w');
  for (auto _ : state) {
    TQXfstream s("F:\\out.bin", kQXStreamWritable, kBuffer, nullptr);
    for (uint32_t done = 0; done < kFileBytes; done += kPiece)
      s.Write(piece.data(), int32_t(kPiece));
    if (s.state != 0) state.SkipWithError("write failed");
  }
  if (!WroteAll()) state.SkipWithError("file not written");
  state.SetBytesProcessed(int64_t(state.iterations()) * kFileBytes);
}

void WriteLargeStdio(benchmark::State& state) {
  const std::vector<char> piece(kPiece, 'w');
  const std::string path = PosixPath("out.bin");
  for (auto _ : state) {
    FILE* f = std::fopen(path.c_str(), "wb");
    std::setvbuf(f, nullptr, _IOFBF, kBuffer);
    for (uint32_t done = 0; done < kFileBytes; done += kPiece)
      std::fwrite(piece.data(), 1, kPiece, f);
    if (std::fclose(f) != 0) state.SkipWithError("write failed");
  }
  if (!WroteAll()) state.SkipWithError("file not written");
  state.SetBytesProcessed(int64_t(state.iterations()) * kFileBytes);
}

struct Pair {
  const char* title;
  const char* ours;
  const char* anchor;
  void (*oursFn)(benchmark::State&);
  void (*anchorFn)(benchmark::State&);
};

const Pair kPairs[] = {
    {"read 64 KiB pieces", "read-large/ours", "read-large/fread", ReadLargeOurs, ReadLargeStdio},
    {"GetChar / getc_unlocked", "getchar/ours", "getchar/getc_unlocked", GetCharOurs, GetCharStdio},
    {"write 64 KiB pieces", "write-large/ours", "write-large/fwrite", WriteLargeOurs,
     WriteLargeStdio},
};

void PrintRatios(QXBenchMedians& reporter) {
  std::printf("\nThroughput TQXfstream / stdio, 64 MiB (medians; 1 is parity, above 1 faster)\n");
  std::printf("%-26s %10s %14s\n", "operation", "ratio", "stdio MiB/s");
  for (const Pair& p : kPairs) {
    const double ours = reporter.Time(p.ours);
    const double anchor = reporter.Time(p.anchor);
    if (ours <= 0 || anchor <= 0) continue;  // filtered out
    // Times are in milliseconds per iteration of 64 MiB.
    std::printf("%-26s %10.2f %14.0f\n", p.title, anchor / ours, 64.0 / (anchor * 1e-3));
  }
}

// The 64 MiB source file, written once and read once so that the page cache holds it.
bool MakeSource() {
  const std::string path = PosixPath("big.bin");
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) return false;
  std::vector<unsigned char> block(kPiece);
  uint32_t x = 12345;
  for (uint32_t done = 0; done < kFileBytes; done += kPiece) {
    for (unsigned char& b : block) {
      x = x * 1103515245u + 12345u;
      b = static_cast<unsigned char>(x >> 24);
    }
    std::fwrite(block.data(), 1, block.size(), f);
  }
  if (std::fclose(f) != 0) return false;
  f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) return false;
  while (std::fread(block.data(), 1, block.size(), f) > 0) {
  }
  std::fclose(f);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<char*> args(argv, argv + argc);
  if (!QXBenchInitialize(args)) return 1;
  std::string pattern = (std::filesystem::temp_directory_path() / "qx-fsbench-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) return 1;
  gDir = pattern;
  if (QXMapDrive('F', gDir.c_str()) != 0 || !MakeSource()) {
    std::fprintf(stderr, "cannot prepare %s\n", gDir.c_str());
    return 1;
  }
  for (const Pair& p : kPairs) {
    benchmark::RegisterBenchmark(p.ours, p.oursFn)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(p.anchor, p.anchorFn)->Unit(benchmark::kMillisecond);
  }
  QXBenchMedians reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  PrintRatios(reporter);
  benchmark::Shutdown();
  std::error_code ec;
  std::filesystem::remove_all(gDir, ec);
  QXMapDrive('F', nullptr);
  return 0;
}
