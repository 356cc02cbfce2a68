// Resource files: the cost of the engine's linear map and of its full rewrite.
//
// How many resources a file can hold: the map's list and name offsets are signed 16-bit values,
// so the type list and the reference lists together end before byte 32767 of the map; with 12
// bytes per reference a file holds at most about 2,700 resources (2,725 in four types). The
// largest sizes here are therefore 2,700, not 10,000; the add run also reports where the engine
// refuses the next one.
//
//   open       opening a file of 2,700 resources (one read of the header, one of the map, the
//              map swapped into host order and checked) and closing it again;
//   lookup     GetResource of every one of the 2,700 (type, id) pairs, in random order, then
//              ReleaseResource: without reading (the map scan alone: the type list, then the
//              type's reference list, both linear), and with reading (plus two reads of the
//              file per lookup, since a released resource goes back to disk);
//   rewrite    UpdateResFile of a 64 MiB file (every block read, written to a new file, which
//              then replaces the old one), beside two plain copies of the same 64 MiB with the
//              same replacement at the end: read and write in 1 MiB pieces, and copy_file_range.
//              The copies are the physical limit; the ratio is the figure;
//   add        AddResource of N small resources one by one into an empty file. Each addition
//              copies the whole map image and scans every entry, so the time per addition grows
//              with the count: the table shows the average and the marginal cost at each N.
//
// The files live in a temporary folder (TMPDIR or /tmp) reached through drive B:. Ends with the
// summary table (medians of the repetitions: 3, interleaved at random, unless
// --benchmark_repetitions says otherwise).
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "QXBenchMain.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "QXDriveMap.h"
#include "QXException.h"
#include "QXFile.h"
#include "QXResource.h"
#include "QXResourceFile.h"

namespace {

constexpr int kLookupTypes = 10;
constexpr int kLookupIdsPerType = 270;  // 10 x 270 = 2,700 resources
constexpr uint32_t kRewriteBytes = 64u << 20;
constexpr uint32_t kPiece = 1u << 20;
constexpr int64_t kAddCounts[] = {250, 500, 1000, 2000, 2700};

// --- The folder and its files -------------------------------------------------------------------

std::string gFolder;  // POSIX path of the temporary folder, mapped to B:

std::string Posix(const char* name) {
  return gFolder + "/" + name;
}

TQXFile* LibraryFile(const char* name) {
  TQXFile* f = nullptr;
  TQXFile::Create(&f);
  if (f) f->SetFullPath(TQXStringUTF8(std::string("B:\\") + name), false);
  return f;
}

// Removes the folder with everything in it (it holds files only) and forgets the drive.
void RemoveFolder() {
  TQXResourceFile::ShutDown();
  if (DIR* dir = opendir(gFolder.c_str())) {
    while (const dirent* e = readdir(dir))
      if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
        unlink(Posix(e->d_name).c_str());
    closedir(dir);
  }
  rmdir(gFolder.c_str());
  QXMapDrive('B', nullptr);
}

// Opens a resource file of the folder; null (after a message) when it does not open.
TQXResourceFile* OpenResourceFile(const char* name, bool writable) {
  TQXFile* f = LibraryFile(name);
  if (!f) return nullptr;
  auto* res = new TQXResourceFile(f, writable, false);
  f->Release();
  if (res && !res->IsLinked()) {
    std::fprintf(stderr, "cannot open %s: 0x%08X\n", name, res->OpenResult());
    delete res;
    return nullptr;
  }
  return res;
}

bool CreateEmptyFile(const char* name) {
  TQXFile* f = LibraryFile(name);
  const uint32_t code = f ? TQXResourceFile::CreateEmpty(f) : kQXErrFailed;
  if (f) f->Release();
  if (code != 0) std::fprintf(stderr, "CreateEmpty %s: 0x%08X\n", name, code);
  return code == 0;
}

uint32_t LookupType(int t) {
  return QX_FOURCC('L', 'K', 'U', 'A' + t);
}

// Adds a free-standing resource of `size` bytes (a pattern of the id) to `res`.
bool AddOne(TQXResourceFile& res, uint32_t type, int16_t id, uint32_t size, const char* name) {
  auto* r = new TQXResource(nullptr, size, id, type, TQXString255(name));
  if (!r) return false;
  if (size) std::memset(r->GetData(), id & 0xFF, size);
  const uint32_t code = res.AddResource(*r);
  r->ReleaseResource();  // stays alive in its entry while the changed bit is set
  if (code != 0) std::fprintf(stderr, "AddResource: 0x%08X\n", code);
  return code == 0;
}

// Rewrites the file; false after a message.
bool Update(TQXResourceFile& res) {
  const uint32_t code = res.UpdateResFile(nullptr);
  if (code != 0) std::fprintf(stderr, "UpdateResFile: 0x%08X\n", code);
  return code == 0;
}

// The file of the lookups: 10 types of 270 resources of 16 to 80 bytes, every tenth named.
bool MakeLookupFile() {
  if (!CreateEmptyFile("lookup.rsrc")) return false;
  TQXResourceFile* res = OpenResourceFile("lookup.rsrc", true);
  if (!res) return false;
  std::mt19937 rng(1);
  bool ok = true;
  for (int t = 0; t < kLookupTypes && ok; ++t)
    for (int i = 0; i < kLookupIdsPerType && ok; ++i) {
      const std::string name = i % 10 == 0 ? "entry " + std::to_string(i) : "";
      ok = AddOne(*res, LookupType(t), int16_t(128 + i), 16 + rng() % 65, name.c_str());
    }
  ok = ok && Update(*res);
  delete res;
  return ok;
}

// The 64 MiB file. Block positions are 24 bits, so every block must start in the first
// 16 MiB - 1 of the data area: 960 blocks of 16 KiB come first, then one block holds the rest.
bool MakeRewriteFile() {
  if (!CreateEmptyFile("big.rsrc")) return false;
  TQXResourceFile* res = OpenResourceFile("big.rsrc", true);
  if (!res) return false;
  constexpr uint32_t kSmall = 16u << 10;
  constexpr int kSmallCount = 960;
  bool ok = true;
  for (int i = 0; i < kSmallCount && ok; ++i)
    ok = AddOne(*res, QX_FOURCC('D', 'A', 'T', 'A'), int16_t(i), kSmall, "");
  const uint32_t used = kQXResHeaderSize + kSmallCount * (4 + kSmall) + 4 + 64 * 1024;
  ok = ok && AddOne(*res, QX_FOURCC('D', 'A', 'T', 'A'), 30000, kRewriteBytes - used, "the rest");
  ok = ok && Update(*res);
  delete res;
  struct stat st;
  return ok && stat(Posix("big.rsrc").c_str(), &st) == 0 &&
         std::abs(double(st.st_size) - kRewriteBytes) < 128 * 1024;
}

// --- Open and lookups ---------------------------------------------------------------------------

void Open(benchmark::State& state) {
  for (auto _ : state) {
    TQXResourceFile* res = OpenResourceFile("lookup.rsrc", false);
    if (!res) {
      state.SkipWithError("open failed");
      break;
    }
    delete res;
  }
}

void Lookup(benchmark::State& state) {
  const bool read = state.range(0) != 0;
  TQXResourceFile* res = OpenResourceFile("lookup.rsrc", false);
  if (!res) {
    state.SkipWithError("open failed");
    return;
  }
  std::vector<std::pair<uint32_t, int16_t>> keys;
  for (int t = 0; t < kLookupTypes; ++t)
    for (int i = 0; i < kLookupIdsPerType; ++i)
      keys.emplace_back(LookupType(t), int16_t(128 + i));
  std::shuffle(keys.begin(), keys.end(), std::mt19937(2));
  for (auto _ : state) {
    for (const auto& [type, id] : keys) {
      TQXResource* r = nullptr;
      if (res->GetResource(type, id, r, read) != 0 || !r) {
        state.SkipWithError("lookup failed");
        break;
      }
      benchmark::DoNotOptimize(r->GetData());
      r->ReleaseResource();
    }
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(keys.size()));
  delete res;
}

// --- Rewrite and its anchors --------------------------------------------------------------------

void Rewrite(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    TQXResourceFile* res = OpenResourceFile("big.rsrc", true);
    // UpdateResFile rewrites only a changed map: an entry added and removed again marks it.
    auto* scratch = new TQXResource(nullptr, 0, 0, 0, TQXString15());
    const bool marked = res && scratch && res->AddResource(*scratch) == 0 && scratch->Remove() == 0;
    if (scratch) scratch->ReleaseResource();
    if (!marked) {
      delete res;
      state.SkipWithError("cannot mark the file changed");
      break;
    }
    state.ResumeTiming();
    const uint32_t code = res->UpdateResFile(nullptr);
    state.PauseTiming();
    delete res;
    state.ResumeTiming();
    if (code != 0) {
      state.SkipWithError("UpdateResFile failed");
      break;
    }
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * kRewriteBytes);
}

// A plain copy of big.rsrc to a new file that then replaces copy.bin, as the rewrite replaces
// its file: read and write in 1 MiB pieces, or copy_file_range.
bool PlainCopy(bool inKernel) {
  const std::string from = Posix("big.rsrc"), temp = Posix("copy.tmp"), to = Posix("copy.bin");
  const int in = open(from.c_str(), O_RDONLY);
  const int out = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  bool ok = in >= 0 && out >= 0;
  if (ok && inKernel) {
    ssize_t n;
    while ((n = copy_file_range(in, nullptr, out, nullptr, kPiece * 16, 0)) > 0) {
    }
    ok = n == 0;
  } else if (ok) {
    static std::vector<char> piece(kPiece);
    ssize_t n;
    while (ok && (n = read(in, piece.data(), kPiece)) > 0)
      ok = write(out, piece.data(), size_t(n)) == n;
    ok = ok && n == 0;
  }
  if (in >= 0) close(in);
  if (out >= 0) ok = close(out) == 0 && ok;
  return ok && rename(temp.c_str(), to.c_str()) == 0;
}

void CopyPieces(benchmark::State& state) {
  for (auto _ : state)
    if (!PlainCopy(false)) {
      state.SkipWithError("copy failed");
      break;
    }
  state.SetBytesProcessed(int64_t(state.iterations()) * kRewriteBytes);
}

void CopyRange(benchmark::State& state) {
  for (auto _ : state)
    if (!PlainCopy(true)) {
      state.SkipWithError("copy_file_range failed");
      break;
    }
  state.SetBytesProcessed(int64_t(state.iterations()) * kRewriteBytes);
}

// --- Adding one by one --------------------------------------------------------------------------

// The i-th resource of the add run: 32 bytes, no name, in one of four types.
bool AddResourceQuietly(TQXResourceFile& res, int i) {
  auto* r = new TQXResource(nullptr, 32, int16_t(i), QX_FOURCC('A', 'D', 'D', 'A' + i % 4),
                            TQXString15());
  if (!r) return false;
  std::memset(r->GetData(), i & 0xFF, 32);
  const bool ok = res.AddResource(*r) == 0;
  r->ReleaseResource();
  return ok;
}

void Add(benchmark::State& state) {
  const auto count = int(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    TQXResourceFile* res =
        CreateEmptyFile("add.rsrc") ? OpenResourceFile("add.rsrc", true) : nullptr;
    if (!res) {
      state.SkipWithError("cannot open an empty file");
      break;
    }
    state.ResumeTiming();
    bool ok = true;
    for (int i = 0; i < count && ok; ++i)
      ok = AddResourceQuietly(*res, i);
    state.PauseTiming();
    delete res;  // writes the file: outside the timing
    state.ResumeTiming();
    if (!ok) {
      state.SkipWithError("AddResource failed");
      break;
    }
  }
}

// How many of the add run's resources an empty file takes before AddResource refuses one.
int AddLimit() {
  if (!CreateEmptyFile("limit.rsrc")) return -1;
  TQXResourceFile* res = OpenResourceFile("limit.rsrc", true);
  if (!res) return -1;
  int count = 0;
  while (count < 40000 && AddResourceQuietly(*res, count))
    ++count;
  delete res;
  return count;
}

// --- The summary --------------------------------------------------------------------------------

int gAddLimit = -1;

void PrintSummary(QXBenchMedians& r) {
  const int n = kLookupTypes * kLookupIdsPerType;
  std::printf("\nResource files (medians)\n");
  if (const double open = r.Time("open"); open > 0)
    std::printf("  open + close, %d resources: %10.3f ms\n", n, open / 1e6);
  if (const double t = r.Time("lookup/0"); t > 0)
    std::printf("  lookup without reading:      %10.1f ns per lookup\n", t / n);
  if (const double t = r.Time("lookup/1"); t > 0)
    std::printf("  lookup and read:             %10.1f ns per lookup\n", t / n);

  const double rewrite = r.Time("rewrite"), pieces = r.Time("copy-pieces"),
               range = r.Time("copy-file-range");
  if (rewrite > 0) {
    std::printf("\n  rewrite of 64 MiB: %8.1f ms, %7.0f MiB/s\n", rewrite / 1e6, 64e9 / rewrite);
    if (pieces > 0)
      std::printf("  read/write 1 MiB:  %8.1f ms, %7.0f MiB/s   rewrite / copy = %.2f\n",
                  pieces / 1e6, 64e9 / pieces, rewrite / pieces);
    if (range > 0)
      std::printf("  copy_file_range:   %8.1f ms, %7.0f MiB/s   rewrite / copy = %.2f\n",
                  range / 1e6, 64e9 / range, rewrite / range);
  }

  std::printf("\n  %-8s %12s %16s %18s\n", "adds", "total ms", "us per add", "marginal us/add");
  double previousTime = 0;
  int64_t previousCount = 0;
  for (int64_t count : kAddCounts) {
    const double t = r.Time("add/" + std::to_string(count));
    if (t <= 0) continue;
    std::printf("  %-8lld %12.2f %16.3f %18.3f\n", static_cast<long long>(count), t / 1e6,
                t / 1e3 / double(count), (t - previousTime) / 1e3 / double(count - previousCount));
    previousTime = t;
    previousCount = count;
  }
  std::printf("  an empty file takes %d of these resources; AddResource refuses the next one\n",
              gAddLimit);
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<char*> args(argv, argv + argc);
  if (!QXBenchInitialize(args)) return 1;

  const char* tmp = getenv("TMPDIR");
  std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/qx-resource-bench-XXXXXX";
  if (!mkdtemp(pattern.data()) || QXMapDrive('B', pattern.c_str()) != 0) {
    std::fprintf(stderr, "cannot make a temporary folder: %s\n", std::strerror(errno));
    return 1;
  }
  gFolder = pattern;
  TQXResourceFile::InitCurrentRessourceFile();
  gAddLimit = AddLimit();
  if (!MakeLookupFile() || !MakeRewriteFile()) {
    std::fprintf(stderr, "cannot build the test files in %s\n", gFolder.c_str());
    RemoveFolder();
    return 1;
  }

  benchmark::RegisterBenchmark("open", Open)->UseRealTime();
  benchmark::RegisterBenchmark("lookup", Lookup)->Arg(0)->Arg(1)->UseRealTime();
  benchmark::RegisterBenchmark("rewrite", Rewrite)->UseRealTime();
  benchmark::RegisterBenchmark("copy-pieces", CopyPieces)->UseRealTime();
  benchmark::RegisterBenchmark("copy-file-range", CopyRange)->UseRealTime();
  // A fixed count of iterations: each one also creates the file and writes it at the end,
  // outside the timing, which would otherwise be repeated thousands of times.
  auto* add = benchmark::RegisterBenchmark("add", Add)->UseRealTime()->Iterations(100);
  for (int64_t count : kAddCounts)
    add->Arg(count);

  QXBenchMedians reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  PrintSummary(reporter);
  benchmark::Shutdown();

  RemoveFolder();
  return 0;
}
