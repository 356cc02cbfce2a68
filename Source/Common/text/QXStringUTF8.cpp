// TQXStringUTF8: a TQXDynamicString behind the path string's own surface.
#include "QXStringUTF8.h"

namespace {

constexpr uint32_t kNotFound = 0xFFFFFFFFu;

// A char as a character code: sign-extended, so bytes of 0x80 and above match nothing.
uint16_t CodeOf(char c) {
  return uint16_t(int16_t(static_cast<signed char>(c)));
}

}  // namespace

TQXStringUTF8::TQXStringUTF8() = default;

TQXStringUTF8::TQXStringUTF8(char c) {
  text += c;
}

TQXStringUTF8::TQXStringUTF8(const TQXStringUTF8& other) : text(other.text) {}

TQXStringUTF8::TQXStringUTF8(const TQXString& other) : text(other) {}

TQXStringUTF8::TQXStringUTF8(const std::string& s) : text(s) {}

TQXStringUTF8::~TQXStringUTF8() {
  text.SetLength(0);
}

TQXStringUTF8& TQXStringUTF8::operator=(const TQXString& other) {
  static_cast<TQXString&>(text) = other;
  return *this;
}

TQXStringUTF8& TQXStringUTF8::operator=(const TQXStringUTF8& other) {
  static_cast<TQXString&>(text) = other.text;
  return *this;
}

TQXStringUTF8& TQXStringUTF8::operator+=(const TQXStringUTF8& other) {
  text += static_cast<const TQXString&>(other.text);
  return *this;
}

TQXStringUTF8& TQXStringUTF8::operator+=(char c) {
  text += c;
  return *this;
}

bool TQXStringUTF8::operator==(const TQXStringUTF8& other) const {
  return text == other.text;
}

bool TQXStringUTF8::operator!=(const TQXStringUTF8& other) const {
  return text != other.text;
}

void TQXStringUTF8::InsertStr(const TQXStringUTF8& str, uint32_t pos) {
  text.InsertStr(str.text, pos);
}

TQXStringUTF8::operator std::string() const {
  return std::string(text.StrGet());
}

void TQXStringUTF8::FromCPtr(const char* s) {
  text.FromCPtr(s);
}

void TQXStringUTF8::FromPPtr(const unsigned char* s) {
  text.FromPPtr(s);
}

void TQXStringUTF8::ToCPtr(char* out, uint32_t) const {
  text.ToCPtr(out);
}

void TQXStringUTF8::ToPPtr(unsigned char* out) const {
  text.ToPPtr(out);
}

void TQXStringUTF8::FromTQXString(const TQXString& s) {
  static_cast<TQXString&>(text) = s;
}

void TQXStringUTF8::ToTQXString(TQXString& out) const {
  out = text;
}

void TQXStringUTF8::Empty() {
  text.SetLength(0);
}

bool TQXStringUTF8::EraseStr(uint32_t pos, uint32_t count) {
  return text.EraseStr(pos, count);
}

void TQXStringUTF8::SetLength(uint32_t n) {
  text.SetLength(n);
}

void TQXStringUTF8::SubString(uint32_t pos, uint32_t len) {
  text.SubString(pos, len);
}

void TQXStringUTF8::ToUpper() {
  text.ToUpper();
}

bool TQXStringUTF8::IsEqualNotCaseSensitive(const TQXStringUTF8& other) const {
  return text.IsEqualNotCaseSensitive(other.text);
}

uint32_t TQXStringUTF8::SearchStr(const TQXStringUTF8& other) const {
  return text.SearchStr(other.text, 0);
}

uint32_t TQXStringUTF8::FindCharPos(char c, uint32_t from) const {
  return text.FindCharPos(CodeOf(c), from);
}

uint32_t TQXStringUTF8::FindCharPosFromRight(char c) const {
  return text.FindCharPosFromRight(CodeOf(c), Length() - 1);
}

uint32_t TQXStringUTF8::FindCharPosFromRight(char c, uint32_t from) const {
  return text.FindCharPosFromRight(CodeOf(c), from);
}

bool TQXStringUTF8::IsCharAt(uint32_t pos, char c) const {
  return text.GetCharAt(pos) == CodeOf(c);
}

uint32_t TQXStringUTF8::FindFirstNot(char c) const {
  uint16_t code = CodeOf(c);
  for (uint32_t i = 0; i < Length(); ++i) {
    if (text.GetCharAt(i) != code) return i;
  }
  return kNotFound;
}

uint32_t TQXStringUTF8::FindFirstOf(const char* set) const {
  uint32_t first = kNotFound;
  if (!set) return first;  // guard: no set, nothing found
  for (const char* p = set; *p; ++p) {
    uint32_t at = FindCharPos(*p, 0);
    if (at < first) first = at;
  }
  return first;
}

void TQXStringUTF8::Replace(uint16_t from, uint16_t to, uint32_t start) {
  // The length is read at each step; a replacement does not change it.
  for (uint32_t i = start; i < Length(); ++i) {
    if (text.GetCharAt(i) == from) text.SetCharAt(to, i);
  }
}

bool TQXStringUTF8::IsFolderNameCompliant() {
  if (FindFirstOf("\\/:*?\"<>|\r\n") != kNotFound) return false;
  if (Length() == 0) return false;
  if (FindFirstNot(' ') == kNotFound) return false;
  if (FindFirstNot('.') == kNotFound) return false;
  if (IsCharAt(0, ' ')) return false;
  if (IsCharAt(Length() - 1, ' ')) return false;
  if (IsCharAt(Length() - 1, '.')) return false;
  return true;
}

TQXStringUTF8 operator+(const TQXStringUTF8& a, const TQXStringUTF8& b) {
  TQXStringUTF8 sum;
  sum = a;
  sum += b;
  return sum;
}
