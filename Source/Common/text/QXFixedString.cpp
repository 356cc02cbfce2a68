// The fixed strings and the sums of strings. Each fixed class only names its capacity: the
// buffer is its array, and every operation is TQXString's.
#include <cstring>

#include "QXString.h"

namespace {

// A byte count of the interface: 32 bits, kept below 2^32 - 1 so that count + 1 never wraps.
uint32_t Count32(size_t n) {
  return n < UINT32_MAX ? uint32_t(n) : UINT32_MAX - 1;
}

}  // namespace

// The constructor from a zero-terminated text counts it; a null pointer, which that count
// cannot take, gives an empty string.
#define QX_DEFINE_FIXED_STRING(Name, N)                                \
  Name::Name() {                                                       \
    InitBuffer(fText, N, nullptr, 0);                                  \
  }                                                                    \
  Name::Name(const char* text) {                                       \
    InitBuffer(fText, N, text, text ? Count32(std::strlen(text)) : 0); \
  }                                                                    \
  Name::Name(const char* text, uint32_t n) {                           \
    InitBuffer(fText, N, text, n);                                     \
  }                                                                    \
  Name::Name(const std::string& text) {                                \
    InitBuffer(fText, N, text.data(), Count32(text.size()));           \
  }                                                                    \
  Name::Name(const TQXString& other) {                                 \
    InitBuffer(fText, N, other.StrGet(), other.ByteLength());          \
  }                                                                    \
  Name::Name(const Name& other) : TQXString() {                        \
    InitBuffer(fText, N, other.StrGet(), other.ByteLength());          \
  }                                                                    \
  Name::Name(const TQXString& other, uint32_t pos, uint32_t len) {     \
    const char* src;                                                   \
    uint32_t n;                                                        \
    RangeOf(other, pos, len, &src, &n);                                \
    InitBuffer(fText, N, src, n);                                      \
  }                                                                    \
  Name::~Name() = default;                                             \
  Name& Name::operator=(const Name& other) {                           \
    TQXString::operator=(other);                                       \
    return *this;                                                      \
  }

QX_DEFINE_FIXED_STRING(TQXString15, 15)
QX_DEFINE_FIXED_STRING(TQXString31, 31)
QX_DEFINE_FIXED_STRING(TQXString63, 63)
QX_DEFINE_FIXED_STRING(TQXString255, 255)
QX_DEFINE_FIXED_STRING(TQXString1023, 1023)

#undef QX_DEFINE_FIXED_STRING

TQXString1023 operator+(const TQXString& a, const TQXString& b) {
  TQXString1023 sum(a);
  sum += b;
  return sum;
}

TQXString1023 operator+(const TQXString& a, const char* b) {
  TQXString1023 sum(a);
  sum += TQXString1023(b);
  return sum;
}

TQXString1023 operator+(const TQXString& a, const std::string& b) {
  TQXString1023 sum(a);
  sum += TQXString1023(b.data(), Count32(b.size()));
  return sum;
}
