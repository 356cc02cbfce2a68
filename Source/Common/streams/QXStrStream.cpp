// TQXstrstream, TQXByteSwapStream and countstream.
//
// A TQXstrstream is a window [buffer, buffer + size) with one cursor in it. Every operation keeps
// 0 <= cursor - buffer <= size, so a read or a write never leaves the window whatever the
// counts, offsets or sizes it is given; positions are computed as integers and only a position
// inside the window ever becomes a pointer. A negative size marks a stream that cannot seek or
// write; there is then nothing to read either.
//
// The binary form of TQXByteSwapStream is big-endian: a value's most significant byte is stored
// first. Its encoders below build the bytes with shifts, so they hold on a host of either byte
// order; the two slots that store "host order" copy the value's memory as it is.
#include <cstring>

#include "QXException.h"
#include "QXInternal.h"
#include "QXMemory.h"
#include "QXStrStream.h"
#include "QXString.h"

namespace {

// What an owned block adds beyond the bytes that a write needs.
constexpr int32_t kGrowthSlack = 4096;
constexpr int32_t kInitialOwnedSize = 4096;

// A string object of this capacity or more carries a 4-byte length in the binary form.
constexpr uint32_t kLongLengthCapacity = 256;
// Strings up to this many bytes are read through the stack; longer ones (only a dynamic string
// can hold them) through a block from the allocator.
constexpr uint32_t kLocalScratch = 1024;

void StoreBE16(unsigned char* p, uint16_t v) {
  p[0] = uint8_t(v >> 8);
  p[1] = uint8_t(v);
}
void StoreBE32(unsigned char* p, uint32_t v) {
  p[0] = uint8_t(v >> 24);
  p[1] = uint8_t(v >> 16);
  p[2] = uint8_t(v >> 8);
  p[3] = uint8_t(v);
}
void StoreBE64(unsigned char* p, uint64_t v) {
  StoreBE32(p, uint32_t(v >> 32));
  StoreBE32(p + 4, uint32_t(v));
}
uint16_t LoadBE16(const unsigned char* p) {
  return uint16_t((p[0] << 8) | p[1]);
}
uint32_t LoadBE32(const unsigned char* p) {
  return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}
uint64_t LoadBE64(const unsigned char* p) {
  return (uint64_t(LoadBE32(p)) << 32) | LoadBE32(p + 4);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// TQXstrstream
// ---------------------------------------------------------------------------------------------

TQXstrstream::TQXstrstream() : buffer(nullptr), size(0), cursor(nullptr), owned(nullptr) {
  owned = static_cast<unsigned char*>(QXmalloc(kInitialOwnedSize));
  state = kQXStreamEnd;  // nothing to read yet
  if (owned == nullptr) {
    // The allocation is not tested in the original design; here the stream stays empty.
    Fail(kQXStreamNullBuffer);
    return;
  }
  // The capacity counts as the size, so the bytes not yet written can be read: they are zeroed
  // to read the same every time.
  std::memset(owned, 0, kInitialOwnedSize);
  buffer = cursor = owned;
  size = kInitialOwnedSize;
}

TQXstrstream::TQXstrstream(const char* text) : TQXstrstream(const_cast<char*>(text)) {
  readOnly = true;
}

TQXstrstream::TQXstrstream(char* text) : buffer(nullptr), size(0), cursor(nullptr), owned(nullptr) {
  buffer = cursor = reinterpret_cast<unsigned char*>(text);
  size = QXCStringLength(text);
  if (size == 0) state = kQXStreamEnd;
}

TQXstrstream::TQXstrstream(void* data, int32_t n, uint32_t modeBits)
    : buffer(nullptr), size(0), cursor(nullptr), owned(nullptr) {
  mode = modeBits;
  if (data == nullptr && n != 0) {
    // A null buffer stays an empty window, whatever size came with it.
    Fail(kQXStreamNullBuffer);
    return;
  }
  if (n < 1 && (modeBits & kQXStreamWritable) != 0) Fail(kQXStreamModeForbids);
  if (n == 0) n = QXCStringLength(static_cast<const char*>(data));
  buffer = cursor = static_cast<unsigned char*>(data);
  size = n;
}

TQXstrstream::~TQXstrstream() {
  QXfree(owned);
}

int32_t TQXstrstream::Tell() {
  return int32_t(cursor - buffer);
}

void TQXstrstream::Seek(int32_t offset, int32_t whence) {
  if (size < 0) {
    state = 0;
    Fail(kQXStreamModeForbids);
    return;
  }
  int64_t target;
  switch (whence) {
    case 0:
      target = offset;
      break;
    case 1:
      target = int64_t(Tell()) + offset;
      break;
    case 2:  // the offset counts back from the end
      target = offset < 0 ? -1 : int64_t(size) - offset;
      break;
    default:
      state = 0;
      return;
  }
  state = 0;
  if (target < 0 || target > size) {
    Fail(kQXStreamOutOfRange);
    return;
  }
  cursor = buffer + target;
  if (target == size) state = kQXStreamEnd;
}

void TQXstrstream::Read(void* out, int32_t count) {
  state = 0;
  lastCount = 0;
  if (count <= 0) return;
  if (size < 1) {
    // The original reads such a stream without testing the bounds. There is no byte of the
    // caller's that is known to be there, so nothing is read and the read fails.
    state = kQXStreamEnd;
    Fail(kQXStreamOutOfRange);
    return;
  }
  if (out == nullptr) {
    Fail(kQXStreamNullBuffer);
    return;
  }
  const int32_t available = size - Tell();
  if (count > available) {
    state = kQXStreamEnd;
    count = available;
  }
  QXmemcpy(out, cursor, count);
  cursor += count;
  lastCount = count;
}

void TQXstrstream::GetChar(char& c) {
  if (Tell() >= size) {
    state = kQXStreamEnd;
    return;
  }
  state = 0;
  c = char(*cursor++);
}

void TQXstrstream::PutBack(char c) {
  if (Tell() < 1) {
    Fail(kQXStreamOutOfRange);
    return;
  }
  --cursor;
  if (!readOnly) *cursor = static_cast<unsigned char>(c);
}

void TQXstrstream::Write(const void* data, int32_t count) {
  state = 0;
  if (size < 0 || readOnly) {
    Fail(kQXStreamModeForbids);
    return;
  }
  if (count <= 0) return;
  if (data == nullptr) {
    Fail(kQXStreamNullBuffer);
    return;
  }
  for (;;) {
    const int32_t position = Tell();
    if (count <= size - position) {
      QXmemcpy(cursor, data, count);
      cursor += count;
      return;
    }
    if (owned != nullptr) {
      // Grow by what is asked plus the slack, so that small writes reallocate once per 4096
      // bytes. A size that would leave 32 bits, or memory running out (not tested in the
      // original design), fails the write and keeps the block.
      const int64_t grownSize = int64_t(size) + count + kGrowthSlack;
      void* grown = grownSize <= INT32_MAX ? QXrealloc(owned, uint32_t(grownSize)) : nullptr;
      if (grown == nullptr) {
        Fail(kQXStreamOutOfRange);
        return;
      }
      owned = buffer = static_cast<unsigned char*>(grown);
      std::memset(buffer + size, 0, size_t(grownSize - size));
      size = int32_t(grownSize);
      cursor = buffer + position;
      QXmemcpy(cursor, data, count);
      cursor += count;
      return;
    }
    if (position == 0) {
      Fail(kQXStreamOutOfRange);
      return;
    }
    // A derived class drains the block and moves the cursor back; then the write is tried
    // again. An Overflow that makes no room ends it (the original would try for ever).
    Overflow();
    if (Tell() >= position) {
      Fail(kQXStreamOutOfRange);
      return;
    }
    state = 0;
  }
}

void TQXstrstream::Overflow() {
  Fail(kQXStreamOutOfRange);
}

// ---------------------------------------------------------------------------------------------
// TQXByteSwapStream
// ---------------------------------------------------------------------------------------------

bool TQXByteSwapStream::ReadExact(void* out, int32_t n) {
  Read(out, n);
  return lastCount == n;
}

TQXiostream& TQXByteSwapStream::operator>>(double& d) {
  unsigned char b[8];
  if (ReadExact(b, 8)) {
    const uint64_t bits = LoadBE64(b);
    std::memcpy(&d, &bits, 8);
  }
  return *this;
}

TQXiostream& TQXByteSwapStream::operator>>(float& f) {
  unsigned char b[4];
  if (ReadExact(b, 4)) {
    const uint32_t bits = LoadBE32(b);
    std::memcpy(&f, &bits, 4);
  }
  return *this;
}

TQXiostream& TQXByteSwapStream::operator>>(uint16_t& v) {
  unsigned char b[2];
  if (ReadExact(b, 2)) v = LoadBE16(b);
  return *this;
}

TQXiostream& TQXByteSwapStream::operator>>(int16_t& v) {
  unsigned char b[2];
  if (ReadExact(b, 2)) v = int16_t(LoadBE16(b));
  return *this;
}

TQXiostream& TQXByteSwapStream::operator>>(uint32_t& v) {
  unsigned char b[4];
  if (ReadExact(b, 4)) v = LoadBE32(b);
  return *this;
}

TQXiostream& TQXByteSwapStream::operator>>(int32_t& v) {
  unsigned char b[4];
  if (ReadExact(b, 4)) v = int32_t(LoadBE32(b));
  return *this;
}

TQXiostream& TQXByteSwapStream::operator>>(unsigned char& c) {
  unsigned char b;
  if (ReadExact(&b, 1)) c = b;
  return *this;
}

TQXiostream& TQXByteSwapStream::operator>>(char& c) {
  unsigned char b;
  if (ReadExact(&b, 1)) c = char(b);
  return *this;
}

TQXiostream& TQXByteSwapStream::operator<<(double d) {
  Write(&d, 8);  // host order, unlike the reader
  return *this;
}

TQXiostream& TQXByteSwapStream::operator<<(float f) {
  Write(&f, 4);  // host order, unlike the reader
  return *this;
}

TQXiostream& TQXByteSwapStream::operator<<(uint16_t v) {
  unsigned char b[2];
  StoreBE16(b, v);
  Write(b, 2);
  return *this;
}

TQXiostream& TQXByteSwapStream::operator<<(int16_t v) {
  return *this << uint16_t(v);
}

TQXiostream& TQXByteSwapStream::operator<<(uint32_t v) {
  unsigned char b[4];
  StoreBE32(b, v);
  Write(b, 4);
  return *this;
}

TQXiostream& TQXByteSwapStream::operator<<(int32_t v) {
  return *this << uint32_t(v);
}

// The float's 32 bits, taken as an integer and written reversed: the form `>> float` reads.
void TQXByteSwapStream::WriteFloatSwapped(float f) {
  uint32_t bits;
  std::memcpy(&bits, &f, 4);
  *this << bits;
}

void TQXByteSwapStream::WriteDoubleSwapped(double d) {
  uint64_t bits;
  std::memcpy(&bits, &d, 8);
  unsigned char b[8];
  StoreBE64(b, bits);
  Write(b, 8);
}

void TQXByteSwapStream::WriteByte(uint8_t value) {
  Write(&value, 1);
}

// Strings: the width of the length follows the capacity of the string object, 1 byte below 256,
// else 4 bytes most significant first. The text travels in the stored character set.
TQXiostream& TQXByteSwapStream::operator<<(const TQXString& s) {
  TQXDynamicString stored(s);
  stored.TranslateToStored(stored);
  const uint32_t length = stored.ByteLength();
  if (s.Capacity() < kLongLengthCapacity) {
    WriteByte(uint8_t(length));
  } else {
    *this << length;
  }
  if (state == 0 && length != 0) Write(stored.StrGet(), int32_t(length));
  return *this;
}

TQXiostream& TQXByteSwapStream::operator>>(TQXString& s) {
  uint32_t length = 0;
  if (s.Capacity() < kLongLengthCapacity) {
    unsigned char b = 0;
    if (ReadExact(&b, 1)) length = b;
  } else {
    unsigned char b[4];
    if (ReadExact(b, 4)) length = LoadBE32(b);
  }
  if (state != 0 || length == 0) {
    s.AssignBytes("", 0);
    return *this;
  }
  // The stored length is not trusted: only the bytes that are there are read, and a fixed
  // string keeps no more than its capacity, so the scratch block is bounded by both. The rest
  // of a string longer than its target is stepped over, as reading it whole would do.
  const uint32_t remaining = size > Tell() ? uint32_t(size - Tell()) : 0;
  const bool truncated = length > remaining;
  const uint32_t present = truncated ? remaining : length;
  uint32_t keep = present;
  if (!s.IsDynamic() && keep > s.Capacity()) keep = s.Capacity();

  char local[kLocalScratch];
  char* scratch = keep <= sizeof local ? local : static_cast<char*>(QXmalloc(keep));
  if (scratch == nullptr) {
    s.AssignBytes("", 0);
    Seek(int32_t(present), 1);
    state = kQXStreamEnd;
    Fail(kQXStreamOutOfRange);
    return *this;
  }
  Read(scratch, int32_t(keep));
  if (present > keep) {
    Seek(int32_t(present - keep), 1);
    state = 0;
  }
  s.AssignBytes(scratch, keep);
  s.TranslateFromStored();
  if (scratch != local) QXfree(scratch);
  if (truncated) {
    state = kQXStreamEnd;
    Fail(kQXStreamOutOfRange);
  }
  return *this;
}

// ---------------------------------------------------------------------------------------------
// countstream
// ---------------------------------------------------------------------------------------------

int32_t countstream::Tell() {
  return position;
}

void countstream::Seek(int32_t offset, int32_t whence) {
  switch (whence) {
    case 0:
      position = offset;
      break;
    case 1:
      position = QXWrapAdd(position, offset);
      break;
    case 2:
      position = QXWrapSub(length, offset);
      break;
    default:
      break;
  }
  if (position > length) {
    length = position;
    state = kQXStreamEnd;
  } else {
    state = 0;
  }
}

void countstream::Read(void*, int32_t) {
  lastCount = 0;
  Fail(kQXStreamModeForbids);
}

void countstream::PutBack(char) {
  Fail(kQXStreamModeForbids);
}

void countstream::Write(const void*, int32_t count) {
  state = 0;
  position = QXWrapAdd(position, count);
  if (position > length) length = position;
}
