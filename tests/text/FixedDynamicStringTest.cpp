// The concrete strings: the fixed classes, the heap string and the sums of strings.
#include <string>

#include "TextTestSupport.h"

namespace {

std::string Text(const TQXString& s) {
  return std::string(s.StrGet(), s.ByteLength());
}

// The capacity of each class, seen through the one thing that shows it: how much text it keeps.
template <class S>
uint32_t Kept() {
  S s(std::string(2000, 'c'));
  return s.ByteLength();
}

using FixedString = TextModeTest;
QX_INSTANTIATE_TEXT_MODES(FixedString);

TEST_P(FixedString, EachClassKeepsItsNumberOfBytes) {
  EXPECT_EQ(Kept<TQXString15>(), 15u);
  EXPECT_EQ(Kept<TQXString31>(), 31u);
  EXPECT_EQ(Kept<TQXString63>(), 63u);
  EXPECT_EQ(Kept<TQXString255>(), 255u);
  EXPECT_EQ(Kept<TQXString1023>(), 1023u);
  EXPECT_EQ(Kept<TQXDynamicString>(), 2000u);
  EXPECT_EQ(Text(TQXString15("0123456789abcdefXYZ")), "0123456789abcde");
  // The number is bytes: a TQXString31 holds 15 double-byte characters.
  std::string wide;
  for (int i = 0; i < 20; ++i)
    wide += kHiraganaA;
  TQXString31 w(wide.c_str());
  EXPECT_EQ(w.ByteLength(), 31u);
  EXPECT_EQ(w.Length(), DoubleByte() ? 16u : 31u);  // 15 characters and a lone lead byte
}

TEST_P(FixedString, Constructors) {
  TQXString31 none(nullptr, 5);  // a null text with a length: empty
  EXPECT_EQ(none.ByteLength(), 0u);
  TQXString31 counted(static_cast<const char*>(nullptr));  // guarded: empty
  EXPECT_EQ(counted.ByteLength(), 0u);
  TQXString31 zeros("ab\0cd", 5);  // zero bytes are copied and end the character count
  EXPECT_EQ(zeros.ByteLength(), 5u);
  EXPECT_EQ(zeros.Length(), 2u);
  TQXString31 fromStd(std::string("std\0x", 5));
  EXPECT_EQ(fromStd.ByteLength(), 5u);
  TQXString255 big(std::string(200, 'b').c_str());
  TQXString31 small(big);
  EXPECT_EQ(small.ByteLength(), 31u);
  small = big;  // assignment across classes cuts too
  EXPECT_EQ(small.ByteLength(), 31u);
  TQXString31 copy(small);
  EXPECT_EQ(Text(copy), Text(small));
  copy = TQXString31("other");
  EXPECT_EQ(Text(copy), "other");
  copy = copy;  // self-assignment changes nothing
  EXPECT_EQ(Text(copy), "other");
}

TEST_P(FixedString, RangeConstructors) {
  TQXString31 s("abcdefgh");
  EXPECT_EQ(Text(TQXString63(s, 2, 0)), "cdefgh");
  EXPECT_EQ(Text(TQXString63(s, 2, 1000)), "cdefgh");
  EXPECT_EQ(Text(TQXString63(s, 2, 3)), "cde");
  EXPECT_EQ(Text(TQXString31(TQXString15("abc"), 50, 3)), "");
  EXPECT_EQ(Text(TQXString31(s, 8, 1)), "");
  EXPECT_EQ(Text(TQXString15(TQXString63(std::string(40, 'r')), 1, 0)), std::string(15, 'r'));
  EXPECT_EQ(Text(TQXDynamicString(s, 7, 5)), "h");
  EXPECT_EQ(Text(TQXDynamicString(s, 9, 5)), "");
  TQXDynamicString d("dynamic");
  EXPECT_EQ(Text(TQXDynamicString(d, 3, 2)), "am");
  if (DoubleByte()) {
    std::string text = std::string("x") + kHiraganaA + kSoBackslash + "y";
    TQXString31 m(text.c_str());
    EXPECT_EQ(Text(TQXString15(m, 1, 2)), std::string(kHiraganaA) + kSoBackslash);
    EXPECT_EQ(Text(TQXString15(m, 2, 0)), std::string(kSoBackslash) + "y");
  }
}

TEST_P(FixedString, SumsAreCutAt1023Bytes) {
  TQXDynamicString a(std::string(800, 'a')), b(std::string(800, 'b'));
  TQXString1023 sum = a + b;
  EXPECT_EQ(sum.ByteLength(), 1023u);
  EXPECT_EQ(Text(sum), std::string(800, 'a') + std::string(223, 'b'));
  EXPECT_EQ(Text(TQXString15("ab") + "cd"), "abcd");
  EXPECT_EQ(Text(TQXString15("ab") + std::string("c\0d", 3)), std::string("abc\0d", 5));
  // Each operand is cut before the join.
  std::string longText(1500, 'x');
  EXPECT_EQ((TQXString15("") + longText.c_str()).ByteLength(), 1023u);
}

using DynamicString = TextModeTest;
QX_INSTANTIATE_TEXT_MODES(DynamicString);

TEST_P(DynamicString, GrowsExactlyAndNeverShrinks) {
  TQXDynamicString s;
  EXPECT_TRUE(s.IsDynamic());
  EXPECT_FALSE(TQXString15().IsDynamic());
  EXPECT_EQ(s.Capacity(), 0u);
  EXPECT_EQ(s.StrGet()[0], 0);  // an empty string owns a block of one byte
  for (int i = 0; i < 5000; ++i)
    s += char('a' + i % 26);
  EXPECT_EQ(s.ByteLength(), 5000u);
  EXPECT_EQ(s.Capacity(), 5000u);  // exactly what was needed
  s += TQXString15("tail");
  EXPECT_EQ(s.Capacity(), 5004u);
  s.InsertStr(TQXString15("HEAD"), 0);  // nothing is cut
  EXPECT_EQ(s.ByteLength(), 5008u);
  EXPECT_EQ(Text(s).substr(0, 6), "HEADab");
  EXPECT_EQ(Text(s).substr(5004), "tail");
  s.SetLength(0);
  EXPECT_EQ(s.ByteLength(), 0u);
  EXPECT_EQ(s.Capacity(), 5008u);  // shrinking gives nothing back

  TQXDynamicString room(nullptr, 100);  // a null text: empty, with room for 100 bytes
  EXPECT_EQ(room.ByteLength(), 0u);
  EXPECT_EQ(room.Capacity(), 100u);
}

TEST_P(DynamicString, InsertIsTestedAsUnsignedOnly) {
  TQXDynamicString s("abc");
  s.InsertStr(TQXString15("X"), 0xFFFFFFFF);
  EXPECT_EQ(Text(s), "abc");
  s.InsertStr(TQXString15("X"), 3);
  s.InsertStr(s, 1);
  EXPECT_EQ(Text(s), "aabcXbcX");
  EXPECT_EQ(s.Length(), 8u);
}

TEST_P(DynamicString, FourByteAppendTakesOneCharacter) {
  TQXString31 f;
  TQXDynamicString d;
  f += uint32_t(0x41424344);
  d += uint32_t(0x41424344);
  EXPECT_EQ(Text(f), "ABCD");
  EXPECT_EQ(Text(d), "D");
}

TEST_P(DynamicString, DoubleByteAppendCountsOneCharacter) {
  TQXDynamicString d("a");
  d += uint16_t(0x82A0);
  if (DoubleByte()) {
    EXPECT_EQ(Text(d), "a\x82\xA0");
    EXPECT_EQ(d.Length(), 2u);  // one character, unlike the fixed strings
  } else {
    EXPECT_EQ(Text(d), "a\xA0");
    EXPECT_EQ(d.Length(), 2u);
  }
}

TEST_P(DynamicString, CopiesAndAssignments) {
  TQXDynamicString a("first");
  TQXDynamicString b(a);
  b += 'X';
  EXPECT_EQ(Text(a), "first");  // separate buffers
  EXPECT_EQ(Text(b), "firstX");
  a = b;
  EXPECT_EQ(Text(a), "firstX");
  a = std::string("std\0string", 10);
  EXPECT_EQ(a.ByteLength(), 10u);
  EXPECT_EQ(a.Length(), 3u);
  a = TQXString15("fixed");
  EXPECT_EQ(Text(a), "fixed");
  a += a;
  EXPECT_EQ(Text(a), "fixedfixed");
}

}  // namespace
