#include "Platform/Fake/QXFakeText.h"

#include <cstring>

namespace {

uint16_t LanguageOf(uint32_t codePage) {
  switch (codePage) {
    case kQXCodePageJapanese:
      return kQXLangJapanese;
    case kQXCodePageChineseSimplified:
      return kQXLangChineseSimplified;
    case kQXCodePageKorean:
      return kQXLangKorean;
    case kQXCodePageChineseTraditional:
      return kQXLangChineseTraditional;
    default:
      return kQXLangEnglishUS;
  }
}

}  // namespace

TQXFakeText::TQXFakeText(uint32_t codePage)
    : codePage_(codePage), language_(LanguageOf(codePage)) {}

void TQXFakeText::SetCodePage(uint32_t codePage) {
  codePage_ = codePage;
  language_ = LanguageOf(codePage);
  QXTextResetCaches();
}

void TQXFakeText::SetLanguage(uint16_t language) {
  language_ = language;
  QXTextResetCaches();
}

void TQXFakeText::SetDecimal(const char* setting) {
  decimal_ = setting;
  QXTextResetCaches();
}

uint8_t TQXFakeText::Fold(uint8_t b, bool upper) const {
  bool latin = codePage_ == kQXCodePageLatin1 && b >= 0xC0 && b != 0xD7 && b != 0xF7 && b != 0xDF &&
               b != 0xFF;
  if (upper) {
    if ((b >= 'a' && b <= 'z') || (latin && b >= 0xE0)) return uint8_t(b - 0x20);
  } else {
    if ((b >= 'A' && b <= 'Z') || (latin && b < 0xE0)) return uint8_t(b + 0x20);
  }
  return b;
}

void TQXFakeText::CharUpper(char* text) {
  for (auto* p = reinterpret_cast<uint8_t*>(text); *p;) {
    if (IsLeadByte(*p)) {
      p += p[1] ? 2 : 1;
    } else {
      *p = Fold(*p, true);
      ++p;
    }
  }
}

void TQXFakeText::CharLower(char* text) {
  for (auto* p = reinterpret_cast<uint8_t*>(text); *p;) {
    if (IsLeadByte(*p)) {
      p += p[1] ? 2 : 1;
    } else {
      *p = Fold(*p, false);
      ++p;
    }
  }
}

int32_t TQXFakeText::CompareNoCase(const char* a, const char* b) {
  ++compares;
  auto* p = reinterpret_cast<const uint8_t*>(a);
  auto* q = reinterpret_cast<const uint8_t*>(b);
  for (;;) {
    // One character of each: a double-byte one as its code, a single byte folded to lower case.
    uint32_t ca = *p, cb = *q;
    int na = 1, nb = 1;
    if (IsLeadByte(*p) && p[1])
      ca = uint32_t(p[0]) << 8 | p[1], na = 2;
    else
      ca = Fold(*p, false);
    if (IsLeadByte(*q) && q[1])
      cb = uint32_t(q[0]) << 8 | q[1], nb = 2;
    else
      cb = Fold(*q, false);
    if (ca != cb) return ca < cb ? -1 : 1;
    if (ca == 0) return 0;
    p += na;
    q += nb;
  }
}

uint32_t TQXFakeText::DecimalSetting(char* buffer, uint32_t size) {
  ++decimalReads;
  uint32_t n = uint32_t(decimal_.size());
  if (n > size - 1) n = size - 1;
  std::memcpy(buffer, decimal_.data(), n);
  buffer[n] = 0;
  return n;
}
