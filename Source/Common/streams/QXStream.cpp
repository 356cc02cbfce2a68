// TQXiostream: the text form of every typed value, the text readers, properties, and the
// length-prefixed string helpers.
//
// Every text reader is built on one step, GetToken: GetChar until a character outside the skip
// set. Media report the end by setting kQXStreamEnd and leaving the character untouched, so at
// the end a reader holds the last character it read; the readers therefore test `state` before
// they look at a character again. A read that fails (kQXStreamFailed) without reaching the end
// stops them as the end does: a stream whose reads fail, such as a countstream, would otherwise
// hand the same character back for ever.
#include "QXStream.h"

#include <cmath>
#include <cstring>

#include "QXException.h"
#include "QXInternal.h"
#include "QXMemory.h"
#include "QXString.h"

namespace {

constexpr char kDefaultWhitespace[] = " \n\r\t";

// One property: a key and the block that SetProperty copied. The array of pairs comes from
// QXmalloc, whose blocks need not be aligned for a pointer, so pairs are moved in and out of it
// with memcpy and never addressed in place.
struct TQXStreamProperty {
  uint32_t key;
  void* value;
};

TQXStreamProperty LoadProperty(const unsigned char* array, uint32_t i) {
  TQXStreamProperty p;
  std::memcpy(&p, array + size_t(i) * sizeof(TQXStreamProperty), sizeof p);
  return p;
}

void StoreProperty(unsigned char* array, uint32_t i, const TQXStreamProperty& p) {
  std::memcpy(array + size_t(i) * sizeof(TQXStreamProperty), &p, sizeof p);
}

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

int32_t DigitValue(char c) {
  return int32_t(c - '0');
}

// Scale factors for the exponents -5 to 4 of a text number. Other exponents are ignored: the
// format has no more.
constexpr double kExponentFactor[10] = {0.00001, 0.0001, 0.001, 0.01,   0.1,
                                        1.0,     10.0,   100.0, 1000.0, 10000.0};

// Fraction digits of a written double never pass this many: every step multiplies the remainder
// by 10 and so moves its lowest set bit up by at least one place, and a double has fewer than
// 1100 places below the point. It only sizes the text buffer; `precision` is the real limit.
constexpr int32_t kMaxFractionDigits = 1100;

// A WriteQuoted text is counted in 16 signed bits: no more than this many bytes go out.
constexpr int32_t kMaxQuotedLength = 32767;

}  // namespace

// ---------------------------------------------------------------------------------------------
// Construction and the byte operations of a stream without a medium
// ---------------------------------------------------------------------------------------------

TQXiostream::TQXiostream()
    : flags(0),
      state(0),
      mode(0),
      precision(8),
      width(12),
      lastCount(0),
      whitespace(kDefaultWhitespace),
      properties(nullptr),
      propertyCount(0) {}

TQXiostream::~TQXiostream() {
  for (uint32_t i = 0; i < propertyCount; ++i)
    QXfree(LoadProperty(properties, i).value);
  QXfree(properties);
}

int32_t TQXiostream::Tell() {
  QXThrowNotImplemented();
}

void TQXiostream::Seek(int32_t, int32_t) {
  QXThrowNotImplemented();
}

void TQXiostream::Read(void*, int32_t) {
  QXThrowNotImplemented();
}

void TQXiostream::GetChar(char& c) {
  Read(&c, 1);
}

void TQXiostream::PutBack(char) {
  QXThrowNotImplemented();
}

void TQXiostream::Write(const void*, int32_t) {
  QXThrowNotImplemented();
}

TQXiostreamContext* TQXiostream::GetContext() {
  return nullptr;
}

// ---------------------------------------------------------------------------------------------
// Small members
// ---------------------------------------------------------------------------------------------

void TQXiostream::Fail(int32_t) {
  state |= kQXStreamFailed;
}

int32_t TQXiostream::SetPrecision(int32_t n) {
  int32_t old = precision;
  precision = n;
  return old;
}

int32_t TQXiostream::SetWidth(int32_t n) {
  int32_t old = width;
  width = n;
  return old;
}

uint32_t TQXiostream::SetFlags(uint32_t bits) {
  flags |= bits;
  return flags;
}

uint32_t TQXiostream::ClearFlags(uint32_t bits) {
  flags &= (bits == 0 ? 1u : 0u);
  return flags;
}

bool TQXiostream::IsWhite(char c) const {
  return c != 0 && whitespace != nullptr && std::strchr(whitespace, c) != nullptr;
}

TQXiostream& endl(TQXiostream& stream) {
  const char cr = 13, lf = 10;
  stream.Write(&cr, 1);
  stream.Write(&lf, 1);
  return stream;
}

TQXiostream& QXStreamMode(TQXiostream& stream) {
  stream.flags = 1;
  return stream;
}

TQXiostream& TQXiostream::operator>>(TQXStreamManipulator manipulator) {
  return manipulator ? manipulator(*this) : *this;
}

TQXiostream& TQXiostream::operator<<(TQXStreamManipulator manipulator) {
  return manipulator ? manipulator(*this) : *this;
}

// ---------------------------------------------------------------------------------------------
// Text readers
// ---------------------------------------------------------------------------------------------

namespace {
constexpr uint32_t kStopped = kQXStreamEnd | kQXStreamFailed;
}

char TQXiostream::GetToken() {
  char c = 0;
  GetChar(c);
  while (IsWhite(c) && (state & kStopped) == 0)
    GetChar(c);
  return c;
}

bool TQXiostream::ReadInteger(uint32_t& out) {
  char c = GetToken();
  bool negative = false;
  if (c == '+' || c == '-') {
    negative = c == '-';
    GetChar(c);  // at the end c stays the sign, which fails below
  }
  if (!IsDigit(c)) {
    Fail(kQXStreamBadNumber);
    return false;
  }
  uint32_t value = uint32_t(DigitValue(c));
  for (;;) {
    GetChar(c);
    if ((state & kStopped) != 0 || !IsDigit(c)) break;
    value = value * 10u + uint32_t(DigitValue(c));  // wraps at 2^32
  }
  if (negative) value = 0u - value;
  if ((state & kStopped) == 0 && !IsWhite(c)) PutBack(c);
  out = value;
  return true;
}

TQXiostream& TQXiostream::operator>>(uint32_t& v) {
  ReadInteger(v);
  return *this;
}

TQXiostream& TQXiostream::operator>>(int32_t& v) {
  uint32_t u;
  if (ReadInteger(u)) v = int32_t(u);
  return *this;
}

TQXiostream& TQXiostream::operator>>(uint16_t& v) {
  uint32_t u;
  if (ReadInteger(u)) v = uint16_t(u);
  return *this;
}

TQXiostream& TQXiostream::operator>>(int16_t& v) {
  uint32_t u;
  if (ReadInteger(u)) v = int16_t(uint16_t(u));
  return *this;
}

TQXiostream& TQXiostream::operator>>(double& d) {
  char c = GetToken();
  bool negative = false;
  if (c == '+' || c == '-') {
    negative = c == '-';
    GetChar(c);
  }
  bool anyDigit = false;
  int32_t whole = 0;  // accumulated like the integer readers, wrapping in 32 bits
  if (IsDigit(c)) {
    anyDigit = true;
    whole = DigitValue(c);
    for (;;) {
      GetChar(c);
      if ((state & kStopped) != 0 || !IsDigit(c)) break;
      whole = QXWrapAdd(QXWrapMul(whole, 10), DigitValue(c));
    }
  } else if (c != '.' || (state & kStopped) != 0) {
    Fail(kQXStreamBadNumber);
    return *this;
  }

  double fraction = 0.0;
  if ((state & kStopped) == 0 && c == '.') {
    double scale = 1.0;
    for (;;) {
      GetChar(c);
      if ((state & kStopped) != 0 || !IsDigit(c)) break;
      scale *= 10.0;
      fraction += DigitValue(c) / scale;
      anyDigit = true;
    }
  }
  if (!anyDigit) {  // a "." with no digit on either side
    Fail(kQXStreamBadNumber);
    return *this;
  }

  int32_t exponent = 0;
  if ((state & kStopped) == 0 && (c == 'e' || c == 'E')) {
    GetChar(c);
    bool negativeExponent = false;
    if ((state & kStopped) == 0 && (c == '+' || c == '-')) {
      negativeExponent = c == '-';
      GetChar(c);
    }
    if ((state & kStopped) != 0 || !IsDigit(c)) {
      Fail(kQXStreamBadNumber);
      return *this;
    }
    exponent = DigitValue(c);
    for (;;) {
      GetChar(c);
      if ((state & kStopped) != 0 || !IsDigit(c)) break;
      exponent = QXWrapAdd(QXWrapMul(exponent, 10), DigitValue(c));
    }
    if (negativeExponent) exponent = QXWrapNeg(exponent);
  }

  // ":" and "/" separate the numbers of a list: the whole run goes.
  if ((state & kStopped) == 0 && (c == ':' || c == '/')) {
    do {
      GetChar(c);
    } while ((state & kStopped) == 0 && (c == ':' || c == '/'));
  }
  if ((state & kStopped) == 0 && !IsWhite(c)) PutBack(c);

  double value = double(whole) + fraction;
  if (negative) value = -value;
  if (exponent >= -5 && exponent <= 4) value *= kExponentFactor[exponent + 5];
  d = value;
  return *this;
}

TQXiostream& TQXiostream::operator>>(float& f) {
  double d = f;  // stays as it was when the read fails
  *this >> d;
  f = float(d);
  return *this;
}

TQXiostream& TQXiostream::operator>>(bool& b) {
  b = GetToken() != 0;
  return *this;
}

TQXiostream& TQXiostream::operator>>(unsigned char& c) {
  c = static_cast<unsigned char>(GetToken());
  return *this;
}

TQXiostream& TQXiostream::operator>>(char& c) {
  c = GetToken();
  return *this;
}

void TQXiostream::ReadDelimited(char* buffer, int32_t capacity) {
  if (buffer == nullptr || capacity < 1) return;
  char c = GetToken();
  int32_t n = 0;
  while (!IsWhite(c) && c != 0 && (state & kStopped) == 0) {
    if (n == capacity - 1) {  // full: the character waits for the next read
      PutBack(c);
      break;
    }
    buffer[n++] = c;
    GetChar(c);
  }
  if (IsWhite(c) && (state & kStopped) == 0) PutBack(c);
  buffer[n] = 0;
}

TQXiostream& TQXiostream::operator>>(char* s) {
  ReadDelimited(s, kQXStreamWordMax + 1);
  return *this;
}

TQXiostream& TQXiostream::operator>>(unsigned char* s) {
  ReadDelimited(reinterpret_cast<char*>(s), kQXStreamWordMax + 1);
  return *this;
}

void TQXiostream::ReadWord(char* buffer) {
  if (buffer == nullptr) return;
  char c = GetToken();
  const bool quoted = c == '"';
  int32_t n = 0;
  if (!quoted) buffer[n++] = c;
  for (;;) {
    GetChar(c);
    if (state != 0) break;
    if (quoted ? c == '"' : (c == ' ' || c == '\t' || c == '\n' || c == '\r')) break;
    if (n >= kQXStreamWordMax) break;
    if (c == '\\') {
      GetChar(c);
      if (state != 0) break;
    }
    buffer[n++] = c;
  }
  buffer[n] = 0;
}

TQXiostream& TQXiostream::operator>>(TQXString& s) {
  char word[kQXStreamWordMax + 1];
  ReadWord(word);
  s.FromCPtr(word);
  return *this;
}

char TQXiostream::GetLine(char* buffer, int32_t limit, char delimiter) {
  if (limit < 1 || buffer == nullptr) {
    if (buffer != nullptr) buffer[0] = 0;
    lastCount = 0;
    return char(delimiter + 1);
  }
  const bool lineEnds = delimiter == '\n';  // CR and LF both end the line, in pairs
  int32_t stored = 0;
  int32_t taken = 0;
  char c = 0;
  while (stored < limit) {
    GetChar(c);
    if ((state & kStopped) != 0) break;
    ++taken;
    if (c == delimiter || (lineEnds && c == '\r')) {
      if (lineEnds) {
        const char other = c == '\r' ? '\n' : '\r';
        char next = 0;
        GetChar(next);
        if ((state & kStopped) == 0) {
          if (next == other) {
            ++taken;
          } else {
            PutBack(next);
          }
        }
        c = '\n';
      }
      break;
    }
    buffer[stored++] = c;
  }
  buffer[stored] = 0;
  lastCount = taken;
  return c;
}

// ---------------------------------------------------------------------------------------------
// Text writers
// ---------------------------------------------------------------------------------------------

TQXiostream& TQXiostream::operator<<(uint32_t v) {
  char digits[11];
  int32_t i = sizeof digits;
  do {
    digits[--i] = char('0' + v % 10u);
    v /= 10u;
  } while (v != 0);
  Write(digits + i, int32_t(sizeof digits) - i);
  return *this;
}

TQXiostream& TQXiostream::operator<<(int32_t v) {
  if (v < 0) {
    const char minus = '-';
    Write(&minus, 1);
    return *this << uint32_t(0u - uint32_t(v));  // INT32_MIN gives 2147483648
  }
  return *this << uint32_t(v);
}

TQXiostream& TQXiostream::operator<<(uint16_t v) {
  return *this << uint32_t(v);
}

TQXiostream& TQXiostream::operator<<(int16_t v) {
  return *this << int32_t(v);
}

TQXiostream& TQXiostream::operator<<(double d) {
  if (d < 0) {
    const char minus = '-';
    Write(&minus, 1);
    d = -d;
  }
  if (d >= 2147483647.0) return *this << int32_t(2147483647);
  // NaN converts as the processor does, to 0x80000000, and its remainder writes no digit: it
  // comes out as "-2147483648.".
  const int32_t whole = QXTruncToInt32(d);
  *this << whole;
  double rest = (d - double(whole)) * 10.0;
  if (rest == 0) return *this;

  char text[1 + kMaxFractionDigits];
  int32_t n = 0;
  text[n++] = '.';
  const int32_t limit = precision < kMaxFractionDigits ? precision : kMaxFractionDigits;
  for (int32_t digits = 0; digits < limit && rest > 1e-32; ++digits) {
    int32_t digit = int32_t(rest);  // rest lies in (0, 10)
    if (digit > 9) digit = 9;
    text[n++] = char('0' + digit);
    rest = (rest - digit) * 10.0;
  }
  // Trailing zeros are not written, nor a point with no digit behind it: a value that is whole
  // to `precision` places shows no fraction, and a float rounded to nine places (0.1f is
  // 0.100000001) shows as its short decimal form, 0.1.
  if (n > 1) {
    while (n > 1 && text[n - 1] == '0')
      --n;
    if (n == 1) return *this;
  }
  Write(text, n);
  return *this;
}

TQXiostream& TQXiostream::operator<<(float f) {
  const double rounded = std::floor(double(f) * 1000000000.0 + 0.5) * 0.000000001;
  return *this << rounded;
}

TQXiostream& TQXiostream::operator<<(unsigned char c) {
  Write(&c, 1);
  return *this;
}

TQXiostream& TQXiostream::operator<<(char c) {
  Write(&c, 1);
  return *this;
}

TQXiostream& TQXiostream::operator<<(const char* s) {
  if (s != nullptr) Write(s, QXCStringLength(s));
  return *this;
}

TQXiostream& TQXiostream::operator<<(const unsigned char* s) {
  return *this << reinterpret_cast<const char*>(s);
}

TQXiostream& TQXiostream::operator<<(char* s) {
  return *this << static_cast<const char*>(s);
}

void TQXiostream::WriteQuoted(const char* text) {
  const char quote = '"', backslash = '\\';
  int32_t length = QXCStringLength(text);
  if (length > kMaxQuotedLength) length = kMaxQuotedLength;
  Write(&quote, 1);
  for (int32_t i = 0; i < length; ++i) {
    const char c = text[i];
    if (c == backslash || c == quote) Write(&backslash, 1);
    Write(&c, 1);
  }
  Write(&quote, 1);
}

TQXiostream& TQXiostream::operator<<(const TQXString& s) {
  WriteQuoted(s.StrGet());
  return *this;
}

// ---------------------------------------------------------------------------------------------
// Properties
// ---------------------------------------------------------------------------------------------

void TQXiostream::SetProperty(uint32_t key, const void* data, uint32_t size) {
  // The new block first, so that running out of memory changes nothing.
  void* block = nullptr;
  if (size != 0) {
    block = QXmalloc(size);
    if (block == nullptr) return;
    if (data != nullptr) {
      std::memcpy(block, data, size);
    } else {
      std::memset(block, 0, size);
    }
  }
  uint32_t i = 0;
  while (i < propertyCount && LoadProperty(properties, i).key != key)
    ++i;
  if (i == propertyCount) {  // a new key: the array grows by one pair
    const uint32_t bytes = (propertyCount + 1) * uint32_t(sizeof(TQXStreamProperty));
    void* grown = properties ? QXrealloc(properties, bytes) : QXmalloc(bytes);
    if (grown == nullptr) {
      QXfree(block);
      return;
    }
    properties = static_cast<unsigned char*>(grown);
    StoreProperty(properties, i, TQXStreamProperty{key, nullptr});
    ++propertyCount;
  }
  TQXStreamProperty p = LoadProperty(properties, i);
  QXfree(p.value);
  p.value = block;
  StoreProperty(properties, i, p);
}

void* TQXiostream::GetProperty(uint32_t key) const {
  for (uint32_t i = 0; i < propertyCount; ++i) {
    const TQXStreamProperty p = LoadProperty(properties, i);
    if (p.key == key) return p.value;
  }
  return nullptr;
}

// ---------------------------------------------------------------------------------------------
// Context
// ---------------------------------------------------------------------------------------------

TQXiostreamContext::~TQXiostreamContext() = default;

TQXiostream* TQXiostreamContext::Reopen() {
  QXThrowNotImplemented();
}

void TQXiostreamContext::Update(const void*, const void*, int32_t) {
  QXThrowNotImplemented();
}

// ---------------------------------------------------------------------------------------------
// C strings and length-prefixed strings
// ---------------------------------------------------------------------------------------------

int32_t QXCStringLength(const char* s) {
  if (s == nullptr) return 0;
  const size_t n = std::strlen(s);
  return n > size_t(INT32_MAX) ? INT32_MAX : int32_t(n);
}

void QXCopyToPascal(const char* cString, unsigned char* pascal, int32_t limit) {
  if (pascal == nullptr) return;
  int32_t n = QXCStringLength(cString);
  if (n > limit) n = limit;
  if (n > 255) n = 255;
  if (n < 0) n = 0;
  pascal[0] = uint8_t(n);
  if (n > 0) QXmemcpy(pascal + 1, cString, n);
}

void QXCopyFromPascal(const unsigned char* pascal, char* cString, int32_t limit) {
  if (cString == nullptr) return;
  int32_t n = pascal != nullptr ? pascal[0] : 0;
  if (n > limit) n = limit;
  if (n > 255) n = 255;
  if (n < 0) n = 0;
  if (n > 0) QXmemcpy(cString, pascal + 1, n);
  cString[n] = 0;
}
