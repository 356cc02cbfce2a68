// QXPlatformText.h: the role of the system's text services.
//
// Contract. Library text is bytes in the system's active code page. A code page is either
// single-byte (one byte, one character: the Latin code pages, and UTF-8, whose bytes the library
// passes through untouched) or double-byte: 932 (Japanese), 936 (Simplified Chinese), 949
// (Korean) or 950 (Traditional Chinese), where a lead byte and the byte after it form one
// character. Lead bytes come from fixed tables per code page (below), never from probing a
// converter, so the fake and the Linux side agree byte for byte.
//
// The role answers, for the code page in force:
//  - CodePage(), SystemLanguage(): what decides the strings' double-byte mode;
//  - IsLeadByte, CharNext, CharPrev: stepping through text (non-virtual, from the tables);
//  - CharUpper, CharLower: case mapping in place that never changes a byte count and never
//    touches either byte of a double-byte character;
//  - CompareNoCase: the user's locale order, case ignored;
//  - DecimalSetting: the user's decimal separator as the text of the setting.
// What a role answers must not change while it is installed, except through a fake's setters,
// which tell the library's caches.
#ifndef QXPLATFORMTEXT_H
#define QXPLATFORMTEXT_H

#include <cstdint>

// Windows language identifiers: the primary language is the low byte.
enum : uint16_t {
  kQXLangNeutral = 0x0000,
  kQXLangEnglishUS = 0x0409,
  kQXLangGerman = 0x0407,
  kQXLangJapanese = 0x0411,
  kQXLangKorean = 0x0412,
  kQXLangChineseTraditional = 0x0404,
  kQXLangChineseSimplified = 0x0804,
};

// The code pages the library tells apart.
enum : uint32_t {
  kQXCodePageJapanese = 932,
  kQXCodePageChineseSimplified = 936,
  kQXCodePageKorean = 949,
  kQXCodePageChineseTraditional = 950,
  kQXCodePageLatin1 = 1252,
  kQXCodePageUTF8 = 65001,
};

// The lead-byte ranges of the four double-byte code pages, as the Windows tables give them.
// Every other code page has no lead bytes.
constexpr bool QXIsCodePageLeadByte(uint32_t codePage, uint8_t b) {
  switch (codePage) {
    case kQXCodePageJapanese:
      return (b >= 0x81 && b <= 0x9F) || (b >= 0xE0 && b <= 0xFC);
    case kQXCodePageChineseSimplified:
    case kQXCodePageKorean:
    case kQXCodePageChineseTraditional:
      return b >= 0x81 && b <= 0xFE;
    default:
      return false;
  }
}

constexpr bool QXIsDoubleByteCodePage(uint32_t codePage) {
  return codePage == kQXCodePageJapanese || codePage == kQXCodePageChineseSimplified ||
         codePage == kQXCodePageKorean || codePage == kQXCodePageChineseTraditional;
}

// Tells the library that the text role's answers changed, so that the cached language flags,
// lead-byte table and decimal character are read again. Installing another role does this by
// itself; a fake calls it from its setters.
void QXTextResetCaches();

class TQXPlatformText {
 public:
  // A role that comes or goes may reuse the address of another: the library's text caches,
  // which belong to one role, are emptied either way.
  TQXPlatformText() { QXTextResetCaches(); }
  virtual ~TQXPlatformText() { QXTextResetCaches(); }
  TQXPlatformText(const TQXPlatformText&) = delete;
  TQXPlatformText& operator=(const TQXPlatformText&) = delete;

  // The active code page (932, 936, 949, 950, 1252, 65001, ...).
  virtual uint32_t CodePage() = 0;
  // The system language, a Windows language identifier. Japanese, Chinese and Korean
  // (primary language 0x11, 0x04, 0x12) put the strings into double-byte mode.
  virtual uint16_t SystemLanguage() = 0;

  // Upper- or lower-cases the zero-terminated `text` in place. `text` is not null.
  virtual void CharUpper(char* text) = 0;
  virtual void CharLower(char* text) = 0;
  // Orders two zero-terminated texts by the user's locale, ignoring case: < 0, 0 or > 0.
  // Neither is null.
  virtual int32_t CompareNoCase(const char* a, const char* b) = 0;
  // Writes the user's decimal-separator setting, zero-terminated, into `buffer` of `size` bytes
  // (size >= 2) and returns its length in bytes; "." when the user has none. May be empty.
  virtual uint32_t DecimalSetting(char* buffer, uint32_t size) = 0;

  // The lead-byte test of the active code page.
  bool IsLeadByte(uint8_t b) { return QXIsCodePageLeadByte(CodePage(), b); }
  // The next character: p + 2 for a lead byte followed by a non-zero byte, else p + 1; at the
  // terminator, p itself. `p` is not null.
  const char* CharNext(const char* p) {
    if (*p == 0) return p;
    if (IsLeadByte(uint8_t(p[0])) && p[1] != 0) return p + 2;
    return p + 1;
  }
  // The character before `p` in the text that starts at `start`; `start` itself when p <= start.
  // A trail byte can have a lead byte's value, so the walk starts at `start`.
  const char* CharPrev(const char* start, const char* p) {
    if (p <= start) return start;
    const char* q = start;
    for (;;) {
      const char* next = CharNext(q);
      if (next >= p || next == q) return q;
      q = next;
    }
  }

  // The Linux implementation for the process locale, read at first use.
  static TQXPlatformText& System();
  // A Linux implementation for a named locale ("" reads the environment, as System does);
  // null when the locale is not installed. The caller deletes it.
  static TQXPlatformText* CreateForLocale(const char* name);
};

#endif  // QXPLATFORMTEXT_H
