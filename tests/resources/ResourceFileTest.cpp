// The resource file format on disk: byte-exact output, the sample files of other writers,
// rewrites that fail at every write, and maps damaged in every field.
#include <gtest/gtest.h>

#include <random>
#include <tuple>

#include "resources/ResourceTestSupport.h"

using namespace qxrestest;

namespace {

constexpr uint32_t kText = QX_FOURCC('T', 'E', 'X', 'T');
constexpr uint32_t kStr = QX_FOURCC('S', 'T', 'R', ' ');

std::string Sample(const std::string& name) {
  return ReadPosix(std::string(QX_RESOURCE_SAMPLES) + "/" + name, "");
}

using FakeDisk = OnDisk<QXFakeBackend>;
using RealDisk = OnDisk<QXLinuxBackend>;

// --- Byte-exact layout ---------------------------------------------------------------------------

TEST_F(FakeDisk, EmptyFileAndSmallFileAreByteExact) {
  ASSERT_EQ(CreateEmpty("T:\\e.rsrc"), 0u);
  std::string empty;
  Be32(empty, 256), Be32(empty, 256), Be32(empty, 0), Be32(empty, 30);
  empty += std::string(240, '\0');
  Be32(empty, 256), Be32(empty, 256), Be32(empty, 0), Be32(empty, 30);  // header copy
  Be32(empty, 0), Be16(empty, 0), Be16(empty, 0);                       // reserved
  Be16(empty, 28), Be16(empty, 30), Be16(empty, 0xFFFF);                // list offsets, no types
  EXPECT_EQ(ReadAll("T:\\e.rsrc"), empty);

  TQXResourceFile* rf = Open("T:\\e.rsrc");
  ASSERT_TRUE(rf->IsLinked());
  const Item greeting{kText, 128, true, "Greeting", 0, "hello"}, blank{kText, -2, false, "", 0, ""};
  const Item list{QX_FOURCC('S', 'T', 'R', '#'), 1, false, "", 0, std::string("\0\x01\x02hi", 5)};
  Add(*rf, greeting);
  Add(*rf, list);
  Add(*rf, blank);
  ASSERT_EQ(rf->UpdateResFile(nullptr), 0u);

  // Hand-assembled: data area (256), map at 256 + 22.
  std::string x;
  Be32(x, 256), Be32(x, 278), Be32(x, 22), Be32(x, 28 + 2 + 16 + 36 + 9);
  x += std::string(240, '\0');
  Be32(x, 5), x += "hello";                         // TEXT 128 at 0
  Be32(x, 0);                                       // TEXT -2 at 9: empty block
  Be32(x, 5), x += std::string("\0\x01\x02hi", 5);  // STR# 1 at 13
  Be32(x, 256), Be32(x, 278), Be32(x, 22), Be32(x, 91);
  Be32(x, 0), Be16(x, 0), Be16(x, 0);
  Be16(x, 28), Be16(x, 82);                 // name list after 2 + 16 + 36
  Be16(x, 1);                               // two types
  Be32(x, kText), Be16(x, 1), Be16(x, 18);  // two refs at 2 + 16
  Be32(x, QX_FOURCC('S', 'T', 'R', '#')), Be16(x, 0), Be16(x, 42);
  Be16(x, 128), Be16(x, 0), Be32(x, 0), Be32(x, 0);  // named, at 0
  Be16(x, uint16_t(-2)), Be16(x, 0xFFFF), Be32(x, 9), Be32(x, 0);
  Be16(x, 1), Be16(x, 0xFFFF), Be32(x, 13), Be32(x, 0);
  x += char(8), x += "Greeting";
  EXPECT_EQ(ReadAll("T:\\e.rsrc"), x);
  // The reference writer agrees.
  EXPECT_EQ(Assemble({{greeting, blank}, {list}}), x);
  delete rf;
}

// --- Files of other writers ----------------------------------------------------------------------

struct SampleCase {
  const char* file;
  Listing expected;  // in file order; bytes not compared here
};

Item I(uint32_t type, int16_t id, const char* name = nullptr, uint8_t attributes = 0) {
  return Item{type, id, name != nullptr, name ? name : "", attributes, ""};
}

std::vector<SampleCase> Samples() {
  const uint32_t dsc = 0x64917363, dsig = 0x64739567, weap = 0x77916170;
  const uint32_t nfnt = QX_FOURCC('N', 'F', 'N', 'T'), fond = QX_FOURCC('F', 'O', 'N', 'D');
  return {
      {"rsrcfork-empty.rsrc", {}},
      {"rsrcfork-testfile.rsrc",
       {{I(kStr, 128), I(kStr, 129, "The Name"), I(kStr, 130, nullptr, 0x0C),
         I(kStr, 131, "The Name with Attributes", 0x40)}}},
      {"rsrcfork-unicode.textClipping.rsrc",
       {{I(QX_FOURCC('u', 't', 'x', 't'), 256)},
        {I(QX_FOURCC('u', 't', 'f', '8'), 256)},
        {I(kText, 256)},
        {I(QX_FOURCC('d', 'r', 'a', 'g'), 128)}}},
      {"diamond-NovaTest.rsrc", {{I(dsc, 128, "Test Description")}}},
      {"diamond-SimpleFork.rsrc", {{I(kText, 128, "Test Name")}, {I(kStr, 128, "Placeholder")}}},
      {"diamond-test.rsrc", {{I(QX_FOURCC('C', 'O', 'D', 'E'), 0)}}},
      {"lubert-test.ndat", {{I(dsig, 128)}, {I(weap, 128, "blaster")}}},
      {"fonttools-rez-testdata.rsrc",
       {{I(QX_FOURCC('T', 'E', 'S', 'T'), 128, "name1"),
         I(QX_FOURCC('T', 'E', 'S', 'T'), 129, "name2")},
        {I(QX_FOURCC('t', 'e', 's', 't'), 130, "name3")}}},
      {"monobit-4x6.dfont", {{I(nfnt, 4756)}, {I(fond, 4756, "Fixed")}}},
      {"monobit-4x6.sfnt.dfont",
       {{I(QX_FOURCC('s', 'f', 'n', 't'), 11345)}, {I(nfnt, 11351)}, {I(fond, 11345, "Fixed")}}},
  };
}

TEST_F(RealDisk, SampleFilesListAndSurviveARewrite) {
  for (const SampleCase& c : Samples()) {
    SCOPED_TRACE(c.file);
    const std::string original = Sample(c.file);
    ASSERT_FALSE(original.empty());
    WriteAll("T:\\s.rsrc", original);
    TQXString1023 message;
    EXPECT_EQ(ValidateFile("T:\\s.rsrc", message), 0u) << message.StrGet();

    TQXResourceFile* rf = Open("T:\\s.rsrc");
    ASSERT_TRUE(rf->IsLinked()) << std::hex << rf->OpenResult();
    const Listing before = List(*rf, true);
    EXPECT_EQ(Stripped(before), c.expected) << Describe(before);
    EXPECT_EQ(rf->CheckMap(message), 0u) << message.StrGet();

    // Force a rewrite: an entry added and removed leaves the map dirty.
    auto* scratch = new TQXResource(nullptr, 3, 1, kText, TQXString255("x"));
    ASSERT_EQ(rf->AddResource(*scratch), 0u);
    ASSERT_EQ(scratch->Remove(), 0u);
    scratch->ReleaseResource();
    ASSERT_TRUE(rf->IsDirty());
    ASSERT_EQ(rf->UpdateResFile(nullptr), 0u);
    EXPECT_FALSE(rf->IsDirty());
    EXPECT_EQ(List(*rf, true), before);
    delete rf;

    // The rewritten file is the canonical layout of the same entries, every blob unchanged.
    const std::string rewritten = ReadAll("T:\\s.rsrc");
    auto be = [&original](uint32_t at, int bytes) {
      uint32_t v = 0;
      for (int k = 0; k < bytes; ++k)
        v = v << 8 | uint8_t(original[at + k]);
      return v;
    };
    const uint32_t mapAt = be(4, 4);  // the reserved fields of the map are carried over
    EXPECT_EQ(rewritten, Assemble(before, be(mapAt + 16, 4), uint16_t(be(mapAt + 20, 2)),
                                  uint16_t(be(mapAt + 22, 2))));
  }
  EXPECT_EQ(CountTemporaries("T:"), 0);
}

TEST_F(FakeDisk, ForeignLayoutFileIsRefused) {
  WriteAll("T:\\x.rsrc", Sample("diamond-SimpleExtendedFork.not-classic.rsrc"));
  TQXResourceFile* rf = Open("T:\\x.rsrc");
  EXPECT_FALSE(rf->IsLinked());
  EXPECT_EQ(rf->OpenResult(), kQXErrIO);
  EXPECT_EQ(TQXResourceFile::GetCurrentFile(), nullptr);
  EXPECT_EQ(TQXResourceFile::CountKnownFiles(), 0u);
  delete rf;
  EXPECT_EQ(fake().OpenHandles(), 0u);
}

// --- A rewrite that fails ------------------------------------------------------------------------

TEST_F(FakeDisk, FailedRewriteLeavesFileImageAndChangedBitsAsTheyWere) {
  struct Step {
    TQXFakeFileSystem::Op op;
    uint32_t error;
    uint32_t lastCall;  // the calls of this kind that may fail with the real file kept
  };
  // Opens: the first is the temporary file's; the second reopens the real file after it has been
  // replaced, which cannot be undone (it reports its error with the new file in place).
  const Step steps[] = {{TQXFakeFileSystem::Op::kWrite, kQXSysDiskFull, 1000},
                        {TQXFakeFileSystem::Op::kSeek, kQXSysNegativeSeek, 1000},
                        {TQXFakeFileSystem::Op::kCreateNewFile, kQXSysAccessDenied, 1000},
                        {TQXFakeFileSystem::Op::kOpen, kQXSysSharingViolation, 1},
                        {TQXFakeFileSystem::Op::kRead, kQXSysReadFault, 1000},
                        {TQXFakeFileSystem::Op::kMove, kQXSysAccessDenied, 1000}};
  for (const Step& step : steps) {
    SCOPED_TRACE(int(step.op));
    ASSERT_EQ(CreateEmpty("T:\\f.rsrc"), 0u);
    TQXResourceFile* rf = Open("T:\\f.rsrc");
    // Big blobs (past the writer's block), small ones, names; some stay on disk unloaded.
    Add(*rf, {kText, 1, true, "one", 0, std::string(70000, 'a')});
    Add(*rf, {kText, 2, false, "", 0, "bb"});
    Add(*rf, {kStr, 3, true, "three", 0, "ccc"});
    delete rf;
    rf = Open("T:\\f.rsrc");
    Add(*rf, {kStr, 4, true, "four", 0, std::string(300, 'd')});
    TQXResource* loaded = nullptr;
    ASSERT_EQ(rf->GetResource(kText, 2, loaded, true), 0u);
    ASSERT_EQ(loaded->MarkChanged(), 0u);
    const Listing expected = List(*rf, false);
    // The state that a failed rewrite must leave as it was: the file, the map image, the dirty bit.
    auto snapshot = [&rf] {
      const uint8_t* m = rf->GetMapImage();
      return std::tuple(ReadAll("T:\\f.rsrc"), std::vector<uint8_t>(m, m + rf->GetMapImageSize()),
                        rf->IsDirty());
    };

    uint32_t n = 1;
    for (;; ++n) {
      ASSERT_LT(n, 200u);
      const auto before = snapshot();
      if (n <= step.lastCall) fake().FailCall(step.op, n, step.error);
      const uint32_t result = rf->UpdateResFile(nullptr);
      fake().ClearFailures();
      if (result == 0) break;
      EXPECT_TRUE(snapshot() == before) << "failure at call " << n;
      EXPECT_EQ(CountTemporaries("T:"), 0) << "failure at call " << n;
      EXPECT_EQ(fake().OpenHandles(), 1u);
    }
    EXPECT_GT(n, 1u) << "no call of this kind failed the rewrite";
    loaded->ReleaseResource();
    delete rf;
    rf = Open("T:\\f.rsrc");
    ASSERT_TRUE(rf->IsLinked());
    EXPECT_EQ(Stripped(List(*rf, true)), Stripped(expected, false));
    delete rf;
    EXPECT_EQ(CountTemporaries("T:"), 0);
  }
}

// --- Damaged maps --------------------------------------------------------------------------------

// A canonical file with two types, three entries, names.
std::string Base() {
  return Assemble(
      {{{kText, 128, true, "first", 0, "0123456789"}, {kText, 129, false, "", 0x20, "x"}},
       {{kStr, 5, true, "second", 0, "abc"}}});
}

// Offsets in Base(): data 256 (10+4 + 1+4 + 3+4 = 26 bytes), map at 282.
constexpr uint32_t kMap = 282, kTypes = kMap + 28, kRefs = kTypes + 2 + 16;

// Sets the big-endian field of `bits` (8, 16 or 32) at `at`.
void Poke(std::string& f, uint32_t at, int bits, uint32_t v) {
  for (int k = 0; k < bits / 8; ++k)
    f[at + k] = char(v >> (bits - 8 - 8 * k));
}

// Opens, walks, loads and reads names and string lists of whatever opened, and closes without
// rewriting. Returns the open result.
uint32_t Exercise(const std::string& path) {
  TQXResourceFile* rf = Open(path, false);
  const uint32_t result = rf->OpenResult();
  if (rf->IsLinked()) {
    List(*rf, true);
    TQXString255 s;
    uint16_t n = 0;
    TQXResourceFile::GetIndString(s, 1, 1);
    TQXResourceFile::CountIndStrings(n, 1);
    TQXString1023 message;
    rf->CheckMap(message);
  }
  delete rf;
  return result;
}

TEST_F(FakeDisk, DamagedFieldsGiveTheFailureResult) {
  constexpr uint32_t kEnd = kRefs + 36 + 13;
  ASSERT_EQ(Base().size(), kEnd);
  struct Case {
    const char* what;
    uint32_t at;
    int bits;  // 8, 16 or 32: the big-endian field at `at` set to `value`; 0: cut to `value` bytes
    uint32_t value;
    uint32_t result;  // of the open
  };
  const Case cases[] = {
      {"intact", 0, 0, kEnd, 0},
      {"map length 27", 12, 32, 27, kQXErrIO},
      {"map length 0", 12, 32, 0, kQXErrIO},
      {"map length past the file", 12, 32, 1000, kQXErrIO},
      {"map length 4 GiB", 12, 32, 0xFFFFFFF0u, kQXErrIO},
      {"map offset past the file", 4, 32, 0x7FFFFFF0u, kQXErrIO},
      {"map offset 4 GiB", 4, 32, 0xFFFFFFFFu, kQXErrIO},
      {"type list offset negative", kMap + 24, 16, 0xFFF0, kQXErrIO},
      {"type list offset in the header", kMap + 24, 16, 20, kQXErrIO},
      {"type list offset past the map", kMap + 24, 16, 0x7FFF, kQXErrIO},
      {"type count past the map", kTypes, 16, 0x7FFF, kQXErrIO},
      {"type count -1", kTypes, 16, 0xFFFF, 0},
      {"type count -300", kTypes, 16, uint16_t(-300), 0},
      {"reference count past the map", kTypes + 6, 16, 0x7FFF, kQXErrIO},
      {"reference list offset negative", kTypes + 8, 16, 0x8000, kQXErrIO},
      {"reference list offset past the map", kTypes + 8, 16, 0x7FF0, kQXErrIO},
      {"reference lists overlap", kTypes + 16, 16, 18, kQXErrIO},
      {"reference list over the type list", kTypes + 8, 16, 2, kQXErrIO},
      {"name offset past the map", kRefs + 2, 16, 0x7000, kQXErrIO},
      {"name offset negative", kRefs + 2, 16, uint16_t(-500), kQXErrIO},
      {"name length past the map", kEnd - 7, 8, 200, kQXErrIO},
      {"name list offset past the map", kMap + 26, 16, 0x7FFF, kQXErrIO},
      {"name list offset negative", kMap + 26, 16, 0x8000, kQXErrIO},
      // Data positions are read on demand: the open succeeds and the loads fail.
      {"data offset past the file", 0, 32, 0xFFFFFF00u, 0},
      {"data position past the file", kRefs + 4, 32, 0x00FFFFF0u, 0},
      {"blob length past the file", 256, 32, 0xFFFFFFF0u, 0},
      {"header copy in the map ignored", kMap + 12, 32, 5, 0},
      {"truncated inside the header", 0, 0, 100, kQXErrEndOfFile},
      {"truncated inside the map", 0, 0, kEnd - 1, kQXErrIO},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::string f = Base();
    if (c.bits == 0) f.resize(c.value);
    Poke(f, c.at, c.bits, c.value);
    WriteAll("T:\\d.rsrc", f);
    EXPECT_EQ(Exercise("T:\\d.rsrc"), c.result);
    TQXString1023 message;
    const uint32_t checked = ValidateFile("T:\\d.rsrc", message);
    if (c.result) {
      EXPECT_NE(checked, 0u) << message.StrGet();
    }
    EXPECT_STRNE(message.StrGet(), "");
    EXPECT_EQ(fake().OpenHandles(), 0u);
  }
}

TEST_F(FakeDisk, DataFaultsSurfaceAsLoadFailures) {
  std::string f = Base();
  Poke(f, 256, 32, 0xFFFFFFF0u);  // the first blob's length
  WriteAll("T:\\d.rsrc", f);
  TQXResourceFile* rf = Open("T:\\d.rsrc", false);
  ASSERT_TRUE(rf->IsLinked());
  TQXResource* res = nullptr;
  EXPECT_EQ(rf->GetResource(kText, 128, res, true), kQXErrEndOfFile);
  EXPECT_EQ(res, nullptr);
  EXPECT_EQ(rf->GetResource(kText, 128, res, false), 0u);  // without reading: an empty object
  ASSERT_NE(res, nullptr);
  EXPECT_EQ(res->GetSize(), 0u);
  res->ReleaseResource();
  EXPECT_EQ(rf->GetResource(kText, 129, res, true), 0u);
  EXPECT_EQ(std::string(static_cast<char*>(res->GetData()), 1), "x");
  res->ReleaseResource();
  delete rf;
}

// Every prefix of a sample, and random damage to every byte: whatever opens is walked in full.
TEST_F(FakeDisk, TruncationsAndRandomDamageNeverReachOutside) {
  const std::string sample = Sample("rsrcfork-testfile.rsrc");
  for (size_t n = 0; n < sample.size(); n += 7) {
    WriteAll("T:\\t.rsrc", sample.substr(0, n));
    EXPECT_NE(Exercise("T:\\t.rsrc"), 0u) << n;
  }
  std::mt19937 rng(20261122);
#ifdef QX_SANITIZED_BUILD
  const int rounds = 300;
#else
  const int rounds = 3000;
#endif
  int opened = 0;
  for (int round = 0; round < rounds; ++round) {
    std::string f = round % 2 ? sample : Base();
    const int flips = 1 + int(rng() % 4);
    for (int k = 0; k < flips; ++k) {
      // Damage falls mostly on the header fields and the map, where the structure is.
      const size_t at = rng() % 3 ? f.size() - 1 - rng() % (f.size() / 3) : rng() % 16;
      f[at] = char(rng());
    }
    WriteAll("T:\\r.rsrc", f);
    if (Exercise("T:\\r.rsrc") == 0) ++opened;
  }
  EXPECT_GT(opened, 0);
  EXPECT_LT(opened, rounds);
}

}  // namespace
