// TQXDynamicString: the heap string. Its capacity is always the size of its block less the
// terminator's byte, and it grows to exactly what an operation needs: one QXrealloc per append
// that does not fit, and no memory given back when the text gets shorter. A long series of
// appends is thus quadratic in the worst case; the simplicity is accepted.
#include <cstring>

#include "QXMemory.h"
#include "QXString.h"
#include "text/QXTextState.h"

namespace {

uint32_t Count32(size_t n) {
  return n < UINT32_MAX ? uint32_t(n) : UINT32_MAX - 1;
}

}  // namespace

void TQXDynamicString::InitDynamic(const char* src, uint32_t n) {
  if (n == UINT32_MAX) n = UINT32_MAX - 1;  // guard: n + 1 must not wrap to 0
  fBuffer = static_cast<char*>(QXmalloc(n + 1));
  if (fBuffer) {
    InitBuffer(fBuffer, n, src, n);  // capacity is exactly the length
  } else {
    charLength = 0;  // out of memory: an empty string without a buffer
    byteLength = 0;
    capacity = 0;
  }
}

TQXDynamicString::TQXDynamicString() : fBuffer(nullptr) {
  InitDynamic(nullptr, 0);
}

TQXDynamicString::TQXDynamicString(const char* text) : fBuffer(nullptr) {
  // Guard: a null text, which the count cannot take, gives an empty string.
  InitDynamic(text, text ? Count32(std::strlen(text)) : 0);
}

TQXDynamicString::TQXDynamicString(const char* text, uint32_t n) : fBuffer(nullptr) {
  InitDynamic(text, n);
}

TQXDynamicString::TQXDynamicString(const std::string& text) : fBuffer(nullptr) {
  InitDynamic(text.data(), Count32(text.size()));
}

TQXDynamicString::TQXDynamicString(const TQXString& other) : fBuffer(nullptr) {
  InitDynamic(other.StrGet(), other.ByteLength());
}

TQXDynamicString::TQXDynamicString(const TQXDynamicString& other) : TQXString(), fBuffer(nullptr) {
  InitDynamic(other.StrGet(), other.ByteLength());
}

TQXDynamicString::TQXDynamicString(const TQXString& other, uint32_t pos, uint32_t len)
    : fBuffer(nullptr) {
  const char* src;
  uint32_t n;
  RangeOf(other, pos, len, &src, &n);
  InitDynamic(src, n);
}

TQXDynamicString::TQXDynamicString(const TQXDynamicString& other, uint32_t pos, uint32_t len)
    : TQXDynamicString(static_cast<const TQXString&>(other), pos, len) {}

TQXDynamicString::~TQXDynamicString() {
  QXfree(fBuffer);
}

TQXDynamicString& TQXDynamicString::operator=(const TQXDynamicString& other) {
  TQXString::operator=(other);
  return *this;
}

TQXDynamicString& TQXDynamicString::operator=(const std::string& text) {
  AssignBytes(text.data(), Count32(text.size()));
  return *this;
}

bool TQXDynamicString::IsDynamic() const {
  return true;
}

char* TQXDynamicString::GetString() const {
  return fBuffer;
}

void TQXDynamicString::SetByteLength(uint32_t n) {
  if (n > capacity) ReallocateBuffer(n);
  byteLength = n < capacity ? n : capacity;
}

char* TQXDynamicString::ReallocateBuffer(uint32_t newCapacity) {
  char* p = nullptr;
  if (newCapacity < UINT32_MAX) p = static_cast<char*>(QXrealloc(fBuffer, newCapacity + 1));
  if (!p) {
    // The text is gone and the string reads as empty. QXrealloc leaves the old block as it
    // was on failure; it is freed here rather than lost.
    QXfree(fBuffer);
    fBuffer = nullptr;
    capacity = 0;
    charLength = 0;
    return nullptr;
  }
  fBuffer = p;
  capacity = newCapacity;
  return p;
}

TQXString& TQXDynamicString::operator+=(uint32_t value) {
  return *this += uint16_t(value);  // one character from the low 16 bits
}

TQXString& TQXDynamicString::operator+=(uint16_t code) {
  uint32_t size = QXTextDoubleByte() ? CharSize(char(code >> 8)) : 1;
  uint32_t old = byteLength;
  SetByteLength(old + size);  // grows always; the block has exactly the room asked for
  if (!fBuffer) return *this;
  if (old + size > old + 1) {
    fBuffer[old] = char(code >> 8);
    fBuffer[old + 1] = char(code);
  } else {
    fBuffer[old] = char(code);
  }
  fBuffer[byteLength] = 0;
  ++charLength;  // one character, whatever its byte size
  return *this;
}

TQXString& TQXDynamicString::operator+=(const TQXString& other) {
  AppendText(other);
  return *this;
}

void TQXDynamicString::InsertStr(const TQXString& str, uint32_t pos) {
  if (pos > charLength || str.Length() == 0) return;
  uint32_t offset = BytesOfChars(pos);
  uint32_t add = str.ByteLength();
  if (add > UINT32_MAX - 2 - byteLength) add = UINT32_MAX - 2 - byteLength;  // 32-bit sums
  uint32_t total = byteLength + add;
  // Head, inserted text and tail are laid out in a block of their own, then assigned.
  auto* block = static_cast<char*>(QXmalloc(total + 1));
  if (!block) {
    // Guard: the original did not test this allocation. Out of memory loses the text, as
    // everywhere in this class.
    SetByteLength(0);
    if (fBuffer) fBuffer[0] = 0;
    charLength = 0;
    return;
  }
  const char* text = StrGet();
  std::memcpy(block, text, offset);
  std::memcpy(block + offset, str.StrGet(), add);
  std::memcpy(block + offset + add, text + offset, byteLength - offset);
  AssignBytes(block, total);
  QXfree(block);
}
