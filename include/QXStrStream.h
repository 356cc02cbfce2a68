// QXStrStream.h: streams over memory, and the counting stream.
//
// TQXstrstream puts a TQXiostream on a block of memory. One cursor serves reading and writing;
// `size` is the count of valid bytes, and 0 <= Tell() <= size holds at all times. The stream
// either owns its block (the default constructor: it grows on demand, by what a write needs plus
// 4096, and reports its capacity as its size) or works on the caller's memory, which it never
// reads or writes outside [buffer, buffer + size).
//
// TQXByteSwapStream keeps the medium and replaces the text form of the typed slots by a binary
// one, most significant byte first: the encoding of the resource files. Two slots differ from
// their readers on purpose: << double and << float store the host's memory order, while >>
// double and >> float reverse; WriteDoubleSwapped and WriteFloatSwapped are the writers that
// match the readers (see there). Strings carry a length whose width depends on the capacity of
// the string object, so writer and reader must use strings of the same class.
//
// countstream has no medium: it counts what a write would produce, so it measures the text form
// of what is written to it.
#ifndef QXSTRSTREAM_H
#define QXSTRSTREAM_H

#include "QXStream.h"

class QX_EXPORT TQXstrstream : public TQXiostream {
 public:
  // An owned, growing block of 4096 bytes; `size` is 4096 and the end bit is set (nothing to
  // read yet). If the block cannot be had the stream is empty and failed.
  TQXstrstream();
  // Reads a zero-terminated text in place. The memory is read-only to the stream: Write fails
  // and PutBack does not store. A null or empty text sets the end bit.
  explicit TQXstrstream(const char* text);
  // The same on writable text: Write and PutBack may change the text within its length.
  explicit TQXstrstream(char* text);
  // Works on `size` bytes that the caller keeps. A null buffer with a non-zero size fails and
  // leaves the stream empty. A size of 0 takes the buffer as a zero-terminated text (0 for a
  // null buffer). A size below 1 with the writable bit fails; a negative size makes the stream
  // unusable for seeking and writing. `mode` is stored as given.
  TQXstrstream(void* buffer, int32_t size, uint32_t mode);
  // Frees an owned block.
  ~TQXstrstream() override;

  // The cursor's distance from `buffer`.
  int32_t Tell() override;
  // Out of [0, size]: state 0 and Fail. The end bit is set exactly when the target is `size`.
  // An unknown whence clears state and does nothing else.
  void Seek(int32_t offset, int32_t whence) override;
  // Copies what is there up to `count`, setting the end bit when the request passes the end.
  void Read(void* buffer, int32_t count) override;
  // At the end: state 1, `c` untouched. Otherwise state 0 and the byte.
  void GetChar(char& c) override;
  // Steps back one byte and stores c there; at position 0, Fail.
  void PutBack(char c) override;
  // Writes within `size`, grows an owned block, or on caller memory calls Overflow and tries
  // again while Overflow makes room; a stream that cannot take the bytes fails and writes none.
  void Write(const void* data, int32_t count) override;
  // Asks a derived class to drain the block and move the cursor back. Here: Fail.
  virtual void Overflow();

  unsigned char* buffer;  // start of the data
  int32_t size;           // bytes valid; negative: not usable for seeking or writing
  unsigned char* cursor;  // the read and write position
  unsigned char* owned;   // the allocation when the stream owns and may grow it, else null

 private:
  bool readOnly = false;  // the memory of a const text: never stored to
};

class QX_EXPORT TQXByteSwapStream : public TQXstrstream {
 public:
  TQXByteSwapStream() = default;
  explicit TQXByteSwapStream(const char* text) : TQXstrstream(text) {}
  explicit TQXByteSwapStream(char* text) : TQXstrstream(text) {}
  TQXByteSwapStream(void* buffer, int32_t size, uint32_t mode = kQXStreamReadable)
      : TQXstrstream(buffer, size, mode) {}

  using TQXiostream::operator>>;
  using TQXiostream::operator<<;

  // A length, then the bytes, translated to the stored code page on writing and back on
  // reading. A string whose capacity is below 256 has a 1-byte length; from 256 on the length
  // takes 4 bytes. A length that runs past the end of the stream fails and keeps the bytes that
  // were there.
  TQXiostream& operator>>(TQXString& s) override;
  TQXiostream& operator>>(double& d) override;  // 8 bytes reversed
  TQXiostream& operator>>(float& f) override;   // 4 bytes reversed
  TQXiostream& operator>>(uint16_t& v) override;
  TQXiostream& operator>>(int16_t& v) override;
  TQXiostream& operator>>(uint32_t& v) override;
  TQXiostream& operator>>(int32_t& v) override;
  TQXiostream& operator>>(unsigned char& c) override;  // one byte
  TQXiostream& operator>>(char& c) override;           // one byte

  TQXiostream& operator<<(const TQXString& s) override;
  TQXiostream& operator<<(double d) override;  // 8 bytes in host order, not reversed
  TQXiostream& operator<<(float f) override;   // 4 bytes in host order, not reversed
  TQXiostream& operator<<(uint16_t v) override;
  TQXiostream& operator<<(int16_t v) override;
  TQXiostream& operator<<(uint32_t v) override;
  TQXiostream& operator<<(int32_t v) override;

  // The value converted to a 32-bit integer (truncated toward zero; 0x80000000 out of range),
  // then 4 bytes reversed. Note that >> float reads the bits of a float back, not an integer.
  void WriteFloatSwapped(float f);
  // 8 bytes reversed: what >> double reads back.
  void WriteDoubleSwapped(double d);
  void WriteByte(uint8_t value);

 private:
  // Reads exactly n bytes, or fails: false with nothing stored.
  QX_HIDDEN bool ReadExact(void* out, int32_t n);
};

class QX_EXPORT countstream : public TQXiostream {
 public:
  countstream() = default;

  int32_t Tell() override;  // position
  // Moves the position; a position past `length` lifts it and sets state 1, else state 0.
  void Seek(int32_t offset, int32_t whence) override;
  void Read(void* buffer, int32_t count) override;  // Fail: nothing to read
  void PutBack(char c) override;                    // Fail
  // Advances the position by count, lifting `length`; stores nothing.
  void Write(const void* data, int32_t count) override;
  // The count of bytes a write would have produced.
  int32_t Length() const { return length; }

  int32_t length = 0;
  int32_t position = 0;
};

#endif  // QXSTRSTREAM_H
