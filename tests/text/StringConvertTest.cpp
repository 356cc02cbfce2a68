// TQXString conversions: numbers, four-character codes, the digit counter, caret parameters.
#include <cmath>
#include <random>
#include <string>

#include "TextTestSupport.h"

namespace {

std::string Text(const TQXString& s) {
  return std::string(s.StrGet(), s.ByteLength());
}

using StringConvert = TextModeTest;
QX_INSTANTIATE_TEXT_MODES(StringConvert);

TEST_P(StringConvert, IntegersRoundTrip) {
  std::mt19937 rng(7);
  TQXString31 s;
  for (int i = 0; i < 2000; ++i) {
    auto v = int32_t(rng());
    s.FromInt32(v);
    ASSERT_EQ(s.ToInt32(), v) << Text(s);
  }
  s.FromInt32(0);
  EXPECT_EQ(Text(s), "0");
  s.FromInt32(INT32_MIN);
  EXPECT_EQ(Text(s), "-2147483648");
}

TEST_P(StringConvert, FourCharacterCodes) {
  TQXString15 s;
  s.FromCode(0x21212121, false);  // "!!!!" itself is still a number
  EXPECT_EQ(Text(s), "555819297");
  s.FromCode(0x54455854, false);
  EXPECT_EQ(Text(s), "TEXT");
  EXPECT_EQ(s.ToCode(), 0x54455854u);
  s.FromCode(0x41420043, false);  // the text ends at the first zero byte
  EXPECT_EQ(Text(s), "AB");
  EXPECT_EQ(s.ToCode(), 0x41420000u);  // missing characters give zero bytes
  s.FromCode(0x00000041, true);        // raw: exactly four bytes, zeros included
  EXPECT_EQ(s.ByteLength(), 4u);
  EXPECT_EQ(Text(s), std::string("\0\0\0A", 4));
  s.FromCode(12, true);
  EXPECT_EQ(s.ByteLength(), 4u);
  s.FromCode(12, false);
  EXPECT_EQ(Text(s), "12");
}

TEST_P(StringConvert, DoublesFollowTheDecimalSetting) {
  TQXString63 s;
  s.FromDouble(3.14159);
  EXPECT_EQ(Text(s), "3.14");
  s.FromDouble(-0.005);
  EXPECT_EQ(Text(s), "-0.01");
  EXPECT_DOUBLE_EQ(TQXString31("1,234.5").ToDouble(), 1234.5);  // comma: thousands
  fake().SetDecimal(",");
  s.FromDouble(2.5);
  EXPECT_EQ(Text(s), "2,50");
  EXPECT_DOUBLE_EQ(s.ToDouble(), 2.5);
  EXPECT_DOUBLE_EQ(TQXString31("-12,75").ToDouble(), -12.75);
  EXPECT_DOUBLE_EQ(TQXString31("1.5").ToDouble(), 1.0);  // "." ends the number now
}

TEST_P(StringConvert, ToDoubleEdges) {
  EXPECT_EQ(TQXString15("").ToDouble(), 0.0);
  EXPECT_EQ(TQXString15("-").ToDouble(), 0.0);
  EXPECT_EQ(TQXString15("+7").ToDouble(), 7.0);
  EXPECT_EQ(TQXString15("x1").ToDouble(), 0.0);
  // At most eight fraction digits.
  EXPECT_DOUBLE_EQ(TQXString31("0.123456789").ToDouble(), 0.12345678);
  // The whole part wraps at 2^32.
  EXPECT_EQ(TQXString31("4294967297").ToDouble(), 1.0);
  // A huge value formats without overflowing anything.
  TQXString1023 big;
  big.FromDouble(1e300);
  EXPECT_EQ(big.ByteLength(), 304u);
}

TEST_P(StringConvert, FromFloatRoundsAndPads) {
  auto f = [](float v, unsigned char decimals) {
    TQXString63 s;
    s.FromFloat(v, decimals);
    return Text(s);
  };
  EXPECT_EQ(f(3.14159f, 2), "3.14");
  EXPECT_EQ(f(2.5f, 0), "3");
  EXPECT_EQ(f(-2.5f, 0), "-3");
  EXPECT_EQ(f(-0.3f, 0), "-0");      // with no decimals the sign follows the value alone
  EXPECT_EQ(f(-0.001f, 2), "0.00");  // with decimals only a non-zero rounded value is signed
  EXPECT_EQ(f(1.05f, 3), "1.050");
  EXPECT_EQ(f(7.0f, 2), "7.00");
  EXPECT_EQ(f(-12.345f, 1), "-12.3");
}

TEST_P(StringConvert, FromFloatUsesTheCachedDecimalCharacter) {
  fake().SetDecimal(";");
  TQXString63 s;
  s.FromFloat(1.5f, 1);
  EXPECT_EQ(Text(s), "1;5");
  int reads = fake().decimalReads;
  s.FromFloat(2.5f, 1);
  EXPECT_EQ(fake().decimalReads, reads);  // cached
}

TEST_P(StringConvert, ToFloatIsAlwaysZero) {
  EXPECT_EQ(TQXString15("3.5").ToFloat(), 0.0f);
  EXPECT_EQ(TQXString15("").ToFloat(), 0.0f);
}

TEST_P(StringConvert, IncrementDigitsCountsLikeAnOdometer) {
  auto inc = [](const char* text) {
    TQXString31 s(text);
    s.IncrementDigits();
    return Text(s);
  };
  EXPECT_EQ(inc("A9"), "1A0");
  EXPECT_EQ(inc("file08"), "file09");
  EXPECT_EQ(inc("file09"), "file10");
  EXPECT_EQ(inc("99"), "100");
  EXPECT_EQ(inc("x"), "1x");  // no digit: the carry reaches the start
  EXPECT_EQ(inc("1-9"), "2-0");
  EXPECT_EQ(inc(""), "");

  // Against a plain decimal counter.
  TQXString15 counter("0");
  for (int i = 1; i <= 1200; ++i) {
    counter.IncrementDigits();
    ASSERT_EQ(counter.ToInt32(), i);
  }
}

TEST_P(StringConvert, ReplaceParameters) {
  TQXString255 s("Cannot open ^0 because ^0 is busy");
  s.ReplaceParam(TQXString31("file.txt"));
  EXPECT_EQ(Text(s), "Cannot open file.txt because file.txt is busy");

  TQXString255 t("^1 of ^0, ^12");
  TQXString15 a("A"), b("B");
  const TQXString* values[] = {&a, nullptr, &b};
  t.ReplaceParams(values, 3);
  EXPECT_EQ(Text(t), "^1 of A, ^12");  // index 1 is null; "^2" does not occur
  t.ReplaceParamAt(TQXString15("one"), 1);
  EXPECT_EQ(Text(t), "one of A, one2");  // "^1" is found inside "^12" too

  // A replacement that joins with the text after it into a new needle is replaced in turn.
  TQXString31 joined("^^00");
  joined.ReplaceParam(TQXString15(""));
  EXPECT_EQ(Text(joined), "");
}

TEST_P(StringConvert, ReplaceParamWithAValueThatHoldsTheNeedleEnds) {
  TQXString255 s("a^0b^0c");
  s.ReplaceParam(TQXString15("[^0]"));
  EXPECT_EQ(Text(s), "a[^0]b[^0]c");
  TQXDynamicString d("^0");
  d.ReplaceParam(TQXString15("^0^0"));
  EXPECT_EQ(Text(d), "^0^0");
}

}  // namespace
