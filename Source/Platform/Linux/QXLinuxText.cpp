// The text role on Linux: the process locale, read with newlocale and the _l functions (never
// setlocale, which is process-wide).
//
// Code page. The locale's code set decides it: Shift_JIS (932), GBK/GB2312/GB18030 (936), EUC-KR
// or UHC (949), Big5 (950) are double-byte; UTF-8 (65001) and every other code set are single-byte,
// so that UTF-8 text passes through the strings as bytes. The language that puts the strings
// into double-byte mode follows the code set as well: under ja_JP.UTF-8 the text is UTF-8, and
// treating it as double-byte would split its characters.
//
// Case mapping. ASCII letters map as plain ASCII in every locale (the system's own mapping is not
// linguistic: "i" becomes "I" under a Turkish locale too). Other characters map with the locale's
// towupper_l/towlower_l (UTF-8) or toupper_l/tolower_l (8-bit code sets) when the result has the
// same byte count; a double-byte character is never touched.
//
// Comparison. glibc's collation: both texts are converted to wide characters with the locale's
// converter, lower-cased with towlower_l and compared with wcscoll_l. ICU's collator at secondary
// strength gave the same order on the test words; glibc needs no further library, so it is the
// one used here. A byte that does not decode in the code set takes the value U+DC00 + byte, so
// that malformed text still has a fixed order.
#include <langinfo.h>
#include <locale.h>
#include <wchar.h>
#include <wctype.h>

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "Platform/QXPlatform.h"
#include "Platform/QXPlatformText.h"
#include "QXMemory.h"

namespace {

// Code set names as nl_langinfo gives them, compared without case, "-" and "_".
struct CodeSetName {
  const char* name;
  uint32_t codePage;
};
constexpr CodeSetName kCodeSets[] = {
    {"UTF8", kQXCodePageUTF8},
    {"SHIFTJIS", kQXCodePageJapanese},
    {"SJIS", kQXCodePageJapanese},
    {"CP932", kQXCodePageJapanese},
    {"WINDOWS31J", kQXCodePageJapanese},
    {"GBK", kQXCodePageChineseSimplified},
    {"GB2312", kQXCodePageChineseSimplified},
    {"GB18030", kQXCodePageChineseSimplified},  // its four-byte forms are beyond the tables
    {"CP936", kQXCodePageChineseSimplified},
    {"EUCKR", kQXCodePageKorean},
    {"UHC", kQXCodePageKorean},
    {"CP949", kQXCodePageKorean},
    {"BIG5", kQXCodePageChineseTraditional},
    {"BIG5HKSCS", kQXCodePageChineseTraditional},
    {"CP950", kQXCodePageChineseTraditional},
    {"CP1252", kQXCodePageLatin1},
    {"ISO88591", 28591},
    {"ISO885915", 28605},
    {"ANSIX3.41968", 20127},
};

uint32_t CodePageOfCodeSet(const char* codeSet) {
  char key[32];
  size_t n = 0;
  for (const char* p = codeSet; *p && n + 1 < sizeof key; ++p) {
    if (*p == '-' || *p == '_') continue;
    key[n++] = char(std::toupper(static_cast<unsigned char>(*p)));
  }
  key[n] = 0;
  for (const CodeSetName& c : kCodeSets) {
    if (std::strcmp(key, c.name) == 0) return c.codePage;
  }
  return 0;  // an 8-bit or multibyte code set of no Windows number: single-byte for the library
}

uint16_t LanguageOfCodePage(uint32_t codePage) {
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
      return kQXLangNeutral;  // single-byte systems are not told apart
  }
}

char AsciiUpper(char c) {
  return (c >= 'a' && c <= 'z') ? char(c - 'a' + 'A') : c;
}
char AsciiLower(char c) {
  return (c >= 'A' && c <= 'Z') ? char(c - 'A' + 'a') : c;
}

// One UTF-8 sequence at p: its length (1 to 4) and value, or 0 when the bytes do not form a
// well-formed sequence.
int DecodeUtf8(const unsigned char* p, uint32_t* value) {
  unsigned char b = p[0];
  if (b < 0x80) {
    *value = b;
    return 1;
  }
  int n;
  uint32_t v, min;
  if (b >= 0xC2 && b <= 0xDF) {
    n = 2, v = b & 0x1F, min = 0x80;
  } else if (b >= 0xE0 && b <= 0xEF) {
    n = 3, v = b & 0x0F, min = 0x800;
  } else if (b >= 0xF0 && b <= 0xF4) {
    n = 4, v = b & 0x07, min = 0x10000;
  } else {
    return 0;
  }
  for (int i = 1; i < n; ++i) {
    if ((p[i] & 0xC0) != 0x80) return 0;  // also stops at the terminator
    v = (v << 6) | (p[i] & 0x3F);
  }
  if (v < min || v > 0x10FFFF || (v >= 0xD800 && v <= 0xDFFF)) return 0;
  *value = v;
  return n;
}

int EncodeUtf8(uint32_t v, unsigned char* out) {
  if (v < 0x80) {
    out[0] = uint8_t(v);
    return 1;
  }
  if (v < 0x800) {
    out[0] = uint8_t(0xC0 | (v >> 6));
    out[1] = uint8_t(0x80 | (v & 0x3F));
    return 2;
  }
  if (v < 0x10000) {
    out[0] = uint8_t(0xE0 | (v >> 12));
    out[1] = uint8_t(0x80 | ((v >> 6) & 0x3F));
    out[2] = uint8_t(0x80 | (v & 0x3F));
    return 3;
  }
  out[0] = uint8_t(0xF0 | (v >> 18));
  out[1] = uint8_t(0x80 | ((v >> 12) & 0x3F));
  out[2] = uint8_t(0x80 | ((v >> 6) & 0x3F));
  out[3] = uint8_t(0x80 | (v & 0x3F));
  return 4;
}

// A wide-character copy of a text, on the stack when short, else from the allocator.
class WideText {
 public:
  ~WideText() {
    if (heap_) QXfree(heap_);
  }
  // Room for n characters and a terminator; null when the allocator has none.
  wchar_t* Reserve(size_t n) {
    if (n < kInline) return inline_;
    if (n >= 0x3FFFFFFF / sizeof(wchar_t)) return nullptr;
    heap_ = static_cast<wchar_t*>(QXmalloc(uint32_t((n + 1) * sizeof(wchar_t))));
    return heap_;
  }

 private:
  static constexpr size_t kInline = 256;
  wchar_t inline_[kInline];
  wchar_t* heap_ = nullptr;
};

class TQXLinuxText final : public TQXPlatformText {
 public:
  TQXLinuxText(locale_t text, locale_t numeric) : text_(text), numeric_(numeric) {
    codePage_ = CodePageOfCodeSet(nl_langinfo_l(CODESET, text_));
    utf8_ = codePage_ == kQXCodePageUTF8;
    // An 8-bit code set maps its letters through the locale's byte tables; the multibyte ones
    // that are not UTF-8 map ASCII only.
    locale_t old = uselocale(text_);
    eightBit_ = MB_CUR_MAX == 1;
    uselocale(old);
  }
  ~TQXLinuxText() override {
    freelocale(text_);
    freelocale(numeric_);
  }
  TQXLinuxText(const TQXLinuxText&) = delete;
  TQXLinuxText& operator=(const TQXLinuxText&) = delete;

  uint32_t CodePage() override { return codePage_; }
  uint16_t SystemLanguage() override { return LanguageOfCodePage(codePage_); }

  void CharUpper(char* text) override { MapCase(text, true); }
  void CharLower(char* text) override { MapCase(text, false); }

  int32_t CompareNoCase(const char* a, const char* b) override {
    WideText wa, wb;
    wchar_t* pa = Widen(a, &wa);
    wchar_t* pb = Widen(b, &wb);
    if (!pa || !pb) return CompareAsciiNoCase(a, b);  // no memory for a long text
    int r = wcscoll_l(pa, pb, text_);
    return r < 0 ? -1 : (r > 0 ? 1 : 0);
  }

  uint32_t DecimalSetting(char* buffer, uint32_t size) override {
    const char* radix = nl_langinfo_l(RADIXCHAR, numeric_);
    // A separator of one ASCII byte is the setting; a multibyte one has no single-byte form in
    // the code page, and "." stands in for it.
    if (!radix || radix[0] == 0 || (radix[0] & 0x80) || radix[1] != 0) radix = ".";
    (void)size;  // size >= 2 by contract
    buffer[0] = radix[0];
    buffer[1] = 0;
    return 1;
  }

 private:
  void MapCase(char* text, bool upper) {
    auto* p = reinterpret_cast<unsigned char*>(text);
    while (*p) {
      if (*p < 0x80) {
        *p = uint8_t(upper ? AsciiUpper(char(*p)) : AsciiLower(char(*p)));
        ++p;
      } else if (utf8_) {
        uint32_t v;
        int n = DecodeUtf8(p, &v);
        if (n == 0) {  // not UTF-8: the byte stays
          ++p;
          continue;
        }
        wint_t m = upper ? towupper_l(wint_t(v), text_) : towlower_l(wint_t(v), text_);
        unsigned char out[4];
        if (EncodeUtf8(uint32_t(m), out) == n) std::memcpy(p, out, size_t(n));
        p += n;
      } else if (QXIsCodePageLeadByte(codePage_, *p)) {
        p += p[1] ? 2 : 1;  // a double-byte character is left as it is
      } else {
        if (eightBit_) *p = uint8_t(upper ? toupper_l(*p, text_) : tolower_l(*p, text_));
        ++p;
      }
    }
  }

  // The text as lower-cased wide characters in `storage`; null when there is no memory.
  wchar_t* Widen(const char* s, WideText* storage) {
    size_t n = std::strlen(s);
    wchar_t* out = storage->Reserve(n);
    if (!out) return nullptr;
    size_t k = 0;
    mbstate_t state{};
    locale_t old = uselocale(text_);  // the converter of the text's locale, on this thread only
    for (size_t i = 0; i < n;) {
      wchar_t wc;
      size_t r = mbrtowc(&wc, s + i, n - i, &state);
      if (r == size_t(-1) || r == size_t(-2) || r == 0) {
        wc = wchar_t(0xDC00 + static_cast<unsigned char>(s[i]));
        state = mbstate_t{};
        r = 1;
      }
      out[k++] = wc < 0x80 ? wchar_t(AsciiLower(char(wc))) : wchar_t(towlower_l(wint_t(wc), text_));
      i += r;
    }
    uselocale(old);
    out[k] = 0;
    return out;
  }

  static int32_t CompareAsciiNoCase(const char* a, const char* b) {
    for (;; ++a, ++b) {
      auto ca = static_cast<unsigned char>(AsciiLower(*a));
      auto cb = static_cast<unsigned char>(AsciiLower(*b));
      if (ca != cb) return ca < cb ? -1 : 1;
      if (ca == 0) return 0;
    }
  }

  locale_t text_;     // LC_CTYPE and LC_COLLATE
  locale_t numeric_;  // LC_NUMERIC
  uint32_t codePage_ = 0;
  bool utf8_ = false;
  bool eightBit_ = false;
};

// A locale for the categories of `mask`, named `name` ("" for the environment); null when it is
// not installed.
locale_t OpenLocale(int mask, const char* name) {
  return newlocale(mask, name, locale_t(0));
}

TQXLinuxText* Create(const char* name, bool fallBackToC) {
  locale_t text = OpenLocale(LC_CTYPE_MASK | LC_COLLATE_MASK, name);
  locale_t numeric = OpenLocale(LC_NUMERIC_MASK, name);
  if ((!text || !numeric) && fallBackToC) {
    // The environment names a locale that is not installed: the C library's own default.
    if (!text) text = OpenLocale(LC_CTYPE_MASK | LC_COLLATE_MASK, "C");
    if (!numeric) numeric = OpenLocale(LC_NUMERIC_MASK, "C");
  }
  if (!text || !numeric) {
    if (text) freelocale(text);
    if (numeric) freelocale(numeric);
    return nullptr;
  }
  return new TQXLinuxText(text, numeric);
}

}  // namespace

TQXPlatformText& TQXPlatformText::System() {
  // Built once from the environment; "C" always opens, so the pointer is never null.
  static TQXPlatformText* text = Create("", true);
  return *text;
}

TQXPlatformText* TQXPlatformText::CreateForLocale(const char* name) {
  return Create(name ? name : "", false);
}
