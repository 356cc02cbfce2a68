// TQXString: editing, searching and comparing, written once on the two operations of the concrete
// classes (GetString, SetByteLength).
//
// Positions count characters. In single-byte mode a position is a byte offset; in double-byte
// mode BytesOfChars walks from the start of the text. Every walk stops at byteLength: charLength
// may claim more characters than the bytes hold (the fixed string's double-byte append, the
// 16-bit narrowing of EraseStr), and no operation reads or writes beyond the text on that
// account.
#include <climits>
#include <cstdlib>
#include <cstring>

#include "QXException.h"
#include "QXMemory.h"
#include "QXString.h"
#include "text/QXTextState.h"

namespace {

constexpr uint32_t kNotFound = 0xFFFFFFFFu;

bool IsNegative(uint32_t v) {
  return int32_t(v) < 0;
}

// A 32-bit count narrowed to 16 signed bits, as the character count is adjusted by EraseStr and
// SubString: a count of 32768 or more moves charLength the wrong way until the next recount.
uint32_t SubtractNarrowed(uint32_t value, uint32_t count) {
  return uint32_t(value - uint32_t(int32_t(int16_t(count))));
}

TQXPlatformText& Text() {
  return QXPlatform::Get<TQXPlatformText>();
}

}  // namespace

TQXString::~TQXString() = default;

// ---------------------------------------------------------------------------------------------
// The concrete classes' operations and the helpers on top of them
// ---------------------------------------------------------------------------------------------

void TQXString::SetByteLength(uint32_t n) {
  byteLength = n < capacity ? n : capacity;
}

char* TQXString::GetString() const {
  QXThrowNotImplemented();
}

bool TQXString::IsDynamic() const {
  return false;
}

void TQXString::InitBuffer(char* buffer, uint32_t cap, const char* src, uint32_t n) {
  capacity = cap;
  SetByteLength(n);
  if (src && byteLength != 0) {
    QXmemcpy(buffer, src, int32_t(byteLength));
    buffer[byteLength] = 0;
    charLength = CountCharacters(buffer);
  } else {
    charLength = 0;
    byteLength = 0;
    buffer[0] = 0;
  }
}

void TQXString::AssignBytes(const char* src, uint32_t n) {
  // `src` may lie in this string's own buffer (FromPPtr of its own text, FromCPtr of a tail).
  // Its offset is kept across a reallocation, and the copy never reads beyond the buffer.
  const char* before = GetString();
  uintptr_t offset = UINTPTR_MAX;
  if (src && before && uintptr_t(src) >= uintptr_t(before) &&
      uintptr_t(src) <= uintptr_t(before) + capacity) {
    offset = uintptr_t(src) - uintptr_t(before);
  }
  SetByteLength(n);
  char* buffer = GetString();
  if (!buffer) {
    charLength = 0;
    return;
  }
  if (src) {
    uint32_t count = byteLength;
    if (offset != UINTPTR_MAX) {
      src = buffer + offset;
      uint32_t room = uint32_t(capacity + 1 - offset);
      if (count > room) count = room;
    }
    QXmemmove(buffer, src, int32_t(count));
  }
  buffer[byteLength] = 0;
  charLength = CountCharacters(buffer);
}

uint32_t TQXString::CountCharacters(const char* text) {
  if (!QXTextDoubleByte()) return uint32_t(std::strlen(text));
  TQXPlatformText& role = Text();
  uint32_t n = 0;
  for (const char* p = text; *p; p = role.CharNext(p))
    ++n;
  return n;
}

const char* TQXString::NextChars(const char* p, int16_t n) {
  if (!QXTextDoubleByte()) return p + n;
  TQXPlatformText& role = Text();
  for (int16_t i = 0; i < n; ++i)
    p = role.CharNext(p);
  return p;
}

const char* TQXString::PrevChars(const char* start, const char* p, int16_t n) {
  if (!QXTextDoubleByte()) return p - n;
  TQXPlatformText& role = Text();
  for (int16_t i = 0; i < n; ++i)
    p = role.CharPrev(start, p);
  return p;
}

uint32_t TQXString::CharSize(char lead) {
  return QXTextIsLead(uint8_t(lead)) ? 2 : 1;
}

uint16_t TQXString::CharCodeAt(const char* p) {
  auto b0 = uint8_t(p[0]);
  if (QXTextIsLead(b0)) return uint16_t(b0 << 8 | uint8_t(p[1]));
  return b0;
}

uint32_t TQXString::BytesOfChars(uint32_t n) const {
  if (!QXTextDoubleByte()) return n < byteLength ? n : byteLength;
  const char* buffer = GetString();
  if (!buffer) return 0;
  uint32_t off = 0;
  for (uint32_t i = 0; i < n && off < byteLength; ++i)
    off += CharSize(buffer[off]);
  return off < byteLength ? off : byteLength;
}

uint32_t TQXString::ByteCountOfRange(uint32_t pos, uint32_t len) const {
  if (pos <= charLength && len > charLength - pos) len = charLength - pos;
  uint32_t start = BytesOfChars(pos);
  if (!QXTextDoubleByte()) {
    uint32_t available = byteLength - start;
    return len < available ? len : available;
  }
  const char* buffer = GetString();
  if (!buffer) return 0;
  uint32_t off = start;
  for (uint32_t i = 0; i < len && off < byteLength; ++i)
    off += CharSize(buffer[off]);
  if (off > byteLength) off = byteLength;
  return off - start;
}

void TQXString::RangeOf(const TQXString& other, uint32_t pos, uint32_t len, const char** src,
                        uint32_t* n) {
  if (pos >= other.charLength) {
    *src = nullptr;
    *n = 0;
    return;
  }
  if (len == 0 || len > other.charLength - pos) len = other.charLength - pos;
  *src = other.StrGet() + other.BytesOfChars(pos);
  *n = other.ByteCountOfRange(pos, len);
}

// ---------------------------------------------------------------------------------------------
// Text in and out
// ---------------------------------------------------------------------------------------------

const char* TQXString::StrGet() const {
  // A dynamic string that lost its buffer reads as empty rather than as a null pointer.
  const char* buffer = GetString();
  return buffer ? buffer : "";
}

void TQXString::FromCPtr(const char* text) {
  if (!text) return;
  size_t n = std::strlen(text);
  AssignBytes(text, n < UINT32_MAX ? uint32_t(n) : UINT32_MAX - 1);
}

void TQXString::ToCPtr(char* out) const {
  QXmemcpy(out, StrGet(), int32_t(byteLength));
  out[byteLength] = 0;
}

void TQXString::FromPPtr(const unsigned char* text) {
  if (!text) return;
  AssignBytes(reinterpret_cast<const char*>(text + 1), text[0]);
}

void TQXString::ToPPtr(unsigned char* out) const {
  out[0] = uint8_t(byteLength);
  QXmemcpy(out + 1, StrGet(), int32_t(byteLength));
}

TQXString& TQXString::operator=(const TQXString& other) {
  if (&other != this) AssignBytes(other.StrGet(), other.byteLength);
  return *this;
}

// ---------------------------------------------------------------------------------------------
// Appending
// ---------------------------------------------------------------------------------------------

void TQXString::AppendText(const TQXString& other) {
  uint32_t add = other.byteLength;
  if (add == 0) return;
  uint32_t old = byteLength;
  if (add > UINT32_MAX - 1 - old) add = UINT32_MAX - 1 - old;  // guard: the sum stays 32-bit
  SetByteLength(old + add);
  char* buffer = GetString();
  if (!buffer) return;  // a dynamic string that could not grow: empty
  // Fetched after the growth: `other` may be this string, whose buffer has just moved.
  const char* src = other.StrGet();
  if (byteLength > old) QXmemcpy(buffer + old, src, int32_t(byteLength - old));
  buffer[byteLength] = 0;
  charLength = CountCharacters(buffer);
}

TQXString& TQXString::operator+=(const TQXString& other) {
  AppendText(other);
  return *this;
}

TQXString& TQXString::operator+=(uint16_t code) {
  uint32_t size = QXTextDoubleByte() ? CharSize(char(code >> 8)) : 1;
  uint32_t old = byteLength;
  SetByteLength(old + size);
  char* buffer = GetString();
  if (!buffer || byteLength == old) return *this;  // no room: the character is dropped
  if (size == 2) {
    // With one byte of room left the terminator below overwrites the trail byte; the slot at
    // index capacity is the terminator's, so both writes stay in the buffer.
    buffer[old] = char(code >> 8);
    buffer[old + 1] = char(code);
  } else {
    buffer[old] = char(code);
  }
  buffer[byteLength] = 0;
  // The byte size, not 1: a double-byte character counts twice until the next recount. The
  // fixed strings have always done this and callers that recount rely on nothing else.
  charLength += size;
  return *this;
}

TQXString& TQXString::operator+=(char c) {
  // Sign-extended to 16 bits: the high byte is 0x00 or 0xFF, never a lead byte, so exactly one
  // byte is appended.
  return *this += uint16_t(int16_t(static_cast<signed char>(c)));
}

TQXString& TQXString::operator+=(uint32_t value) {
  if (QXTextDoubleByte() && QXTextIsLead(uint8_t(value >> 8))) {
    *this += uint16_t(value >> 16);
    *this += uint16_t(value);
  } else {
    *this += uint16_t(value >> 24);
    *this += uint16_t(value >> 16);
    *this += uint16_t(value >> 8);
    *this += uint16_t(value);
  }
  return *this;
}

// ---------------------------------------------------------------------------------------------
// Comparing
// ---------------------------------------------------------------------------------------------

int16_t TQXString::CompareNoCase(const TQXString& other) const {
  return int16_t(Text().CompareNoCase(StrGet(), other.StrGet()));
}

int32_t TQXString::CompareBytes(const TQXString& other) const {
  int r = std::strcmp(StrGet(), other.StrGet());  // compares as unsigned bytes
  return r < 0 ? -1 : (r > 0 ? 1 : 0);
}

bool TQXString::operator<(const TQXString& other) const {
  return CompareNoCase(other) < 0;
}
bool TQXString::operator>(const TQXString& other) const {
  return CompareNoCase(other) > 0;
}
bool TQXString::operator<=(const TQXString& other) const {
  return CompareNoCase(other) <= 0;
}
bool TQXString::operator>=(const TQXString& other) const {
  return CompareNoCase(other) >= 0;
}
bool TQXString::operator==(const TQXString& other) const {
  return std::strcmp(StrGet(), other.StrGet()) == 0;
}
bool TQXString::operator!=(const TQXString& other) const {
  return std::strcmp(StrGet(), other.StrGet()) != 0;
}

bool TQXString::IsEqualNotCaseSensitive(const TQXString& other) const {
  TQXString1023 a(*this);
  TQXString1023 b(other);
  a.ToUpper();
  b.ToUpper();
  return a == b;
}

void TQXString::ToUpper() {
  char* buffer = GetString();
  if (buffer) Text().CharUpper(buffer);
}

void TQXString::ToLower() {
  char* buffer = GetString();
  if (buffer) Text().CharLower(buffer);
}

// ---------------------------------------------------------------------------------------------
// Editing
// ---------------------------------------------------------------------------------------------

void TQXString::InsertStr(const TQXString& str, uint32_t pos) {
  if (str.charLength == 0 || IsNegative(pos) || pos > charLength) return;
  if (&str == this) {
    // Inserting a string into itself: from a copy, since the moves below change the source.
    TQXDynamicString copy(str);
    TQXString::InsertStr(copy, pos);
    return;
  }
  char* buffer = GetString();
  if (!buffer) return;
  const char* src = str.StrGet();
  uint32_t add = str.byteLength;
  uint32_t offset = BytesOfChars(pos);
  uint64_t total = uint64_t(byteLength) + add;
  uint64_t tailEnd = uint64_t(offset) + add;
  if (total <= capacity) {
    QXmemmove(buffer + tailEnd, buffer + offset, int32_t(byteLength - offset));
    QXmemcpy(buffer + offset, src, int32_t(add));
    charLength += str.charLength;
    SetByteLength(uint32_t(total));
  } else if (tailEnd <= capacity) {
    // The tail is cut at the capacity. charLength is not recounted on this path: it keeps the
    // count from before the insertion.
    QXmemmove(buffer + tailEnd, buffer + offset, int32_t(capacity - tailEnd));
    QXmemcpy(buffer + offset, src, int32_t(add));
    SetByteLength(capacity);
  } else {
    // Even the inserted text is cut; again charLength stays as it was.
    QXmemcpy(buffer + offset, src, int32_t(capacity - offset));
    SetByteLength(capacity);
  }
  buffer[byteLength] = 0;
}

void TQXString::SetLength(uint32_t n) {
  char* buffer = GetString();
  if (!buffer || n == charLength) return;
  uint32_t m = n < charLength ? n : charLength;
  SetByteLength(BytesOfChars(m));
  buffer[byteLength] = 0;
  charLength = CountCharacters(buffer);
}

void TQXString::SubString(uint32_t pos, uint32_t len) {
  // Computed first, also for positions that the front cut skips; 32-bit arithmetic throughout.
  uint32_t keep = charLength >= uint32_t(pos + len) ? len : uint32_t(charLength - pos);
  if (pos != 0 && !IsNegative(pos)) {
    char* buffer = GetString();
    if (buffer && charLength != 0) {
      if (pos > charLength) pos = charLength;
      uint32_t cut = BytesOfChars(pos);
      charLength = SubtractNarrowed(charLength, pos);
      QXmemmove(buffer, buffer + cut, int32_t(byteLength - cut));
      SetByteLength(byteLength - cut);
      buffer[byteLength] = 0;
    }
  }
  SetLength(keep);
}

bool TQXString::EraseStr(uint32_t pos, uint32_t count) {
  if (IsNegative(pos) || int32_t(count) <= 0 || pos >= charLength) return false;
  char* buffer = GetString();
  if (!buffer) return false;
  if (count > charLength - pos) count = charLength - pos;
  uint32_t offset = BytesOfChars(pos);
  uint32_t cut = ByteCountOfRange(pos, count);
  charLength = SubtractNarrowed(charLength, count);
  QXmemmove(buffer + offset, buffer + offset + cut, int32_t(byteLength - offset - cut));
  SetByteLength(byteLength - cut);
  buffer[byteLength] = 0;
  return true;
}

uint16_t TQXString::GetCharAt(uint32_t pos) const {
  if (IsNegative(pos)) pos = 0;
  if (pos >= charLength) return 0;
  const char* buffer = GetString();
  if (!buffer) return 0;
  if (!QXTextDoubleByte()) return pos < byteLength ? uint8_t(buffer[pos]) : 0;
  uint32_t off = BytesOfChars(pos);
  return off < byteLength ? CharCodeAt(buffer + off) : 0;
}

void TQXString::SetCharAt(uint16_t code, uint32_t pos) {
  if (IsNegative(pos)) pos = 0;
  if (pos >= charLength) return;
  char* buffer = GetString();
  if (!buffer) return;
  if (!QXTextDoubleByte()) {
    if (pos < byteLength) buffer[pos] = char(code);
    return;
  }
  uint32_t off = BytesOfChars(pos);
  if (off >= byteLength) return;
  uint32_t newSize = CharSize(char(code >> 8));
  uint32_t oldSize = CharSize(buffer[off]);
  // A lead byte at the very end has no trail byte: it is one byte wide here.
  if (oldSize > byteLength - off) oldSize = byteLength - off;
  if (uint64_t(byteLength) + newSize - oldSize > capacity) return;  // the old character stays
  uint32_t after = off + oldSize;  // the text behind the character, terminator included
  if (newSize > oldSize) {
    QXmemmove(buffer + after + 1, buffer + after, int32_t(byteLength - after + 1));
    SetByteLength(byteLength + 1);
  } else if (newSize < oldSize) {
    QXmemmove(buffer + after - 1, buffer + after, int32_t(byteLength - after + 1));
    SetByteLength(byteLength - 1);
  }
  if (newSize == 2) {
    buffer[off] = char(code >> 8);
    buffer[off + 1] = char(code);
  } else {
    buffer[off] = char(code);
  }
}

// ---------------------------------------------------------------------------------------------
// Searching
// ---------------------------------------------------------------------------------------------

uint32_t TQXString::SearchStr(const TQXString& needle, uint32_t from) const {
  if (IsNegative(from)) return kNotFound;
  uint32_t off = BytesOfChars(from);
  if (off >= byteLength) return kNotFound;
  const char* buffer = GetString();
  const char* pattern = needle.StrGet();
  uint32_t n = needle.byteLength;
  if (QXTextPlainBytes()) {
    // Every byte starts a character: a plain byte search gives the same answer. The first
    // byte is found with memchr, which scans many bytes a step, and the rest compared there.
    if (n == 0) return from;
    const char* p = buffer + off;
    const char* end = buffer + byteLength;
    while (uint32_t(end - p) >= n) {
      p = static_cast<const char*>(std::memchr(p, pattern[0], size_t(end - p) - n + 1));
      if (!p) break;
      if (std::memcmp(p + 1, pattern + 1, n - 1) == 0) return uint32_t(p - buffer);
      ++p;
    }
    return kNotFound;
  }
  // Character starts only, so that a needle never matches from a trail byte.
  for (uint32_t index = from; off < byteLength; ++index) {
    if (n <= byteLength - off && std::memcmp(buffer + off, pattern, n) == 0) return index;
    off += CharSize(buffer[off]);
  }
  return kNotFound;
}

uint32_t TQXString::FindCharPos(uint16_t code, uint32_t from) const {
  if (IsNegative(from) || from >= charLength) return kNotFound;
  const char* buffer = GetString();
  if (!buffer) return kNotFound;
  uint32_t off = BytesOfChars(from);
  uint32_t end = byteLength;
  if (QXTextPlainBytes()) {
    if (code > 0xFF) return kNotFound;
    uint32_t limit = charLength < end ? charLength : end;
    const void* hit = off < limit ? std::memchr(buffer + off, code, limit - off) : nullptr;
    return hit ? uint32_t(static_cast<const char*>(hit) - buffer) : kNotFound;
  }
  for (uint32_t index = from; index < charLength && off < end; ++index) {
    if (CharCodeAt(buffer + off) == code) return index;
    off = uint32_t(NextChars(buffer + off, 1) - buffer);
  }
  return kNotFound;
}

uint32_t TQXString::FindCharPosFromRight(uint16_t code, uint32_t from) const {
  if (IsNegative(from) || from >= charLength) return kNotFound;
  const char* buffer = GetString();
  if (!buffer) return kNotFound;
  if (!QXTextDoubleByte()) {
    // Position and offset coincide; positions past byteLength (a count that claims more than
    // the bytes hold) hold no character.
    for (uint32_t index = from;; --index) {
      if (index < byteLength && CharCodeAt(buffer + index) == code) return index;
      if (index == 0) return kNotFound;
    }
  }
  const char* p = buffer + BytesOfChars(from);
  for (uint32_t index = from;; --index) {
    if (p < buffer + byteLength && CharCodeAt(p) == code) return index;
    if (index == 0) return kNotFound;
    p = PrevChars(buffer, p, 1);
  }
}

int32_t TQXString::ToInt32() const {
  auto convert = [](const char* text) -> int32_t {
    // The 32-bit strtol of the original platform: out-of-range values saturate.
    long v = std::strtol(text, nullptr, 10);
    if (v > INT32_MAX) return INT32_MAX;
    if (v < INT32_MIN) return INT32_MIN;
    return int32_t(v);
  };
  if (FindCharPos(0x2C, 0) == kNotFound) return convert(StrGet());
  // Thousands separators: the number is read from a copy without its commas.
  TQXDynamicString copy(*this);
  for (uint32_t p; (p = copy.FindCharPos(0x2C, 0)) != kNotFound;)
    copy.EraseStr(p, 1);
  return convert(copy.StrGet());
}
