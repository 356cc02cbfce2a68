// The path string: its own operations and what it forwards.
#include <cstring>
#include <string>

#include "QXStringUTF8.h"
#include "TextTestSupport.h"

namespace {

constexpr uint32_t kNone = 0xFFFFFFFFu;

std::string S(const TQXStringUTF8& s) {
  return std::string(s);
}

using StringUTF8 = TextModeTest;
QX_INSTANTIATE_TEXT_MODES(StringUTF8);

TEST_P(StringUTF8, FolderNames) {
  for (const char* good : {"a.b", "Data 1", "a\tb", ".x", "x.y.z"}) {
    TQXStringUTF8 s{std::string(good)};
    EXPECT_TRUE(s.IsFolderNameCompliant()) << good;
  }
  for (const char* bad : {"", "   ", "...", " a", "a ", "a.", "a/b", "a:b", "a\\b", "a*", "a?",
                          "\"a\"", "<a", "a>", "a|b", "a\rb", "a\nb"}) {
    TQXStringUTF8 s{std::string(bad)};
    EXPECT_FALSE(s.IsFolderNameCompliant()) << bad;
  }
  if (DoubleByte()) {
    // A trail byte 0x5C is not a backslash.
    TQXStringUTF8 s{std::string("x") + kSoBackslash};
    EXPECT_TRUE(s.IsFolderNameCompliant());
  }
}

TEST_P(StringUTF8, SearchingForAsciiCharacters) {
  TQXStringUTF8 s(std::string("ab.c\\d"));
  EXPECT_EQ(s.FindFirstOf(".\\"), 2u);
  EXPECT_EQ(s.FindFirstOf("\\"), 4u);
  EXPECT_EQ(s.FindFirstOf(""), kNone);
  EXPECT_EQ(s.FindFirstOf("xyz"), kNone);
  EXPECT_EQ(TQXStringUTF8(std::string("xxx")).FindFirstNot('x'), kNone);
  EXPECT_EQ(TQXStringUTF8(std::string("xxa")).FindFirstNot('x'), 2u);
  EXPECT_EQ(TQXStringUTF8().FindFirstNot('x'), kNone);
  EXPECT_EQ(s.FindCharPos('.', 0), 2u);
  EXPECT_EQ(s.FindCharPosFromRight('.'), 2u);
  EXPECT_EQ(s.FindCharPosFromRight('d'), 5u);
  EXPECT_EQ(s.FindCharPosFromRight('d', 4), kNone);
  EXPECT_EQ(TQXStringUTF8().FindCharPosFromRight('d'), kNone);
  EXPECT_EQ(s.SearchStr(TQXStringUTF8(std::string("c\\"))), 3u);
  EXPECT_TRUE(s.IsCharAt(2, '.'));
  EXPECT_FALSE(s.IsCharAt(100, 'x'));
  EXPECT_TRUE(s.IsCharAt(100, 0));  // past the end the character is 0

  // A byte of 0x80 or more is sign-extended and never found.
  TQXStringUTF8 high(std::string("a\xE9"));
  EXPECT_EQ(high.FindCharPos(char(0xE9), 0), kNone);
  EXPECT_FALSE(high.IsCharAt(1, char(0xE9)));
  EXPECT_EQ(high.FindFirstNot(char(0xE9)), 0u);
  EXPECT_EQ(high.FindFirstOf("\xE9"), kNone);
}

TEST_P(StringUTF8, Replace) {
  TQXStringUTF8 s(std::string("a/b/c"));
  s.Replace('/', '\\', 0);
  EXPECT_EQ(S(s), "a\\b\\c");
  TQXStringUTF8 t(std::string("a:b:c"));
  t.Replace(':', '_', 2);
  EXPECT_EQ(S(t), "a:b_c");
  t.Replace('a', 'z', 5);
  EXPECT_EQ(S(t), "a:b_c");
  if (DoubleByte()) {
    TQXStringUTF8 d(std::string(kSoBackslash) + "/" + kSoBackslash);
    d.Replace('/', '\\', 0);
    EXPECT_EQ(S(d), std::string(kSoBackslash) + "\\" + kSoBackslash);
    d.Replace('\\', '/', 0);
    EXPECT_EQ(S(d), std::string(kSoBackslash) + "/" + kSoBackslash);
  }
}

TEST_P(StringUTF8, ConversionsAndForwards) {
  TQXStringUTF8 a(std::string("path"));
  a += TQXStringUTF8(TQXString15("\\file"));
  a += '!';
  a.InsertStr(TQXStringUTF8(std::string("C:")), 0);
  EXPECT_EQ(S(a), "C:path\\file!");
  EXPECT_TRUE(a != TQXStringUTF8(std::string("c:path\\file!")));
  EXPECT_TRUE(a.IsEqualNotCaseSensitive(TQXStringUTF8(std::string("c:PATH\\FILE!"))));

  // Into a fixed string the text is cut; a TQXString of any length comes back whole.
  TQXString15 fixed;
  TQXStringUTF8 longer(std::string(40, 'p'));
  longer.ToTQXString(fixed);
  EXPECT_EQ(fixed.ByteLength(), 15u);
  TQXStringUTF8 round;
  round.FromTQXString(TQXDynamicString(std::string(40, 'p')));
  EXPECT_TRUE(round == longer);

  // ToCPtr ignores its size: a text of 10 bytes writes 11.
  char out[16];
  std::memset(out, 'Z', sizeof out);
  TQXStringUTF8 ten(std::string("0123456789"));
  ten.ToCPtr(out, 4);
  EXPECT_STREQ(out, "0123456789");
  EXPECT_EQ(out[11], 'Z');

  // The std::string form stops at the first zero byte.
  TQXStringUTF8 zero(std::string("ab\0cd", 5));
  EXPECT_EQ(S(zero), "ab");
}

TEST_P(StringUTF8, SumsHaveNoLimit) {
  TQXStringUTF8 a(std::string(2000, 'a')), b(std::string(2000, 'b'));
  TQXStringUTF8 sum = a + b;
  EXPECT_EQ(sum.Length(), 4000u);
  EXPECT_EQ(S(sum), std::string(2000, 'a') + std::string(2000, 'b'));
}

}  // namespace
