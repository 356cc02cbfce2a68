// The text form of the typed slots, on memory streams: writers, readers, and round trips where
// the text is meant to come back.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "QXStrStream.h"
#include "streams/StreamTestSupport.h"

namespace {

using qxtest::TextSource;
using qxtest::Written;

template <typename T>
std::string TextOf(T value, int32_t precision = 8) {
  TQXstrstream s;
  s.SetPrecision(precision);
  s << value;
  return Written(s);
}

// One value read from `text` into a variable holding `init`; the state after the read, and the
// next character left in the stream (0 at the end).
template <typename T>
struct ReadResult {
  T value;
  uint32_t state;
  char next;
};
template <typename T>
ReadResult<T> ReadOne(const std::string& text, T init) {
  TextSource in(text);
  *in >> init;
  const uint32_t state = in->state;
  char next = 0;
  in->GetChar(next);
  return {init, state, next};
}

// ---- Numbers ---------------------------------------------------------------------------------

// Random values of one width written as a list and read back in order, the text checked
// against the standard library's decimal form.
template <typename T>
void IntegerListRoundTrip(std::mt19937& rng) {
  std::vector<T> values(50);
  TQXstrstream out;
  std::string expected;
  for (T& v : values) {
    v = T(rng() >> (rng() % 32));
    const char separator = rng() % 2 ? ' ' : '\n';
    out << v << separator;
    expected += std::to_string(v) + separator;
  }
  ASSERT_EQ(Written(out), expected);
  TextSource in(Written(out));
  for (T v : values) {
    T back = 0;
    *in >> back;
    ASSERT_EQ(back, v);
  }
  ASSERT_EQ(in->state & kQXStreamFailed, 0u);
}

TEST(StreamTextNumbers, IntegersRoundTrip) {
  EXPECT_EQ(TextOf(INT32_MIN), "-2147483648");
  std::mt19937 rng(21);
  for (int trial = 0; trial < 10 * qxtest::kScale; ++trial) {
    IntegerListRoundTrip<int32_t>(rng);
    IntegerListRoundTrip<uint32_t>(rng);
    IntegerListRoundTrip<int16_t>(rng);
    IntegerListRoundTrip<uint16_t>(rng);
  }
}

TEST(StreamTextNumbers, IntegerReaderRules) {
  const auto minus = ReadOne<int32_t>(" \t-42,", 0);
  EXPECT_EQ(minus.value, -42);
  EXPECT_EQ(minus.next, ',');  // the stopper is put back
  // Digits wrap in 32 bits; the unsigned reader takes a sign too; 16-bit reads keep the low half.
  EXPECT_EQ(ReadOne<int32_t>("4294967297", 0).value, 1);
  EXPECT_EQ(ReadOne<uint32_t>("-5", 0).value, 0xFFFFFFFBu);
  EXPECT_EQ(ReadOne<uint32_t>("+7", 0).value, 7u);
  EXPECT_EQ(ReadOne<uint16_t>("65537", 0).value, 1);
  EXPECT_EQ(ReadOne<int16_t>("40000", 0).value, -25536);
  EXPECT_EQ(ReadOne<int32_t>("12", 0).state, kQXStreamEnd);  // ran into the end: no failure
  for (const char* bad : {"x", "-", "+ 5", "", "   "}) {
    const auto r = ReadOne<int32_t>(bad, 77);
    EXPECT_NE(r.state & kQXStreamFailed, 0u) << bad;
    EXPECT_EQ(r.value, 77) << bad;  // a failed read leaves the value
  }
}

TEST(StreamTextNumbers, DoubleWriterRules) {
  EXPECT_EQ(TextOf(1.5), "1.5");
  EXPECT_EQ(TextOf(2.0), "2");
  EXPECT_EQ(TextOf(-0.25), "-0.25");
  EXPECT_EQ(TextOf(1e10), "2147483647");
  EXPECT_EQ(TextOf(-1e10), "-2147483647");
  EXPECT_EQ(TextOf(std::numeric_limits<double>::infinity()), "2147483647");
  EXPECT_EQ(TextOf(2147483646.5), "2147483646.5");
  EXPECT_EQ(TextOf(1.0 / 3.0), "0.33333333");
  EXPECT_EQ(TextOf(1.0 / 3.0, 3), "0.333");
  EXPECT_EQ(TextOf(1.5, 0), "1.");  // a fraction, but no place to write it in
  // Decimals stop when the remainder runs out; trailing zeros are not written.
  EXPECT_EQ(TextOf(0.1), "0.1");
  EXPECT_EQ(TextOf(123.456), "123.456");
  EXPECT_EQ(TextOf(0.1f), "0.1");  // 0.100000001 after rounding to nine places
  EXPECT_EQ(TextOf(2.0000000001), "2");
  // A float is rounded to 9 places first: where its binary form truncates to ...023, the
  // rounded value gives ...024.
  EXPECT_EQ(TextOf(1.1f, 9), "1.100000024");
  EXPECT_EQ(TextOf(double(1.1f), 9), "1.100000023");
  EXPECT_EQ(TextOf(2.5f), "2.5");
  // NaN and huge precisions stay in bounds.
  EXPECT_FALSE(TextOf(std::nan(""), 2000).empty());
  EXPECT_EQ(TextOf(0.5, 2000), "0.5");
}

TEST(StreamTextNumbers, DoubleReaderRules) {
  struct Case {
    const char* text;
    double value;
  };
  for (const Case& c : {Case{"12.5e2", 1250.0}, Case{"1e5", 1.0}, Case{"1e4", 10000.0},
                        Case{"3e-5", 0.00003}, Case{"3e-6", 3.0}, Case{".5", 0.5}, Case{"5.", 5.0},
                        Case{"-.5e1", -5.0}, Case{"+2.25E-2", 0.0225}, Case{"0.125", 0.125}}) {
    const auto r = ReadOne<double>(c.text, -99);
    EXPECT_EQ(r.state & kQXStreamFailed, 0u) << c.text;
    EXPECT_DOUBLE_EQ(r.value, c.value) << c.text;
  }
  for (const char* bad : {".", "-.", "e5", "1e", "1e+", "x1", ""}) {
    const auto r = ReadOne<double>(bad, -99);
    EXPECT_NE(r.state & kQXStreamFailed, 0u) << bad;
    EXPECT_EQ(r.value, -99) << bad;
  }
  EXPECT_EQ(ReadOne<float>("0.75", 0).value, 0.75f);

  // ":" and "/" separate list items: the whole run is skipped, the next number stays.
  TextSource in("3/4 1:/:2.5,");
  double a = 0, b = 0, c = 0, e = 0;
  *in >> a >> b >> c >> e;
  EXPECT_EQ(std::vector<double>({a, b, c, e}), std::vector<double>({3, 4, 1, 2.5}));
}

// Numbers with at most `precision` decimals come back within the truncation of the last place.
TEST(StreamTextNumbers, DoublesRoundTripWithinPrecision) {
  std::mt19937 rng(22);
  for (int round = 0; round < 500 * qxtest::kScale; ++round) {
    double fraction = 0;
    for (int i = 0, scale = 10, places = int(rng() % 9); i < places; ++i, scale *= 10) {
      fraction += (rng() % 10) / double(scale);
    }
    const double value = (rng() % 2 ? -1 : 1) * (double(rng() % 2000000000u) + fraction);
    const auto r = ReadOne<double>(TextOf(value) + " ", 0);
    ASSERT_EQ(r.state & kQXStreamFailed, 0u) << TextOf(value);
    ASSERT_NEAR(r.value, value, 2e-8 + std::fabs(value) * 1e-15) << TextOf(value);
  }
}

// ---- Words, quoted text, lines ---------------------------------------------------------------

TEST(StreamTextWords, ReadWordRules) {
  // Quoted: a backslash escapes. Unquoted: a quote is ordinary, a backslash escapes, the stopper
  // is consumed. 256 characters at most, and the one behind the cut is lost.
  std::string alpha(300, 'a');
  for (size_t i = 0; i < alpha.size(); ++i)
    alpha[i] = char('a' + i % 26);
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {"\"a\\\"b c\" d", {"a\"b c", "d"}},
      {"ab\"c\\ d\te", {"ab\"c d", "e"}},
      {alpha + " ", {alpha.substr(0, 256), alpha.substr(257)}}};
  for (const auto& [text, words] : cases) {
    TextSource in(text);
    char word[kQXStreamWordMax + 1];
    for (const std::string& want : words) {
      in->ReadWord(word);
      EXPECT_EQ(std::string(word), want);
    }
  }
}

TEST(StreamTextWords, QuotedTextRoundTrips) {
  TQXstrstream out;
  out.WriteQuoted("a\"b");
  out.WriteQuoted("");
  out.WriteQuoted("c\\");
  EXPECT_EQ(Written(out), "\"a\\\"b\"\"\"\"c\\\\\"");
  TQXstrstream huge;  // only the first 32767 bytes of a longer text go out
  huge.WriteQuoted(std::string(40000, 'q').c_str());
  EXPECT_EQ(Written(huge), "\"" + std::string(32767, 'q') + "\"");

  // Any bytes but 0, up to 256 of them, come back through ReadWord.
  std::mt19937 rng(23);
  const char alphabet[] = "ab \"\\\t\r\nx#{}\x01\xE9\xFF";
  for (int trial = 0; trial < 50 * qxtest::kScale; ++trial) {
    std::vector<std::string> words(1 + rng() % 6);
    TQXstrstream text;
    for (auto& w : words) {
      w.resize(rng() % 257);
      for (auto& ch : w) {
        ch = rng() % 3 ? alphabet[rng() % (sizeof alphabet - 1)] : char(1 + rng() % 255);
      }
      text.WriteQuoted(w.c_str());
      text << (rng() % 2 ? " " : "\r\n");
    }
    TextSource in(Written(text));
    for (const auto& w : words) {
      char back[kQXStreamWordMax + 1];
      in->ReadWord(back);
      ASSERT_EQ(std::string(back), w);
    }
  }
}

// The line rules, written plainly on a string: the stored line and the count taken.
std::pair<std::string, int32_t> NextLine(const std::string& text, size_t& pos, int32_t limit,
                                         char delimiter) {
  std::string line;
  const size_t start = pos;
  while (int32_t(line.size()) < limit && pos < text.size()) {
    const char c = text[pos++];
    if (delimiter == '\n' && (c == '\r' || c == '\n')) {
      if (pos < text.size() && text[pos] == (c == '\r' ? '\n' : '\r')) ++pos;
      break;
    }
    if (c == delimiter) break;
    line += c;
  }
  return {line, int32_t(pos - start)};
}

TEST(StreamTextLines, GetLineAgainstAModel) {
  TextSource pairs("a\r\nb\n\rc\r\rd\n\ne");
  char line[16];
  for (const char* expected : {"a", "b", "c", "", "d", ""}) {
    EXPECT_EQ(pairs->GetLine(line, 15, '\n'), '\n');
    EXPECT_STREQ(line, expected);
  }
  EXPECT_EQ(pairs->GetLine(line, 0, 'x'), 'y');
  EXPECT_STREQ(line, "");
  EXPECT_EQ(pairs->lastCount, 0);

  std::mt19937 rng(24);
  const char alphabet[] = "ab\r\n;";
  for (int trial = 0; trial < 200 * qxtest::kScale; ++trial) {
    std::string text(rng() % 40, ' ');
    for (auto& ch : text)
      ch = alphabet[rng() % 5];
    const char delimiter = rng() % 2 ? '\n' : ';';
    TextSource in(text);
    size_t pos = 0;
    while ((in->state & kQXStreamEnd) == 0) {
      const int32_t limit = 1 + int32_t(rng() % 6);
      char got[8];
      std::memset(got, 0x55, sizeof got);
      in->GetLine(got, limit, delimiter);
      const auto [expected, taken] = NextLine(text, pos, limit, delimiter);
      ASSERT_EQ(std::string(got), expected) << trial;
      ASSERT_EQ(in->lastCount, taken) << trial;
      ASSERT_EQ(size_t(in->Tell()), pos) << trial;
    }
  }
}

TEST(StreamTextWords, DelimitedAndCharacters) {
  // A bounded read leaves the rest of a long word for the next one and puts white space back.
  TextSource in("abcdef gh");
  char part[4];
  in->ReadDelimited(part, sizeof part);
  EXPECT_STREQ(part, "abc");
  in->ReadDelimited(part, sizeof part);
  EXPECT_STREQ(part, "def");
  char next = 0;
  in->GetChar(next);
  EXPECT_EQ(next, ' ');

  // >> char* stores 256 characters at most and leaves the rest; a 0 byte ends a word.
  TextSource longWord(std::string(300, 'k') + " ab" + '\0' + "cd");
  char word[kQXStreamWordMax + 1];
  *longWord >> word;
  EXPECT_EQ(std::string(word), std::string(256, 'k'));
  *longWord >> word;
  EXPECT_EQ(std::string(word), std::string(44, 'k'));
  *longWord >> word;
  EXPECT_STREQ(word, "ab");

  // Characters come past the white space; a bool is true for any byte but 0, so "0" is true.
  EXPECT_EQ(ReadOne<char>(" \n x", 0).value, 'x');
  EXPECT_TRUE(ReadOne<bool>(" 0", false).value);
  EXPECT_FALSE(ReadOne<bool>(std::string(" ") + '\0', true).value);

  // The skip set is the caller's to choose.
  TextSource commas(",,7");
  commas->whitespace = ",";
  int32_t v = 0;
  *commas >> v;
  EXPECT_EQ(v, 7);
}

// A countstream measures exactly what a memory stream receives.
TEST(StreamTextCount, MeasuresTheTextForm) {
  std::mt19937 rng(25);
  for (int trial = 0; trial < 50; ++trial) {
    countstream counter;
    TQXstrstream memory;
    for (int i = 0; i < 40; ++i) {
      const uint32_t v = rng(), kind = rng() % 5;
      for (TQXiostream* s :
           {static_cast<TQXiostream*>(&counter), static_cast<TQXiostream*>(&memory)}) {
        if (kind == 0) *s << int32_t(v);
        if (kind == 1) *s << double(int32_t(v)) / 977.0;
        if (kind == 2) s->WriteQuoted("q\"\\");
        if (kind == 3) *s << endl;
        if (kind == 4) *s << "text";
      }
    }
    ASSERT_EQ(counter.Length(), memory.Tell());
  }
  // Seeking: back from the length, or past it, which lifts the length.
  countstream s;
  s << "abcdef";
  s.Seek(2, 2);
  EXPECT_EQ(s.Tell(), 4);
  EXPECT_EQ(s.state, 0u);
  s.Seek(10, 1);
  EXPECT_EQ(s.Length(), 14);
  EXPECT_EQ(s.state, kQXStreamEnd);
  s.Seek(3, 7);  // unknown whence: the position stays
  EXPECT_EQ(s.Tell(), 14);
  // Nothing can be read: text reads fail at once and do not hang.
  int32_t v = 5;
  char word[kQXStreamWordMax + 1], line[8];
  s >> v;
  s.ReadWord(word);
  s.GetLine(line, 7, '\n');
  EXPECT_NE(s.state & kQXStreamFailed, 0u);
  EXPECT_EQ(v, 5);
}

}  // namespace
