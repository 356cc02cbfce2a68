// QXStringUTF8.h: the path string.
//
// TQXStringUTF8 holds every path of the file layer and is what the host hands paths over in. In
// spite of its name it converts nothing: it wraps one TQXDynamicString and passes bytes through
// as they are, in the system's code page. It is not a TQXString and cannot be passed as one;
// FromTQXString, ToTQXString and the constructors convert, by copying bytes.
//
// Its character arguments are `char`, sign-extended to 16 bits on their way to the string's
// character codes: a byte of 0x80 or more becomes 0xFFxx and never equals a character, so these
// operations find ASCII characters only. Separators, dots and the characters that names may not
// hold are all ASCII.
//
// Failure contract: that of TQXDynamicString. A string that cannot grow loses its text.
#ifndef QXSTRINGUTF8_H
#define QXSTRINGUTF8_H

#include <string>

#include "QXBase.h"
#include "QXString.h"

class QX_EXPORT TQXStringUTF8 {
 public:
  TQXStringUTF8();
  TQXStringUTF8(char c);  // one byte
  TQXStringUTF8(const TQXStringUTF8& other);
  TQXStringUTF8(const TQXString& other);
  TQXStringUTF8(const std::string& text);
  virtual ~TQXStringUTF8();

  virtual TQXStringUTF8& operator=(const TQXString& other);
  virtual TQXStringUTF8& operator=(const TQXStringUTF8& other);
  virtual TQXStringUTF8& operator+=(const TQXStringUTF8& other);
  virtual TQXStringUTF8& operator+=(char c);
  // Exact comparison, as TQXString's.
  virtual bool operator==(const TQXStringUTF8& other) const;
  virtual bool operator!=(const TQXStringUTF8& other) const;
  virtual void InsertStr(const TQXStringUTF8& str, uint32_t pos);

  // The text up to its first zero byte.
  operator std::string() const;

  // As TQXString's operations of the same names.
  const char* StrGet() const { return text.StrGet(); }
  void FromCPtr(const char* s);
  void FromPPtr(const unsigned char* s);
  // Copies the whole text and a terminator; `size` is not looked at, whatever it says.
  void ToCPtr(char* out, uint32_t size) const;
  void ToPPtr(unsigned char* out) const;
  void FromTQXString(const TQXString& s);
  // A fixed target cuts the text off at its capacity.
  void ToTQXString(TQXString& out) const;
  uint32_t Length() const { return text.Length(); }
  void Empty();
  bool EraseStr(uint32_t pos, uint32_t count);
  void SetLength(uint32_t n);
  void SubString(uint32_t pos, uint32_t len);
  void ToUpper();
  // Only the first 1023 bytes of each text count.
  bool IsEqualNotCaseSensitive(const TQXStringUTF8& other) const;
  uint32_t SearchStr(const TQXStringUTF8& other) const;
  uint32_t FindCharPos(char c, uint32_t from) const;
  // From the last character.
  uint32_t FindCharPosFromRight(char c) const;
  uint32_t FindCharPosFromRight(char c, uint32_t from) const;

  // Whether the character at `pos` is `c`; past the end the character is 0.
  bool IsCharAt(uint32_t pos, char c) const;
  // The first position whose character is not `c`; 0xFFFFFFFF for an empty text and when all
  // characters are `c`.
  uint32_t FindFirstNot(char c) const;
  // The smallest position of any byte of `set`; 0xFFFFFFFF when none occurs or set is empty.
  uint32_t FindFirstOf(const char* set) const;
  // From `start` to the end, each character `from` becomes `to`.
  void Replace(uint16_t from, uint16_t to, uint32_t start);
  // Whether the text can serve as a folder name: none of \ / : * ? " < > | CR LF, not empty, not
  // all blanks, not all dots, no blank at either end, no dot at the end. Changes nothing.
  bool IsFolderNameCompliant();

 private:
  TQXDynamicString text;
};

// A new string: `a`, then `b`. Unlike the sums of TQXString it has no 1023-byte limit.
QX_EXPORT TQXStringUTF8 operator+(const TQXStringUTF8& a, const TQXStringUTF8& b);

#endif  // QXSTRINGUTF8_H
