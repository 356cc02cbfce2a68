// The token text format: writers of one line each, the token lexer and the readers built on it.
//
// Writing. A line is assembled in a local buffer (indentation, token, blank) and goes out in one
// Write; the value goes through the stream's typed << slot, so that the text is the stream's own
// text form; CR LF closes the line in one more Write. Hex and packed data are formatted into a
// local buffer of a few hundred bytes at a time.
//
// Reading. Every character reader here goes through CharSource. On a plain memory stream
// (exactly TQXstrstream or TQXByteSwapStream, whose GetChar and PutBack are the memory ones) it
// reads the window directly and writes the cursor and the state back when it is done, or when
// an exception leaves the reader; on any other stream it calls GetChar and PutBack. The result is
// the same either way: after a read the stream's state is 0, or kQXStreamEnd when the last
// character could not be had. A failed read (kQXStreamFailed) counts as the end, as in the
// stream core's own readers.
//
// Bounds. Token text is kept to 255 characters in a 256-byte buffer whatever the input; a word's
// or string's further characters are read and dropped. Hex words are decoded with a test of each
// digit, so a short word ends at its terminator and fails. Lengths read from the text (a skipped
// "$" block) are checked before they move the stream.
#include "QXToken.h"

#include <cstring>
#include <typeinfo>

#include "QXException.h"
#include "QXMemory.h"

namespace {

constexpr char kThisFile[] = ".\\Source\\Common\\QXToken";

// The fixed lines of the readers' throws: the host's error reports name them.
constexpr int32_t kLineSkipValue = 300;
constexpr int32_t kLineExpectOpen = 356;
constexpr int32_t kLineExpectClose = 367;
constexpr int32_t kLineGetCode = 594;
constexpr int32_t kLineBlockText = 1259;
constexpr int32_t kLineBlockTextNested = 1269;
constexpr int32_t kLineBlockTextStart = 1281;
constexpr int32_t kLineHexBlock = 1366;

constexpr int32_t kTokenMax = kQXTokenBufferSize - 1;  // characters kept by ReadToken
constexpr char kHexDigits[] = "0123456789ABCDEF";
constexpr char kLineEnd[2] = {13, 10};
constexpr uint32_t kStopped = kQXStreamEnd | kQXStreamFailed;

// GetLongString starts with room for this many characters and doubles it as needed, up to
// kLongStringMax; characters beyond that are read and dropped.
constexpr int32_t kLongStringStart = 1000;
constexpr int32_t kLongStringMax = 1 << 30;

static_assert(sizeof(QXTokenState) == 16 && alignof(QXTokenState) <= 4,
              "a property block from QXmalloc (4-byte aligned) must be able to hold the record");

// The record of every stream that has none of its own. Shared and unsynchronised.
QXTokenState gDefaultState = {1, 0, 1, 0, 0, 1};
constexpr QXTokenState kFreshState = {1, 0, 1, 0, 0, 1};

// The token's text: up to 4 bytes from the top; 0 as "'"; a blank ends it.
int32_t TokenText(uint32_t token, char* out) {
  int32_t n = 0;
  for (int shift = 24; shift >= 0; shift -= 8) {
    const uint8_t b = uint8_t(token >> shift);
    if (b == 32) break;
    out[n++] = b == 0 ? '\'' : char(b);
  }
  return n;
}

// The blanks for the depth, when indentOn is set: up to `room` of them go into `out` and their
// count is returned; a deeper indentation writes the excess to the stream first.
int32_t IndentInto(TQXiostream& stream, const QXTokenState& st, char* out, int32_t room) {
  int32_t depth = st.indentOn != 0 && st.depth > 0 ? st.depth : 0;
  if (depth > room) {
    char blanks[64];
    std::memset(blanks, ' ', sizeof blanks);
    while (depth > room) {
      const int32_t n = depth - room < 64 ? depth - room : 64;
      stream.Write(blanks, n);
      depth -= n;
    }
  }
  std::memset(out, ' ', size_t(depth));
  return depth;
}

// Indentation and token, and a blank when asked, in one Write.
void LineStart(TQXiostream& stream, uint32_t token, bool blank) {
  char line[80];
  int32_t n = IndentInto(stream, QXToken::State(stream), line, 64);
  n += TokenText(token, line + n);
  if (blank) line[n++] = ' ';
  stream.Write(line, n);
}

void LineEnd(TQXiostream& stream) {
  stream.Write(kLineEnd, 2);
}

template <typename T>
void ValueLine(TQXiostream& stream, uint32_t token, T value) {
  LineStart(stream, token, true);
  stream << value;
  LineEnd(stream);
}

[[noreturn]] void ThrowAt(uint32_t code, int32_t line) {
  throw TQXException(code, 0, kThisFile, line);
}

// The value of an uppercase hex digit, or -1.
int32_t HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool IsBlankOrLineEnd(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// ---------------------------------------------------------------------------------------------
// CharSource: the character reader of the token readers (see the top of the file).
// ---------------------------------------------------------------------------------------------

class CharSource {
 public:
  explicit CharSource(TQXiostream& stream) : stream_(stream) {
    const std::type_info& type = typeid(stream);
    if (type == typeid(TQXstrstream) || type == typeid(TQXByteSwapStream)) {
      auto& memory = static_cast<TQXstrstream&>(stream);
      // A window of size < 1 is read through the stream, which reports it as it should.
      if (memory.size > 0 && memory.buffer != nullptr) {
        memory_ = &memory;
        p_ = memory.cursor;
        end_ = memory.buffer + memory.size;
      }
    }
  }
  CharSource(const CharSource&) = delete;
  CharSource& operator=(const CharSource&) = delete;
  ~CharSource() { Sync(); }

  // The next character; false at the end (c is then left as it was).
  bool Get(char& c) {
    if (memory_ != nullptr) {
      touched_ = true;
      if (p_ < end_) {
        c = char(*p_++);
        ended_ = false;
        return true;
      }
      ended_ = true;
      return false;
    }
    stream_.GetChar(c);
    return (stream_.state & kStopped) == 0;
  }

  // Gives back the character that the last successful Get returned.
  void PutBack(char c) {
    if (memory_ != nullptr) {
      --p_;  // the byte there is c already: nothing to store
    } else {
      stream_.PutBack(c);
    }
  }

  // The stream position of the next character.
  int32_t Position() { return memory_ != nullptr ? int32_t(p_ - memory_->buffer) : stream_.Tell(); }

  // Hands the position and state back to the stream.
  void Sync() {
    if (memory_ != nullptr && touched_) {
      memory_->cursor = p_;
      memory_->state = ended_ ? uint32_t(kQXStreamEnd) : 0u;
      touched_ = false;
    }
  }

 private:
  TQXiostream& stream_;
  TQXstrstream* memory_ = nullptr;
  unsigned char* p_ = nullptr;
  unsigned char* end_ = nullptr;
  bool touched_ = false;
  bool ended_ = false;
};

// A character for the hex readers: CR and LF in front are skipped; the end is GetEndOfFile.
char NextSignificant(CharSource& src) {
  char c = 0;
  do {
    if (!src.Get(c)) QXToken::GetEndOfFile();
  } while (c == '\r' || c == '\n');
  return c;
}

int32_t NextHexDigit(CharSource& src) {
  const int32_t v = HexValue(NextSignificant(src));
  if (v < 0) QXToken::FailReadFile();
  return v;
}

// ReadHexLong without throwing: 0, kQXErrEndOfFile, or kQXErrIO when a "$" comes first (it is
// put back).
uint32_t ReadHexLongCode(TQXiostream& stream, uint32_t& out) {
  CharSource src(stream);
  uint32_t value = 0;
  for (int digit = 0; digit < 8; ++digit) {
    char c = 0;
    int32_t v;
    for (;;) {
      if (!src.Get(c)) return kQXErrEndOfFile;
      if (c == '$') {
        src.PutBack(c);
        return kQXErrIO;
      }
      v = HexValue(c);
      if (v >= 0) break;
    }
    value = value << 4 | uint32_t(v);
  }
  out = value;
  return 0;
}

// Step 4 of the lexer, after its "$": the length, the bytes it covers, and the text up to the
// closing "$".
uint32_t SkipDollarBlock(TQXiostream& stream) {
  uint32_t length = 0;
  if (const uint32_t code = ReadHexLongCode(stream, length); code != 0) return code;
  if (length != 0xFFFFFFFFu) {
    // The step is length + 1 bytes forward. A length whose step does not fit the stream's signed
    // 32-bit offsets would wrap into a step backwards; no stream holds that many bytes, so it
    // counts as running into the end.
    if (length >= 0x7FFFFFFFu) return kQXErrEndOfFile;
    stream.Seek(int32_t(length + 1), 1);
    if (stream.state != 0) return kQXErrEndOfFile;
  }
  CharSource src(stream);
  char c = 0;
  do {
    if (!src.Get(c)) return kQXErrEndOfFile;
  } while (c != '$');
  return 0;
}

// The lexer proper. Returns a code, or kDollar when a "$" block follows (its "$" consumed), which
// the caller skips with the stream in sync.
constexpr uint32_t kDollar = 1;

uint32_t Lex(TQXiostream& stream, char* buffer, bool keepRaw, TQXTokenInfo* info) {
  CharSource src(stream);
  int32_t n = 0;
  auto store = [&](char ch) {
    if (n < kTokenMax) buffer[n++] = ch;
  };
  auto finish = [&](uint32_t code, TQXTokenKind kind, int32_t textFrom) {
    buffer[n] = 0;
    if (info != nullptr) {
      info->kind = kind;
      info->textFrom = textFrom;
    }
    return code;
  };
  auto where = [&]() {
    if (info != nullptr) info->start = src.Position() - 1;
  };

  char c = 0;
  do {
    if (!src.Get(c)) return finish(kQXErrEndOfFile, TQXTokenKind::kWord, 0);
  } while (IsBlankOrLineEnd(c));
  where();

  if (c == '"') {
    if (keepRaw) store(c);
    for (;;) {
      if (!src.Get(c)) return finish(kQXErrEndOfFile, TQXTokenKind::kString, 0);
      if (c == '"') break;
      if (c == '\\' || c == 1) {
        if (keepRaw) store(c);
        if (!src.Get(c)) return finish(kQXErrEndOfFile, TQXTokenKind::kString, 0);
      }
      store(c);
    }
    if (keepRaw) store(c);
    return finish(0, TQXTokenKind::kString, 0);
  }

  if (c == '$') return finish(kDollar, TQXTokenKind::kSkipped, 0);

  if (c == '#') {
    for (;;) {
      if (keepRaw) store(c);
      for (;;) {
        if (!src.Get(c)) return finish(kQXErrEndOfFile, TQXTokenKind::kWord, 0);
        if (c == '\r' || c == '\n') break;
        if (keepRaw) store(c);
      }
      if (keepRaw) store(c);  // the line end, so that the kept text reads back the same
      do {
        if (!src.Get(c)) return finish(kQXErrEndOfFile, TQXTokenKind::kWord, n);
      } while (IsBlankOrLineEnd(c));
      if (c != '#') break;
    }
    where();
  }

  const int32_t textFrom = n;
  if (c == '{' || c == '}') {
    store(c);
    return finish(0, c == '{' ? TQXTokenKind::kOpen : TQXTokenKind::kClose, textFrom);
  }
  if (c == ' ') {  // an empty token; the blank is read again by the next call
    src.PutBack(c);
    return finish(0, TQXTokenKind::kWord, textFrom);
  }
  store(c);
  for (;;) {
    if (!src.Get(c)) return finish(kQXErrEndOfFile, TQXTokenKind::kWord, textFrom);
    if (c == '\t' || c == '\r' || c == '\n' || c == '#' || c == '{' || c == '}' || c == '"' ||
        c == ' ') {
      src.PutBack(c);
      break;
    }
    store(c);
  }
  return finish(0, TQXTokenKind::kWord, textFrom);
}

// A ReadToken that must succeed: its code is thrown with the caller's line.
void MustRead(TQXiostream& stream, char* buffer, bool keepRaw, TQXTokenInfo* info, int32_t line) {
  if (const uint32_t code = QXToken::ReadToken(stream, buffer, keepRaw, info); code != 0)
    ThrowAt(code, line);
}

// A typed value by the stream's >> slot; a text that does not parse is FailReadFile. The failed
// bit is cleared first, so that only this read's failure counts.
template <typename T>
T GetValue(TQXiostream& stream) {
  T value{};
  stream.state &= ~uint32_t(kQXStreamFailed);
  stream >> value;
  if ((stream.state & kQXStreamFailed) != 0) QXToken::FailReadFile();
  return value;
}

// The next byte must be a comma.
void ExpectComma(TQXiostream& stream) {
  CharSource src(stream);
  char c = 0;
  if (!src.Get(c) || c != ',') QXToken::FailReadFile();
}

// A block from QXmalloc, freed when the scope ends (also by an exception).
struct ScopedBlock {
  char* p = nullptr;
  ~ScopedBlock() { QXfree(p); }
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// State
// ---------------------------------------------------------------------------------------------

QXTokenState& QXToken::State(TQXiostream& stream) {
  void* p = stream.GetProperty(kQXTokenStateKey);
  // A block that someone else put under the key and that is too small for the record is not
  // used: the stream then works with the default record.
  if (p == nullptr || QXmsize(p) < sizeof(QXTokenState)) return gDefaultState;
  return *static_cast<QXTokenState*>(p);
}

QXTokenState* QXToken::AttachState(TQXiostream& stream) {
  void* p = stream.GetProperty(kQXTokenStateKey);
  if (p == nullptr || QXmsize(p) < sizeof(QXTokenState)) {
    stream.SetProperty(kQXTokenStateKey, &kFreshState, sizeof kFreshState);
    p = stream.GetProperty(kQXTokenStateKey);
    if (p == nullptr || QXmsize(p) < sizeof(QXTokenState)) return nullptr;
  }
  return static_cast<QXTokenState*>(p);
}

void QXToken::SetVersion(TQXiostream& stream, uint32_t version) {
  State(stream).version = version;
}

uint32_t QXToken::GetVersion(TQXiostream& stream) {
  return State(stream).version;
}

// ---------------------------------------------------------------------------------------------
// Tokens and blocks
// ---------------------------------------------------------------------------------------------

void QXToken::PutToken(TQXiostream& stream, uint32_t token) {
  char text[4];
  const int32_t n = TokenText(token, text);
  if (n > 0) stream.Write(text, n);
}

uint32_t QXToken::CodeFromText(const char* text) {
  uint32_t code = 0x20202020u;
  if (text == nullptr) return code;
  for (int i = 0; i < 4 && text[i] != 0; ++i) {
    const uint32_t b = text[i] == '\'' ? 0u : uint32_t(uint8_t(text[i]));
    const int shift = 24 - 8 * i;
    code = (code & ~(0xFFu << shift)) | b << shift;
  }
  return code;
}

void QXToken::IndentToken(TQXiostream& stream) {
  char blanks[64];
  const int32_t n = IndentInto(stream, State(stream), blanks, 64);
  if (n > 0) stream.Write(blanks, n);
}

TQXiostreamContext* QXToken::BeginBlock(TQXiostream& stream, uint32_t token, bool wantContext) {
  LineStart(stream, token, false);
  TQXiostreamContext* context = wantContext ? stream.GetContext() : nullptr;
  QXTokenState& st = State(stream);
  static constexpr char kOpen[4] = {' ', '{', 13, 10};
  if (st.tight != 0) {
    stream.Write(kOpen + 1, 3);
  } else {
    stream.Write(kOpen, 4);
  }
  if (st.indentOn != 0) ++st.depth;
  return context;
}

void QXToken::EndBlock(TQXiostream& stream) {
  QXTokenState& st = State(stream);
  char line[80];
  int32_t n = IndentInto(stream, st, line, 64);
  line[n++] = '}';
  line[n++] = 13;
  line[n++] = 10;
  stream.Write(line, n);
  if (st.indentOn != 0) --st.depth;
}

// ---------------------------------------------------------------------------------------------
// Value lines
// ---------------------------------------------------------------------------------------------

void QXToken::PutChar(TQXiostream& stream, uint32_t token, signed char value) {
  ValueLine(stream, token, char(value));
}

void QXToken::PutByte(TQXiostream& stream, uint32_t token, uint8_t value) {
  ValueLine(stream, token, static_cast<unsigned char>(value));
}

void QXToken::PutShort(TQXiostream& stream, uint32_t token, int16_t value) {
  ValueLine(stream, token, value);
}

void QXToken::PutUShort(TQXiostream& stream, uint32_t token, uint16_t value) {
  ValueLine(stream, token, value);
}

void QXToken::PutLong(TQXiostream& stream, uint32_t token, int32_t value) {
  ValueLine(stream, token, value);
}

void QXToken::PutULong(TQXiostream& stream, uint32_t token, uint32_t value) {
  ValueLine(stream, token, value);
}

void QXToken::PutFloat(TQXiostream& stream, uint32_t token, float value) {
  ValueLine(stream, token, value);
}

void QXToken::PutDouble(TQXiostream& stream, uint32_t token, double value) {
  ValueLine(stream, token, value);
}

void QXToken::PutBool(TQXiostream& stream, uint32_t token, bool value) {
  ValueLine(stream, token, int32_t(value ? 1 : 0));
}

void QXToken::PutPoint(TQXiostream& stream, uint32_t token, const TQXPoint& point) {
  LineStart(stream, token, true);
  stream << point.h << ',' << point.v;
  LineEnd(stream);
}

void QXToken::PutRect(TQXiostream& stream, uint32_t token, const TQXRect& rect) {
  LineStart(stream, token, true);
  stream << rect.top << ',' << rect.left << ',' << rect.bottom << ',' << rect.right;
  LineEnd(stream);
}

void QXToken::PutShorts(TQXiostream& stream, uint32_t token, int32_t count, const int16_t* values) {
  LineStart(stream, token, true);
  for (int32_t i = 0; values != nullptr && i < count; ++i) {
    stream << values[i];
    if (i + 1 < count) stream << ',';
  }
  LineEnd(stream);
}

void QXToken::PutString(TQXiostream& stream, uint32_t token, const TQXString& text) {
  TQXDynamicString stored(text);
  stored.TranslateToStored(stored);
  LineStart(stream, token, State(stream).tight == 0);
  // The quoted text in pieces of at most sizeof out bytes.
  char out[1024];
  int32_t n = 0;
  out[n++] = '"';
  const char* p = stored.StrGet();
  const uint32_t length = stored.ByteLength();
  for (uint32_t i = 0; i < length; ++i) {
    if (n > int32_t(sizeof out) - 2) {
      stream.Write(out, n);
      n = 0;
    }
    const char c = p[i];
    if (c == '\\' || c == '"') out[n++] = '\\';
    out[n++] = c;
  }
  if (n > int32_t(sizeof out) - 3) {
    stream.Write(out, n);
    n = 0;
  }
  out[n++] = '"';
  out[n++] = 13;
  out[n++] = 10;
  stream.Write(out, n);
}

void QXToken::PutTokenValue(TQXiostream& stream, uint32_t token, uint32_t value) {
  LineStart(stream, token, true);
  char line[6];
  int32_t n = TokenText(value, line);
  line[n++] = 13;
  line[n++] = 10;
  stream.Write(line, n);
}

// ---------------------------------------------------------------------------------------------
// Hex data
// ---------------------------------------------------------------------------------------------

void QXToken::PutHexBlock(TQXiostream& stream, uint32_t token, int32_t count, const void* data) {
  if (count < 1 || data == nullptr) return;
  const auto* bytes = static_cast<const uint8_t*>(data);
  char hex[2 * kQXHexBytesPerLine + 2];
  for (int32_t done = 0; done < count;) {
    const int32_t k = count - done < kQXHexBytesPerLine ? count - done : kQXHexBytesPerLine;
    LineStart(stream, done == 0 ? token : kQXTokenMore, true);
    int32_t n = 0;
    for (int32_t i = 0; i < k; ++i) {
      const uint8_t b = bytes[done + i];
      hex[n++] = kHexDigits[b >> 4];
      hex[n++] = kHexDigits[b & 15];
    }
    hex[n++] = 13;
    hex[n++] = 10;
    stream.Write(hex, n);
    done += k;
  }
}

void QXToken::PutHexLong(TQXiostream& stream, uint32_t value) {
  char hex[8];
  for (int i = 0; i < 8; ++i)
    hex[i] = kHexDigits[(value >> (28 - 4 * i)) & 15];
  stream.Write(hex, 8);
}

void QXToken::PutHexLongs(TQXiostream& stream, int32_t count, const uint32_t* values) {
  if (values == nullptr) return;
  QXTokenState& st = State(stream);
  char out[512];
  int32_t n = 0;
  for (int32_t i = 0; i < count; ++i) {
    if (n > int32_t(sizeof out) - 10) {
      stream.Write(out, n);
      n = 0;
    }
    for (int d = 0; d < 8; ++d)
      out[n++] = kHexDigits[(values[i] >> (28 - 4 * d)) & 15];
    ++st.valueCount;
    if (st.valueCount % 16 == 0) {
      out[n++] = 13;
      out[n++] = 10;
    }
  }
  if (n > 0) stream.Write(out, n);
}

void QXToken::EndHexBlock(TQXiostream& stream) {
  static constexpr char kEnd[3] = {'$', 13, 10};
  stream.Write(kEnd, 3);
}

void QXToken::PutBytes(TQXiostream& stream, const void* data, int32_t count, bool binary) {
  if (count < 1 || data == nullptr) return;
  if (binary) {
    stream.Write(data, count);
    return;
  }
  const auto* bytes = static_cast<const uint8_t*>(data);
  char out[512];
  int32_t n = 0;
  for (int32_t i = 0; i < count; ++i) {
    if (n == int32_t(sizeof out)) {
      stream.Write(out, n);
      n = 0;
    }
    out[n++] = kHexDigits[bytes[i] >> 4];
    out[n++] = kHexDigits[bytes[i] & 15];
  }
  stream.Write(out, n);
}

// ---------------------------------------------------------------------------------------------
// Packed data
// ---------------------------------------------------------------------------------------------

void QXToken::PackInit(uint32_t& state) {
  state = 0;
}

void QXToken::PutPacked(TQXiostream& stream, const void* data, int32_t count, uint32_t& state) {
  if (count < 1 || data == nullptr) return;
  const auto* bytes = static_cast<const uint8_t*>(data);
  uint32_t pending = state & 0xFF;
  if (pending > 2) pending = 0;  // not a state of this writer: taken as a fresh one
  uint8_t group[3] = {uint8_t(state >> 8), uint8_t(state >> 16), 0};
  char out[512];
  int32_t n = 0;
  for (int32_t i = 0; i < count; ++i) {
    group[pending++] = bytes[i];
    if (pending < 3) continue;
    pending = 0;
    if (n > int32_t(sizeof out) - 4) {
      stream.Write(out, n);
      n = 0;
    }
    out[n++] = char((group[0] & 63) + 48);
    out[n++] = char((group[0] >> 6) + ((group[1] & 15) << 2) + 48);
    out[n++] = char((group[1] >> 4) + ((group[2] & 3) << 4) + 48);
    out[n++] = char((group[2] >> 2) + 48);
  }
  if (n > 0) stream.Write(out, n);
  state = pending | (pending >= 1 ? uint32_t(group[0]) << 8 : 0u) |
          (pending == 2 ? uint32_t(group[1]) << 16 : 0u);
}

void QXToken::PutPackedEnd(TQXiostream& stream, uint32_t& state) {
  const uint32_t pending = state & 0xFF;
  const uint8_t b0 = uint8_t(state >> 8), b1 = uint8_t(state >> 16);
  char out[3];
  if (pending == 1) {
    out[0] = char((b0 & 63) + 48);
    out[1] = char((b0 >> 6) + 48);
    stream.Write(out, 2);
  } else if (pending == 2) {
    out[0] = char((b0 & 63) + 48);
    out[1] = char((b0 >> 6) + ((b1 & 15) << 2) + 48);
    out[2] = char((b1 >> 4) + 48);
    stream.Write(out, 3);
  }
  state = 0;
}

void QXToken::GetPacked(TQXiostream& stream, void* data, int32_t count, uint32_t& state) {
  if (count < 1 || data == nullptr) return;
  auto* bytes = static_cast<uint8_t*>(data);
  uint32_t phase = state & 0xFF;
  if (phase > 2) phase = 0;  // not a state of this reader: taken as a fresh one
  uint32_t last = (state >> 8) & 63;
  CharSource src(stream);
  auto next = [&src]() {
    const char c = NextSignificant(src);
    if (c < 48 || c > 111) QXToken::FailReadFile();
    return uint32_t(c - 48);
  };
  for (int32_t i = 0; i < count; ++i) {
    uint32_t b;
    if (phase == 0) {
      const uint32_t c0 = next();
      last = next();
      b = c0 | (last & 3) << 6;
    } else if (phase == 1) {
      const uint32_t c2 = next();
      b = (last >> 2) | (c2 & 15) << 4;
      last = c2;
    } else {
      const uint32_t c3 = next();
      b = (last >> 4) | c3 << 2;
    }
    bytes[i] = uint8_t(b);
    phase = phase == 2 ? 0 : phase + 1;
    // Kept at every step, so that a reader that throws leaves a state that names what was read.
    state = phase | last << 8;
  }
}

// ---------------------------------------------------------------------------------------------
// Reading tokens
// ---------------------------------------------------------------------------------------------

uint32_t QXToken::ReadToken(TQXiostream& stream, char* buffer, bool keepRaw) {
  return ReadToken(stream, buffer, keepRaw, nullptr);
}

uint32_t QXToken::ReadToken(TQXiostream& stream, char* buffer, bool keepRaw, TQXTokenInfo* info) {
  char scratch[kQXTokenBufferSize];
  if (buffer == nullptr) buffer = scratch;  // guard: the text is then dropped
  const uint32_t code = Lex(stream, buffer, keepRaw, info);
  if (code != kDollar) return code;
  return SkipDollarBlock(stream);
}

void QXToken::GetLongString(TQXiostream& stream, TQXString& target) {
  CharSource src(stream);
  char c = 0;
  do {
    if (!src.Get(c)) GetEndOfFile();
  } while (c != '"');
  ScopedBlock text;
  int32_t capacity = kLongStringStart;
  text.p = static_cast<char*>(QXmalloc(uint32_t(capacity) + 1));
  // Out of memory the characters are still read to the closing quote, and dropped.
  if (text.p == nullptr) capacity = 0;
  int32_t n = 0;
  for (;;) {
    if (!src.Get(c)) GetEndOfFile();
    if (c == '"') break;
    if (c == '\\' || c == 1) {
      if (!src.Get(c)) GetEndOfFile();
    }
    if (n == capacity && capacity > 0 && capacity < kLongStringMax) {
      void* grown = QXrealloc(text.p, uint32_t(capacity) * 2 + 1);
      if (grown != nullptr) {
        text.p = static_cast<char*>(grown);
        capacity *= 2;
      }
    }
    if (n < capacity) text.p[n++] = c;
  }
  src.Sync();
  target.AssignBytes(text.p != nullptr ? text.p : "", uint32_t(n));
  target.TranslateFromStored();
}

void QXToken::GetHexBlock(TQXiostream& stream, int32_t count, void* data) {
  if (count < 1 || data == nullptr) return;
  auto* bytes = static_cast<uint8_t*>(data);
  char word[kQXTokenBufferSize];
  MustRead(stream, word, false, nullptr, kLineHexBlock);
  for (int32_t done = 0;;) {
    const int32_t k = count - done < kQXHexBytesPerLine ? count - done : kQXHexBytesPerLine;
    // Each digit is tested before the next is looked at: a short word fails at its terminator.
    for (int32_t i = 0; i < k; ++i) {
      const int32_t hi = HexValue(word[2 * i]);
      if (hi < 0) FailReadFile();
      const int32_t lo = HexValue(word[2 * i + 1]);
      if (lo < 0) FailReadFile();
      bytes[done + i] = uint8_t(hi << 4 | lo);
    }
    done += k;
    if (done == count) return;
    MustRead(stream, word, false, nullptr, kLineHexBlock);
    if (CodeFromText(word) != kQXTokenMore) FailReadFile();
    MustRead(stream, word, false, nullptr, kLineHexBlock);
  }
}

void QXToken::ReadHexLong(TQXiostream& stream, uint32_t& out) {
  const uint32_t code = ReadHexLongCode(stream, out);
  if (code == kQXErrEndOfFile) GetEndOfFile();
  if (code != 0) FailReadFile();
}

void QXToken::ReadHexLongs(TQXiostream& stream, int32_t count, uint32_t* values, int32_t* done) {
  if (values == nullptr) return;
  for (int32_t i = 0; i < count; ++i) {
    ReadHexLong(stream, values[i]);
    if (done != nullptr) ++*done;
  }
}

void QXToken::SkipToDollar(TQXiostream& stream) {
  CharSource src(stream);
  char c = 0;
  do {
    if (!src.Get(c)) GetEndOfFile();
  } while (c != '$');
}

void QXToken::GetBytes(TQXiostream& stream, void* data, int32_t count, bool binary) {
  if (count < 1 || data == nullptr) return;
  auto* bytes = static_cast<uint8_t*>(data);
  if (binary) {
    stream.Read(bytes, count);
    if (stream.lastCount != count) GetEndOfFile();
    return;
  }
  CharSource src(stream);
  for (int32_t i = 0; i < count; ++i) {
    const int32_t hi = NextHexDigit(src);
    bytes[i] = uint8_t(hi << 4 | NextHexDigit(src));
  }
}

// Braces are told by the token's kind, not by its first character, so that a quoted "{" is a
// value like any other.
void QXToken::SkipValue(TQXiostream& stream) {
  char buffer[kQXTokenBufferSize];
  TQXTokenInfo info;
  MustRead(stream, buffer, false, &info, kLineSkipValue);
  if (info.kind != TQXTokenKind::kOpen) return;
  for (int32_t depth = 1; depth > 0;) {
    MustRead(stream, buffer, false, &info, kLineSkipValue);
    if (info.kind == TQXTokenKind::kOpen) ++depth;
    if (info.kind == TQXTokenKind::kClose) --depth;
  }
}

void QXToken::ExpectOpen(TQXiostream& stream) {
  char buffer[kQXTokenBufferSize];
  TQXTokenInfo info;
  MustRead(stream, buffer, false, &info, kLineExpectOpen);
  if (info.kind != TQXTokenKind::kOpen) FailReadFile();
}

void QXToken::ExpectClose(TQXiostream& stream) {
  char buffer[kQXTokenBufferSize];
  TQXTokenInfo info;
  MustRead(stream, buffer, false, &info, kLineExpectClose);
  if (info.kind != TQXTokenKind::kClose) FailReadFile();
}

bool QXToken::IsOpen(const char* text) {
  return text != nullptr && text[0] == '{';
}

bool QXToken::IsClose(const char* text) {
  return text != nullptr && text[0] == '}';
}

uint32_t QXToken::GetString(TQXString& out, TQXiostream& stream) {
  char buffer[kQXTokenBufferSize];
  const uint32_t code = ReadToken(stream, buffer, false);
  TQXString255 text(buffer);
  text.TranslateFromStored();
  out = text;
  return code;
}

uint32_t QXToken::GetDynamicString(TQXiostream& stream, TQXDynamicString& out) {
  return GetString(out, stream);
}

signed char QXToken::GetChar(TQXiostream& stream) {
  char c = 0;
  stream >> c;
  if ((stream.state & kStopped) != 0) GetEndOfFile();
  return static_cast<signed char>(c);
}

uint8_t QXToken::GetByte(TQXiostream& stream) {
  unsigned char c = 0;
  stream >> c;
  if ((stream.state & kStopped) != 0) GetEndOfFile();
  return c;
}

int16_t QXToken::GetShort(TQXiostream& stream) {
  return GetValue<int16_t>(stream);
}

uint16_t QXToken::GetUShort(TQXiostream& stream) {
  return GetValue<uint16_t>(stream);
}

int32_t QXToken::GetLong(TQXiostream& stream) {
  return GetValue<int32_t>(stream);
}

uint32_t QXToken::GetULong(TQXiostream& stream) {
  return GetValue<uint32_t>(stream);
}

float QXToken::GetFloat(TQXiostream& stream) {
  return GetValue<float>(stream);
}

double QXToken::GetDouble(TQXiostream& stream) {
  return GetValue<double>(stream);
}

bool QXToken::GetBool(TQXiostream& stream) {
  return GetValue<int32_t>(stream) != 0;
}

void QXToken::GetPoint(TQXiostream& stream, TQXPoint& point) {
  const int32_t h = GetValue<int32_t>(stream);
  ExpectComma(stream);
  point.v = GetValue<int32_t>(stream);
  point.h = h;
}

void QXToken::GetRect(TQXiostream& stream, TQXRect& rect) {
  int32_t v[4];
  for (int i = 0; i < 4; ++i) {
    v[i] = GetValue<int32_t>(stream);
    if (i < 3) ExpectComma(stream);
  }
  rect.Set(v[1], v[0], v[3], v[2]);
}

void QXToken::GetShorts(TQXiostream& stream, int32_t count, int16_t* values) {
  if (values == nullptr) return;
  for (int32_t i = 0; i < count; ++i) {
    values[i] = GetValue<int16_t>(stream);
    if (i + 1 < count) ExpectComma(stream);
  }
}

uint32_t QXToken::GetCode(TQXiostream& stream) {
  char buffer[kQXTokenBufferSize];
  MustRead(stream, buffer, false, nullptr, kLineGetCode);
  return CodeFromText(buffer);
}

void QXToken::GetBlockText(TQXiostream& stream, TQXstrstream& target, int32_t* size) {
  char buffer[kQXTokenBufferSize];
  TQXTokenInfo info;
  MustRead(stream, buffer, true, &info, kLineBlockTextStart);
  if (info.kind != TQXTokenKind::kOpen) FailReadFile();
  auto copy = [&]() {
    target.Write(buffer, int32_t(std::strlen(buffer)));
    target << ' ';
  };
  for (;;) {
    MustRead(stream, buffer, true, &info, kLineBlockText);
    if (info.kind == TQXTokenKind::kClose) break;
    copy();
    if (info.kind != TQXTokenKind::kOpen) continue;
    for (int32_t depth = 1; depth > 0;) {
      MustRead(stream, buffer, true, &info, kLineBlockTextNested);
      copy();
      if (info.kind == TQXTokenKind::kOpen) ++depth;
      if (info.kind == TQXTokenKind::kClose) --depth;
    }
  }
  if (size != nullptr) *size = target.Tell();
}

void QXToken::GetEndOfFile() {
  throw TQXException(kQXErrEndOfFile, 0, "", 0);
}

void QXToken::FailReadFile() {
  throw TQXException(kQXErrIO, 0, "", 0);
}
