// Long random sequences of edits on a fixed and a dynamic string, each against a small model
// built on std::string, compared after every step, in both modes.
//
// The model states each operation's result as whole-string edits (insert, erase, resize of a
// std::string), where the library works in place with moves inside its buffer. It carries the
// character count as a separate field so that the deliberate count rules (the fixed string's
// overflowing insert and double-byte append) are part of what is compared.
#include <cstring>
#include <random>
#include <string>

#include "TextTestSupport.h"

namespace {

constexpr uint32_t kNone = 0xFFFFFFFFu;

bool Lead(bool doubleByteCodePage, uint8_t b) {
  return doubleByteCodePage && QXIsCodePageLeadByte(kQXCodePageJapanese, b);
}

struct Model {
  bool doubleByte;     // the mode (the code page's lead bytes go with it in these tests)
  bool fixed;          // a fixed string, or a dynamic one
  uint32_t capacity;   // fixed: its number; dynamic: the longest text it has held
  std::string bytes;   // the text
  uint32_t chars = 0;  // the character count, as the string keeps it

  uint32_t Size(size_t at) const { return Lead(doubleByte, uint8_t(bytes[at])) ? 2 : 1; }

  // Characters to the first zero byte; a lead byte before the zero counts as one.
  uint32_t Count() const {
    uint32_t n = 0;
    for (size_t i = 0; i < bytes.size() && bytes[i] != 0; ++n) {
      i += (doubleByte && Size(i) == 2 && i + 1 < bytes.size() && bytes[i + 1] != 0) ? 2 : 1;
    }
    return n;
  }
  // The byte offset of character n, never past the text.
  size_t Offset(uint32_t n) const {
    if (!doubleByte) return n < bytes.size() ? n : bytes.size();
    size_t off = 0;
    for (uint32_t i = 0; i < n && off < bytes.size(); ++i)
      off += Size(off);
    return off < bytes.size() ? off : bytes.size();
  }
  size_t OffsetFrom(size_t start, uint32_t n) const {
    size_t off = start;
    for (uint32_t i = 0; i < n && off < bytes.size(); ++i)
      off += doubleByte ? Size(off) : 1;
    return off < bytes.size() ? off : bytes.size();
  }
  void Cut() {
    if (fixed && bytes.size() > capacity) bytes.resize(capacity);
  }

  void Insert(const Model& s, uint32_t pos) {
    if (s.chars == 0 || int32_t(pos) < 0 || pos > chars) return;
    bytes.insert(Offset(pos), s.bytes);
    if (!fixed) {
      chars = Count();
    } else if (bytes.size() <= capacity) {
      chars += s.chars;
    } else {
      Cut();  // the count stays as it was
    }
  }
  void Append(const Model& s) {
    if (s.bytes.empty()) return;
    bytes += s.bytes;
    Cut();
    chars = Count();
  }
  void AppendCode(uint16_t code) {
    uint32_t size = doubleByte && Lead(true, uint8_t(code >> 8)) ? 2 : 1;
    if (fixed && bytes.size() == capacity) return;
    if (size == 2) {
      bytes += char(code >> 8);
      bytes += char(code);
      Cut();  // one byte of room: the lead byte alone
    } else {
      bytes += char(code);
    }
    chars += fixed ? size : 1;
  }
  void SetLength(uint32_t n) {
    if (n == chars) return;
    bytes.resize(Offset(n < chars ? n : chars));
    chars = Count();
  }
  void SubString(uint32_t pos, uint32_t len) {
    uint32_t keep = chars >= uint32_t(pos + len) ? len : uint32_t(chars - pos);
    if (pos != 0 && int32_t(pos) > 0 && chars != 0) {
      uint32_t p = pos < chars ? pos : chars;
      bytes.erase(0, Offset(p));
      chars -= p;
    }
    SetLength(keep);
  }
  bool Erase(uint32_t pos, uint32_t count) {
    if (int32_t(pos) < 0 || int32_t(count) <= 0 || pos >= chars) return false;
    if (count > chars - pos) count = chars - pos;
    size_t from = Offset(pos);
    bytes.erase(from, OffsetFrom(from, count) - from);
    chars -= count;
    return true;
  }
  void SetChar(uint16_t code, uint32_t pos) {
    if (int32_t(pos) < 0) pos = 0;
    if (pos >= chars) return;
    if (!doubleByte) {
      if (pos < bytes.size()) bytes[pos] = char(code);
      return;
    }
    size_t at = Offset(pos);
    if (at >= bytes.size()) return;
    size_t oldSize = std::min<size_t>(Size(at), bytes.size() - at);
    std::string with = Lead(true, uint8_t(code >> 8)) ? std::string{char(code >> 8), char(code)}
                                                      : std::string(1, char(code));
    if (bytes.size() + with.size() - oldSize > capacity) return;
    bytes.replace(at, oldSize, with);
  }
  uint16_t CharAt(uint32_t pos) const {
    if (int32_t(pos) < 0) pos = 0;
    if (pos >= chars) return 0;
    size_t at = Offset(pos);
    if (at >= bytes.size()) return 0;
    auto b = uint8_t(bytes[at]);
    if (doubleByte && Size(at) == 2) {
      return uint16_t(b << 8 | (at + 1 < bytes.size() ? uint8_t(bytes[at + 1]) : 0));
    }
    return b;
  }
  // The character index of each character start, to the end of the bytes.
  uint32_t Search(const std::string& needle, uint32_t from) const {
    if (int32_t(from) < 0) return kNone;
    size_t off = Offset(from);
    if (off >= bytes.size()) return kNone;
    for (uint32_t index = from; off < bytes.size(); ++index) {
      if (bytes.compare(off, needle.size(), needle) == 0 && off + needle.size() <= bytes.size()) {
        return index;
      }
      off += doubleByte ? Size(off) : 1;
    }
    return kNone;
  }
};

Model ModelOf(bool doubleByte, const std::string& text) {
  Model m{doubleByte, false, 0, text};
  m.chars = m.Count();
  return m;
}

void ExpectSame(const TQXString& s, const Model& m, const std::string& step) {
  ASSERT_EQ(std::string(s.StrGet(), s.ByteLength()), m.bytes) << step;
  ASSERT_EQ(s.StrGet()[s.ByteLength()], 0) << step;
  ASSERT_EQ(s.Length(), m.chars) << step;
  for (uint32_t p = 0; p <= m.chars + 1; ++p)
    ASSERT_EQ(s.GetCharAt(p), m.CharAt(p)) << step;
}

// A position near the text, now and then one far outside it.
uint32_t RandomPos(std::mt19937& rng, uint32_t chars) {
  switch (rng() % 16) {
    case 0:
      return 0xFFFFFFFFu;
    case 1:
      return 0x80000000u;
    default:
      return rng() % (chars + 3);
  }
}

uint16_t RandomCode(std::mt19937& rng, bool doubleByte) {
  std::string t = RandomText(rng, 1, doubleByte);
  return t.size() == 2 ? uint16_t(uint8_t(t[0]) << 8 | uint8_t(t[1])) : uint8_t(t[0]);
}

template <class S>
void RunEdits(bool doubleByte, uint32_t seed, int steps) {
  std::mt19937 rng(seed);
  S s;
  Model m{doubleByte, !s.IsDynamic(), s.Capacity(), "", 0};
  for (int step = 0; step < steps; ++step) {
    std::string label = "seed " + std::to_string(seed) + " step " + std::to_string(step);
    std::string text = RandomText(rng, rng() % 12, doubleByte);
    TQXDynamicString arg(text);
    Model argModel = ModelOf(doubleByte, text);
    uint32_t pos = RandomPos(rng, m.chars);
    switch (rng() % 10) {
      case 0:
        s.InsertStr(arg, pos);
        m.Insert(argModel, pos);
        label += " InsertStr";
        break;
      case 1: {
        uint32_t count = rng() % 8 == 0 ? 0xFFFFFFF0u : rng() % 6;
        bool done = s.EraseStr(pos, count);
        ASSERT_EQ(done, m.Erase(pos, count)) << label;
        label += " EraseStr";
        break;
      }
      case 2: {
        uint32_t len = rng() % 8;
        s.SubString(pos, len);
        m.SubString(pos, len);
        label += " SubString";
        break;
      }
      case 3: {
        uint16_t code = RandomCode(rng, doubleByte);
        s.SetCharAt(code, pos);
        m.SetChar(code, pos);
        label += " SetCharAt";
        break;
      }
      case 4:
      case 5:
        s += arg;
        m.Append(argModel);
        label += " append string";
        break;
      case 6: {
        uint16_t code = RandomCode(rng, doubleByte);
        s += code;
        m.AppendCode(code);
        label += " append code";
        break;
      }
      case 7: {
        char c = text.empty() ? 'k' : text[0];
        s += c;
        m.AppendCode(uint16_t(int16_t(static_cast<signed char>(c))));
        label += " append char";
        break;
      }
      case 8:
        s.SetLength(pos);
        m.SetLength(pos);
        label += " SetLength";
        break;
      default: {
        std::string needle = text.substr(0, rng() % 3);
        uint32_t from = RandomPos(rng, m.chars);
        ASSERT_EQ(s.SearchStr(TQXDynamicString(needle), from), m.Search(needle, from))
            << label << " SearchStr";
        break;
      }
    }
    if (!m.fixed && m.bytes.size() > m.capacity) m.capacity = uint32_t(m.bytes.size());
    ExpectSame(s, m, label);
    ASSERT_EQ(s.Capacity(), m.capacity) << label;  // exact growth, never given back
    // Start again now and then, so that both short and long texts are edited.
    if (rng() % 200 == 0 || (!m.fixed && m.bytes.size() > 3000)) {
      s.SetLength(0);
      m.SetLength(0);
    }
  }
}

using StringModel = TextModeTest;
QX_INSTANTIATE_TEXT_MODES(StringModel);

TEST_P(StringModel, FixedStringMatchesTheModel) {
  int steps = 6000 / kQXTestScale;
  for (uint32_t seed = 1; seed <= 6; ++seed) {
    RunEdits<TQXString15>(DoubleByte(), seed, steps);
    if (HasFatalFailure()) return;
    RunEdits<TQXString63>(DoubleByte(), seed + 100, steps);
    if (HasFatalFailure()) return;
  }
}

TEST_P(StringModel, DynamicStringMatchesTheModel) {
  int steps = 6000 / kQXTestScale;
  for (uint32_t seed = 1; seed <= 6; ++seed) {
    RunEdits<TQXDynamicString>(DoubleByte(), seed + 1000, steps);
    if (HasFatalFailure()) return;
  }
}

// Round trips: what is written into a string comes back, in every way that it can be.
TEST_P(StringModel, TextRoundTrips) {
  std::mt19937 rng(99);
  for (int i = 0; i < 500; ++i) {
    std::string text = RandomText(rng, rng() % 40, DoubleByte());
    TQXDynamicString d(text);
    ASSERT_EQ(std::string(d.StrGet(), d.ByteLength()), text);
    // Character by character into an empty string gives the same text and count.
    TQXDynamicString rebuilt;
    for (uint32_t p = 0; p < d.Length(); ++p)
      rebuilt += d.GetCharAt(p);
    ASSERT_TRUE(rebuilt == d);
    ASSERT_EQ(rebuilt.Length(), d.Length());
    // Split at every position and joined again.
    for (uint32_t p = 0; p <= d.Length(); ++p) {
      TQXDynamicString head(d), tail(d, p, 0);
      head.SetLength(p);
      head += tail;
      ASSERT_TRUE(head == d) << p;
    }
    // Pascal form.
    unsigned char pascal[256];
    TQXString255 fixed(d);
    fixed.ToPPtr(pascal);
    TQXString255 back;
    back.FromPPtr(pascal);
    ASSERT_TRUE(back == fixed);
  }
}

}  // namespace
