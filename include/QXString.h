// QXString.h: the string family.
//
// TQXString is the abstract string of the library. It holds text in the system's code page,
// never in wide characters, and keeps two lengths: `charLength` in characters and `byteLength`
// in bytes, because in double-byte mode (QXIsJapanSystem() true) a character takes one or two
// bytes; every position of the interface counts characters. The text is always followed by a
// zero byte at index byteLength; the buffer has capacity + 1 bytes.
//
// The string does not own its storage: a concrete class supplies the buffer (GetString) and
// decides growth (SetByteLength). All editing, searching and comparing lives here, written once
// on those two operations:
//   TQXString15 ... TQXString1023  the buffer inside the object; the number is the capacity in
//                                  bytes, not characters;
//   TQXDynamicString               the buffer on the library's heap, grown exactly to need.
//
// Failure contract: a string never fails. What does not fit is cut off silently at the capacity,
// by bytes (a double-byte character may be split, leaving its lead byte); a position out of range
// makes the call a no-op or gives a fixed answer: 0, or -1 as 0xFFFFFFFF. A dynamic string that
// cannot grow loses its text and reads as empty. Positions and lengths are 32-bit; where a
// comment says "negative" the value is read as a signed 32-bit number.
//
// Deliberate behaviours, relied upon by callers and kept as they are:
//  - == and != are exact (byte for byte to the first zero byte), while <, >, <=, >= order
//    case-insensitively by the user's locale: two strings may be <= each other and not ==;
//  - an insertion that overflows a fixed string leaves charLength as it was;
//  - SetLength only shortens;
//  - a double-byte character appended to a fixed string raises charLength by two (its byte
//    size); TQXDynamicString raises it by one;
//  - a sum of strings (operator+) is a TQXString1023, cut at 1023 bytes.
#ifndef QXSTRING_H
#define QXSTRING_H

#include <string>

#include "QXBase.h"

class QX_EXPORT TQXString {
 public:
  virtual ~TQXString();

  // Assigns the other's text; self-assignment does nothing.
  virtual TQXString& operator=(const TQXString& other);
  // Appends a four-byte code, most significant byte first: four single-byte appends, or in
  // double-byte mode two character appends when bits 8-15 hold a lead byte.
  virtual TQXString& operator+=(uint32_t value);
  // Appends one character code: a byte, or in double-byte mode a lead byte and its trail byte
  // (code high byte first).
  virtual TQXString& operator+=(uint16_t code);
  // Appends exactly one byte.
  virtual TQXString& operator+=(char c);
  // Appends a string, cut at the capacity.
  virtual TQXString& operator+=(const TQXString& other);

  // Case-insensitive ordering by the user's locale.
  virtual bool operator<(const TQXString& other) const;
  virtual bool operator>(const TQXString& other) const;
  virtual bool operator<=(const TQXString& other) const;
  virtual bool operator>=(const TQXString& other) const;
  // Exact comparison up to the first zero byte.
  virtual bool operator==(const TQXString& other) const;
  virtual bool operator!=(const TQXString& other) const;

  // Inserts `str` before the character at `pos`; pos == Length() appends, a larger or negative
  // pos does nothing.
  virtual void InsertStr(const TQXString& str, uint32_t pos);
  virtual bool IsDynamic() const;

  // The text; never null (a dynamic string that lost its buffer gives "").
  const char* StrGet() const;
  // Assigns a zero-terminated text; null does nothing.
  void FromCPtr(const char* text);
  // Copies the text and a terminator to `out`, which must have ByteLength() + 1 bytes.
  void ToCPtr(char* out) const;
  // Assigns a length-prefixed text (first byte the count); null does nothing.
  void FromPPtr(const unsigned char* text);
  // Stores the low 8 bits of ByteLength(), then all the bytes; no terminator.
  void ToPPtr(unsigned char* out) const;

  // The character code at `pos` (lead byte << 8 | trail byte for a double-byte character);
  // 0 past the end. A negative pos counts as 0.
  uint16_t GetCharAt(uint32_t pos) const;
  // Replaces the character at `pos`; nothing past the end, nor when a wider character would not
  // fit. A negative pos counts as 0.
  void SetCharAt(uint16_t code, uint32_t pos);
  // Shortens to `n` characters; a larger n changes nothing.
  void SetLength(uint32_t n);
  // Reduces the string to `len` characters from `pos` (len 0 or too large: to the end).
  void SubString(uint32_t pos, uint32_t len);
  // Removes up to `count` characters at `pos`; false, changing nothing, for a negative pos, a
  // count <= 0 or pos at or past the end.
  bool EraseStr(uint32_t pos, uint32_t count);
  // The character position of the first occurrence of `needle` at or after `from`, matching at
  // character starts only; 0xFFFFFFFF if none.
  uint32_t SearchStr(const TQXString& needle, uint32_t from) const;
  // The position of the first character `code` at or after `from`; 0xFFFFFFFF if none.
  uint32_t FindCharPos(uint16_t code, uint32_t from) const;
  // The position of the last character `code` at or before `from`; 0xFFFFFFFF if none. `from`
  // must lie inside the text: pass Length() - 1 to search it all.
  uint32_t FindCharPosFromRight(uint16_t code, uint32_t from) const;
  // Equality ignoring case; only the first 1023 bytes of each text count.
  bool IsEqualNotCaseSensitive(const TQXString& other) const;
  // Upper-cases the text in place for the system's code page.
  void ToUpper();
  // The decimal value of the text (strtol, base 10), commas taken as thousands separators;
  // saturated to the 32-bit range.
  int32_t ToInt32() const;

  uint32_t Length() const { return charLength; }
  uint32_t ByteLength() const { return byteLength; }

  // Character translation between the stored character set of the host's files and the
  // system's (InitAsciiTranslationTable). Without a table both leave everything as it is.
  // The entry of the table of direction `toStored` for `c` (0: no counterpart; 0x1B: expands).
  static short TranslateCharacter(short c, bool toStored);
  // Translates the text in place, byte by byte: characters without a counterpart are dropped,
  // expansions that do not fit are dropped too.
  void TranslateAscii(bool toStored);

  // Internal to the library: not part of its exported interface.
  QX_HIDDEN uint32_t Capacity() const { return capacity; }
  // Sets the text to `n` bytes from `src` (cut at the capacity; a null src keeps the bytes in
  // the buffer and only re-terminates and recounts them).
  QX_HIDDEN void AssignBytes(const char* src, uint32_t n);
  QX_HIDDEN void ToLower();
  // Locale order ignoring case, narrowed to 16 bits as the ordering operators read it.
  QX_HIDDEN int16_t CompareNoCase(const TQXString& other) const;
  // -1, 0 or 1 from the first differing unsigned byte.
  QX_HIDDEN int32_t CompareBytes(const TQXString& other) const;

  // Conversions.
  QX_HIDDEN void FromInt32(int32_t value);
  // A number (raw false and value <= 0x21212121, that is "!!!!") or a four-character code.
  QX_HIDDEN void FromCode(uint32_t value, bool raw);
  QX_HIDDEN uint32_t ToCode() const;
  QX_HIDDEN void FromDouble(double value);
  QX_HIDDEN void FromFloat(float value, unsigned char decimals);
  QX_HIDDEN double ToDouble() const;
  QX_HIDDEN float ToFloat() const;
  QX_HIDDEN void IncrementDigits();
  // Replaces each "^0" (ReplaceParamAt: "^" and the decimal index) by `value`.
  QX_HIDDEN void ReplaceParam(const TQXString& value);
  QX_HIDDEN void ReplaceParamAt(const TQXString& value, int32_t index);
  // ReplaceParamAt for each non-null entry of `values`, with its index.
  QX_HIDDEN void ReplaceParams(const TQXString* const* values, int32_t count);

  // Stored character set: `out` receives the text translated to the stored form, this string
  // keeps its own (out may be this string).
  QX_HIDDEN void TranslateToStored(TQXString& out);
  // Prepares a text read from a stored file: reduces "@W...@..." to the text between the marks,
  // then translates from the stored form.
  QX_HIDDEN void TranslateFromStored();

 protected:
  TQXString() : charLength(0), byteLength(0), capacity(0) {}
  TQXString(const TQXString&) = delete;

  // byteLength = min(capacity, n). TQXDynamicString grows first.
  virtual void SetByteLength(uint32_t n);
  // The buffer. The base has none: it throws TQXException(kQXErrNotImplemented).
  virtual char* GetString() const;

  // Stores `cap`, then takes up to `n` bytes from `src` (null: empty).
  QX_HIDDEN void InitBuffer(char* buffer, uint32_t cap, const char* src, uint32_t n);
  // The bytes that `len` characters from `pos` occupy (len limited to the text).
  QX_HIDDEN uint32_t ByteCountOfRange(uint32_t pos, uint32_t len) const;
  // The byte offset of character `n` (never beyond byteLength).
  QX_HIDDEN uint32_t BytesOfChars(uint32_t n) const;
  // Character steps: one byte each in single-byte mode, the platform's steps in double-byte mode.
  QX_HIDDEN static uint32_t CountCharacters(const char* text);
  QX_HIDDEN static const char* NextChars(const char* p, int16_t n);
  QX_HIDDEN static const char* PrevChars(const char* start, const char* p, int16_t n);
  // 2 for a lead byte of the system's code page, else 1 (whatever the mode).
  QX_HIDDEN static uint32_t CharSize(char lead);
  // The code of the character at p: (lead << 8) | trail, or the byte.
  QX_HIDDEN static uint16_t CharCodeAt(const char* p);

  // The append of a string, shared by the base and TQXDynamicString.
  QX_HIDDEN void AppendText(const TQXString& other);
  // The bytes of the range constructors: `len` characters of `other` from `pos`; a null *src
  // when pos is at or past the end; len 0, or a range past the end, takes the rest.
  QX_HIDDEN static void RangeOf(const TQXString& other, uint32_t pos, uint32_t len,
                                const char** src, uint32_t* n);

  uint32_t charLength;  // length in characters
  uint32_t byteLength;  // length in bytes, without the terminator
  uint32_t capacity;    // the largest byteLength; the buffer has capacity + 1 bytes
};

// The fixed strings: capacity N, the buffer inside the object. They add nothing to TQXString
// but their storage. Range constructor (other, pos, len): empty when pos is at or past the
// other's end; len 0, or a range past the end, takes the rest.
#define QX_DECLARE_FIXED_STRING(Name, N)                                  \
  class QX_EXPORT Name : public TQXString {                               \
   public:                                                                \
    Name();                                                               \
    Name(const char* text);                                               \
    Name(const char* text, uint32_t n);                                   \
    Name(const std::string& text);                                        \
    Name(const TQXString& other);                                         \
    Name(const Name& other);                                              \
    Name(const TQXString& other, uint32_t pos, uint32_t len);             \
    ~Name() override;                                                     \
    using TQXString::operator=;                                           \
    Name& operator=(const Name& other);                                   \
                                                                          \
   protected:                                                             \
    char* GetString() const override { return const_cast<char*>(fText); } \
                                                                          \
   private:                                                               \
    char fText[(N) + 1];                                                  \
  };

QX_DECLARE_FIXED_STRING(TQXString15, 15)
QX_DECLARE_FIXED_STRING(TQXString31, 31)
QX_DECLARE_FIXED_STRING(TQXString63, 63)
QX_DECLARE_FIXED_STRING(TQXString255, 255)
QX_DECLARE_FIXED_STRING(TQXString1023, 1023)

#undef QX_DECLARE_FIXED_STRING

// The heap string: capacity is the current size, grown exactly to each need (one reallocation
// per append that does not fit, never given back). Copies own separate buffers.
class QX_EXPORT TQXDynamicString : public TQXString {
 public:
  TQXDynamicString();
  TQXDynamicString(const char* text);
  // n bytes from `text`; a null text gives an empty string with room for n bytes.
  TQXDynamicString(const char* text, uint32_t n);
  TQXDynamicString(const std::string& text);
  TQXDynamicString(const TQXString& other);
  TQXDynamicString(const TQXDynamicString& other);
  TQXDynamicString(const TQXString& other, uint32_t pos, uint32_t len);
  TQXDynamicString(const TQXDynamicString& other, uint32_t pos, uint32_t len);
  ~TQXDynamicString() override;

  using TQXString::operator=;
  TQXDynamicString& operator=(const TQXDynamicString& other);
  TQXDynamicString& operator=(const std::string& text);

  using TQXString::operator+=;
  // Appends one character: the low 16 bits of the value (not four bytes as the fixed strings).
  TQXString& operator+=(uint32_t value) override;
  // Appends one character code; charLength goes up by one for a double-byte character too.
  TQXString& operator+=(uint16_t code) override;
  TQXString& operator+=(const TQXString& other) override;
  // Inserts without cutting anything: the text is rebuilt in a temporary block.
  void InsertStr(const TQXString& str, uint32_t pos) override;
  bool IsDynamic() const override;

 protected:
  // Grows the buffer to `n` first when n exceeds the capacity, then clamps.
  void SetByteLength(uint32_t n) override;
  char* GetString() const override;
  // Resizes the buffer to newCapacity + 1 bytes. On failure the text is gone: the buffer
  // becomes null and capacity and charLength 0. Returns the new buffer or null.
  virtual char* ReallocateBuffer(uint32_t newCapacity);

 private:
  QX_HIDDEN void InitDynamic(const char* src, uint32_t n);

  char* fBuffer;
};

// Sums of strings: a TQXString1023 holding `a`, then `b`, each operand and the result cut at
// 1023 bytes. Append to a TQXDynamicString for longer texts.
QX_EXPORT TQXString1023 operator+(const TQXString& a, const TQXString& b);
QX_EXPORT TQXString1023 operator+(const TQXString& a, const char* b);
QX_EXPORT TQXString1023 operator+(const TQXString& a, const std::string& b);

// Installs the host's translation table between the stored character set and the system's:
// two 256-byte tables stored by columns (the entry for code 16 * i + j at offset 16 * j + i),
// the first from stored to system, the second from system to stored; then at offset 512 the
// expansion list of the first direction and behind it that of the second, each a length byte n
// followed by n bytes of entries (source byte, replacement text, zero). `size` is not used.
QX_EXPORT void InitAsciiTranslationTable(const unsigned char* table, uint32_t size);

// True when the system's language is Japanese, Chinese or Korean: the strings are then in
// double-byte mode. Read once from the text role in force, then cached.
QX_EXPORT bool QXIsJapanSystem();

// The user's decimal separator, read anew on each call ("." when the setting is empty).
QX_EXPORT char GetSystemDecimalChar();
// The same, cached after the first read.
QX_EXPORT char GetDecimalChar();

#endif  // QXSTRING_H
