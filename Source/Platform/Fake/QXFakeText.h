// A text role in memory: a chosen code page (932 by default, with its real lead bytes), the
// language that goes with it, a settable decimal separator, and counters of the calls.
//
// Case mapping: ASCII letters, and for code page 1252 the Latin-1 letters (0xC0-0xDE less 0xD7
// against 0xE0-0xFE less 0xF7); both bytes of a double-byte character stay. CompareNoCase folds
// the same way and compares character by character, a double-byte character by its two bytes
// as they are, so a trail byte that looks like a letter is never folded.
#ifndef QXFAKETEXT_H
#define QXFAKETEXT_H

#include <string>

#include "Platform/QXPlatformText.h"

class TQXFakeText final : public TQXPlatformText {
 public:
  explicit TQXFakeText(uint32_t codePage = kQXCodePageJapanese);

  uint32_t CodePage() override { return codePage_; }
  uint16_t SystemLanguage() override { return language_; }
  void CharUpper(char* text) override;
  void CharLower(char* text) override;
  int32_t CompareNoCase(const char* a, const char* b) override;
  uint32_t DecimalSetting(char* buffer, uint32_t size) override;

  // Each setter tells the library's text caches. SetCodePage also sets the code page's language
  // (Japanese, Chinese, Korean for the double-byte ones, US English otherwise).
  void SetCodePage(uint32_t codePage);
  void SetLanguage(uint16_t language);
  void SetDecimal(const char* setting);  // the text of the setting, "" for an empty one

  int compares = 0;
  int decimalReads = 0;

 private:
  uint8_t Fold(uint8_t b, bool upper) const;

  uint32_t codePage_;
  uint16_t language_;
  std::string decimal_ = ".";
};

#endif  // QXFAKETEXT_H
