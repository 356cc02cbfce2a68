// Character translation, the system language switch and the decimal character.
#include <random>
#include <string>
#include <vector>

#include "TextTestSupport.h"

namespace {

std::string Text(const TQXString& s) {
  return std::string(s.StrGet(), s.ByteLength());
}

// A translation table as the host hands it in: the two 256-entry tables stored by columns, then
// the two expansion lists. The second list's length byte is read at 512 + the first list's
// length byte, which is the first list's own last byte: so when there is a second list, the
// first one ends with the second's length byte.
struct HostTable {
  unsigned char fromStored[256];
  unsigned char toStored[256];
  std::vector<std::pair<unsigned char, std::string>> fromExtra, toExtra;

  HostTable() {
    for (int c = 0; c < 256; ++c)
      fromStored[c] = toStored[c] = uint8_t(c);
  }
  static std::vector<unsigned char> Entries(
      const std::vector<std::pair<unsigned char, std::string>>& list) {
    std::vector<unsigned char> body;
    for (auto& [c, text] : list) {
      body.push_back(c);
      body.insert(body.end(), text.begin(), text.end());
      body.push_back(0);
    }
    return body;
  }
  std::vector<unsigned char> Bytes() const {
    std::vector<unsigned char> out(512);
    for (int i = 0; i < 16; ++i) {
      for (int j = 0; j < 16; ++j) {
        out[16 * j + i] = fromStored[16 * i + j];
        out[256 + 16 * j + i] = toStored[16 * i + j];
      }
    }
    std::vector<unsigned char> first = Entries(fromExtra), second = Entries(toExtra);
    if (!second.empty()) first.push_back(uint8_t(second.size()));
    out.push_back(uint8_t(first.size()));
    out.insert(out.end(), first.begin(), first.end());
    if (first.empty()) out.push_back(0);
    out.insert(out.end(), second.begin(), second.end());
    return out;
  }
  void Install() const {
    std::vector<unsigned char> b = Bytes();
    InitAsciiTranslationTable(b.data(), uint32_t(b.size()));
  }
};

using Translation = TextModeTest;
QX_INSTANTIATE_TEXT_MODES(Translation);

TEST_P(Translation, WithoutATableEverythingPasses) {
  EXPECT_EQ(TQXString::TranslateCharacter(65, false), 65);
  EXPECT_EQ(TQXString::TranslateCharacter(-3, true), -3);
  TQXString31 s("abc\x80\xFF");
  s.TranslateAscii(true);
  s.TranslateFromStored();
  EXPECT_EQ(Text(s), "abc\x80\xFF");
}

TEST_P(Translation, ColumnStoredTablesAndTheirRoundTrip) {
  // A permutation of the upper half and its inverse; the lower half stays.
  std::mt19937 rng(5);
  std::vector<unsigned char> perm(128);
  for (int i = 0; i < 128; ++i)
    perm[i] = uint8_t(128 + i);
  std::shuffle(perm.begin(), perm.end(), rng);
  HostTable t;
  for (int i = 0; i < 128; ++i) {
    t.fromStored[128 + i] = perm[i];
    t.toStored[perm[i]] = uint8_t(128 + i);
  }
  t.Install();
  for (int c = 0; c < 256; ++c) {
    ASSERT_EQ(TQXString::TranslateCharacter(short(c), false), t.fromStored[c]) << c;
    ASSERT_EQ(TQXString::TranslateCharacter(short(c), true), t.toStored[c]) << c;
  }
  for (int round = 0; round < 200; ++round) {
    std::string text;
    for (uint32_t i = rng() % 60; i > 0; --i) {
      char c = char(1 + rng() % 255);
      text += c == 0x1B ? 'e' : c;  // 0x1B maps to itself, which means "expand"
    }
    TQXString255 s(text.c_str());
    TQXString255 stored;
    s.TranslateToStored(stored);
    ASSERT_EQ(Text(s), text);  // the source keeps its text
    stored.TranslateFromStored();
    if (text[0] != '@') {
      ASSERT_EQ(Text(stored), text);
    }
  }
}

TEST_P(Translation, DroppedAndExpandedCharacters) {
  HostTable t;
  t.fromStored['x'] = 0;     // no counterpart
  t.fromStored['E'] = 0x1B;  // expands
  t.fromStored['Q'] = 0x1B;  // expands to nothing listed: dropped
  t.fromStored['G'] = 0x1B;
  t.fromExtra = {{'E', "<eee>"}, {'e', "?"}, {'G', "ABCDEF"}};
  t.Install();

  TQXString31 s("axbxc");
  s.TranslateAscii(false);
  EXPECT_EQ(Text(s), "abc");
  EXPECT_EQ(s.Length(), 3u);

  TQXString31 e("1E2Q3");
  e.TranslateAscii(false);
  EXPECT_EQ(Text(e), "1<eee>23");
  EXPECT_EQ(e.Length(), 8u);
  EXPECT_EQ(e.ByteLength(), 8u);

  // An expansion that does not fit is dropped and the text after it stays.
  TQXString15 tight("0123456789E12");
  tight.TranslateAscii(false);
  EXPECT_EQ(Text(tight), "012345678912");

  // Drops in front of an expansion: the text behind it moves only as far as the result needs,
  // so a full string takes an expansion that fits once the dropped bytes are gone.
  TQXString31 gap("xxxxxxxG0123456789abcdefghijklm");
  gap.TranslateAscii(false);
  EXPECT_EQ(Text(gap), "ABCDEF0123456789abcdefghijklm");
  EXPECT_EQ(gap.ByteLength(), 29u);

  // Expansions run only one way: the other direction has no list.
  TQXString31 back("E");
  back.TranslateAscii(true);
  EXPECT_EQ(Text(back), "E");
}

// The walk against a plain model over random tables and texts, in strings of several sizes.
TEST_P(Translation, RandomTablesMatchAModel) {
  std::mt19937 rng(11);
  for (int round = 0; round < 300 / kQXTestScale; ++round) {
    HostTable t;
    std::vector<std::string> expansion(256);
    for (int c = 1; c < 256; ++c) {
      uint32_t r = rng() % 10;
      t.toStored[c] = r == 0 ? 0 : (r == 1 ? 0x1B : uint8_t(1 + rng() % 255));
    }
    for (int c = 1; c < 256 && t.toExtra.size() < 12; ++c) {
      if (t.toStored[c] != 0x1B || rng() % 4 == 0) continue;  // some expand to nothing listed
      std::string text;
      for (uint32_t n = rng() % 7; n > 0; --n)
        text += char('a' + rng() % 26);
      t.toExtra.push_back({uint8_t(c), text});
      expansion[c] = text.empty() ? std::string(1, '\0') : text;
    }
    t.Install();

    std::string text;
    for (uint32_t i = rng() % 40; i > 0; --i)
      text += char(1 + rng() % 255);
    TQXString31 s(text.c_str());  // often full: expansions then meet the capacity
    // The model: drops shorten, an expansion of m bytes is kept when the current byte length
    // plus m stays below the capacity.
    std::string expect;
    uint32_t length = s.ByteLength();
    for (unsigned char c : std::string(s.StrGet())) {
      unsigned char e = t.toStored[c];
      const std::string& x = expansion[c];
      bool expands = e == 0x1B && !x.empty() && x[0] != 0 && length + x.size() < 31;
      if (e == 0 || (e == 0x1B && !expands)) {
        --length;
      } else if (e == 0x1B) {
        expect += x;
        length += uint32_t(x.size()) - 1;
      } else {
        expect += char(e);
      }
    }
    s.TranslateAscii(true);
    ASSERT_EQ(Text(s), expect) << "round " << round;
    ASSERT_EQ(s.ByteLength(), length);
  }
}

TEST_P(Translation, ExpansionListLookup) {
  HostTable t;
  t.fromExtra = {{'a', "alpha"}, {'b', ""}, {'c', "charlie"}};
  t.toExtra = {{'z', "zulu"}};
  t.Install();
  const TQXAsciiTranslation* r = gQXAsciiTranslation;
  ASSERT_NE(r, nullptr);
  auto find = [&](unsigned char c, bool toStored) {
    const unsigned char* p = r->FindExpansion(c, toStored);
    return p ? std::string(reinterpret_cast<const char*>(p)) : std::string("(none)");
  };
  EXPECT_EQ(find('a', false), "alpha");
  EXPECT_EQ(find('b', false), "");
  EXPECT_EQ(find('c', false), "charlie");
  EXPECT_EQ(find('d', false), "(none)");
  EXPECT_EQ(find('z', false), "(none)");
  EXPECT_EQ(find('z', true), "zulu");
  EXPECT_EQ(find('a', true), "(none)");

  // The first list's length byte leaves its last entry without its zero: the entry's text runs
  // on into the byte that is also the second list's length byte, and ends inside the block.
  std::vector<unsigned char> b = HostTable().Bytes();
  b.resize(512);
  const unsigned char lists[] = {4, 'q', 'a', 'b', 3, 'z', 'y', 0};
  b.insert(b.end(), lists, lists + sizeof lists);
  InitAsciiTranslationTable(b.data(), 0);
  r = gQXAsciiTranslation;
  EXPECT_EQ(find('q', false), "ab\x03");
  EXPECT_EQ(find('z', true), "y");
}

TEST_P(Translation, StoredTextMarks) {
  HostTable t;
  for (int c = 'a'; c <= 'z'; ++c)
    t.fromStored[c] = uint8_t(c - 32);  // stored to system: upper
  t.Install();
  auto fromStored = [](const char* text) {
    TQXString31 s(text);
    s.TranslateFromStored();
    return Text(s);
  };
  EXPECT_EQ(fromStored("@Whello@tail"), "HELLO");  // translated all the same
  EXPECT_EQ(fromStored("ab@Wcd@"), "AB@WCD@");     // the mark only counts in front
  EXPECT_EQ(fromStored("@Wopen"), "OPEN");         // no closing mark
  EXPECT_EQ(fromStored("@xy@Wz@q"), "Z");          // "@W" further in
  EXPECT_EQ(fromStored("@plain"), "@PLAIN");

  TQXString31 s("abc");
  s.TranslateToStored(s);     // into itself: the result stays
  EXPECT_EQ(Text(s), "abc");  // no lower-case mapping the other way
}

TEST_P(Translation, ASecondTableReplacesTheFirst) {
  HostTable a, b;
  a.fromStored['k'] = 'A';
  b.fromStored['k'] = 'B';
  a.fromExtra = {{'k', "unused"}};
  a.Install();
  b.Install();
  EXPECT_EQ(TQXString::TranslateCharacter('k', false), 'B');
  EXPECT_EQ(gQXAsciiTranslation->fromStoredExtra, nullptr);
}

TEST(SystemLanguage, JapaneseChineseAndKoreanSelectDoubleByteMode) {
  TQXFakeText fake(kQXCodePageLatin1);
  QXPlatform::ScopedRole<TQXPlatformText> scope(fake);
  EXPECT_FALSE(QXIsJapanSystem());
  struct {
    uint16_t lang;
    bool doubleByte;
  } cases[] = {{kQXLangJapanese, true},
               {kQXLangKorean, true},
               {kQXLangChineseSimplified, true},
               {kQXLangChineseTraditional, true},
               {0x7F11, true},  // only the low byte counts
               {kQXLangGerman, false},
               {kQXLangEnglishUS, false},
               {0x1100, false}};
  for (auto c : cases) {
    fake.SetLanguage(c.lang);
    EXPECT_EQ(QXIsJapanSystem(), c.doubleByte) << std::hex << c.lang;
  }
  // Another role in force gives its own answer; the first one's comes back with it.
  fake.SetLanguage(kQXLangJapanese);
  EXPECT_TRUE(QXIsJapanSystem());
  {
    TQXFakeText other(kQXCodePageLatin1);  // another role in force
    QXPlatform::ScopedRole<TQXPlatformText> inner(other);
    EXPECT_FALSE(QXIsJapanSystem());
  }
  EXPECT_TRUE(QXIsJapanSystem());
}

TEST(DecimalCharacter, ReadAnewOrCached) {
  TQXFakeText fake;
  QXPlatform::ScopedRole<TQXPlatformText> scope(fake);
  EXPECT_EQ(GetSystemDecimalChar(), '.');
  fake.SetDecimal(",");
  EXPECT_EQ(GetSystemDecimalChar(), ',');
  fake.SetDecimal("");
  EXPECT_EQ(GetSystemDecimalChar(), '.');  // an empty setting
  fake.SetDecimal("xyz");
  EXPECT_EQ(GetSystemDecimalChar(), 'x');  // the first byte of the setting
  int reads = fake.decimalReads;
  GetSystemDecimalChar();
  EXPECT_EQ(fake.decimalReads, reads + 1);  // each time anew

  fake.SetDecimal(",");
  EXPECT_EQ(GetDecimalChar(), ',');
  reads = fake.decimalReads;
  EXPECT_EQ(GetDecimalChar(), ',');
  EXPECT_EQ(fake.decimalReads, reads);  // cached
}

}  // namespace
