// TQXString: numbers, four-character codes, the digit counter and caret parameters.
#include <cmath>
#include <cstdio>
#include <cstring>

#include "QXInternal.h"
#include "QXString.h"

namespace {

constexpr uint32_t kNotFound = 0xFFFFFFFFu;

// Replaces each occurrence of `needle` in `s` by `value`. Each pass searches again from the
// start, so a replacement may join with the text around it into a new needle, which the next
// pass replaces in turn.
//
// Guard: on the original platform a value that holds the needle itself made this loop run
// forever. Here the search then goes on behind the inserted value, and the number of passes is
// bounded besides, well above what any input that comes to an end needs.
void ReplaceNeedle(TQXString& s, const TQXString& needle, const TQXString& value) {
  bool valueHoldsNeedle = value.SearchStr(needle, 0) != kNotFound;
  uint64_t passesLeft = 4 * uint64_t(s.Length()) + 64;
  uint32_t from = 0;
  for (uint32_t p; passesLeft-- > 0 && (p = s.SearchStr(needle, from)) != kNotFound;) {
    s.EraseStr(p, needle.Length());
    s.InsertStr(value, p);
    if (valueHoldsNeedle) from = p + value.Length();
  }
}

}  // namespace

void TQXString::FromInt32(int32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "%d", value);
  FromCPtr(text);
}

void TQXString::FromCode(uint32_t value, bool raw) {
  // Up to "!!!!" (0x21212121) a value is a number; above it, four characters.
  if (!raw && value <= 0x21212121u) {
    FromInt32(int32_t(value));
    return;
  }
  const char bytes[5] = {char(value >> 24), char(value >> 16), char(value >> 8), char(value), 0};
  if (raw) {
    AssignBytes(bytes, 4);  // exactly four bytes, zeros included
  } else {
    FromCPtr(bytes);  // the text ends at the first zero byte
  }
}

uint32_t TQXString::ToCode() const {
  // The first four characters, most significant first; each contributes its low byte, and a
  // missing character a zero byte.
  uint32_t code = 0;
  for (uint32_t i = 0; i < 4; ++i)
    code = code << 8 | uint8_t(GetCharAt(i));
  return code;
}

void TQXString::FromDouble(double value) {
  // Large enough for any double in "%.2f" (309 digits, sign, point, two decimals).
  char text[400];
  std::snprintf(text, sizeof text, "%.2f", value);
  char decimal = GetSystemDecimalChar();
  if (decimal != '.') {
    for (int i = 0; i < 64 && text[i]; ++i) {
      if (text[i] == '.') text[i] = decimal;
    }
  }
  FromCPtr(text);
}

void TQXString::FromFloat(float value, unsigned char decimals) {
  double scale = std::pow(10.0, decimals);
  double rounded = std::floor(std::fabs(double(value)) * scale + 0.5) / scale;
  double whole = std::floor(rounded);
  double fraction = std::floor((rounded - whole) * scale + 0.5) / scale;
  // Conversions to 32 bits as the processor makes them: out of range gives 0x80000000.
  FromInt32(QXTruncToInt32(whole));
  TQXString15 minus("-");
  if (decimals == 0) {
    if (value < 0) InsertStr(minus, 0);
    return;
  }
  *this += GetDecimalChar();
  int32_t digits = QXTruncToInt32(double(QXTruncToInt32(scale)) * fraction);
  TQXString255 text;
  text.FromInt32(digits);
  for (int32_t pad = int32_t(decimals) - int32_t(text.Length()); pad > 0; --pad)
    *this += '0';
  *this += text;
  if (value < 0 && rounded > 0) InsertStr(minus, 0);
}

double TQXString::ToDouble() const {
  const char* p = GetString();
  if (!p || byteLength == 0) return 0;
  bool negative = false;
  if (*p == '-' || *p == '+') negative = *p++ == '-';
  if (*p == 0) return 0;
  char decimal = GetSystemDecimalChar();
  bool skipCommas = decimal != ',';  // commas are thousands separators then
  uint32_t whole = 0;                // wraps at 2^32 as the original's 32-bit value
  for (; *p; ++p) {
    if (*p >= '0' && *p <= '9') {
      whole = whole * 10u + uint32_t(*p - '0');
    } else if (!(*p == ',' && skipCommas)) {
      break;
    }
  }
  uint32_t fraction = 0;
  uint32_t divisor = 1;
  if (*p != 0 && *p == decimal) {
    ++p;
    for (int digits = 0; *p && digits < 8; ++p) {
      if (*p >= '0' && *p <= '9') {
        fraction = fraction * 10u + uint32_t(*p - '0');
        divisor *= 10u;
        ++digits;
      } else if (!(*p == ',' && skipCommas)) {
        break;
      }
    }
  }
  double result = double(whole) + double(fraction) / double(divisor);
  return negative ? -result : result;
}

float TQXString::ToFloat() const {
  // The text is prepared for a parse, its decimal character made ".", but it is never parsed:
  // the result is 0 in every case, which is what callers of this conversion have always had.
  char text[64];
  uint32_t n = byteLength < sizeof text - 1 ? byteLength : uint32_t(sizeof text - 1);
  std::memcpy(text, StrGet(), n);
  text[n] = 0;
  char decimal = GetSystemDecimalChar();
  for (uint32_t i = 0; i < n; ++i) {
    if (text[i] == decimal) text[i] = '.';
  }
  return 0.0f;
}

void TQXString::IncrementDigits() {
  if (charLength == 0) return;
  bool carry = true;
  for (uint32_t i = charLength; i-- > 0 && carry;) {
    uint16_t c = GetCharAt(i);
    if (c == '9') {
      SetCharAt('0', i);
    } else if (c >= '0' && c <= '8') {
      SetCharAt(uint16_t(c + 1), i);
      carry = false;
    }
    // Any other character is passed over, and the carry goes on.
  }
  if (carry) *this = TQXString15("1") + *this;
}

void TQXString::ReplaceParam(const TQXString& value) {
  TQXString15 needle("^0");
  ReplaceNeedle(*this, needle, value);
}

void TQXString::ReplaceParamAt(const TQXString& value, int32_t index) {
  TQXString15 number;
  number.FromInt32(index);
  TQXString15 needle("^");
  needle += number;
  ReplaceNeedle(*this, needle, value);
}

void TQXString::ReplaceParams(const TQXString* const* values, int32_t count) {
  if (!values) return;
  for (int32_t i = 0; i < count; ++i) {
    if (values[i]) ReplaceParamAt(*values[i], i);
  }
}
