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
    EXPECT_EQ(T::CodeFromText(text), *text != 0 ? code : 0x20202020u);
  }
  EXPECT_EQ(T::CodeFromText("ABCDEF"), 0x41424344u);
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

TEST(TokenWriters, ValueAndStringLines) {
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
  T::PutString(d.out, kName, TQXString255("my name"));
  T::PutString(d.out, kName, TQXString255("a\"b\\c"));
  T::PutString(d.out, kName, TQXString255(""));
  d.st().tight = 1;  // no blank between token and value, nor before "{"
  T::PutString(d.out, kName, TQXString255("t"));
  T::BeginBlock(d.out, kFont, false);
  T::EndBlock(d.out);
  EXPECT_EQ(d.Text(),
            "Size 12\r\nSize -7\r\nSize 4000000000\r\nSize -3\r\nSize 1\r\nSize x\r\n"
            "Size 1.5\r\nSize 0.1\r\nPos 10,20\r\nRect 2,1,4,3\r\nSize 1,-2,3\r\nSize 1\r\n"
            "Name TEXT\r\nName \"my name\"\r\nName \"a\\\"b\\\\c\"\r\nName \"\"\r\nName\"t\"\r\n"
            "Font{\r\n }\r\n");
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
  // Each text read token by token: "raw:" in front asks for the kept form, "<end>" behind a token
  // means that call reports the end of the file.
  const std::string q300(300, 'q'), q255(255, 'q');
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {"Name \"x y\" ", {"Name", "x y"}},
      {"Name \"a\\\"b\" \"c\1d\" ", {"raw:Name", "raw:\"a\\\"b\"", "cd"}},
      // The comment behind the string is skipped by the call that reads "}".
      {"# a comment {\r\n  # another\r\nSize{\"q\"#tail\r\n} ", {"Size", "{", "q", "}"}},
      // "#" directly after a word ends it; a kept comment keeps its line end, then the token.
      {"Size#c\r\n{ ", {"Size", "raw:#c\r{"}},
      {"   \r\n\t ", {"<end>"}},
      {"Size", {"Size<end>"}},  // a word at the very end does not count
      {"\"" + q300 + "\"X " + q300 + " \"" + q300 + "\" ",
       {q255, "X", q255, "raw:\"" + std::string(254, 'q')}},
      // Skipped blocks: binary data (which may hold "$"), text data with the FFFFFFFF length,
      // and a length that runs past the end.
      {"A $00000003 $$$ $ B $FFFFFFFF 0123$ C $00000100 x$ ", {"A", "", "B", "", "C", "<end>"}},
  };
  for (const auto& [text, tokens] : cases) {
    TextSource in(text);
    for (std::string want : tokens) {
      const bool raw = want.rfind("raw:", 0) == 0, end = want.ends_with("<end>");
      want = want.substr(raw ? 4 : 0, want.size() - (raw ? 4 : 0) - (end ? 5 : 0));
      uint32_t code = 1;
      const std::string got = Token(*in, raw, &code);
      EXPECT_EQ(code, end ? kQXErrEndOfFile : 0u) << text.substr(0, 60);
      if (!end || !want.empty()) {
        EXPECT_EQ(got, want) << text.substr(0, 60);
      }
    }
  }
  TextSource longString("\"" + q300 + "\" ");
  Token(*longString);
  EXPECT_EQ(longString->Tell(), 302);  // past the closing quote
  uint32_t code = 0;
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
      if (cx != 0) break;
      ASSERT_EQ(int(ix.kind), int(iy.kind));
      ASSERT_EQ(ix.start, iy.start);
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
    auto next = [&]() -> TQXiostream& {  // each value behind its token
      EXPECT_EQ(T::GetCode(*in), kSize);
      return *in;
    };
    EXPECT_EQ(T::GetLong(next()), l);
    EXPECT_EQ(T::GetULong(next()), ul);
    EXPECT_EQ(T::GetShort(next()), s);
    EXPECT_EQ(T::GetUShort(next()), us);
    EXPECT_DOUBLE_EQ(T::GetDouble(next()), d);
    EXPECT_FLOAT_EQ(T::GetFloat(next()), f);
    TQXPoint p2(0, 0);
    T::GetPoint(next(), p2);
    EXPECT_EQ(p2, p);
    TQXRect r2(0, 0, 0, 0);
    T::GetRect(next(), r2);
    EXPECT_EQ(r2, r);
    int16_t shorts2[5] = {};
    T::GetShorts(next(), 5, shorts2);
    EXPECT_TRUE(std::equal(shorts, shorts + 5, shorts2));
    EXPECT_EQ(T::GetByte(next()), byte);
    EXPECT_EQ(T::GetChar(next()), ch);
    EXPECT_EQ(T::GetBool(next()), trial % 2 == 0);
    EXPECT_EQ(T::GetCode(*in), kName);
    EXPECT_EQ(T::GetCode(*in), code);
  }
}

// The writers' hex form: two capital digits a byte, in order.
std::string Hex(const uint8_t* bytes, int32_t n) {
  std::string s;
  for (int32_t i = 0; i < n; ++i) {
    s += "0123456789ABCDEF"[bytes[i] >> 4];
    s += "0123456789ABCDEF"[bytes[i] & 15];
  }
  return s;
}

TEST(TokenRoundTrip, HexBlocksAndBytes) {
  std::mt19937 rng(5);
  for (int32_t n = 0; n <= 200; ++n) {
    std::vector<uint8_t> bytes(size_t(n) + 1);
    for (auto& b : bytes)
      b = uint8_t(rng());
    Doc w;
    const std::string indent(rng() % 3, ' ');
    w.st().depth = int32_t(indent.size());
    T::PutHexBlock(w.out, kName, n, bytes.data());
    T::PutLong(w.out, kSize, n);
    T::PutBytes(w.out, bytes.data(), n, false);
    w.out << ' ';
    T::PutBytes(w.out, bytes.data(), n, true);
    // 64 bytes a line, the first under the block's token and the rest under MORE; nothing at all
    // for an empty block.
    std::string expected;
    for (int32_t at = 0; at < n; at += 64)
      expected += indent + (at == 0 ? "Name " : "MORE ") +
                  Hex(bytes.data() + at, std::min(64, n - at)) + "\r\n";
    expected += indent + "Size " + std::to_string(n) + "\r\n" + Hex(bytes.data(), n) + ' ' +
                std::string(reinterpret_cast<const char*>(bytes.data()), size_t(n));
    const std::string text = w.Text();
    ASSERT_EQ(text, expected);

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
    std::string expected = "$FFFFFFFF\r\n";
    for (size_t i = 0; i < values.size();) {  // in pieces, the line count running on
      const size_t k = std::min(values.size() - i, size_t(rng() % 20));
      T::PutHexLongs(w.out, int32_t(k), values.data() + i);
      i += k;
    }
    T::EndHexBlock(w.out);
    EXPECT_EQ(w.st().valueCount, values.size());
    T::PutLong(w.out, kSize, 1);
    char digits[9];
    for (size_t i = 0; i < values.size(); ++i) {  // 16 values a line
      std::snprintf(digits, sizeof digits, "%08X", values[i]);
      expected += digits + std::string(i % 16 == 15 ? "\r\n" : "");
    }
    ASSERT_EQ(w.Text(), expected + "$\r\nSize 1\r\n");

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

// Packed characters: six bits each from '0', the low bits first, the last one padded with zeros.
std::string PackedModel(const std::vector<uint8_t>& bytes) {
  std::string out;
  uint32_t bits = 0, have = 0;
  for (uint8_t b : bytes) {
    for (bits |= uint32_t(b) << have, have += 8; have >= 6; bits >>= 6, have -= 6)
      out += char('0' + (bits & 63));
  }
  return have > 0 ? out + char('0' + bits) : out;
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
    ASSERT_EQ(state, 0u);
    std::string text = w.Text();
    std::erase_if(text, [](char c) { return c == '\r' || c == '\n'; });
    ASSERT_EQ(text, PackedModel(bytes));
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
  TQXDynamicString text;
  uint32_t pack3 = 0, pack2 = 0;
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
      {"\"abc", [&](TQXiostream& s) { T::GetLongString(s, text); }, kQXErrEndOfFile, 0},
      {"0A~", [&](TQXiostream& s) { T::GetPacked(s, bytes, 3, pack3); }, kQXErrIO, 0},
      {"0A", [&](TQXiostream& s) { T::GetPacked(s, bytes, 2, pack2); }, kQXErrEndOfFile, 0},
  };
  for (const Case& c : cases) {
    TextSource in(c.text);
    try {
      c.read(*in);
      ADD_FAILURE() << "no failure: " << c.text;
    } catch (const TQXException& e) {
      EXPECT_EQ(e.code, c.code) << c.text;
      EXPECT_EQ(e.line, c.line) << c.text;
      EXPECT_EQ(std::string(e.GetFile()), c.line != 0 ? path : "") << c.text;
    }
  }
}

}  // namespace
