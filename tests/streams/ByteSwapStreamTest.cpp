// The binary form of TQXByteSwapStream: byte order, round trips of every typed value and of
// strings of every class, the host-order double and float writers, untrusted lengths.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "QXStrStream.h"
#include "QXString.h"
#include "streams/StreamTestSupport.h"
#include "text/QXTranslation.h"

namespace {

using qxtest::Written;

std::vector<unsigned char> Bytes(TQXstrstream& s) {
  return std::vector<unsigned char>(s.buffer, s.buffer + s.Tell());
}

// A reading stream over a copy of what a writing one produced.
struct Reader {
  explicit Reader(TQXstrstream& written)
      : bytes(Bytes(written)), stream(bytes.data(), int32_t(bytes.size())) {}
  std::vector<unsigned char> bytes;
  TQXByteSwapStream stream;
};

template <typename T>
uint64_t BitsOf(T v) {
  std::make_unsigned_t<std::conditional_t<sizeof(T) == 8, int64_t, int32_t>> bits;
  std::memcpy(&bits, &v, sizeof v);
  return bits;
}

TEST(ByteSwapStreamEncoding, MostSignificantByteFirst) {
  TQXByteSwapStream s;
  s << uint32_t(0x11223344) << int16_t(0x0102) << int32_t(-2) << static_cast<unsigned char>(0xC3);
  s.WriteByte(0x7F);
  s.WriteDoubleSwapped(1.0);   // 3FF0000000000000
  s.WriteFloatSwapped(2.75f);  // 0x40300000, its bits reversed
  const std::vector<unsigned char> expected = {0x11, 0x22, 0x33, 0x44, 0x01, 0x02, 0xFF, 0xFF,
                                               0xFF, 0xFE, 0xC3, 0x7F, 0x3F, 0xF0, 0,    0,
                                               0,    0,    0,    0,    0x40, 0x30, 0,    0};
  EXPECT_EQ(Bytes(s), expected);
}

// << double and << float store the host's memory order, while their readers reverse: written and
// read back through the same class, they come back byte-reversed.
TEST(ByteSwapStreamEncoding, DoubleAndFloatWritersKeepHostOrder) {
  const double d = 1.0;
  const float f = -2.5f;
  TQXByteSwapStream s;
  s << d << f;
  std::vector<unsigned char> expected(12);
  std::memcpy(expected.data(), &d, 8);
  std::memcpy(expected.data() + 8, &f, 4);
  EXPECT_EQ(Bytes(s), expected);

  Reader r(s);
  double backD = 0;
  float backF = 0;
  r.stream >> backD >> backF;
  EXPECT_EQ(BitsOf(backD), __builtin_bswap64(BitsOf(d)));
  EXPECT_EQ(BitsOf(backF), __builtin_bswap32(uint32_t(BitsOf(f))));
}

// One kind of binary value: how it is written, and how it is read back as 64 bits.
struct Kind {
  std::function<void(TQXByteSwapStream&, uint64_t)> write;
  std::function<uint64_t(TQXByteSwapStream&)> read;
  uint64_t mask;
};
template <typename T>
Kind Plain(uint64_t mask) {
  return {[](TQXByteSwapStream& s, uint64_t v) { s << T(v); },
          [](TQXByteSwapStream& s) {
            T x{};
            s >> x;
            return uint64_t(std::make_unsigned_t<T>(x));
          },
          mask};
}
template <typename T>
uint64_t ReadBits(TQXByteSwapStream& s) {
  T x{};
  s >> x;
  return BitsOf(x);
}

// Every typed value, in random order and mixed widths, comes back through the binary form;
// doubles (through WriteDoubleSwapped) and floats (their bits, most significant byte first) bit
// for bit, NaN payloads included.
TEST(ByteSwapStreamRoundTrip, EveryTypedValue) {
  const Kind kinds[] = {
      Plain<uint16_t>(0xFFFF),
      Plain<int16_t>(0xFFFF),
      Plain<uint32_t>(0xFFFFFFFF),
      Plain<int32_t>(0xFFFFFFFF),
      Plain<unsigned char>(0xFF),
      Plain<char>(0xFF),
      {[](TQXByteSwapStream& s, uint64_t v) { s.WriteByte(uint8_t(v)); },
       Plain<unsigned char>(0).read, 0xFF},
      {[](TQXByteSwapStream& s, uint64_t v) {
         double d;
         std::memcpy(&d, &v, 8);
         s.WriteDoubleSwapped(d);
       },
       ReadBits<double>, ~uint64_t(0)},
      {Plain<uint32_t>(0).write, ReadBits<float>, 0xFFFFFFFF},
  };
  std::mt19937_64 rng(41);
  for (int trial = 0; trial < 50 * qxtest::kScale; ++trial) {
    std::vector<std::pair<const Kind*, uint64_t>> items(1 + rng() % 60);
    TQXByteSwapStream out;
    for (auto& [kind, v] : items) {
      kind = &kinds[rng() % std::size(kinds)];
      v = rng();
      kind->write(out, v);
    }
    Reader r(out);
    for (const auto& [kind, v] : items)
      ASSERT_EQ(kind->read(r.stream), v & kind->mask);
    ASSERT_EQ(r.stream.state & kQXStreamFailed, 0u);
    char c = 0;
    r.stream.GetChar(c);
    ASSERT_EQ(r.stream.state, kQXStreamEnd);  // nothing left over
  }
}

TEST(ByteSwapStreamReads, ShortReadsLeaveTheValue) {
  unsigned char three[] = {1, 2, 3};
  TQXByteSwapStream s(three, 3);
  EXPECT_EQ(s.mode, kQXStreamReadable);
  uint32_t v = 0xDEADBEEF;
  s >> v;
  EXPECT_EQ(v, 0xDEADBEEFu);
  EXPECT_EQ(s.state, kQXStreamEnd);
  EXPECT_EQ(s.lastCount, 3);
  s.Seek(1, 0);
  uint16_t h = 0;
  s >> h;
  EXPECT_EQ(h, 0x0203);
  EXPECT_EQ(s.state, 0u);  // exactly to the end is not past it
  s >> h;
  EXPECT_EQ(h, 0x0203);
  EXPECT_EQ(s.state, kQXStreamEnd);

  // The slots without a binary form keep the text ones: bool and C strings skip white space.
  unsigned char bytes[] = {' ', '\n', 1, 0, 'a', 'b', ' ', 'c'};
  TQXByteSwapStream t(bytes, sizeof bytes);
  bool yes = false, no = true;
  char word[kQXStreamWordMax + 1];
  t >> yes >> no >> word;
  EXPECT_TRUE(yes);
  EXPECT_FALSE(no);
  EXPECT_STREQ(word, "ab");
}

// ---- Strings ---------------------------------------------------------------------------------

std::string Text(const TQXString& s) {
  return std::string(s.StrGet(), s.ByteLength());
}

// The string classes, made from a text; index 5 is the dynamic string.
std::unique_ptr<TQXString> MakeString(int kind, const std::string& t) {
  if (kind == 0) return std::make_unique<TQXString15>(t);
  if (kind == 1) return std::make_unique<TQXString31>(t);
  if (kind == 2) return std::make_unique<TQXString63>(t);
  if (kind == 3) return std::make_unique<TQXString255>(t);
  if (kind == 4) return std::make_unique<TQXString1023>(t);
  return std::make_unique<TQXDynamicString>(t);
}

TEST(ByteSwapStreamStrings, LengthWidthFollowsCapacity) {
  TQXByteSwapStream s;
  s << TQXString255("ab") << TQXString1023("ab") << TQXString15("") << TQXDynamicString("ab");
  s << TQXDynamicString(std::string(300, 'w'));
  std::vector<unsigned char> expected = {2, 'a', 'b', 0,   0, 0, 2, 'a', 'b',
                                         0, 2,   'a', 'b', 0, 0, 1, 44};
  expected.insert(expected.end(), 300, 'w');
  EXPECT_EQ(Bytes(s), expected);
}

// Strings of every class come back through a string of the same class; a dynamic one is read
// with the capacity it was written with, since the capacity decides the width of the length.
TEST(ByteSwapStreamStrings, RoundTripEveryClass) {
  std::mt19937 rng(43);
  for (int trial = 0; trial < 40 * qxtest::kScale; ++trial) {
    struct Item {
      int kind;
      std::string text;
      uint32_t capacity;
    };
    std::vector<Item> items(1 + rng() % 8);
    TQXByteSwapStream out;
    for (auto& item : items) {
      std::string t(rng() % (rng() % 4 == 0 ? 1500 : 40), ' ');
      for (auto& ch : t)
        ch = char(1 + rng() % 255);
      if (!t.empty() && t[0] == '@') t[0] = 'A';  // "@W...@" is a mark of its own, see below
      item.kind = int(rng() % 6);
      const auto s = MakeString(item.kind, t);
      item.text = Text(*s);
      item.capacity = s->Capacity();
      out << *s << uint16_t(0xBEEF);  // a marker behind each string keeps them in step
    }
    Reader r(out);
    for (const auto& item : items) {
      auto s = item.kind < 5 ? MakeString(item.kind, "old")
                             : std::make_unique<TQXDynamicString>(nullptr, item.capacity);
      uint16_t marker = 0;
      r.stream >> *s >> marker;
      ASSERT_EQ(Text(*s), item.text) << trial;
      ASSERT_EQ(marker, 0xBEEF);
    }
    ASSERT_EQ(r.stream.state & kQXStreamFailed, 0u);
  }
}

// A length is not trusted: only the bytes that are there are read, a fixed string keeps what
// fits, and the stream stays in step.
TEST(ByteSwapStreamStrings, UntrustedLengths) {
  struct Case {
    std::vector<unsigned char> bytes;
    int kind;
    std::string text;
    uint32_t state;
  };
  std::vector<unsigned char> long40 = {40};
  for (int i = 0; i < 40; ++i)
    long40.push_back(uint8_t('a' + i % 26));
  const Case cases[] = {
      {{0xFF, 0xFF, 0xFF, 0xF0, 'a', 'b', 'c'}, 4, "abc", kQXStreamEnd | kQXStreamFailed},
      {{200, 'a', 'b'}, 5, "ab", kQXStreamEnd | kQXStreamFailed},
      {long40, 0, "abcdefghijklmno", 0},
      {{0, 0, 0}, 4, "", kQXStreamEnd},  // not enough bytes for the length
      {{0, 0, 0}, 3, "", 0},
  };
  for (const Case& c : cases) {
    std::vector<unsigned char> bytes = c.bytes;
    TQXByteSwapStream s(bytes.data(), int32_t(bytes.size()));
    auto str = MakeString(c.kind, "old");
    s >> *str;
    EXPECT_EQ(Text(*str), c.text);
    EXPECT_EQ(s.state, c.state) << c.text;
    if (c.kind == 0) {
      EXPECT_EQ(s.Tell(), 41);  // the rest stepped over
    }
  }
}

// A translation table for one test: stored "x" is system "y" and back; every other byte stands
// for itself.
class ScopedSwapXY {
 public:
  ScopedSwapXY() {
    unsigned char table[512 + 2] = {};
    for (int dir = 0; dir < 2; ++dir) {
      for (int code = 1; code < 256; ++code) {
        const int swapped = dir == 0 ? (code == 'x' ? 'y' : code) : (code == 'y' ? 'x' : code);
        table[dir * 256 + 16 * (code % 16) + code / 16] = uint8_t(swapped);  // by columns
      }
    }
    InitAsciiTranslationTable(table, sizeof table);
  }
  ~ScopedSwapXY() { QXRemoveAsciiTranslationTable(); }
};

TEST(ByteSwapStreamStrings, TextTravelsInTheStoredCharacterSet) {
  ScopedSwapXY table;
  TQXByteSwapStream s;
  s << TQXString63("yay");
  EXPECT_EQ(Bytes(s), (std::vector<unsigned char>{3, 'x', 'a', 'x'}));
  Reader r(s);
  TQXString63 back;
  r.stream >> back;
  EXPECT_EQ(Text(back), "yay");

  // "@W...@" marks text already in the system's set: only what stands between the marks stays.
  unsigned char marked[] = {10, '@', 'W', 'h', 'e', 'l', 'l', 'o', '@', 'x', 'y'};
  TQXByteSwapStream m(marked, sizeof marked);
  m >> back;
  EXPECT_EQ(Text(back), "hello");
}

// In the text form a string is a quoted word, read back by ReadWord.
TEST(StreamTextStrings, QuotedWordRoundTrip) {
  TQXstrstream out;
  out << TQXString255("two words") << ' ' << TQXString15("q\"b\\") << ' ' << TQXString31("plain");
  const std::string text = Written(out);
  EXPECT_EQ(text, "\"two words\" \"q\\\"b\\\\\" \"plain\"");
  TQXstrstream in(text.c_str());
  TQXString255 a, b;
  TQXString15 c;
  in >> a >> b >> c;
  EXPECT_EQ(Text(a), "two words");
  EXPECT_EQ(Text(b), "q\"b\\");
  EXPECT_EQ(Text(c), "plain");
}

}  // namespace
