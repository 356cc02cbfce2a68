// The token text format: the exact text of the writers, the lexer's rules, every writer read
// back by its reader, a randomized round trip of whole documents, and the failures with their
// codes and lines.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "QXException.h"
#include "QXToken.h"
#include "streams/StreamTestSupport.h"
#include "text/QXTranslation.h"

namespace {

using qxtest::TextSource;
using qxtest::Written;
namespace T = QXToken;

constexpr uint32_t kName = QX_FOURCC('N', 'a', 'm', 'e');
constexpr uint32_t kSize = QX_FOURCC('S', 'i', 'z', 'e');
constexpr uint32_t kFont = QX_FOURCC('F', 'o', 'n', 't');

// A memory stream with a token record of its own, so that tests do not share indentation.
struct Doc {
  TQXstrstream out;
  Doc() { T::AttachState(out); }
  QXTokenState& st() { return T::State(out); }
  std::string Text() { return Written(out); }
};

// A stream whose class is not a plain memory stream: the readers go through GetChar and PutBack.
class DerivedStream : public TQXstrstream {
 public:
  DerivedStream(void* data, int32_t n) : TQXstrstream(data, n, kQXStreamReadable) {}
};

struct Thrown {
  uint32_t code = 0;
  int32_t line = -1;
  std::string file;
};
Thrown Catch(const std::function<void()>& f) {
  try {
    f();
  } catch (const TQXException& e) {
    return {e.code, e.line, e.GetFile()};
  }
  return {};
}

std::string Token(TQXiostream& in, bool keepRaw = false, uint32_t* code = nullptr) {
  char buffer[kQXTokenBufferSize];
  const uint32_t c = T::ReadToken(in, buffer, keepRaw);
  if (code != nullptr) *code = c;
  return buffer;
}

// ---- Writers: the exact text -----------------------------------------------------------------

TEST(TokenWriters, TokenTextAndCodes) {
  const std::pair<uint32_t, const char*> cases[] = {
      {0x41424344, "ABCD"}, {0x41422020, "AB"}, {0x41004243, "A'BC"}, {0x20414243, ""}};
  for (auto [code, text] : cases) {
    Doc d;
    T::PutToken(d.out, code);
    EXPECT_EQ(d.Text(), text);
  }
  EXPECT_EQ(T::CodeFromText("AB"), 0x41422020u);
  EXPECT_EQ(T::CodeFromText("A'BC"), 0x41004243u);
  EXPECT_EQ(T::CodeFromText("ABCDEF"), 0x41424344u);
  EXPECT_EQ(T::CodeFromText(""), 0x20202020u);
  // Any code whose bytes are not blanks comes back from its text.
  std::mt19937 rng(7);
  for (int i = 0; i < 1000; ++i) {
    uint32_t code = 0;
    for (int b = 0; b < 4; ++b) {
      uint32_t byte;
      do {
        byte = rng() % 256;
      } while (byte == ' ' || byte == '\'');
      code = code << 8 | byte;
    }
    Doc d;
    T::PutToken(d.out, code);
    // A 0 byte is written as "'", so the text is a C string of four characters.
    ASSERT_EQ(T::CodeFromText(d.Text().c_str()), code);
  }
}

TEST(TokenWriters, ValueLines) {
  Doc d;
  T::PutLong(d.out, kSize, 12);
  T::PutLong(d.out, kSize, -7);
  T::PutULong(d.out, kSize, 4000000000u);
  T::PutShort(d.out, kSize, -3);
  T::PutBool(d.out, kSize, true);
  T::PutByte(d.out, kSize, 'x');
  T::PutDouble(d.out, kSize, 1.5);
  T::PutFloat(d.out, kSize, 0.1f);
  T::PutPoint(d.out, QX_FOURCC('P', 'o', 's', ' '), TQXPoint(10, 20));
  T::PutRect(d.out, QX_FOURCC('R', 'e', 'c', 't'), TQXRect(1, 2, 3, 4));  // L, T, R, B
  const int16_t shorts[] = {1, -2, 3};
  T::PutShorts(d.out, kSize, 3, shorts);
  T::PutShorts(d.out, kSize, 1, shorts);
  T::PutTokenValue(d.out, kName, QX_FOURCC('T', 'E', 'X', 'T'));
  EXPECT_EQ(d.Text(),
            "Size 12\r\nSize -7\r\nSize 4000000000\r\nSize -3\r\nSize 1\r\nSize x\r\n"
            "Size 1.5\r\nSize 0.1\r\nPos 10,20\r\nRect 2,1,4,3\r\nSize 1,-2,3\r\nSize 1\r\n"
            "Name TEXT\r\n");
}

TEST(TokenWriters, StringsAndTightness) {
  Doc d;
  T::PutString(d.out, kName, TQXString255("my name"));
  T::PutString(d.out, kName, TQXString255("a\"b\\c"));
  T::PutString(d.out, kName, TQXString255(""));
  d.st().tight = 1;
  T::PutString(d.out, kName, TQXString255("t"));
  T::BeginBlock(d.out, kFont, false);
  T::EndBlock(d.out);
  EXPECT_EQ(
      d.Text(),
      "Name \"my name\"\r\nName \"a\\\"b\\\\c\"\r\nName \"\"\r\nName\"t\"\r\nFont{\r\n }\r\n");
}

TEST(TokenWriters, BlocksIndentAndCloseOneFurtherIn) {
  Doc d;
  T::BeginBlock(d.out, kFont, false);
  T::PutLong(d.out, kSize, 1);
  T::BeginBlock(d.out, kName, false);
  T::PutLong(d.out, kSize, 2);
  T::EndBlock(d.out);
  T::EndBlock(d.out);
  EXPECT_EQ(d.st().depth, 0);
  EXPECT_EQ(d.Text(), "Font {\r\n Size 1\r\n Name {\r\n  Size 2\r\n  }\r\n }\r\n");

  Doc flat;  // indentation off: nothing written, depth left alone
  flat.st().indentOn = 0;
  T::BeginBlock(flat.out, kFont, false);
  T::PutLong(flat.out, kSize, 1);
  T::EndBlock(flat.out);
  EXPECT_EQ(flat.st().depth, 0);
  EXPECT_EQ(flat.Text(), "Font {\r\nSize 1\r\n}\r\n");

  Doc deep;  // more levels than one buffer of blanks
  deep.st().depth = 150;
  T::PutLong(deep.out, kSize, 3);
  EXPECT_EQ(deep.Text(), std::string(150, ' ') + "Size 3\r\n");
}

TEST(TokenWriters, HexLinesAndRuns) {
  std::vector<uint8_t> bytes(65);
  for (int i = 0; i < 65; ++i)
    bytes[i] = uint8_t(i * 37);
  Doc d;
  d.st().depth = 1;
  T::PutHexBlock(d.out, kName, 65, bytes.data());
  T::PutHexBlock(d.out, kName, 0, bytes.data());
  std::string first = " Name ";
  for (int i = 0; i < 64; ++i) {
    static const char* hex = "0123456789ABCDEF";
    first += hex[bytes[i] >> 4];
    first += hex[bytes[i] & 15];
  }
  EXPECT_EQ(d.Text(), first + "\r\n MORE 40\r\n");  // 64 * 37 = 2368 = 0x940

  Doc runs;  // 16 values per line, the count running on across calls
  std::vector<uint32_t> values(20);
  for (uint32_t i = 0; i < 20; ++i)
    values[i] = 0x01234567u * i;
  T::PutHexLongs(runs.out, 10, values.data());
  T::PutHexLongs(runs.out, 10, values.data() + 10);
  T::EndHexBlock(runs.out);
  std::string expected;
  char text[9];
  for (uint32_t i = 0; i < 20; ++i) {
    std::snprintf(text, sizeof text, "%08X", values[i]);
    expected += text;
    if (i == 15) expected += "\r\n";
  }
  EXPECT_EQ(runs.Text(), expected + "$\r\n");
  EXPECT_EQ(runs.st().valueCount, 20u);

  Doc raw;
  const uint8_t some[] = {0x00, 0xAB, 0x7F};
  T::PutBytes(raw.out, some, 3, false);
  T::PutBytes(raw.out, some, 3, true);
  EXPECT_EQ(raw.Text(),
            std::string("00AB7F") + std::string(reinterpret_cast<const char*>(some), 3));
}

TEST(TokenWriters, PackedCharacters) {
  auto packed = [](std::vector<uint8_t> bytes) {
    Doc d;
    uint32_t state;
    T::PackInit(state);
    T::PutPacked(d.out, bytes.data(), int32_t(bytes.size()), state);
    T::PutPackedEnd(d.out, state);
    EXPECT_EQ(state, 0u);
    return d.Text();
  };
  EXPECT_EQ(packed({0, 0, 0}), "0000");
  EXPECT_EQ(packed({255, 255, 255}), "oooo");
  EXPECT_EQ(packed({0x41}), "11");  // 0x41 & 63 = 1, 0x41 >> 6 = 1
  EXPECT_EQ(packed({0xC1, 0xF0}), std::string("1") + char(48 + 3) + char(48 + 15));
}

TEST(TokenWriters, StateRecords) {
  // Streams without a record share the default one, so its depth leaks from one to the other.
  TQXstrstream a, b;
  T::BeginBlock(a, kFont, false);
  T::PutLong(b, kSize, 1);
  EXPECT_EQ(Written(b), " Size 1\r\n");
  T::EndBlock(b);
  EXPECT_EQ(T::State(a).depth, 0);
  EXPECT_EQ(T::GetVersion(a), 1u);
  // An own record starts from the defaults and stays apart.
  Doc d;
  T::SetVersion(d.out, 7);
  EXPECT_EQ(T::GetVersion(d.out), 7u);
  EXPECT_EQ(T::GetVersion(a), 1u);
  EXPECT_EQ(d.st().flagA, 1);
  EXPECT_EQ(&T::AttachState(d.out)->version, &d.st().version);
  // A block too small for a record under the key is not used.
  TQXstrstream c;
  c.SetProperty(kQXTokenStateKey, nullptr, 2);
  EXPECT_EQ(&T::State(c), &T::State(a));
}

// ---- The lexer ---------------------------------------------------------------------------------

TEST(TokenReader, LexicalRules) {
  {
    TextSource in("Name \"x y\" ");
    EXPECT_EQ(Token(*in), "Name");
    EXPECT_EQ(Token(*in), "x y");
  }
  {
    TextSource in("Name \"a\\\"b\" \"c\1d\" ");
    EXPECT_EQ(Token(*in, true), "Name");
    EXPECT_EQ(Token(*in, true), "\"a\\\"b\"");
    EXPECT_EQ(Token(*in, false), "cd");
  }
  {
    TextSource in("# a comment {\r\n  # another\r\nSize{\"q\"#tail\r\n} ");
    EXPECT_EQ(Token(*in), "Size");
    EXPECT_EQ(Token(*in), "{");
    EXPECT_EQ(Token(*in), "q");
    EXPECT_EQ(Token(*in), "}");  // the comment behind the string is skipped by this call
  }
  {
    TextSource in("Size#c\r\n{ ");  // "#" directly after a word ends it
    EXPECT_EQ(Token(*in), "Size");
    EXPECT_EQ(Token(*in, true), "#c\r{");  // kept comment and its line end, then the token
  }
  uint32_t code = 0;
  {
    TextSource in("   \r\n\t ");
    Token(*in, false, &code);
    EXPECT_EQ(code, kQXErrEndOfFile);
  }
  {
    TextSource in("Size");  // a word at the very end does not count
    EXPECT_EQ(Token(*in, false, &code), "Size");
    EXPECT_EQ(code, kQXErrEndOfFile);
  }
  {
    const std::string long300(300, 'q');
    TextSource in("\"" + long300 + "\"X " + long300 + " \"" + long300 + "\" ");
    EXPECT_EQ(Token(*in), std::string(255, 'q'));
    EXPECT_EQ(in->Tell(), 302);  // past the closing quote
    EXPECT_EQ(Token(*in), "X");
    EXPECT_EQ(Token(*in), std::string(255, 'q'));
    EXPECT_EQ(Token(*in, true), "\"" + std::string(254, 'q'));
  }
  {
    // Skipped blocks: binary data (which may hold "$"), text data with the FFFFFFFF length, and
    // a length that runs past the end.
    TextSource in("A $00000003 $$$ $ B $FFFFFFFF 0123$ C $00000100 x$ ");
    EXPECT_EQ(Token(*in), "A");
    EXPECT_EQ(Token(*in), "");
    EXPECT_EQ(Token(*in), "B");
    EXPECT_EQ(Token(*in), "");
    EXPECT_EQ(Token(*in), "C");
    Token(*in, false, &code);
    EXPECT_EQ(code, kQXErrEndOfFile);
  }
  for (const char* bad : {"$0000$ ", "$7FFFFFFF ", "$80000000 ", "$FFFFFFFE x$ "}) {
    TextSource in(bad);
    Token(*in, false, &code);
    EXPECT_NE(code, 0u) << bad;
  }
  EXPECT_TRUE(T::IsOpen("{x"));
  EXPECT_FALSE(T::IsOpen("x{"));
  EXPECT_TRUE(T::IsClose("}"));
  EXPECT_FALSE(T::IsClose(""));
}

// The plain memory stream is read directly, any other stream through GetChar: both must give
// the same tokens, codes, positions and states on any text.
TEST(TokenReader, DirectAndVirtualReadsAgree) {
  std::mt19937 rng(99);
  const char alphabet[] = "ab {}\"\\#$\r\n\t0F\1 ";
  for (int trial = 0; trial < 300 * qxtest::kScale; ++trial) {
    std::string text(rng() % 60, ' ');
    for (char& c : text)
      c = alphabet[rng() % (sizeof alphabet - 1)];
    std::vector<char> a(text.begin(), text.end()), b = a;
    a.push_back(0);
    b.push_back(0);
    TQXstrstream plain(a.data(), int32_t(text.size()), kQXStreamReadable);
    DerivedStream other(b.data(), int32_t(text.size()));
    for (int step = 0; step < 40; ++step) {
      const bool raw = step % 3 == 0;
      char x[kQXTokenBufferSize], y[kQXTokenBufferSize];
      TQXTokenInfo ix{}, iy{};
      const uint32_t cx = T::ReadToken(plain, x, raw, &ix);
      const uint32_t cy = T::ReadToken(other, y, raw, &iy);
      ASSERT_EQ(cx, cy) << text;
      ASSERT_STREQ(x, y) << text;
      ASSERT_EQ(plain.Tell(), other.Tell()) << text;
      ASSERT_EQ(plain.state, other.state) << text;
      if (cx == 0) {
        ASSERT_EQ(int(ix.kind), int(iy.kind));
        ASSERT_EQ(ix.start, iy.start);
      }
      if (cx != 0) break;
    }
  }
}

// ---- Every writer read back by its reader ------------------------------------------------------

TEST(TokenRoundTrip, EveryValueKind) {
  std::mt19937 rng(3);
  for (int trial = 0; trial < 20 * qxtest::kScale; ++trial) {
    const int32_t l = int32_t(rng());
    const uint32_t ul = rng();
    const int16_t s = int16_t(rng());
    const uint16_t us = uint16_t(rng());
    const double d = int32_t(rng() % 2000000) / 64.0 - 10000.0;  // exact in 8 decimals
    const float f = float(int32_t(rng() % 20000) - 10000) / 8.0f;
    const TQXPoint p{int32_t(rng()), int32_t(rng())};
    const TQXRect r{int32_t(rng()), int32_t(rng()), int32_t(rng()), int32_t(rng())};
    int16_t shorts[5];
    for (int16_t& v : shorts)
      v = int16_t(rng());
    const uint8_t byte = uint8_t(33 + rng() % 90);  // not white space
    const auto ch = static_cast<signed char>(33 + rng() % 90);
    const uint32_t code = QX_FOURCC('a' + rng() % 26, 'b', '\0', 'X');

    Doc w;
    T::PutLong(w.out, kSize, l);
    T::PutULong(w.out, kSize, ul);
    T::PutShort(w.out, kSize, s);
    T::PutUShort(w.out, kSize, us);
    T::PutDouble(w.out, kSize, d);
    T::PutFloat(w.out, kSize, f);
    T::PutPoint(w.out, kSize, p);
    T::PutRect(w.out, kSize, r);
    T::PutShorts(w.out, kSize, 5, shorts);
    T::PutByte(w.out, kSize, byte);
    T::PutChar(w.out, kSize, ch);
    T::PutBool(w.out, kSize, trial % 2 == 0);
    T::PutTokenValue(w.out, kName, code);

    TextSource in(w.Text());
    auto token = [&]() { ASSERT_EQ(T::GetCode(*in), kSize); };
    token();
    EXPECT_EQ(T::GetLong(*in), l);
    token();
    EXPECT_EQ(T::GetULong(*in), ul);
    token();
    EXPECT_EQ(T::GetShort(*in), s);
    token();
    EXPECT_EQ(T::GetUShort(*in), us);
    token();
    EXPECT_DOUBLE_EQ(T::GetDouble(*in), d);
    token();
    EXPECT_FLOAT_EQ(T::GetFloat(*in), f);
    token();
    TQXPoint p2(0, 0);
    T::GetPoint(*in, p2);
    EXPECT_EQ(p2, p);
    token();
    TQXRect r2(0, 0, 0, 0);
    T::GetRect(*in, r2);
    EXPECT_EQ(r2, r);
    token();
    int16_t shorts2[5] = {};
    T::GetShorts(*in, 5, shorts2);
    EXPECT_EQ(std::vector<int16_t>(shorts, shorts + 5), std::vector<int16_t>(shorts2, shorts2 + 5));
    token();
    EXPECT_EQ(T::GetByte(*in), byte);
    token();
    EXPECT_EQ(T::GetChar(*in), ch);
    token();
    EXPECT_EQ(T::GetBool(*in), trial % 2 == 0);
    EXPECT_EQ(T::GetCode(*in), kName);
    EXPECT_EQ(T::GetCode(*in), code);
  }
}

TEST(TokenRoundTrip, HexBlocksAndBytes) {
  std::mt19937 rng(5);
  for (int32_t n = 0; n <= 200; ++n) {
    std::vector<uint8_t> bytes(size_t(n) + 1);
    for (auto& b : bytes)
      b = uint8_t(rng());
    Doc w;
    w.st().depth = int32_t(rng() % 3);
    T::PutHexBlock(w.out, kName, n, bytes.data());
    T::PutLong(w.out, kSize, n);
    T::PutBytes(w.out, bytes.data(), n, false);
    w.out << ' ';
    const std::string lines = w.Text();
    ASSERT_EQ(std::count(lines.begin(), lines.end(), '\n'), (n + 63) / 64 + 1);
    T::PutBytes(w.out, bytes.data(), n, true);
    const std::string text = w.Text();

    TextSource in(text);
    std::vector<uint8_t> back(size_t(n) + 1, 0xEE), raw(size_t(n) + 1, 0xEE),
        bin(size_t(n) + 1, 0xEE);
    if (n > 0) {
      ASSERT_EQ(T::GetCode(*in), kName);
    }
    T::GetHexBlock(*in, n, back.data());
    ASSERT_EQ(T::GetCode(*in), kSize);
    ASSERT_EQ(T::GetLong(*in), n);
    T::GetBytes(*in, raw.data(), n, false);  // CR LF in front of the digits are skipped
    char blank;
    in->GetChar(blank);
    T::GetBytes(*in, bin.data(), n, true);
    for (auto* v : {&back, &raw, &bin}) {
      ASSERT_TRUE(std::equal(bytes.begin(), bytes.begin() + n, v->begin())) << n;
      ASSERT_EQ((*v)[size_t(n)], 0xEE);  // nothing written past the count
    }
  }
}

TEST(TokenRoundTrip, HexLongRuns) {
  std::mt19937 rng(8);
  for (int trial = 0; trial < 30; ++trial) {
    std::vector<uint32_t> values(rng() % 70);
    for (auto& v : values)
      v = rng();
    Doc w;
    w.out << '$';
    T::PutHexLong(w.out, 0xFFFFFFFFu);
    w.out << "\r\n";
    for (size_t i = 0; i < values.size();) {  // in pieces, the line count running on
      const size_t k = std::min(values.size() - i, size_t(rng() % 20));
      T::PutHexLongs(w.out, int32_t(k), values.data() + i);
      i += k;
    }
    T::EndHexBlock(w.out);
    T::PutLong(w.out, kSize, 1);

    TextSource skip(w.Text());  // the lexer steps over the whole run
    EXPECT_EQ(Token(*skip), "");
    EXPECT_EQ(Token(*skip), "Size");

    TextSource in(w.Text());
    char dollar;
    in->GetChar(dollar);
    uint32_t length = 0;
    T::ReadHexLong(*in, length);
    EXPECT_EQ(length, 0xFFFFFFFFu);
    std::vector<uint32_t> back(values.size());
    int32_t done = 0;
    T::ReadHexLongs(*in, int32_t(back.size()), back.data(), &done);
    EXPECT_EQ(back, values);
    EXPECT_EQ(done, int32_t(values.size()));
    T::SkipToDollar(*in);
    EXPECT_EQ(T::GetCode(*in), kSize);
  }
}

TEST(TokenRoundTrip, PackedInRandomPieces) {
  std::mt19937 rng(11);
  for (int trial = 0; trial < 100 * qxtest::kScale; ++trial) {
    std::vector<uint8_t> bytes(rng() % 100);
    for (auto& b : bytes)
      b = uint8_t(rng());
    Doc w;
    uint32_t state = 0;
    for (size_t i = 0; i < bytes.size();) {
      const size_t k = std::min(bytes.size() - i, size_t(rng() % 8));
      T::PutPacked(w.out, bytes.data() + i, int32_t(k), state);
      if (rng() % 4 == 0) w.out << "\r\n";  // line breaks may stand between characters
      i += k;
    }
    T::PutPackedEnd(w.out, state);
    const std::string text = w.Text();
    for (char c : text)
      ASSERT_TRUE((c >= '0' && c <= 'o') || c == '\r' || c == '\n');
    w.out << "\r\nSize 5\r\n";

    TextSource in(w.Text());
    std::vector<uint8_t> back(bytes.size());
    uint32_t readState = 0;
    for (size_t i = 0; i < back.size();) {
      const size_t k = std::min(back.size() - i, size_t(rng() % 8));
      T::GetPacked(*in, back.data() + i, int32_t(k), readState);
      i += k;
    }
    ASSERT_EQ(back, bytes);
    ASSERT_EQ(T::GetCode(*in), kSize);  // exactly the packed characters were read
  }
}

// ---- A random document, written and read back ------------------------------------------------

// A node of the model tree: a token and one value.
struct Node {
  enum Kind { kLong, kString, kPoint, kHex, kBlock } kind;
  uint32_t token;
  int32_t number = 0;
  std::string text;  // string value or hex bytes
  TQXPoint point{0, 0};
  std::vector<Node> children;
};

Node RandomNode(std::mt19937& rng, int depth) {
  Node n;
  n.kind = Node::Kind(rng() % (depth < 4 ? 5 : 4));
  n.token = QX_FOURCC('A' + rng() % 26, 'a' + rng() % 26, '0' + rng() % 10, rng() % 2 ? 'x' : ' ');
  switch (n.kind) {
    case Node::kLong:
      n.number = int32_t(rng());
      break;
    case Node::kString: {
      const char chars[] = "ab \"\\{}#$'\t";
      n.text.resize(rng() % (rng() % 8 == 0 ? 1500 : 20));
      for (char& c : n.text)
        c = chars[rng() % (sizeof chars - 1)];
      break;
    }
    case Node::kPoint:
      n.point = TQXPoint(int32_t(rng()), int32_t(rng()));
      break;
    case Node::kHex:
      n.text.resize(1 + rng() % 150);
      for (char& c : n.text)
        c = char(rng());
      break;
    case Node::kBlock:
      for (uint32_t i = rng() % 5; i > 0; --i)
        n.children.push_back(RandomNode(rng, depth + 1));
      break;
  }
  return n;
}

void WriteComment(TQXiostream& out, std::mt19937& rng) {
  if (rng() % 4 != 0) return;
  T::IndentToken(out);
  out << "# note { } \" $ " << int32_t(rng()) << endl;
}

void WriteNode(TQXiostream& out, const Node& n, std::mt19937& rng) {
  WriteComment(out, rng);
  switch (n.kind) {
    case Node::kLong:
      T::PutLong(out, n.token, n.number);
      break;
    case Node::kString:
      T::PutString(out, n.token, TQXDynamicString(n.text));
      break;
    case Node::kPoint:
      T::PutPoint(out, n.token, n.point);
      break;
    case Node::kHex:
      T::PutHexBlock(out, n.token, int32_t(n.text.size()), n.text.data());
      break;
    case Node::kBlock:
      T::BeginBlock(out, n.token, false);
      for (const Node& c : n.children)
        WriteNode(out, c, rng);
      WriteComment(out, rng);
      T::EndBlock(out);
      break;
  }
}

// Reads a node as a host does, knowing the shape it expects; `skip` steps over the value.
void CheckNode(TQXiostream& in, const Node& n, std::mt19937& rng) {
  ASSERT_EQ(T::GetCode(in), n.token);
  if (rng() % 8 == 0) {
    T::SkipValue(in);
    if (n.kind == Node::kHex && n.text.size() > 64) {
      for (size_t k = 64; k < n.text.size(); k += 64) {
        ASSERT_EQ(T::GetCode(in), kQXTokenMore);
        T::SkipValue(in);
      }
    }
    return;
  }
  switch (n.kind) {
    case Node::kLong:
      ASSERT_EQ(T::GetLong(in), n.number);
      break;
    case Node::kString: {
      TQXDynamicString s;
      T::GetLongString(in, s);
      ASSERT_EQ(std::string(s.StrGet(), s.ByteLength()), n.text);
      break;
    }
    case Node::kPoint: {
      TQXPoint p(0, 0);
      T::GetPoint(in, p);
      ASSERT_EQ(p, n.point);
      break;
    }
    case Node::kHex: {
      std::string back(n.text.size(), '\0');
      T::GetHexBlock(in, int32_t(back.size()), back.data());
      ASSERT_EQ(back, n.text);
      break;
    }
    case Node::kBlock:
      T::ExpectOpen(in);
      for (const Node& c : n.children)
        CheckNode(in, c, rng);
      T::ExpectClose(in);
      break;
  }
}

TEST(TokenRoundTrip, RandomDocuments) {
  for (uint32_t seed = 1; seed <= 40u * qxtest::kScale; ++seed) {
    std::mt19937 rng(seed);
    std::vector<Node> doc;
    for (uint32_t i = 1 + rng() % 8; i > 0; --i)
      doc.push_back(RandomNode(rng, 0));
    Doc w;
    for (const Node& n : doc)
      WriteNode(w.out, n, rng);
    ASSERT_EQ(w.st().depth, 0);
    const std::string text = w.Text();
    TextSource in(text);
    for (const Node& n : doc)
      CheckNode(*in, n, rng);
    char rest[kQXTokenBufferSize];
    ASSERT_EQ(T::ReadToken(*in, rest, false), kQXErrEndOfFile) << "seed " << seed;
    // The whole document is one block away from being skipped.
    TextSource wrapped("{\r\n" + text + "} X ");
    T::SkipValue(*wrapped);
    ASSERT_EQ(Token(*wrapped), "X") << "seed " << seed;
  }
}

TEST(TokenRoundTrip, BlockTextAndStringsThroughTranslation) {
  TextSource in("{ Size 1 # note\r\n Font { Name \"a b\\\"\" } MORE $00000002 {}$ } Tail ");
  TQXstrstream target;
  int32_t size = -1;
  T::GetBlockText(*in, target, &size);
  EXPECT_EQ(Written(target), "Size 1 # note\rFont { Name \"a b\\\"\" } MORE  ");
  EXPECT_EQ(size, target.Tell());
  EXPECT_EQ(Token(*in), "Tail");

  // A table that swaps "a" and "z" between the stored and the system form: the text is stored
  // swapped and comes back as it was.
  std::vector<unsigned char> table(513, 0);
  for (int c = 0; c < 256; ++c) {
    const int to = c == 'a' ? 'z' : c == 'z' ? 'a' : c;
    table[16 * (c % 16) + c / 16] = uint8_t(to);
    table[256 + 16 * (c % 16) + c / 16] = uint8_t(to);
  }
  InitAsciiTranslationTable(table.data(), uint32_t(table.size()));
  Doc w;
  T::PutString(w.out, kName, TQXString255("lazy"));
  T::PutString(w.out, kName, TQXString255("zap"));
  EXPECT_EQ(w.Text(), "Name \"lzay\"\r\nName \"azp\"\r\n");
  TextSource back(w.Text());
  TQXString255 s;
  TQXDynamicString ds;
  EXPECT_EQ(T::GetCode(*back), kName);
  EXPECT_EQ(T::GetString(s, *back), 0u);
  EXPECT_STREQ(s.StrGet(), "lazy");
  EXPECT_EQ(T::GetCode(*back), kName);
  T::GetLongString(*back, ds);
  EXPECT_STREQ(ds.StrGet(), "zap");
  QXRemoveAsciiTranslationTable();
  EXPECT_EQ(T::GetDynamicString(*back, ds), kQXErrEndOfFile);
}

// ---- Failures: code, path and line -------------------------------------------------------------

TEST(TokenFailures, CodesAndLines) {
  const std::string path = ".\\Source\\Common\\QXToken";
  struct Case {
    const char* text;
    std::function<void(TQXiostream&)> read;
    uint32_t code;
    int32_t line;
  };
  TQXstrstream sink;
  uint8_t bytes[8];
  uint32_t value;
  TQXPoint p;
  TQXRect r;
  const Case cases[] = {
      {"  ", [](TQXiostream& s) { T::SkipValue(s); }, kQXErrEndOfFile, 300},
      {"{ a { b } ", [](TQXiostream& s) { T::SkipValue(s); }, kQXErrEndOfFile, 300},
      {"", [](TQXiostream& s) { T::ExpectOpen(s); }, kQXErrEndOfFile, 356},
      {" ", [](TQXiostream& s) { T::ExpectClose(s); }, kQXErrEndOfFile, 367},
      {"Size", [](TQXiostream& s) { T::GetCode(s); }, kQXErrEndOfFile, 594},
      {" x", [&](TQXiostream& s) { T::GetBlockText(s, sink, nullptr); }, kQXErrEndOfFile, 1281},
      {"{ a b", [&](TQXiostream& s) { T::GetBlockText(s, sink, nullptr); }, kQXErrEndOfFile, 1259},
      {"{ a { b", [&](TQXiostream& s) { T::GetBlockText(s, sink, nullptr); }, kQXErrEndOfFile,
       1269},
      {"0102", [&](TQXiostream& s) { T::GetHexBlock(s, 2, bytes); }, kQXErrEndOfFile, 1366},
      {"01 MORE", [&](TQXiostream& s) { T::GetHexBlock(s, 65, bytes); }, kQXErrIO, 0},
      // Without a path: FailReadFile and GetEndOfFile.
      {"x ", [](TQXiostream& s) { T::ExpectOpen(s); }, kQXErrIO, 0},
      {"{ ", [](TQXiostream& s) { T::ExpectClose(s); }, kQXErrIO, 0},
      {"x { ", [&](TQXiostream& s) { T::GetBlockText(s, sink, nullptr); }, kQXErrIO, 0},
      {"0a ", [&](TQXiostream& s) { T::GetHexBlock(s, 1, bytes); }, kQXErrIO, 0},
      {"01 ", [&](TQXiostream& s) { T::GetHexBlock(s, 2, bytes); }, kQXErrIO, 0},
      {"0a", [&](TQXiostream& s) { T::GetBytes(s, bytes, 1, false); }, kQXErrIO, 0},
      {"\r\n0", [&](TQXiostream& s) { T::GetBytes(s, bytes, 1, false); }, kQXErrEndOfFile, 0},
      {"abc", [&](TQXiostream& s) { T::GetBytes(s, bytes, 4, true); }, kQXErrEndOfFile, 0},
      {"12$34", [&](TQXiostream& s) { T::ReadHexLong(s, value); }, kQXErrIO, 0},
      {"1234567", [&](TQXiostream& s) { T::ReadHexLong(s, value); }, kQXErrEndOfFile, 0},
      {"abc", [](TQXiostream& s) { T::SkipToDollar(s); }, kQXErrEndOfFile, 0},
      {"x ", [](TQXiostream& s) { T::GetLong(s); }, kQXErrIO, 0},
      {"  ", [](TQXiostream& s) { T::GetDouble(s); }, kQXErrIO, 0},
      {"1;2 ", [&](TQXiostream& s) { T::GetPoint(s, p); }, kQXErrIO, 0},
      {"1,x ", [&](TQXiostream& s) { T::GetPoint(s, p); }, kQXErrIO, 0},
      {"1,2 3", [&](TQXiostream& s) { T::GetRect(s, r); }, kQXErrIO, 0},
      {" \r\n", [](TQXiostream& s) { T::GetByte(s); }, kQXErrEndOfFile, 0},
      {"\"abc",
       [](TQXiostream& s) {
         TQXDynamicString d;
         T::GetLongString(s, d);
       },
       kQXErrEndOfFile, 0},
      {"0A~",
       [&](TQXiostream& s) {
         value = 0;
         T::GetPacked(s, bytes, 3, value);
       },
       kQXErrIO, 0},
      {"0A",
       [&](TQXiostream& s) {
         value = 0;
         T::GetPacked(s, bytes, 2, value);
       },
       kQXErrEndOfFile, 0},
  };
  for (const Case& c : cases) {
    TextSource in(c.text);
    const Thrown t = Catch([&] { c.read(*in); });
    EXPECT_EQ(t.code, c.code) << c.text;
    EXPECT_EQ(t.line, c.line) << c.text;
    EXPECT_EQ(t.file, c.line != 0 ? path : "") << c.text;
  }
}

}  // namespace
