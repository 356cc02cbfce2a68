// The token text format through a memory stream: writing a 32 MiB document of mixed values
// (blocks, numbers, strings with escapes, points, rectangles, hex blocks, doubles) and reading it
// back with the matching readers, against a plain memcpy of the same bytes as the anchor.
//
// The writer works on caller memory large enough for the document, so the figure is the
// format's own cost and not the growth policy of an owned stream. Ends with a table of MB/s
// (medians of the repetitions) and the ratio to memcpy.
#include <benchmark/benchmark.h>

#include "QXBenchMain.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "QXToken.h"

namespace {

constexpr size_t kDocumentSize = size_t(32) << 20;
constexpr size_t kWindow = kDocumentSize + (size_t(1) << 20);  // room for the last record

constexpr uint32_t kRecord = QX_FOURCC('L', 'a', 'y', 'r');
constexpr uint32_t kName = QX_FOURCC('N', 'a', 'm', 'e');
constexpr uint32_t kSize = QX_FOURCC('S', 'i', 'z', 'e');
constexpr uint32_t kFlag = QX_FOURCC('F', 'l', 'a', 'g');
constexpr uint32_t kPos = QX_FOURCC('P', 'o', 's', ' ');
constexpr uint32_t kRect = QX_FOURCC('R', 'e', 'c', 't');
constexpr uint32_t kData = QX_FOURCC('D', 'a', 't', 'a');
constexpr uint32_t kOpacity = QX_FOURCC('O', 'p', 'a', 'c');
constexpr uint32_t kMask = QX_FOURCC('M', 'a', 's', 'k');

// One record: a block of a few values, with an inner block every fourth time.
void WriteRecord(TQXiostream& out, uint32_t i, const TQXString& name, const uint8_t* hex) {
  QXToken::BeginBlock(out, kRecord, false);
  QXToken::PutString(out, kName, name);
  QXToken::PutLong(out, kSize, int32_t(i * 2654435761u));
  QXToken::PutBool(out, kFlag, (i & 1) != 0);
  QXToken::PutPoint(out, kPos, TQXPoint(int32_t(i), -int32_t(i % 1000)));
  QXToken::PutRect(out, kRect, TQXRect(int32_t(i % 640), 0, 640, int32_t(i % 480) + 10));
  QXToken::PutDouble(out, kOpacity, double(i % 1000) / 8.0);
  QXToken::PutHexBlock(out, kData, 96, hex);
  if (i % 4 == 0) {
    QXToken::BeginBlock(out, kMask, false);
    QXToken::PutLong(out, kSize, int32_t(i));
    QXToken::EndBlock(out);
  }
  QXToken::EndBlock(out);
}

// Reads one record; returns a checksum so that nothing is optimised away.
uint32_t ReadRecord(TQXiostream& in, uint32_t i, TQXDynamicString& name, uint8_t* hex) {
  uint32_t sum = QXToken::GetCode(in);
  QXToken::ExpectOpen(in);
  sum += QXToken::GetCode(in);
  QXToken::GetLongString(in, name);
  sum += name.ByteLength();
  sum += QXToken::GetCode(in);
  sum += uint32_t(QXToken::GetLong(in));
  sum += QXToken::GetCode(in);
  sum += QXToken::GetBool(in);
  sum += QXToken::GetCode(in);
  TQXPoint p(0, 0);
  QXToken::GetPoint(in, p);
  sum += uint32_t(p.h + p.v);
  sum += QXToken::GetCode(in);
  TQXRect r(0, 0, 0, 0);
  QXToken::GetRect(in, r);
  sum += uint32_t(r.left + r.bottom);
  sum += QXToken::GetCode(in);
  sum += uint32_t(QXToken::GetDouble(in));
  sum += QXToken::GetCode(in);
  QXToken::GetHexBlock(in, 96, hex);
  sum += hex[i % 96];
  if (i % 4 == 0) {
    sum += QXToken::GetCode(in);
    QXToken::ExpectOpen(in);
    sum += QXToken::GetCode(in);
    sum += uint32_t(QXToken::GetLong(in));
    QXToken::ExpectClose(in);
  }
  QXToken::ExpectClose(in);
  return sum;
}

struct Fixture {
  std::vector<unsigned char> window = std::vector<unsigned char>(kWindow);
  std::vector<unsigned char> copy = std::vector<unsigned char>(kWindow);
  TQXDynamicString name{"Layer \"background\" \\ copy 1"};
  uint8_t hex[96];
  uint32_t records = 0;
  int32_t size = 0;

  Fixture() {
    for (int k = 0; k < 96; ++k)
      hex[k] = uint8_t(k * 151 + 7);
    size = Write();
  }

  // Writes records until the document reaches kDocumentSize; returns its size.
  int32_t Write() {
    TQXstrstream out(window.data(), int32_t(window.size()), kQXStreamWritable);
    QXToken::AttachState(out);
    uint32_t i = 0;
    while (size_t(out.Tell()) < kDocumentSize)
      WriteRecord(out, i++, name, hex);
    records = i;
    return out.Tell();
  }
};

Fixture& Document() {
  static Fixture f;
  return f;
}

void BM_TokenWrite(benchmark::State& state) {
  Fixture& f = Document();
  for (auto _ : state) {
    const int32_t n = f.Write();
    if (n != f.size) state.SkipWithError("the document changed");
    benchmark::DoNotOptimize(f.window.data());
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * f.size);
}

void BM_TokenRead(benchmark::State& state) {
  Fixture& f = Document();
  TQXDynamicString name;
  uint8_t hex[96];
  for (auto _ : state) {
    TQXstrstream in(f.window.data(), f.size, kQXStreamReadable);
    uint32_t sum = 0;
    for (uint32_t i = 0; i < f.records; ++i)
      sum += ReadRecord(in, i, name, hex);
    if (in.Tell() != f.size - 2) state.SkipWithError("the reader stopped early");  // CR LF left
    benchmark::DoNotOptimize(sum);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * f.size);
}

void BM_Memcpy(benchmark::State& state) {
  Fixture& f = Document();
  for (auto _ : state) {
    std::memcpy(f.copy.data(), f.window.data(), size_t(f.size));
    benchmark::DoNotOptimize(f.copy.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * f.size);
}

}  // namespace

BENCHMARK(BM_TokenWrite)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_TokenRead)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Memcpy)->Unit(benchmark::kMillisecond)->UseRealTime();

int main(int argc, char** argv) {
  std::vector<char*> args(argv, argv + argc);
  if (!QXBenchInitialize(args)) return 1;
  QXBenchMedians reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const Fixture& f = Document();
  const double write = reporter.Rate("BM_TokenWrite"), read = reporter.Rate("BM_TokenRead"),
               copy = reporter.Rate("BM_Memcpy");
  std::printf("\nToken document of %.1f MiB (%u records), medians in MB/s (10^6 bytes):\n",
              f.size / 1048576.0, f.records);
  std::printf("  %-8s %10.1f\n  %-8s %10.1f\n  %-8s %10.1f\n", "write", write / 1e6, "read",
              read / 1e6, "memcpy", copy / 1e6);
  if (copy > 0)
    std::printf("  ratio to memcpy: write %.4f, read %.4f\n", write / copy, read / copy);
  benchmark::Shutdown();
  return 0;
}
