// The library's path form and the drive map: fixed forms, double-byte names, random paths against
// a plain stack normaliser, round trips through POSIX paths, and find patterns against a
// recursive matcher.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "Platform/QXPathForm.h"
#include "Platform/QXPlatformFileSystem.h"
#include "QXDriveMap.h"
#include "QXException.h"

namespace {

#ifdef QX_SANITIZED_BUILD
constexpr int kRounds = 3000;
#else
constexpr int kRounds = 30000;
#endif

// Code page 932's lead bytes.
bool Cp932Lead(uint8_t b) {
  return (b >= 0x81 && b <= 0x9F) || (b >= 0xE0 && b <= 0xFC);
}

class PathForm : public ::testing::Test {
 protected:
  void SetUp() override { QXResetDriveMap(); }
  void TearDown() override { QXResetDriveMap(); }

  static TQXPath Parsed(const char* text, const TQXPath* current = nullptr,
                        TQXLeadByteTest lead = nullptr) {
    TQXPath p;
    EXPECT_EQ(QXParsePath(text, current, lead, p), 0u) << text;
    return p;
  }
  static std::string Full(const char* text, const TQXPath* current = nullptr,
                          TQXLeadByteTest lead = nullptr) {
    TQXPath p;
    const uint32_t r = QXParsePath(text, current, lead, p);
    return r ? "error " + std::to_string(r) : QXJoinPath(p);
  }
  static std::string Posix(const char* text, const TQXPath* current = nullptr) {
    TQXPath p;
    std::string posix;
    uint32_t r = QXParsePath(text, current, nullptr, p);
    if (!r) r = QXPathToSystem(p, posix);
    return r ? "error " + std::to_string(r) : posix;
  }
  static std::string Back(const char* posix, TQXLeadByteTest lead = nullptr) {
    TQXPath p;
    const uint32_t r = QXPathFromSystem(posix, lead, p);
    return r ? "error " + std::to_string(r) : QXJoinPath(p);
  }
};

TEST_F(PathForm, FormsOfTheLibrary) {
  const TQXPath cur = Parsed("T:\\cur\\dir");
  struct Case {
    const char* text;
    const char* full;
  } cases[] = {
      {"C:\\a\\b", "C:\\a\\b"},
      {"c:/a//b/", "C:\\a\\b\\"},
      {"\\tmp\\a", "C:\\tmp\\a"},  // rooted: from C:, whatever the current drive
      {"/tmp/a", "C:\\tmp\\a"},
      {"T:\\a\\..\\..\\..\\b", "T:\\b"},  // ".." stops at the root
      {"T:\\..", "T:\\"},
      {"T:\\a\\.\\b\\.", "T:\\a\\b"},
      {"T:\\a\\b\\..\\", "T:\\a\\"},
      {"T:\\a\\..\\", "T:\\"},
      {"T:\\a.b.c\\...\\x.\\ y ", "T:\\a.b.c\\...\\x.\\ y "},  // dots and spaces stay
      {"name.tar.gz", "T:\\cur\\dir\\name.tar.gz"},
      {"..\\..\\..\\x", "T:\\x"},
      {".", "T:\\cur\\dir"},
      {".\\", "T:\\cur\\dir\\"},
      {"T:rel", "T:\\cur\\dir\\rel"},  // drive-relative on the current drive
      {"C:rel\\x", "C:\\rel\\x"},      // on another drive: from its root
      {"C:", "C:\\"},
      {"T:", "T:\\cur\\dir"},
      {"1:\\x", "T:\\cur\\dir\\1:\\x"},  // no drive letter: a relative name with a colon
      {"\\\\srv\\share", "\\\\srv\\share\\"},
      {"//srv/share/a/../../b", "\\\\srv\\share\\b"},
      {"\\\\srv\\share\\a\\", "\\\\srv\\share\\a\\"},
      {"\\\\srv", "error 161"},
      {"\\\\srv\\", "error 161"},
      {"\\\\\\share", "error 161"},
      {"\\\\..\\share", "error 161"},
      {"", "error 123"},
  };
  for (const Case& c : cases)
    EXPECT_EQ(Full(c.text, &cur), c.full) << c.text;
  // Without a current directory a relative path has nothing to stand on.
  EXPECT_EQ(Full("a\\b"), "error 3");
  EXPECT_EQ(Full("T:rel"), "T:\\rel");
  EXPECT_EQ(QXClassifyPath("\\\\x"), TQXPathKind::kNetwork);
  EXPECT_EQ(QXClassifyPath("\\x"), TQXPathKind::kRooted);
  EXPECT_EQ(QXClassifyPath("x:"), TQXPathKind::kDriveRelative);
  EXPECT_EQ(QXClassifyPath("x:/"), TQXPathKind::kAbsolute);
}

TEST_F(PathForm, DoubleByteTrailBytesAreNotSeparators) {
  // 0x83 0x5C is one character in code page 932; its second byte is the '\' byte.
  const char* text = "T:\\\x83\x5C\\x\x83\x5C.txt";
  TQXPath p = Parsed(text, nullptr, Cp932Lead);
  ASSERT_EQ(p.names.size(), 2u);
  EXPECT_EQ(p.names[0], "\x83\x5C");
  EXPECT_EQ(p.names[1], "x\x83\x5C.txt");
  EXPECT_FALSE(p.trailingSeparator);
  EXPECT_EQ(QXJoinPath(p), text);
  // Read as single bytes the same text splits at every 0x5C.
  p = Parsed(text);
  EXPECT_EQ(p.names, (std::vector<std::string>{"\x83", "x\x83", ".txt"}));
  // A lead byte at the very end stands alone; a network root is read the same way.
  EXPECT_EQ(Parsed("T:\\a\x83", nullptr, Cp932Lead).names.back(), "a\x83");
  p = Parsed("\\\\s\x83\x5C\\sh\\x", nullptr, Cp932Lead);
  EXPECT_EQ(p.server, "s\x83\x5C");
  EXPECT_EQ(p.share, "sh");

  EXPECT_TRUE(QXNameHasLibraryForm("\x83\x5C", Cp932Lead));
  EXPECT_FALSE(QXNameHasLibraryForm("\x83\x5C", nullptr));
  EXPECT_FALSE(QXNameHasLibraryForm("a\\b", Cp932Lead));
  QXMapDrive('T', "/tmp/qx");
  EXPECT_EQ(Back("/tmp/qx/\x83\x5C/a", Cp932Lead), "T:\\\x83\x5C\\a");
  EXPECT_EQ(Back("/tmp/qx/\x83\x5C/a"), "error 123");
  EXPECT_EQ(Back("/tmp/qx/a\\b"), "error 123");

  // A pattern steps by whole characters: '?' takes both bytes, and a trail byte is never
  // matched, or case-folded, on its own.
  EXPECT_TRUE(QXMatchFindPattern("?", "\x83\x5C", Cp932Lead));
  EXPECT_FALSE(QXMatchFindPattern("?", "\x83\x5C", nullptr));
  EXPECT_FALSE(QXMatchFindPattern("?A", "\x83\x41", Cp932Lead));
  EXPECT_TRUE(QXMatchFindPattern("?A", "\x83\x41", nullptr));
  EXPECT_FALSE(QXMatchFindPattern("\x83\x61", "\x83\x41", Cp932Lead));
  EXPECT_TRUE(QXMatchFindPattern("\x83\x61", "\x83\x41", nullptr));
  EXPECT_TRUE(QXMatchFindPattern("*.txt", "\x83\x5C.TXT", Cp932Lead));
}

TEST_F(PathForm, DriveMapToPosixAndBack) {
  EXPECT_EQ(QXMappedDrives(), 1u << 2);
  EXPECT_EQ(Posix("C:\\tmp\\a"), "/tmp/a");
  EXPECT_EQ(Posix("\\"), "/");
  EXPECT_EQ(Posix("C:\\tmp\\a\\"), "/tmp/a/");
  EXPECT_EQ(Posix("T:\\a"), "error 3");

  EXPECT_EQ(QXMapDrive('t', "/tmp//qx-test/./x/.."), 0u);
  std::string dir;
  ASSERT_TRUE(QXDriveDirectory('T', dir));
  EXPECT_EQ(dir, "/tmp/qx-test");
  EXPECT_EQ(QXMappedDrives(), (1u << 2) | (1u << 19));
  EXPECT_EQ(Posix("t:\\a\\b"), "/tmp/qx-test/a/b");
  EXPECT_EQ(Posix("T:\\"), "/tmp/qx-test/");
  EXPECT_EQ(Posix("T:\\..\\..\\etc"), "/tmp/qx-test/etc");  // clamped at the drive's root

  EXPECT_EQ(QXMapDrive('1', "/x"), kQXErrBadPath);
  EXPECT_EQ(QXMapDrive('U', "relative/dir"), kQXErrBadPath);
  EXPECT_EQ(QXMapDrive('U', "/tmp/qx-testing"), 0u);
  EXPECT_EQ(QXMapDrive('V', "/tmp/qx-test"), 0u);  // same directory: the earlier letter wins

  // Back: the letter whose directory is the longest prefix by whole names.
  EXPECT_EQ(Back("/tmp/qx-testing/a"), "U:\\a");
  EXPECT_EQ(Back("/tmp/qx-test/a/"), "T:\\a\\");
  EXPECT_EQ(Back("/tmp/qx-test"), "T:\\");
  EXPECT_EQ(Back("/tmp/qx-tes"), "C:\\tmp\\qx-tes");
  EXPECT_EQ(Back("/tmp/qx-test/../qx-testing/./b"), "U:\\b");
  EXPECT_EQ(Back("//"), "C:\\");
  EXPECT_EQ(Back("relative"), "error 87");
  EXPECT_EQ(QXMapDrive('C', nullptr), 0u);
  EXPECT_EQ(Back("/etc/passwd"), "error 3");
  EXPECT_EQ(Posix("\\etc"), "error 3");
  EXPECT_EQ(QXMapDrive('C', "/"), 0u);

  // Shares: a table, case ignored; unknown shares are bad network paths.
  EXPECT_EQ(QXMapShare("\\\\Srv\\Pub", "/mnt/pub/"), 0u);
  EXPECT_EQ(Posix("\\\\srv\\PUB\\x\\y"), "/mnt/pub/x/y");
  EXPECT_EQ(Posix("//SRV/pub"), "/mnt/pub/");
  EXPECT_EQ(Posix("\\\\srv\\other\\x"), "error 53");
  EXPECT_EQ(QXMapShare("//srv/pub/", "/srv/pub"), 0u);  // replaces
  EXPECT_EQ(Posix("\\\\srv\\pub\\x"), "/srv/pub/x");
  EXPECT_EQ(QXMapShare("\\\\srv\\pub", nullptr), 0u);
  EXPECT_EQ(Posix("\\\\srv\\pub\\x"), "error 53");
  for (const char* bad : {"\\\\srv", "\\\\srv\\", "\\srv\\pub", "\\\\srv\\pub\\x", "C:\\x"})
    EXPECT_EQ(QXMapShare(bad, "/x"), kQXErrBadPath) << bad;
  EXPECT_EQ(QXMapShare(nullptr, "/x"), kQXErrBadPath);
  EXPECT_EQ(QXMapShare("\\\\a\\b", "rel"), kQXErrBadPath);
}

// Random paths built from names (with ".", ".." and empty names among them), against a stack
// applied to the names themselves.
TEST_F(PathForm, RandomPathsAgainstAStackNormaliser) {
  std::mt19937 rng(1234);
  const char* pool[] = {"a", "b", "c.d", "...", "x.", "", ".", ".."};
  const TQXPath cur = Parsed("T:\\cur\\dir");
  for (int round = 0; round < kRounds; ++round) {
    const int kind = int(rng() % 5);
    std::vector<std::string> parts(rng() % 7);
    for (std::string& part : parts)
      part = pool[rng() % 8];
    // Relative texts must not begin with a separator, nor rooted ones with two.
    if (kind >= 3 || kind == 1)
      while (!parts.empty() && parts.front().empty())
        parts.erase(parts.begin());
    std::string text;
    std::string root;
    std::vector<std::string> stack;
    switch (kind) {
      case 0:
        text = rng() % 2 ? "T:\\" : "t:/";
        root = "T:";
        break;
      case 1:
        text = rng() % 2 ? "\\" : "/";
        root = "C:";
        break;
      case 2:
        text = rng() % 2 ? "\\\\srv\\sh\\" : "//srv/sh/";
        root = "\\\\srv\\sh";
        break;
      case 3:
        stack = cur.names;
        root = "T:";
        break;
      case 4:
        text = "T:";
        stack = cur.names;
        root = "T:";
        break;
    }
    for (size_t i = 0; i < parts.size(); ++i) {
      if (i) text += rng() % 2 ? '\\' : '/';
      text += parts[i];
    }
    const bool trailing = !parts.empty() && rng() % 4 == 0;
    if (trailing) text += '\\';
    for (const std::string& part : parts) {
      if (part == "..") {
        if (!stack.empty()) stack.pop_back();
      } else if (!part.empty() && part != ".") {
        stack.push_back(part);
      }
    }
    std::string expected = root;
    for (const std::string& n : stack)
      expected += "\\" + n;
    if (stack.empty())
      expected += "\\";
    else if (trailing || (!parts.empty() && parts.back().empty()))
      expected += "\\";
    if (text.empty()) expected = "error 123";
    ASSERT_EQ(Full(text.c_str(), &cur), expected) << "round " << round << ": " << text;
  }
}

// Library path -> POSIX -> library path gives the parsed path back.
TEST_F(PathForm, RoundTripThroughPosix) {
  ASSERT_EQ(QXMapDrive('T', "/tmp/qx-r"), 0u);
  ASSERT_EQ(QXMapDrive('S', "/srv"), 0u);
  std::mt19937 rng(99);
  const char* pool[] = {"a", "b b", "c.d", "...", "x.", "\x83\x5C", "\xE3\x81\x82", "..", "."};
  for (int round = 0; round < kRounds / 10; ++round) {
    std::string text = std::string(1, "CTS"[rng() % 3]) + ":";
    const size_t n = rng() % 6;
    for (size_t i = 0; i < n; ++i)
      text += std::string("\\") + pool[rng() % 9];
    if (rng() % 3 == 0) text += '\\';
    const TQXPath p = Parsed(text.c_str(), nullptr, Cp932Lead);
    std::string posix;
    ASSERT_EQ(QXPathToSystem(p, posix), 0u) << text;
    TQXPath back;
    ASSERT_EQ(QXPathFromSystem(posix.c_str(), Cp932Lead, back), 0u) << posix;
    ASSERT_EQ(back, p) << "round " << round << ": " << text << " -> " << posix;
  }
}

// The plain definition of a find pattern, one character a step.
bool ReferenceMatch(const char* p, const char* n) {
  auto fold = [](char c) { return (c >= 'a' && c <= 'z') ? char(c - 32) : c; };
  if (*p == 0) return *n == 0;
  if (*p == '*') return ReferenceMatch(p + 1, n) || (*n && ReferenceMatch(p, n + 1));
  if (*n == 0) return false;
  return (*p == '?' || fold(*p) == fold(*n)) && ReferenceMatch(p + 1, n + 1);
}

TEST_F(PathForm, FindPatternsAgainstARecursiveMatcher) {
  EXPECT_TRUE(QXMatchFindPattern("*.*", "noext", nullptr));
  EXPECT_TRUE(QXMatchFindPattern("a.*", "a", nullptr));
  EXPECT_FALSE(QXMatchFindPattern("a.*", "ab", nullptr));
  EXPECT_TRUE(QXMatchFindPattern("*.TIF", "photo.tif", nullptr));
  EXPECT_FALSE(QXMatchFindPattern("*.tif", "photo.tiff", nullptr));
  std::mt19937 rng(7);
  const char nameChars[] = "aAb.";
  const char patternChars[] = "aB.*?";
  for (int round = 0; round < kRounds; ++round) {
    std::string name, pattern;
    for (size_t i = rng() % 7; i > 0; --i)
      name += nameChars[rng() % 4];
    for (size_t i = rng() % 6; i > 0; --i)
      pattern += patternChars[rng() % 5];
    bool expected = ReferenceMatch(pattern.c_str(), name.c_str());
    const size_t pl = pattern.size();
    if (!expected && pl >= 2 && pattern.compare(pl - 2, 2, ".*") == 0 &&
        name.find('.') == std::string::npos)
      expected = ReferenceMatch(pattern.substr(0, pl - 2).c_str(), name.c_str());
    ASSERT_EQ(QXMatchFindPattern(pattern.c_str(), name.c_str(), nullptr), expected)
        << "pattern '" << pattern << "' name '" << name << "'";
  }
}

}  // namespace
