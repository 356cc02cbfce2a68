// QXStream.h: the library's one stream abstraction.
//
// TQXiostream reads and writes through a table of virtual operations: byte operations (Tell,
// Seek, Read, GetChar, PutBack, Write) that a medium supplies, and typed operations (>> and <<
// of numbers, characters, C strings and TQXString) that the base class gives a text form. A
// memory stream (QXStrStream.h) or a file stream inherits that text form; TQXByteSwapStream
// replaces it by a big-endian binary one. So a typed << writes text or binary depending only on
// the class of the stream.
//
// Vocabulary:
//  - state: bit 0 (kQXStreamEnd) the end was reached, bit 1 (kQXStreamFailed) an operation
//    failed. Media clear it at each Read, Write and Seek; Fail sets bit 1 and keeps no code.
//    Nothing in this family throws, apart from the byte operations of a bare TQXiostream, which
//    have no medium and throw TQXException(kQXErrNotImplemented).
//  - whitespace: the skip set of the text readers, " \n\r\t" unless the caller points it at
//    another zero-terminated set. The terminating zero is not a member of the set.
//  - text numbers: integers are decimal and wrap in 32 bits; a double is written with at most
//    `precision` decimal places and its integer part capped at 2147483647, and read back with an
//    exponent of -5 to 4 at most (see the operators below).
//
// A failed text read leaves its output as it was; callers test `state`. A read that fails
// without reaching the end (a stream with no readable medium) ends a text read as the end does.
#ifndef QXSTREAM_H
#define QXSTREAM_H

#include "QXBase.h"
#include "QXMemory.h"

class TQXString;
class TQXiostream;
class TQXiostreamContext;

// Bits of TQXiostream::state.
enum : uint32_t {
  kQXStreamEnd = 1,     // the end was reached
  kQXStreamFailed = 2,  // an operation failed
};

// Bits of TQXiostream::mode.
enum : uint32_t {
  kQXStreamReadable = 1,
  kQXStreamWritable = 2,
  kQXStreamNoCreate = 64,  // a file stream must not create a missing file
};

// The longest word that ReadWord and `>> char*` store, without the terminator: their buffers
// hold kQXStreamWordMax + 1 bytes.
constexpr int32_t kQXStreamWordMax = 256;

// A function that a stream applies to itself under >> and <<, such as endl.
typedef TQXiostream& (*TQXStreamManipulator)(TQXiostream&);

class QX_EXPORT TQXiostream {
 public:
  QX_CLASS_ALLOCATION

  TQXiostream();
  TQXiostream(const TQXiostream&) = delete;
  TQXiostream& operator=(const TQXiostream&) = delete;
  // Frees every property value, then the property array.
  virtual ~TQXiostream();

  // ---- Byte operations: the medium. A bare TQXiostream throws kQXErrNotImplemented. ----
  virtual int32_t Tell();
  // whence 0 from the start, 1 from the current position, 2 back from the end.
  virtual void Seek(int32_t offset, int32_t whence);
  // Moves up to `count` bytes; lastCount tells how many.
  virtual void Read(void* buffer, int32_t count);
  // Read of one byte: at the end `c` is left as it was.
  virtual void GetChar(char& c);
  virtual void PutBack(char c);
  virtual void Write(const void* buffer, int32_t count);

  // ---- Typed reads. Text form here; TQXByteSwapStream gives the binary form. ----
  virtual TQXiostream& operator>>(TQXStreamManipulator manipulator);
  // ReadWord, then assigned (cut at the string's capacity).
  virtual TQXiostream& operator>>(TQXString& s);
  // [sign] [digits] [. digits] [e|E [sign] digits], then a run of ":" or "/" (list separators)
  // is skipped. The integer part and the exponent wrap in 32 bits; an exponent outside -5 to 4
  // is ignored and the number stands unscaled. "5." and ".5" are numbers, "." is not.
  virtual TQXiostream& operator>>(double& d);
  virtual TQXiostream& operator>>(float& f);     // through double
  virtual TQXiostream& operator>>(uint16_t& v);  // the unsigned reader, low 16 bits
  virtual TQXiostream& operator>>(int16_t& v);   // the signed reader, low 16 bits
  // [sign] digits, wrapping in 32 bits; a sign is accepted here too and applied modulo 2^32.
  virtual TQXiostream& operator>>(uint32_t& v);
  virtual TQXiostream& operator>>(int32_t& v);
  // The next character past the white space; true when that byte is not 0 (so the text "0" is
  // true: a text reader of flags wants `>> int32_t`).
  virtual TQXiostream& operator>>(bool& b);
  virtual TQXiostream& operator>>(unsigned char& c);  // the next character past white space
  virtual TQXiostream& operator>>(char& c);
  // ReadDelimited with room for kQXStreamWordMax characters and the terminator: the buffer must
  // hold kQXStreamWordMax + 1 bytes. Give a size with ReadDelimited(buffer, capacity) otherwise.
  virtual TQXiostream& operator>>(char* s);
  virtual TQXiostream& operator>>(unsigned char* s);

  // ---- Typed writes. ----
  virtual TQXiostream& operator<<(TQXStreamManipulator manipulator);
  virtual TQXiostream& operator<<(const TQXString& s);  // WriteQuoted of its text
  // "-" for a negative value, then the integer part (2147483647 for values at or above it, and
  // nothing more), then "." and at most `precision` decimals when there is a fraction. The
  // fractional text goes out in one Write.
  virtual TQXiostream& operator<<(double d);
  // Rounded to 9 decimal places in double precision first, then as a double: 0.1f gives "0.1".
  virtual TQXiostream& operator<<(float f);
  virtual TQXiostream& operator<<(uint16_t v);       // as uint32_t
  virtual TQXiostream& operator<<(int16_t v);        // as int32_t
  virtual TQXiostream& operator<<(uint32_t v);       // decimal digits in one Write
  virtual TQXiostream& operator<<(int32_t v);        // "-" for a negative value, then the digits
  virtual TQXiostream& operator<<(unsigned char c);  // one raw byte
  virtual TQXiostream& operator<<(char c);           // one raw byte
  // Raw bytes up to the terminator, without it; a null pointer writes nothing.
  virtual TQXiostream& operator<<(const char* s);
  virtual TQXiostream& operator<<(const unsigned char* s);
  virtual TQXiostream& operator<<(char* s);

  // Not slots: a signed char is a character too, not a number (it would promote to int32_t).
  TQXiostream& operator<<(signed char c) { return *this << char(c); }
  TQXiostream& operator>>(signed char& c) {
    char plain = char(c);
    *this >> plain;
    c = static_cast<signed char>(plain);
    return *this;
  }

  // Reads a word, possibly in double quotes with backslash escapes, into a buffer of
  // kQXStreamWordMax + 1 bytes. An unquoted word ends at space, tab, LF or CR; a quoted one at
  // the closing quote. The stopping character is consumed; a longer word is cut and the
  // character after the cut is lost. At the end of the stream the word may be the one character
  // read last.
  virtual void ReadWord(char* buffer);
  // Writes the text in double quotes, with a backslash before each backslash and double quote.
  // The text is counted in 16 signed bits: no more than its first 32767 bytes are written.
  virtual void WriteQuoted(const char* text);
  // A saved description that can reopen the stream later; null here.
  virtual TQXiostreamContext* GetContext();

  // ---- Non-virtual members ----
  // Sets bit 1 of state; the status number (kQXStream... of QXException.h) is not kept.
  void Fail(int32_t status);
  int32_t SetPrecision(int32_t n);   // returns the old value
  int32_t SetWidth(int32_t n);       // returns the old value
  uint32_t SetFlags(uint32_t bits);  // flags |= bits; returns the new flags
  // flags &= (bits == 0 ? 1 : 0): any non-zero argument clears every flag, and 0 keeps bit 0
  // only. Returns the new flags.
  uint32_t ClearFlags(uint32_t bits);

  // Reads a line of at most `limit` characters into a buffer of limit + 1 bytes, always
  // terminated. The line ends at `delimiter`, which is consumed and not stored; a delimiter of
  // LF (10) ends the line at CR or LF, and swallows the other one of a CR LF or LF CR pair, so
  // that CR CR and LF LF are two line ends; the result is then 10. Otherwise the result is the
  // last character read. lastCount counts every character taken, line ends included. A limit
  // below 1 stores only the terminator and returns delimiter + 1.
  char GetLine(char* buffer, int32_t limit, char delimiter);

  // The next character past the white space; at the end, the last character read (or 0).
  char GetToken();
  // Reads a white-space delimited word of at most capacity - 1 characters into `buffer`, always
  // terminated when capacity is at least 1. A 0 byte ends the word. A white-space stopper is put
  // back; so is the first character that no longer fits, which the next read then starts with.
  void ReadDelimited(char* buffer, int32_t capacity);

  // Attaches a copy of `size` bytes of `data` to the stream under `key`, replacing what the key
  // held (a null `data` gives zeroed bytes). The block lives until it is replaced or the stream
  // is destroyed. Nothing changes when memory runs out.
  void SetProperty(uint32_t key, const void* data, uint32_t size);
  // The block under `key`, or null.
  void* GetProperty(uint32_t key) const;

  uint32_t flags;             // format flags for the host: nothing here consults them
  uint32_t state;             // kQXStreamEnd | kQXStreamFailed
  uint32_t mode;              // kQXStreamReadable | kQXStreamWritable | kQXStreamNoCreate
  int32_t precision;          // most decimal places of a written double or float; 8
  int32_t width;              // 12; kept for the host, nothing reads it
  int32_t lastCount;          // bytes moved by the last Read
  const char* whitespace;     // the text readers' skip set, not owned
  unsigned char* properties;  // propertyCount pairs of key and value block, from QXmalloc
  uint32_t propertyCount;

 protected:
  // Whether c belongs to the skip set (0 never does).
  QX_HIDDEN bool IsWhite(char c) const;

 private:
  // The shared integer reader: false (and Fail) when no digit follows the optional sign.
  QX_HIDDEN bool ReadInteger(uint32_t& out);
};

// Writes CR (13), then LF (10), each with Write, in text and binary streams alike.
QX_EXPORT TQXiostream& endl(TQXiostream& stream);

// The mode manipulator: sets `flags` to 1.
TQXiostream& QXStreamMode(TQXiostream& stream);

// A saved description of a stream, used to reopen it later. The base has no data and leaves
// both operations to throw kQXErrNotImplemented; the file stream's context is the real form.
class TQXiostreamContext {
 public:
  QX_CLASS_ALLOCATION

  TQXiostreamContext() = default;
  TQXiostreamContext(const TQXiostreamContext&) = delete;
  TQXiostreamContext& operator=(const TQXiostreamContext&) = delete;
  virtual ~TQXiostreamContext();
  // Rebuilds a stream for the saved state; the caller owns it.
  virtual TQXiostream* Reopen();
  // Tells the context of a change: kind 1, a file was renamed from the path a to the path b;
  // kind 2 with a null a, b points at a new uint32_t mode.
  virtual void Update(const void* a, const void* b, int32_t kind);
};

// Length of a zero-terminated text, 0 for a null pointer, at most INT32_MAX.
int32_t QXCStringLength(const char* s);
// Copies a C string into a length-prefixed one: the length, the least of `limit`, 255 and the
// text's length, goes to byte 0 and the bytes behind it. `pascal` holds 256 bytes at most.
void QXCopyToPascal(const char* cString, unsigned char* pascal, int32_t limit);
// Copies the least of `limit`, 255 and the stored length of a length-prefixed string, then a
// terminator: `cString` holds limit + 1 bytes (256 at most).
void QXCopyFromPascal(const unsigned char* pascal, char* cString, int32_t limit);

#endif  // QXSTREAM_H
