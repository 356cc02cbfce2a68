// The stream base: slots without a medium, the small members, properties, the length-prefixed
// string helpers.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <vector>

#include "QXException.h"
#include "QXStrStream.h"
#include "streams/StreamTestSupport.h"

namespace {

void ExpectNotImplemented(const std::function<void()>& call) {
  try {
    call();
    ADD_FAILURE() << "no exception";
  } catch (const TQXException& e) {
    EXPECT_EQ(e.code, kQXErrNotImplemented);
    EXPECT_STREQ(e.GetFile(), "");
    EXPECT_EQ(e.line, 0);
  }
}

// A bare stream has no medium: every road to a byte ends in the not-implemented failure, the
// typed slots included, since they read and write through the byte slots.
TEST(StreamCore, BareStreamHasNoMedium) {
  TQXiostream s;
  char c = 'x';
  char buf[8];
  int32_t i = 0;
  double d = 0;
  ExpectNotImplemented([&] { s.Tell(); });
  ExpectNotImplemented([&] { s.Seek(0, 0); });
  ExpectNotImplemented([&] { s.Read(buf, 1); });
  ExpectNotImplemented([&] { s.GetChar(c); });
  ExpectNotImplemented([&] { s.PutBack('a'); });
  ExpectNotImplemented([&] { s.Write("a", 1); });
  ExpectNotImplemented([&] { s << int32_t(5); });
  ExpectNotImplemented([&] { s << 1.5; });
  ExpectNotImplemented([&] { s >> i; });
  ExpectNotImplemented([&] { s >> d; });
  ExpectNotImplemented([&] { s << endl; });
  ExpectNotImplemented([&] { s.WriteQuoted("a"); });
  ExpectNotImplemented([&] { s.ReadWord(buf); });
  EXPECT_EQ(s.GetContext(), nullptr);

  TQXiostreamContext context;
  ExpectNotImplemented([&] { context.Reopen(); });
  ExpectNotImplemented([&] { context.Update(nullptr, nullptr, 1); });
}

TEST(StreamCore, FieldsAndTheirSetters) {
  TQXiostream s;
  EXPECT_EQ(s.flags | s.state | s.mode, 0u);
  EXPECT_EQ(s.SetPrecision(3), 8);
  EXPECT_EQ(s.SetWidth(7), 12);
  EXPECT_STREQ(s.whitespace, " \n\r\t");

  s.state = kQXStreamEnd;
  s.Fail(kQXStreamBadNumber);
  EXPECT_EQ(s.state, kQXStreamEnd | kQXStreamFailed);  // adds bit 1, keeps the rest

  // SetFlags ors; ClearFlags keeps only bit 0 for a zero argument, nothing for any other.
  EXPECT_EQ(s.SetFlags(2), 2u);
  EXPECT_EQ(s.SetFlags(1), 3u);
  EXPECT_EQ(s.ClearFlags(2), 0u);
  s.SetFlags(7);
  EXPECT_EQ(s.ClearFlags(0), 1u);
  s.SetFlags(0x70);
  s << QXStreamMode;  // the mode manipulator sets the flags to 1, either way round
  EXPECT_EQ(s.flags, 1u);
  s.SetFlags(0x70);
  s >> QXStreamMode;
  EXPECT_EQ(s.flags, 1u);
}

// Properties against a map: replacing, growing, reading back, with the key order of first use.
// Leaks and stale blocks show under the sanitizers.
TEST(StreamCore, PropertiesBehaveLikeAMap) {
  std::mt19937 rng(12);
  for (int trial = 0; trial < 20 * qxtest::kScale; ++trial) {
    TQXiostream s;
    std::map<uint32_t, std::vector<unsigned char>> model;
    for (int step = 0; step < 60; ++step) {
      const uint32_t key = rng() % 9 == 0 ? 0x546F6B6E : rng() % 12;
      const uint32_t size = rng() % 5 == 0 ? 0 : rng() % 40;
      std::vector<unsigned char> data(size);
      for (auto& b : data)
        b = uint8_t(rng());
      const bool nullData = rng() % 8 == 0;
      s.SetProperty(key, nullData ? nullptr : data.data(), size);
      if (nullData) std::fill(data.begin(), data.end(), 0);
      model[key] = data;
      for (const auto& [k, v] : model) {
        const auto* got = static_cast<const unsigned char*>(s.GetProperty(k));
        if (v.empty()) {
          ASSERT_EQ(got, nullptr);
        } else {
          ASSERT_NE(got, nullptr);
          ASSERT_EQ(std::vector<unsigned char>(got, got + v.size()), v);
        }
      }
      ASSERT_EQ(s.propertyCount, model.size());
      ASSERT_EQ(s.GetProperty(1000), nullptr);
    }
  }
}

// To a length-prefixed string and back: the least of the limit, 255 and the length, nothing
// written beyond it.
TEST(StreamCore, PascalCopiesClamp) {
  std::mt19937 rng(13);
  for (int round = 0; round < 500; ++round) {
    std::string text(rng() % 300, 'x');
    for (auto& ch : text)
      ch = char('a' + rng() % 26);
    const int32_t limit = int32_t(rng() % 320) - 10, backLimit = int32_t(rng() % 300) - 5;
    const int32_t n = std::max(0, std::min({limit, 255, int32_t(text.size())}));
    const int32_t back = std::max(0, std::min(backLimit, n));

    unsigned char pascal[257];
    std::memset(pascal, 0xEE, sizeof pascal);
    QXCopyToPascal(text.c_str(), pascal, limit);
    ASSERT_EQ(pascal[0], n);
    ASSERT_EQ(pascal[n + 1], 0xEE);
    char c[257];
    QXCopyFromPascal(pascal, c, backLimit);
    ASSERT_EQ(std::string(c), text.substr(0, size_t(back)));
  }
}

// Line ends are CR LF in text and binary alike; characters of every signedness are raw bytes.
TEST(StreamCore, LineEndsAndRawBytes) {
  TQXstrstream text;
  text << int32_t(1) << endl << static_cast<signed char>(-3) << 'c' << uint8_t(0xE9);
  EXPECT_EQ(qxtest::Written(text),
            "1\r\n\xFD"
            "c\xE9");

  TQXByteSwapStream binary;
  binary << endl << static_cast<signed char>(-3);
  EXPECT_EQ(qxtest::Written(binary), "\r\n\xFD");
  signed char back = 0;
  TQXByteSwapStream(binary.buffer + 2, 1) >> back;
  EXPECT_EQ(back, -3);

  countstream counter;
  counter << endl << endl;
  EXPECT_EQ(counter.Length(), 4);
}

}  // namespace
