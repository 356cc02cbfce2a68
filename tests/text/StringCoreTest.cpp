// TQXString operations, by family, in both modes where the mode matters.
#include <cstring>
#include <string>

#include "QXException.h"
#include "TextTestSupport.h"

namespace {

constexpr uint32_t kNone = 0xFFFFFFFFu;

std::string Bytes(const TQXString& s) {
  return std::string(s.StrGet(), s.ByteLength());
}

// The terminator invariant every operation keeps.
void ExpectTerminated(const TQXString& s) {
  EXPECT_EQ(s.StrGet()[s.ByteLength()], 0);
}

using StringCore = TextModeTest;
QX_INSTANTIATE_TEXT_MODES(StringCore);

// ---------------------------------------------------------------------------------------------
// Text in and out
// ---------------------------------------------------------------------------------------------

TEST_P(StringCore, CAndPascalFormsRoundTrip) {
  std::string long1500(1500, 'q');
  TQXString1023 s;
  s.FromCPtr(long1500.c_str());
  EXPECT_EQ(s.ByteLength(), 1023u);
  EXPECT_EQ(s.Length(), 1023u);
  ExpectTerminated(s);

  s.FromCPtr(nullptr);  // no-op
  EXPECT_EQ(s.ByteLength(), 1023u);
  s.FromPPtr(nullptr);
  EXPECT_EQ(s.ByteLength(), 1023u);

  // ToPPtr stores only the low 8 bits of the length: 300 bytes give 44.
  TQXDynamicString d(std::string(300, 'x'));
  unsigned char p[301];
  d.ToPPtr(p);
  EXPECT_EQ(p[0], 44);
  EXPECT_EQ(std::memcmp(p + 1, d.StrGet(), 300), 0);

  // Pascal in, C out, and back.
  const unsigned char pascal[] = "\x05hello world";
  TQXString31 t;
  t.FromPPtr(pascal);
  EXPECT_EQ(Bytes(t), "hello");
  char c[32];
  t.ToCPtr(c);
  EXPECT_STREQ(c, "hello");
  unsigned char back[8];
  t.ToPPtr(back);
  EXPECT_EQ(std::memcmp(back, pascal, 6), 0);
}

TEST_P(StringCore, AssigningFromItsOwnBufferStaysInside) {
  // A Pascal count larger than what follows it in the same buffer, into a fixed and a dynamic
  // string: no read or write beyond either buffer, and the bytes that were there come first.
  TQXString15 f(
      "\x20"
      "abc");
  f.FromPPtr(reinterpret_cast<const unsigned char*>(f.StrGet()));
  EXPECT_EQ(f.ByteLength(), 15u);
  EXPECT_EQ(std::string(f.StrGet(), 3), "abc");
  ExpectTerminated(f);

  TQXDynamicString d(
      "\x08"
      "ab");
  d.FromPPtr(reinterpret_cast<const unsigned char*>(d.StrGet()));
  EXPECT_EQ(d.ByteLength(), 8u);
  EXPECT_EQ(std::string(d.StrGet(), 2), "ab");
  ExpectTerminated(d);

  TQXDynamicString tail("0123456789");
  tail.FromCPtr(tail.StrGet() + 4);
  EXPECT_EQ(Bytes(tail), "456789");
}

TEST(StringCoreBase, GetStringOfTheBaseThrowsNotImplemented) {
  struct Bare : TQXString {};
  Bare b;
  try {
    b.StrGet();
    FAIL() << "no throw";
  } catch (const TQXException& e) {
    EXPECT_EQ(e.code, kQXErrNotImplemented);
  }
  EXPECT_FALSE(b.IsDynamic());
}

// ---------------------------------------------------------------------------------------------
// Comparison: exact equality, case-insensitive order
// ---------------------------------------------------------------------------------------------

TEST_P(StringCore, EqualityIsExactWhileOrderIgnoresCase) {
  TQXString31 a("Hello"), b("hELLO"), c("help");
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(a != b);
  EXPECT_FALSE(a < b);
  EXPECT_FALSE(a > b);
  EXPECT_TRUE(a <= b && b <= a);  // both hold, and still not ==
  EXPECT_TRUE(a >= b && b >= a);
  EXPECT_TRUE(a.IsEqualNotCaseSensitive(b));
  EXPECT_TRUE(a < c);
  EXPECT_TRUE(c > b);
  EXPECT_EQ(a.CompareBytes(b), -1);  // 'H' < 'h' as bytes
  EXPECT_EQ(b.CompareBytes(a), 1);
  EXPECT_EQ(a.CompareBytes(a), 0);

  // Equality stops at the first zero byte.
  TQXString31 z1("ab\0x", 4), z2("ab\0y", 4);
  EXPECT_TRUE(z1 == z2);
}

TEST_P(StringCore, CaseInsensitiveEqualityLooksAtTheFirst1023BytesOnly) {
  std::string x(1023, 'k');
  TQXDynamicString a(x + "TAIL"), b(x + "other and longer");
  EXPECT_TRUE(a.IsEqualNotCaseSensitive(b));
  TQXDynamicString c(std::string(1022, 'k') + "J");
  EXPECT_FALSE(a.IsEqualNotCaseSensitive(c));
}

TEST_P(StringCore, CaseMappingNeverTouchesDoubleByteCharacters) {
  if (!DoubleByte()) {
    TQXString31 s("abc\xE9\xFF");  // Latin-1: e acute maps, y diaeresis has no capital here
    s.ToUpper();
    EXPECT_EQ(Bytes(s), "ABC\xC9\xFF");
    s.ToLower();
    EXPECT_EQ(Bytes(s), "abc\xE9\xFF");
    return;
  }
  // Trail bytes equal to "a" and "\" must survive both mappings.
  std::string text = std::string("a") + kTrailA + "b" + kSoBackslash + kKatakanaHalf;
  TQXString31 s(text.c_str());
  s.ToUpper();
  EXPECT_EQ(Bytes(s), std::string("A") + kTrailA + "B" + kSoBackslash + kKatakanaHalf);
  TQXString31 other((std::string("A") + "\x82\x41" + "B").c_str());  // trail "A", not "a"
  TQXString31 mine((std::string("a") + kTrailA + "b").c_str());
  EXPECT_FALSE(mine.IsEqualNotCaseSensitive(other));
}

// ---------------------------------------------------------------------------------------------
// Appending
// ---------------------------------------------------------------------------------------------

TEST_P(StringCore, AppendCutsAtTheCapacityAndMayAppendItself) {
  TQXString15 s("0123456789");
  s += TQXString15("abcdefghij");
  EXPECT_EQ(Bytes(s), "0123456789abcde");
  TQXString15 self("abcdef");
  self += self;
  EXPECT_EQ(Bytes(self), "abcdefabcdef");
}

TEST_P(StringCore, FourByteAppendOfTheFixedString) {
  TQXString31 s("x");
  s += uint32_t(0x41424344);
  EXPECT_EQ(Bytes(s), "xABCD");
  // A zero byte is appended like any other and ends the visible text.
  TQXString31 z;
  z += uint32_t(0x41004243);
  EXPECT_EQ(z.ByteLength(), 4u);
  EXPECT_STREQ(z.StrGet(), "A");
  if (DoubleByte()) {
    // Bits 8-15 a lead byte: two character appends, bits 16-31 then bits 0-15.
    TQXString31 d;
    d += uint32_t(0x4142'82A0);
    EXPECT_EQ(Bytes(d), "B\x82\xA0");  // 0x4142: "B" (one byte; 0x41 is no lead byte)
  }
}

TEST_P(StringCore, DoubleByteAppendToAFixedStringCountsItsBytes) {
  TQXString15 s("ab");
  s += uint16_t(0x82A0);
  if (!DoubleByte()) {
    EXPECT_EQ(Bytes(s), "ab\xA0");  // the low byte only
    EXPECT_EQ(s.Length(), 3u);
    return;
  }
  EXPECT_EQ(Bytes(s), "ab\x82\xA0");
  EXPECT_EQ(s.Length(), 4u);  // two, not one: kept as the fixed strings have always done
  s.SetLength(100);           // a recount puts it right
  EXPECT_EQ(s.Length(), 3u);

  // One byte of room: the lead byte stays alone, the count still goes up by two.
  TQXString15 full("0123456789abcd");
  full += uint16_t(0x82A0);
  EXPECT_EQ(full.ByteLength(), 15u);
  EXPECT_EQ(uint8_t(full.StrGet()[14]), 0x82);
  EXPECT_EQ(full.Length(), 16u);
  ExpectTerminated(full);
  // Positions beyond the bytes read as nothing.
  EXPECT_EQ(full.GetCharAt(15), 0);
  EXPECT_EQ(full.FindCharPosFromRight('z', 15), kNone);
}

// ---------------------------------------------------------------------------------------------
// Insertion
// ---------------------------------------------------------------------------------------------

TEST_P(StringCore, InsertIntoItself) {
  TQXString31 s("-ab+cdXY");
  s.InsertStr(s, 1);
  EXPECT_EQ(Bytes(s), "--ab+cdXYab+cdXY");
  EXPECT_EQ(s.Length(), 16u);
}

TEST_P(StringCore, OverflowingInsertKeepsTheOldCharacterCount) {
  // The tail is cut, the inserted text whole.
  TQXString15 s("0123456789");
  s.InsertStr(TQXString15("abcde!"), 2);
  EXPECT_EQ(Bytes(s), "01abcde!2345678");
  EXPECT_EQ(s.ByteLength(), 15u);
  EXPECT_EQ(s.Length(), 10u);  // not recounted on this path
  ExpectTerminated(s);

  // Even the inserted text is cut.
  TQXString15 t("0123456789");
  t.InsertStr(TQXString15("ABCDEFGHIJKLMNO"), 5);
  EXPECT_EQ(Bytes(t), "01234ABCDEFGHIJ");
  EXPECT_EQ(t.Length(), 10u);
  // Later operations go by the stale count: SetLength with more than enough characters cuts
  // the text back to the ten characters the count claims, and recounts.
  t.SetLength(100);
  EXPECT_EQ(Bytes(t), "01234ABCDE");
  EXPECT_EQ(t.Length(), 10u);
  // An append recounts the whole text, even when nothing fits.
  TQXString15 u("0123456789");
  u.InsertStr(TQXString15("ABCDEFGHIJKLMNO"), 5);
  u += TQXString15("!");
  EXPECT_EQ(u.Length(), 15u);
}

// ---------------------------------------------------------------------------------------------
// Shortening (the edits at every position are compared with a model in StringModelTest)
// ---------------------------------------------------------------------------------------------

// Fixed points for the model: worked examples of the rules it states.
TEST_P(StringCore, WorkedExamplesOfTheEditingRules) {
  auto sub = [](uint32_t pos, uint32_t len) {
    TQXString31 s("abcd");
    s.SubString(pos, len);
    return Bytes(s);
  };
  EXPECT_EQ(sub(1, 2), "bc");
  EXPECT_EQ(sub(0, 2), "ab");
  EXPECT_EQ(sub(3, 10), "d");
  EXPECT_EQ(sub(0xFFFFFFFF, 2), "ab");  // -1: nothing removed in front
  TQXString31 e("abcd");
  EXPECT_FALSE(e.EraseStr(0, 0));
  EXPECT_TRUE(e.EraseStr(2, 100));
  EXPECT_EQ(Bytes(e), "ab");
  e.InsertStr(TQXString15("!"), 3);  // one past the end: nothing
  e.InsertStr(TQXString15("!"), 2);  // at the end: appends
  EXPECT_EQ(Bytes(e), "ab!");
  TQXString15 ab("ab"), empty;
  EXPECT_EQ(ab.SearchStr(empty, 0), 0u);
  EXPECT_EQ(ab.SearchStr(empty, 2), kNone);
  EXPECT_EQ(empty.SearchStr(empty, 0), kNone);
}

TEST_P(StringCore, SetLengthOnlyShortens) {
  TQXString31 s("abcdef");
  s.SetLength(10);
  EXPECT_EQ(Bytes(s), "abcdef");
  s.SetLength(3);
  EXPECT_EQ(Bytes(s), "abc");
  s.SetLength(0);
  EXPECT_EQ(s.ByteLength(), 0u);
  ExpectTerminated(s);
}

TEST(StringCoreLarge, EraseOfMoreThan32767CharactersMovesTheCountTheWrongWay) {
  ScopedTextMode mode(TextMode::kSingleByte);
  TQXDynamicString s(std::string(40000, 'a'));
  EXPECT_TRUE(s.EraseStr(0, 33000));
  EXPECT_EQ(s.ByteLength(), 7000u);
  // 33000 narrowed to 16 bits is -32536: the count rises instead of falling.
  EXPECT_EQ(s.Length(), 40000u + 32536u);
  // Positions past the bytes still read as nothing, and a recount repairs the count.
  EXPECT_EQ(s.GetCharAt(9000), 0);
  EXPECT_EQ(s.FindCharPosFromRight('a', 50000), 6999u);
  s.SetLength(1u << 30);
  EXPECT_EQ(s.Length(), 7000u);
}

// ---------------------------------------------------------------------------------------------
// Characters at positions
// ---------------------------------------------------------------------------------------------

TEST_P(StringCore, DoubleByteCharactersAtPositions) {
  if (!DoubleByte()) GTEST_SKIP() << "double-byte mode only";
  // One double-byte character and "a": position 1 is "a".
  TQXString31 s((std::string(kHiraganaA) + "a").c_str());
  EXPECT_EQ(s.Length(), 2u);
  EXPECT_EQ(s.GetCharAt(0), 0x82A0);
  EXPECT_EQ(s.GetCharAt(1), 0x61);

  // Widening and narrowing replacements move the text behind.
  s.SetCharAt(0x41, 0);  // two bytes by one
  EXPECT_EQ(Bytes(s), "Aa");
  s.SetCharAt(0x835C, 1);  // one byte by two
  EXPECT_EQ(Bytes(s), std::string("A") + kSoBackslash);
  EXPECT_EQ(s.Length(), 2u);
  ExpectTerminated(s);

  // No room for a wider character: the old one stays.
  TQXString15 full("0123456789abcde");
  full.SetCharAt(0x82A0, 3);
  EXPECT_EQ(Bytes(full), "0123456789abcde");

  // A dynamic string has exactly its length as capacity: widening is refused there too.
  TQXDynamicString d("ab");
  d.SetCharAt(0x82A0, 0);
  EXPECT_EQ(Bytes(d), "ab");

  // A lone lead byte at the end (a cut double-byte character) is one character.
  TQXString15 cut("xy\x82", 3);
  EXPECT_EQ(cut.Length(), 3u);
  cut.SetCharAt('z', 2);
  EXPECT_EQ(Bytes(cut), "xyz");
}

// ---------------------------------------------------------------------------------------------
// Searching
// ---------------------------------------------------------------------------------------------

TEST_P(StringCore, FindCharBothWays) {
  TQXString31 s("a,b,c");
  EXPECT_EQ(s.FindCharPos(',', 0), 1u);
  EXPECT_EQ(s.FindCharPos(',', 2), 3u);
  EXPECT_EQ(s.FindCharPos(',', 5), kNone);
  EXPECT_EQ(s.FindCharPos(0x2C2C, 0), kNone);
  EXPECT_EQ(s.FindCharPosFromRight(',', 4), 3u);
  EXPECT_EQ(s.FindCharPosFromRight(',', 2), 1u);
  EXPECT_EQ(s.FindCharPosFromRight('a', 0), 0u);
  // No default meaning "the end": from == Length() gives -1 though the character is there.
  EXPECT_EQ(s.FindCharPosFromRight('c', 5), kNone);
  EXPECT_EQ(s.FindCharPosFromRight('c', 0xFFFFFFFF), kNone);
}

TEST_P(StringCore, SearchesNeverMatchATrailByte) {
  if (!DoubleByte()) GTEST_SKIP() << "double-byte mode only";
  // "\" and "a" as trail bytes, then as characters of their own.
  std::string text = std::string(kSoBackslash) + kTrailA + "\\a";
  TQXString31 s(text.c_str());
  ASSERT_EQ(s.Length(), 4u);
  EXPECT_EQ(s.FindCharPos('\\', 0), 2u);
  EXPECT_EQ(s.FindCharPos('a', 0), 3u);
  EXPECT_EQ(s.FindCharPosFromRight('\\', 3), 2u);
  EXPECT_EQ(s.FindCharPosFromRight('\\', 1), kNone);
  EXPECT_EQ(s.FindCharPos(0x835C, 0), 0u);
  EXPECT_EQ(s.SearchStr(TQXString15("\\"), 0), 2u);
  EXPECT_EQ(s.SearchStr(TQXString15("a"), 0), 3u);
  EXPECT_EQ(s.SearchStr(TQXString15(kTrailA), 0), 1u);
  EXPECT_EQ(s.SearchStr(TQXString15("\x5C\x82"), 0), kNone);  // would start on a trail byte
}

// ---------------------------------------------------------------------------------------------
// Numbers
// ---------------------------------------------------------------------------------------------

TEST_P(StringCore, ToInt32TakesCommasAsThousandsSeparators) {
  EXPECT_EQ(TQXString31("1,234,567").ToInt32(), 1234567);
  EXPECT_EQ(TQXString31("12ab").ToInt32(), 12);
  EXPECT_EQ(TQXString31("").ToInt32(), 0);
  EXPECT_EQ(TQXString31("  -42").ToInt32(), -42);
  EXPECT_EQ(TQXString31("-2,147,483,648").ToInt32(), INT32_MIN);
  EXPECT_EQ(TQXString31("99999999999").ToInt32(), INT32_MAX);  // the 32-bit strtol saturates
  EXPECT_EQ(TQXString31("-99999999999").ToInt32(), INT32_MIN);
}

}  // namespace
