// Shared by the text tests: the two string modes, installed through the fake text role, and a
// small generator of text for either mode.
#ifndef TEXTTESTSUPPORT_H
#define TEXTTESTSUPPORT_H

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>

#include "Platform/Fake/QXFakeText.h"
#include "Platform/QXPlatform.h"
#include "QXString.h"
#include "text/QXTranslation.h"

enum class TextMode { kSingleByte, kDoubleByte };

inline const char* TextModeName(TextMode m) {
  return m == TextMode::kSingleByte ? "SingleByte" : "DoubleByte";
}

// Installs a fake text role for the scope: code page 1252 (single-byte mode, Latin-1 case
// mapping) or 932 (double-byte mode, Japanese), decimal ".".
class ScopedTextMode {
 public:
  explicit ScopedTextMode(TextMode m)
      : fake_(m == TextMode::kDoubleByte ? kQXCodePageJapanese : kQXCodePageLatin1),
        scope_(fake_) {}
  TQXFakeText& fake() { return fake_; }

 private:
  TQXFakeText fake_;
  QXPlatform::ScopedRole<TQXPlatformText> scope_;
};

// A fixture run once per mode; no translation table is installed before or after a test.
class TextModeTest : public ::testing::TestWithParam<TextMode> {
 protected:
  TextModeTest() : mode_(GetParam()) { QXRemoveAsciiTranslationTable(); }
  ~TextModeTest() override { QXRemoveAsciiTranslationTable(); }
  bool DoubleByte() const { return GetParam() == TextMode::kDoubleByte; }
  TQXFakeText& fake() { return mode_.fake(); }

 private:
  ScopedTextMode mode_;
};

#define QX_INSTANTIATE_TEXT_MODES(Suite)                                                    \
  INSTANTIATE_TEST_SUITE_P(Modes, Suite,                                                    \
                           ::testing::Values(TextMode::kSingleByte, TextMode::kDoubleByte), \
                           [](const ::testing::TestParamInfo<TextMode>& p) {                \
                             return std::string(TextModeName(p.param));                     \
                           })

// Code page 932 text pieces: a double-byte character whose trail byte is "\" (0x5C), one whose
// trail byte is "a", a plain one, and a half-width katakana (one byte, not a lead byte).
inline const char kSoBackslash[] = "\x83\x5C";  // the character that ends in 0x5C
inline const char kTrailA[] = "\x82\x61";       // trail byte equal to "a"
inline const char kHiraganaA[] = "\x82\xA0";
inline const char kKatakanaHalf[] = "\xB1";

// Random text of `chars` characters without zero bytes: ASCII letters, digits and punctuation,
// and in double-byte mode also double-byte characters (trail bytes of every kind, "\" and
// letters among them) and half-width katakana.
inline std::string RandomText(std::mt19937& rng, uint32_t chars, bool doubleByte) {
  static const char kAscii[] = "abcdefgXYZ019 ,.^@\\";
  std::string s;
  for (uint32_t i = 0; i < chars; ++i) {
    uint32_t kind = doubleByte ? rng() % 4 : 0;
    if (kind <= 1) {
      s += kAscii[rng() % (sizeof kAscii - 1)];
    } else if (kind == 2) {
      uint32_t r = rng() % 60;
      s += char(r < 31 ? 0x81 + r : 0xE0 + (r - 31));  // a lead byte
      static const unsigned char kTrails[] = {0x40, 0x5C, 0x61, 0x7E, 0x80, 0x81, 0x9F, 0xE0, 0xFC};
      s += char(kTrails[rng() % sizeof kTrails]);
    } else {
      s += char(0xA1 + rng() % 63);  // half-width katakana: single bytes
    }
  }
  return s;
}

// The scale of the randomized tests: fewer rounds under the sanitizers.
#ifdef QX_SANITIZED_BUILD
inline constexpr int kQXTestScale = 4;
#else
inline constexpr int kQXTestScale = 1;
#endif

#endif  // TEXTTESTSUPPORT_H
