// Character translation, the system language test and the decimal character.
#include "text/QXTranslation.h"

#include <cstring>

#include "QXString.h"
#include "text/QXTextState.h"

TQXTextState gQXTextState = {};
TQXAsciiTranslation* gQXAsciiTranslation = nullptr;

// ---------------------------------------------------------------------------------------------
// The text role's cached answers
// ---------------------------------------------------------------------------------------------

void QXTextStateRefresh() {
  TQXPlatformText& role = QXPlatform::Get<TQXPlatformText>();
  TQXTextState& s = gQXTextState;
  s.role = QXPlatform::RoleSlot<TQXPlatformText>::installed;
  // Only the primary language, the low byte, is compared.
  uint8_t primary = uint8_t(role.SystemLanguage());
  s.japanese = primary == 0x11;
  s.chinese = primary == 0x04;
  s.korean = primary == 0x12;
  s.doubleByte = s.japanese || s.chinese || s.korean;
  s.anyLead = false;
  for (int b = 0; b < 256; ++b) {
    s.lead[b] = role.IsLeadByte(uint8_t(b));
    s.anyLead = s.anyLead || s.lead[b];
  }
  s.decimalChar = 0;
  s.valid = true;
}

void QXTextResetCaches() {
  gQXTextState.valid = false;
  gQXTextState.decimalChar = 0;
}

bool QXIsJapanSystem() {
  return QXTextDoubleByte();
}

char GetSystemDecimalChar() {
  char setting[32];
  uint32_t n = QXPlatform::Get<TQXPlatformText>().DecimalSetting(setting, sizeof setting);
  return n >= 1 && setting[0] != 0 ? setting[0] : '.';
}

char GetDecimalChar() {
  // Asked again only while the cached byte is 0, as a setting that gave nothing is asked again.
  TQXTextState& s = gQXTextState;
  QXTextStateGet();  // a change of role empties the cache first
  if (s.decimalChar == 0) s.decimalChar = GetSystemDecimalChar();
  return s.decimalChar;
}

// ---------------------------------------------------------------------------------------------
// The translation record
// ---------------------------------------------------------------------------------------------

TQXAsciiTranslation::~TQXAsciiTranslation() {
  QXfree(fromStoredExtra);
  QXfree(toStoredExtra);
}

const unsigned char* TQXAsciiTranslation::FindExpansion(unsigned char c, bool toStoredSide) const {
  const unsigned char* list = toStoredSide ? toStoredExtra : fromStoredExtra;
  if (!list || list[0] == 0) return nullptr;
  // Entries follow the length byte until the count runs out: source byte, text, zero.
  uint32_t end = 1u + list[0];
  uint32_t i = 1;
  while (i < end) {
    if (list[i] == c) return list + i + 1;
    ++i;  // the source byte
    while (i < end && list[i] != 0)
      ++i;  // its text
    ++i;    // the zero that ends it
  }
  return nullptr;
}

namespace {

// A copy of the expansion list that starts at `list`, with a zero byte behind its n + 1 bytes;
// null for an absent list (length byte 0) or when there is no memory.
unsigned char* CopyExpansionList(const unsigned char* list) {
  uint32_t n = list[0];
  if (n == 0) return nullptr;
  auto* copy = static_cast<unsigned char*>(QXmalloc(n + 2));
  if (!copy) return nullptr;
  std::memcpy(copy, list, n + 1);
  copy[n + 1] = 0;
  return copy;
}

}  // namespace

void QXRemoveAsciiTranslationTable() {
  delete gQXAsciiTranslation;
  gQXAsciiTranslation = nullptr;
}

void InitAsciiTranslationTable(const unsigned char* table, uint32_t) {
  if (!table) return;  // guard: nothing to read
  // A second installation replaces the first record; the first is freed here rather than left
  // behind, since nothing else refers to it.
  QXRemoveAsciiTranslationTable();
  auto* record = new TQXAsciiTranslation;
  // Guard: on an allocation failure no table is installed and text passes unchanged.
  if (!record) return;
  gQXAsciiTranslation = record;
  // The input blocks are stored by columns: code 16 * i + j stands at 16 * j + i.
  for (int i = 0; i < 16; ++i) {
    for (int j = 0; j < 16; ++j) {
      record->fromStored[16 * i + j] = table[16 * j + i];
      record->toStored[16 * i + j] = table[256 + 16 * j + i];
    }
  }
  uint32_t firstLength = table[512];
  record->fromStoredExtra = CopyExpansionList(table + 512);
  record->toStoredExtra = CopyExpansionList(table + 512 + firstLength);
}

// ---------------------------------------------------------------------------------------------
// Translation of strings
// ---------------------------------------------------------------------------------------------

short TQXString::TranslateCharacter(short c, bool toStored) {
  const TQXAsciiTranslation* t = gQXAsciiTranslation;
  if (!t) return c;
  // The table has 256 entries; a code outside 0-255 is looked up by its low byte.
  uint8_t index = uint8_t(c);
  return short(toStored ? t->toStored[index] : t->fromStored[index]);
}

void TQXString::TranslateAscii(bool toStored) {
  const TQXAsciiTranslation* t = gQXAsciiTranslation;
  if (!t) return;
  char* buffer = GetString();
  if (!buffer) return;
  const unsigned char* table = toStored ? t->toStored : t->fromStored;
  // A read and a write position, walked byte by byte: double-byte characters are not
  // recognised. The write position never passes the read position; dropped characters open a
  // gap between them that stays for the rest of the walk.
  uint32_t r = 0, w = 0;
  for (;;) {
    unsigned char c = static_cast<unsigned char>(buffer[r]);
    if (c == 0) break;
    unsigned char e = table[c];
    const unsigned char* expansion = nullptr;
    uint32_t m = 0;
    if (e == 0x1B) {
      expansion = t->FindExpansion(c, toStored);
      if (expansion) m = uint32_t(std::strlen(reinterpret_cast<const char*>(expansion)));
      // An expansion that does not fit is dropped. An empty expansion has nothing to put in
      // the character's place, so it is dropped too.
      if (m == 0 || byteLength + m >= capacity) expansion = nullptr;
    }
    if (e == 0 || (e == 0x1B && !expansion)) {
      --charLength;
      --byteLength;
      ++r;
    } else if (e == 0x1B) {
      // The rest of the text, with its terminator, moves to stand behind the expansion. It
      // moves to w + m rather than r + m: that closes the gap of dropped characters, which
      // changes no byte of the result, and keeps the move inside the buffer, since the text
      // then ends at byteLength + m - 1, below the capacity.
      uint32_t rest = uint32_t(std::strlen(buffer + r + 1)) + 1;
      std::memmove(buffer + w + m, buffer + r + 1, rest);
      charLength += m - 1;
      byteLength += m - 1;
      std::memcpy(buffer + w, expansion, m);
      w += m;
      r = w;
    } else {
      buffer[w++] = char(e);
      ++r;
    }
  }
  buffer[w] = 0;
}

void TQXString::TranslateToStored(TQXString& out) {
  if (&out == this) {
    TranslateAscii(true);
    return;
  }
  // The walk runs on this string, with its capacity; this string then gets its text back.
  TQXDynamicString saved(*this);
  TranslateAscii(true);
  out = *this;
  AssignBytes(saved.StrGet(), saved.ByteLength());
}

void TQXString::TranslateFromStored() {
  // "@W...@": text that is already in the system's character set, between the marks.
  if (GetCharAt(0) == '@') {
    TQXString15 mark("@W");
    uint32_t p = SearchStr(mark, 0);
    if (p != 0xFFFFFFFFu) {
      EraseStr(0, p + 2);
      // A missing closing mark gives -1, which EraseStr refuses.
      EraseStr(FindCharPos('@', 0), charLength);
    }
  }
  TranslateAscii(false);
}
