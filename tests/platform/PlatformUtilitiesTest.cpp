// The platform utilities: the version text parser against the C scanner, the contract of the
// desktop services role run on the Linux side and on the fake, the packing rules of the class
// (colours, 32-bit memory figures, string and name buffers) through the fake, and the Linux
// opener spawning a stand-in xdg-open found on PATH.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <tuple>

#include "Platform/Fake/QXFakeClock.h"
#include "Platform/Fake/QXFakeUtilities.h"
#include "Platform/QXPlatform.h"
#include "Platform/QXPlatformUtilities.h"
#include "QXDriveMap.h"
#include "QXException.h"
#include "QXFile.h"
#include "QXPlatformUtilities.h"
#include "QXString.h"
#include "QXStringUTF8.h"

namespace {

using U = TQXPlatformUtilities;

struct Version {
  int32_t major, minor, sub, stage, build;
  bool operator==(const Version&) const = default;
};

std::ostream& operator<<(std::ostream& os, const Version& v) {
  return os << v.major << '.' << v.minor << '.' << v.sub << " stage " << v.stage << " build "
            << v.build;
}

Version Parse(const char* text, Version start = {-7, -7, -7, -7, -7}) {
  U::ParseVersionText(text, start.major, start.minor, start.sub, start.stage, start.build);
  return start;
}

// The rule as first written: the C scanner with each form in turn until one reads all it asks.
Version ScannerModel(const char* text) {
  int v[4] = {1, 0, 0, 0};
  if (std::sscanf(text, "%d.%d.%d.%d", &v[0], &v[1], &v[2], &v[3]) != 4 &&
      std::sscanf(text, "%d.%d.%d", &v[0], &v[1], &v[2]) != 3 &&
      std::sscanf(text, "%d.%d", &v[0], &v[1]) != 2)
    std::sscanf(text, "%d", &v[0]);
  return {v[0], v[1], v[2], v[3] ? 'b' : 0, v[3]};
}

// ---------------------------------------------------------------------------------------------
// The version text parser

TEST(VersionText, TextsAgreeWithTheScanner) {
  // Fixed texts first (missing parts keep their defaults, a space may stand before a number but
  // not before a dot, any build other than 0 marks a beta), then random ones.
  const char* fixed[] = {"2.1",      "2.1.3.7", "2.1.3", "2.1.3.0", "7",     "10.20.30.40.50",
                         "2.1.3.-2", "",        "   ",   "beta",    ".5",    "3.x.4",
                         "3..4",     "3 .4",    " 3. 4", "4.5b2",   "-1.+2", "1.2.3.",
                         "1.2.3.-"};
  std::mt19937 rng(1234);
  const char alphabet[] = "0123456789..... \t+-xb";
  for (int round = 0; round < 20000; ++round) {
    std::string text;
    const int len = int(rng() % 16);
    int digits = 0;  // the scanner's behaviour past 32 bits is undefined: keep runs short
    for (int i = 0; i < len; ++i) {
      char c = alphabet[rng() % (sizeof alphabet - 1)];
      if (c >= '0' && c <= '9' && ++digits > 9) c = '.';
      if (c < '0' || c > '9') digits = 0;
      text += c;
    }
    if (round < int(std::size(fixed))) text = fixed[round];
    ASSERT_EQ(Parse(text.c_str()), ScannerModel(text.c_str())) << '"' << text << '"';
  }
  EXPECT_EQ(Parse("2.1.3.-2"), (Version{2, 1, 3, 'b', -2}));
  EXPECT_EQ(Parse(" 3. 4"), (Version{3, 4, 0, 0, 0}));
  // Numbers past 32 bits wrap instead of being undefined.
  EXPECT_EQ(Parse("4294967297.4294967296"), (Version{1, 0, 0, 0, 0}));
  EXPECT_EQ(Parse("1.2.3.99999999999999999999"), Parse("1.2.3.1661992959"));
  // No text: every out as it was.
  EXPECT_EQ(Parse(nullptr), (Version{-7, -7, -7, -7, -7}));
}

// ---------------------------------------------------------------------------------------------
// The contract of the services role, on the Linux side and on the fake. Each backend brings a
// way to fill the module's string table and the version text.

struct LinuxBackend {
  static constexpr const char* kName = "Linux";
  TQXPlatformServices& Role() { return TQXPlatformServices::System(); }
  void SetString(int16_t id, const char* text) { QXRegisterStringResource(id, text); }
  void SetVersion(const char* text) { QXSetAppVersionText(text); }
  ~LinuxBackend() {
    for (int16_t id : used)
      QXRegisterStringResource(id, nullptr);
    QXSetAppVersionText(nullptr);
  }
  std::vector<int16_t> used;
};

struct FakeBackend {
  static constexpr const char* kName = "Fake";
  TQXPlatformServices& Role() { return fake; }
  void SetString(int16_t id, const char* text) {
    text ? void(fake.strings[id] = text) : void(fake.strings.erase(id));
  }
  void SetVersion(const char* text) {
    text ? void(fake.versionText = text) : fake.versionText.reset();
  }
  std::vector<int16_t> used;
  TQXFakeServices fake;
};

template <class B>
class ServicesContract : public ::testing::Test {
 protected:
  void SetUp() override { U::ForgetPlatformId(); }
  void TearDown() override { U::ForgetPlatformId(); }
  B backend;
  QXPlatform::ScopedRole<TQXPlatformServices> scope{backend.Role()};
};

using Backends = ::testing::Types<LinuxBackend, FakeBackend>;
struct BackendName {
  template <class B>
  static std::string GetName(int) {
    return B::kName;
  }
};
TYPED_TEST_SUITE(ServicesContract, Backends, BackendName);

TYPED_TEST(ServicesContract, StringTableAgainstAMap) {
  std::mt19937 rng(77);
  std::map<int16_t, std::string> model;
  for (int round = 0; round < 2000; ++round) {
    const int16_t id = int16_t(int(rng() % 64) - 32);
    this->backend.used.push_back(id);
    if (rng() % 3 == 0) {
      std::string text(rng() % 3 == 0 ? 1100 + rng() % 50 : rng() % 40, 'a' + char(rng() % 26));
      if (!text.empty()) text[0] = char(0xE9);  // a byte of the upper half survives as it is
      this->backend.SetString(id, text.c_str());
      if (text.empty())
        model.erase(id);
      else
        model[id] = text.substr(0, 1023);  // the 1024-byte buffer holds 1023 and the zero
    }
    TQXDynamicString out("untouched");
    const int32_t r = U::GetStringResource(id, out);
    auto it = model.find(id);
    if (it == model.end()) {
      ASSERT_EQ(r, int32_t(TQXPlatformServices::kErrorResourceNameNotFound)) << id;
      ASSERT_STREQ(out.StrGet(), "untouched");
    } else {
      ASSERT_EQ(r, 0) << id;
      ASSERT_EQ(std::string(out.StrGet()), it->second) << id;
    }
  }
}

TYPED_TEST(ServicesContract, ClipboardRoundTrips) {
  std::mt19937 rng(5);
  for (int round = 0; round < 200; ++round) {
    std::string text;
    const int len = int(rng() % 300);
    for (int i = 0; i < len; ++i)
      text += char(1 + rng() % 255);  // any byte but zero
    if (round % 50 == 0) text.clear();
    ASSERT_TRUE(U::SetClipboardText(TQXDynamicString(text)));
    ASSERT_TRUE(U::HasClipboardText());
    TQXDynamicString back("old");
    ASSERT_TRUE(U::GetClipboardText(back));
    ASSERT_EQ(std::string(back.StrGet()), text);
    // A fixed string takes what fits.
    TQXString15 small;
    ASSERT_TRUE(U::GetClipboardText(small));
    ASSERT_EQ(std::string(small.StrGet()), text.substr(0, 15));
  }
}

TYPED_TEST(ServicesContract, VersionFromTheRegisteredText) {
  Version v{-7, -7, -7, -7, -7};
  for (const char* text : {(const char*)nullptr, "2.1", "2.1.3.7", "5.0.2", "junk", ""}) {
    this->backend.SetVersion(text);
    U::GetAppVersion(v.major, v.minor, v.sub, v.stage, v.build);
    // No text: nothing changes.
    EXPECT_EQ(v, (text ? ScannerModel(text) : Version{-7, -7, -7, -7, -7}))
        << (text ? text : "none");
  }
}

TYPED_TEST(ServicesContract, PlainAnswersOfTheRole) {
  EXPECT_TRUE(U::IsNT());
  EXPECT_EQ(U::TicksPerSecond(), 1000u);
  U::Beep(10);
  U::CaptureMouse(true);
  U::CaptureMouse(false);
  // With no dialog to show (Linux) or a user who cancels (the fake's default) nothing changes.
  uint16_t r = 0x1234, g = 0xABCD, b = 0xFFFF;
  EXPECT_FALSE(U::ChooseColor(r, g, b));
  EXPECT_EQ(std::tie(r, g, b), std::make_tuple(0x1234, 0xABCD, 0xFFFF));
}

// ---------------------------------------------------------------------------------------------
// The class's own rules, through the fake.

class UtilitiesOnFake : public ::testing::Test {
 protected:
  void SetUp() override { U::ForgetPlatformId(); }
  void TearDown() override { U::ForgetPlatformId(); }
  TQXFakeServices fake;
  QXPlatform::ScopedRole<TQXPlatformServices> scope{fake};
};

TEST_F(UtilitiesOnFake, TicksAreMillisecondsOverSixteen) {
  TQXFakeClock clock;
  QXPlatform::ScopedRole<TQXPlatformClock> clockScope(clock);
  std::mt19937 rng(9);
  const uint32_t edges[] = {0u, 15u, 16u, 0xFFFFFFFFu, 0xFFFFFFF0u};
  for (int i = 0; i < 1000; ++i) {
    const uint32_t ms = i < 5 ? edges[i] : uint32_t(rng());
    clock.Set(ms);
    ASSERT_EQ(U::TickCount(), ms / 16);
    ASSERT_EQ(U::GetMilliseconds(), ms);
  }
}

TEST_F(UtilitiesOnFake, PlatformIdIsAskedOnce) {
  fake.platformId = 1;  // the older family
  EXPECT_FALSE(U::IsNT());
  fake.platformId = 2;
  EXPECT_FALSE(U::IsNT());  // cached
  EXPECT_EQ(fake.platformIdQueries, 1u);
  U::ForgetPlatformId();
  EXPECT_TRUE(U::IsNT());
  EXPECT_EQ(fake.platformIdQueries, 2u);
}

// String errors come from the system; clipboard and user name refusals keep what the caller held.
TEST_F(UtilitiesOnFake, StringClipboardAndUserNameRefusals) {
  fake.missingStringError = 1813;
  fake.strings[4] = "";  // an empty entry is no entry
  TQXString31 out("kept");
  EXPECT_EQ(U::GetStringResource(4, out), 1813);
  EXPECT_EQ(U::GetStringResource(5, out), 1813);
  EXPECT_STREQ(out.StrGet(), "kept");
  fake.strings[5] = "a text longer than thirty-one bytes";
  EXPECT_EQ(U::GetStringResource(5, out), 0);
  EXPECT_STREQ(out.StrGet(), "a text longer than thirty-one b");
  TQXDynamicString text("held");
  EXPECT_FALSE(U::HasClipboardText());
  EXPECT_FALSE(U::GetClipboardText(text));  // nothing there
  EXPECT_STREQ(text.StrGet(), "held");
  fake.clipboardBusy = true;
  EXPECT_FALSE(U::SetClipboardText(TQXString15("new")));
  EXPECT_FALSE(fake.clipboard.has_value());
  fake.clipboardBusy = false;
  ASSERT_TRUE(U::SetClipboardText(TQXString15("new")));
  fake.clipboardBusy = true;
  EXPECT_FALSE(U::GetClipboardText(text));
  EXPECT_STREQ(text.StrGet(), "held");
  // Text that another application put there ends at its first zero byte.
  fake.clipboardBusy = false;
  fake.clipboard = std::string("left\0right", 10);
  EXPECT_TRUE(U::GetClipboardText(text));
  EXPECT_STREQ(text.StrGet(), "left");
  // A user name fits in 256 bytes with its zero.
  TQXDynamicString name("before");
  EXPECT_FALSE(U::GetUserName(name));  // unknown user
  EXPECT_STREQ(name.StrGet(), "before");
  fake.userName = std::string(255, 'u');
  EXPECT_TRUE(U::GetUserName(name));
  EXPECT_EQ(name.ByteLength(), 255u);
  fake.userName = std::string(256, 'v');
  EXPECT_FALSE(U::GetUserName(name));
  EXPECT_EQ(std::string(name.StrGet()), std::string(255, 'u'));
}

TEST_F(UtilitiesOnFake, MemoryFiguresCapAt32Bits) {
  std::mt19937_64 rng(3);
  for (int i = 0; i < 2000; ++i) {
    const uint64_t shift = rng() % 64;
    fake.totalPhysical = rng() >> shift;
    fake.availableVirtual = i % 7 == 0 ? 0xFFFFFFFFu + uint64_t(i % 2) : rng() >> (63 - shift);
    uint32_t total = 1, available = 1;
    U::GetMemoryStatus(total, available);
    ASSERT_EQ(total, fake.totalPhysical >= 0xFFFFFFFFu ? 0xFFFFFFFFu : fake.totalPhysical);
    ASSERT_EQ(available,
              fake.availableVirtual >= 0xFFFFFFFFu ? 0xFFFFFFFFu : fake.availableVirtual);
  }
}

TEST_F(UtilitiesOnFake, ColourDialogSeesTopBytesAndGivesThemBack) {
  std::mt19937 rng(11);
  for (int i = 0; i < 2000; ++i) {
    const uint16_t r0 = uint16_t(rng()), g0 = uint16_t(rng()), b0 = uint16_t(rng());
    const bool choose = rng() % 2;
    const uint8_t cr = uint8_t(rng()), cg = uint8_t(rng()), cb = uint8_t(rng());
    if (choose)
      fake.colourChoice = uint32_t(cr) | uint32_t(cg) << 8 | uint32_t(cb) << 16;
    else
      fake.colourChoice.reset();
    uint16_t r = r0, g = g0, b = b0;
    ASSERT_EQ(U::ChooseColor(r, g, b), choose);
    ASSERT_EQ(fake.colourRequests.back(),
              uint32_t(r0 >> 8) | uint32_t(g0 >> 8) << 8 | uint32_t(b0 >> 8) << 16);
    const auto want = choose ? std::tuple(cr * 256, cg * 256, cb * 256) : std::tuple(+r0, +g0, +b0);
    ASSERT_EQ(std::tie(r, g, b), want);
  }
}

TEST_F(UtilitiesOnFake, BeepCaptureAndBrowser) {
  U::Beep(250);
  U::CaptureMouse(true);
  U::CaptureMouse(false);
  ASSERT_EQ(fake.beeps.size(), 1u);
  EXPECT_EQ(fake.beeps[0], std::make_pair(1000u, 250u));
  EXPECT_EQ(fake.captures, (std::vector<bool>{true, false}));
  EXPECT_EQ(U::OpenURLInBrowser(TQXString255("https://example.org/")), 0);
  fake.openerMissing = true;
  EXPECT_EQ(U::OpenURLInBrowser(TQXString255("https://example.org/")), int32_t(kQXErrNotFound));
  EXPECT_EQ(fake.opened.size(), 2u);
}

TEST_F(UtilitiesOnFake, OpenFileHandsOverTheSystemPathOfAnExistingFile) {
  char tmpl[] = "/tmp/qxopenfileXXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  const std::string dir = tmpl;
  std::ofstream(dir + "/a doc.txt") << "x";
  ASSERT_EQ(QXMapDrive('T', dir.c_str()), 0u);
  TQXFile* file = nullptr;
  ASSERT_EQ(TQXFile::Create(&file), 0u);
  ASSERT_NE(file, nullptr);

  ASSERT_EQ(file->SetFullPath(TQXStringUTF8(std::string("T:\\a doc.txt")), false), 0u);
  EXPECT_EQ(U::OpenFile(file), 0);
  ASSERT_EQ(fake.opened.size(), 1u);
  EXPECT_EQ(fake.opened[0], dir + "/a doc.txt");
  fake.openerMissing = true;
  EXPECT_EQ(U::OpenFile(file), int32_t(kQXErrNotFound));

  // A file that is not there, or no file at all, gives 0 and opens nothing.
  ASSERT_EQ(file->SetFullPath(TQXStringUTF8(std::string("T:\\missing.txt")), false), 0u);
  EXPECT_EQ(U::OpenFile(file), 0);
  EXPECT_EQ(U::OpenFile(nullptr), 0);
  EXPECT_EQ(fake.opened.size(), 2u);

  file->Release();
  QXMapDrive('T', nullptr);
  std::remove((dir + "/a doc.txt").c_str());
  rmdir(dir.c_str());
}

// ---------------------------------------------------------------------------------------------
// The Linux side with the real system.

std::string CommandOutput(const char* command) {
  std::string out;
  char buf[256];
  FILE* p = popen(command, "r");
  while (p && std::fgets(buf, sizeof buf, p))
    out += buf;
  if (p) pclose(p);
  while (!out.empty() && out.back() == '\n')
    out.pop_back();
  return out;
}

TEST(UtilitiesOnLinux, UserAndMemoryMatchTheSystem) {
  TQXDynamicString name;
  const std::string expected = CommandOutput("id -un 2>/dev/null");
  if (expected.empty()) GTEST_SKIP() << "no user database entry for this user";
  ASSERT_TRUE(U::GetUserName(name));
  EXPECT_EQ(std::string(name.StrGet()), expected);

  uint64_t memTotalKiB = 0;
  std::ifstream meminfo("/proc/meminfo");
  std::string key;
  while (meminfo >> key)
    if (key == "MemTotal:") {
      meminfo >> memTotalKiB;
      break;
    }
  uint32_t total = 0, available = 0;
  U::GetMemoryStatus(total, available);
  const uint64_t bytes = memTotalKiB * 1024;
  EXPECT_EQ(total, bytes >= 0xFFFFFFFFu ? 0xFFFFFFFFu : uint32_t(bytes));
  EXPECT_GT(available, 0u);
}

// Puts a stand-in xdg-open first on PATH: it writes its argument count and arguments to a file.
class LinuxOpener : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/qxopenerXXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    const char* path = std::getenv("PATH");
    oldPath_ = path ? path : "";
    hadPath_ = path != nullptr;
    const std::string script = dir_ + "/xdg-open";
    std::ofstream(script) << "#!/bin/sh\n{ echo \"$#\"; printf '%s\\n' \"$@\"; } > \"" << dir_
                          << "/out.tmp\"\nmv \"" << dir_ << "/out.tmp\" \"" << dir_ << "/out\"\n";
    ASSERT_EQ(chmod(script.c_str(), 0755), 0);
  }
  void TearDown() override {
    if (hadPath_)
      setenv("PATH", oldPath_.c_str(), 1);
    else
      unsetenv("PATH");
    std::remove((dir_ + "/out").c_str());
    std::remove((dir_ + "/xdg-open").c_str());
    rmdir((dir_ + "/empty").c_str());
    rmdir(dir_.c_str());
  }
  void UseStandIn() { setenv("PATH", (dir_ + ":" + oldPath_).c_str(), 1); }
  // The stand-in's record, waited for (it runs on its own).
  std::string Record() {
    const std::string out = dir_ + "/out";
    for (int i = 0; i < 3000 && access(out.c_str(), F_OK) != 0; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::ifstream in(out);
    std::string record((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::remove(out.c_str());
    return record;
  }

  std::string dir_, oldPath_;
  bool hadPath_ = false;
};

TEST_F(LinuxOpener, TheTextIsOneArgumentNeverAShellLineAndRefusals) {
  UseStandIn();
  for (const char* url : {"https://example.org/a b?x=1&y=2", "file:///tmp/$(touch pwned);`id`|x",
                          "it's \"quoted\" \\ and * globbed"}) {
    ASSERT_EQ(U::OpenURLInBrowser(TQXDynamicString(url)), 0) << url;
    EXPECT_EQ(Record(), std::string("1\n") + url + "\n");
  }
  EXPECT_NE(access("pwned", F_OK), 0);
  // Refused texts, and a missing opener.
  EXPECT_EQ(U::OpenURLInBrowser(TQXString15("")), int32_t(kQXErrNotFound));
  EXPECT_EQ(U::OpenURLInBrowser(TQXString15("--help")), int32_t(kQXErrNotFound));
  const std::string empty = dir_ + "/empty";
  ASSERT_EQ(mkdir(empty.c_str(), 0700), 0);
  setenv("PATH", empty.c_str(), 1);
  EXPECT_EQ(U::OpenURLInBrowser(TQXString255("https://example.org/")), int32_t(kQXErrNotFound));
  EXPECT_NE(access((dir_ + "/out").c_str(), F_OK), 0);  // the stand-in never ran
}

}  // namespace
