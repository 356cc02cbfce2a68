// The memory stream: its forms, its bounds, growth, Overflow, and a randomized run of seek,
// read, getchar, putback and write against a plain model of the window and the state bits.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "QXException.h"
#include "QXStrStream.h"
#include "streams/StreamTestSupport.h"

namespace {

using qxtest::FencedBytes;
using qxtest::Written;

// The window, the position and the state, with each rule written out plainly.
struct Model {
  std::vector<unsigned char> bytes;
  int32_t pos = 0;
  uint32_t state = 0;
  bool owned = false;

  int32_t size() const { return int32_t(bytes.size()); }

  void Seek(int32_t offset, int32_t whence) {
    state = 0;
    int64_t target;
    if (whence == 0) {
      target = offset;
    } else if (whence == 1) {
      target = int64_t(pos) + offset;
    } else if (whence == 2) {
      target = offset < 0 || offset > size() ? -1 : int64_t(size()) - offset;
    } else {
      return;
    }
    if (target < 0 || target > size()) {
      state = kQXStreamFailed;
      return;
    }
    pos = int32_t(target);
    if (pos == size()) state = kQXStreamEnd;
  }
  std::vector<unsigned char> Read(int32_t n) {
    state = 0;
    if (n <= 0) return {};
    int32_t k = n;
    if (n > size() - pos) {
      state = kQXStreamEnd;
      k = size() - pos;
    }
    std::vector<unsigned char> out(bytes.begin() + pos, bytes.begin() + pos + k);
    pos += k;
    return out;
  }
  bool GetChar(unsigned char& c) {
    if (pos >= size()) {
      state = kQXStreamEnd;
      return false;
    }
    state = 0;
    c = bytes[size_t(pos++)];
    return true;
  }
  void PutBack(unsigned char c) {
    if (pos < 1) {
      state |= kQXStreamFailed;
      return;
    }
    bytes[size_t(--pos)] = c;
  }
  void Write(const std::vector<unsigned char>& data) {
    state = 0;
    const int32_t n = int32_t(data.size());
    if (n == 0) return;
    if (n > size() - pos) {
      if (!owned) {
        state = kQXStreamFailed;
        return;
      }
      bytes.resize(bytes.size() + data.size() + 4096, 0);
    }
    std::copy(data.begin(), data.end(), bytes.begin() + pos);
    pos += n;
  }
};

void ExpectSame(TQXstrstream& s, const Model& m, int step) {
  ASSERT_EQ(s.state, m.state) << "step " << step;
  ASSERT_EQ(s.Tell(), m.pos) << "step " << step;
  ASSERT_EQ(s.size, m.size()) << "step " << step;
  ASSERT_EQ(0, std::memcmp(s.buffer, m.bytes.data(), m.bytes.size())) << "step " << step;
}

// One random step on both. Sizes and offsets run a little past both ends of the window.
void RandomStep(std::mt19937& rng, TQXstrstream& s, Model& m, int step) {
  const int32_t span = m.size() + 4;
  switch (rng() % 6) {
    case 0: {
      const int32_t offset = int32_t(rng() % uint32_t(2 * span)) - span;
      const int32_t whence = int32_t(rng() % 4);
      s.Seek(offset, whence);
      m.Seek(offset, whence);
      break;
    }
    case 1: {
      const int32_t n = int32_t(rng() % 14) - 1;
      std::vector<unsigned char> out(16, 0xAB);
      s.Read(out.data(), n);
      const auto expected = m.Read(n);
      ASSERT_EQ(s.lastCount, int32_t(expected.size())) << "step " << step;
      ASSERT_TRUE(std::equal(expected.begin(), expected.end(), out.begin())) << "step " << step;
      ASSERT_EQ(out[expected.size()], 0xAB) << "step " << step;  // no byte beyond the count
      break;
    }
    case 2: {
      char c = '?';
      unsigned char expected = 0;
      const bool got = m.GetChar(expected);
      s.GetChar(c);
      ASSERT_EQ(static_cast<unsigned char>(c), got ? expected : uint8_t('?')) << "step " << step;
      break;
    }
    case 3: {
      const unsigned char c = uint8_t(rng());
      s.PutBack(char(c));
      m.PutBack(c);
      break;
    }
    default: {
      std::vector<unsigned char> data(rng() % 13);
      if (m.owned && rng() % 40 == 0) data.resize(3000 + rng() % 3000);
      for (auto& b : data)
        b = uint8_t(rng());
      s.Write(data.data(), int32_t(data.size()));
      m.Write(data);
      break;
    }
  }
  ExpectSame(s, m, step);
}

// Caller memory of 1 to 64 bytes, with 16 guard bytes in front and a fence behind; and the
// owned, growing block.
TEST(StrStreamModel, AgainstModel) {
  std::mt19937 rng(31);
  for (int trial = 0; trial < 40 * qxtest::kScale; ++trial) {
    const size_t n = 1 + rng() % 64;
    FencedBytes memory(n + 16);
    for (size_t i = 0; i < n + 16; ++i)
      memory.data()[i] = uint8_t(rng());
    unsigned char* window = memory.data() + 16;
    const std::vector<unsigned char> front(memory.data(), window);
    const bool owned = trial % 4 == 0;

    auto s = owned ? std::make_unique<TQXstrstream>()
                   : std::make_unique<TQXstrstream>(window, int32_t(n), kQXStreamWritable);
    Model m = owned ? Model{std::vector<unsigned char>(4096, 0), 0, kQXStreamEnd, true}
                    : Model{std::vector<unsigned char>(window, window + n)};
    ExpectSame(*s, m, -1);
    for (int step = 0; step < 250; ++step) {
      RandomStep(rng, *s, m, step);
      if (HasFatalFailure()) return;
    }
    ASSERT_EQ(std::vector<unsigned char>(memory.data(), window), front);
  }
}

TEST(StrStreamForms, OwnedGrowth) {
  TQXstrstream s;
  std::string big(5000, 'z');
  s.Write(big.data(), 5000);  // grows by the request and the slack
  EXPECT_EQ(s.size, 5000 + 4096 + 4096);
  EXPECT_EQ(Written(s), big);
}

TEST(StrStreamForms, CallerMemory) {
  // A const text is read in place and never stored to (it may live in read-only memory).
  TQXstrstream literal("abc");
  char c = 0;
  literal.GetChar(c);
  literal.PutBack('Z');
  literal.GetChar(c);
  EXPECT_EQ(c, 'a');
  literal.Write("x", 1);
  EXPECT_EQ(literal.state, kQXStreamFailed);

  char text[] = "abc";  // writable text: PutBack and Write store within its length
  TQXstrstream writable(text);
  writable.GetChar(c);
  writable.PutBack('Z');
  EXPECT_EQ(text[0], 'Z');
  writable.Write("qq", 2);
  writable.Write("long", 4);  // past the end: refused whole
  EXPECT_EQ(writable.state, kQXStreamFailed);
  EXPECT_STREQ(text, "qqc");

  EXPECT_EQ(TQXstrstream(static_cast<const char*>(nullptr)).state, kQXStreamEnd);
  // Size 0 takes the buffer as a C string; with the writable bit it also fails.
  EXPECT_EQ(TQXstrstream(text, 0, kQXStreamReadable).size, 3);
  EXPECT_EQ(TQXstrstream(text, 0, kQXStreamWritable).state, kQXStreamFailed);

  // A null buffer with a size, or a negative size: nothing is read or written, and no byte of
  // the caller's memory is touched (the memory ends at a fence).
  FencedBytes memory(1);
  TQXstrstream none(nullptr, 100, kQXStreamReadable);
  TQXstrstream negative(memory.data(), -5, kQXStreamReadable);
  EXPECT_EQ(none.state, kQXStreamFailed);
  for (TQXstrstream* s : {&none, &negative}) {
    char out[4];
    s->Read(out, 4);
    EXPECT_EQ(s->lastCount, 0);
    EXPECT_EQ(s->state, kQXStreamEnd | kQXStreamFailed);
    s->Write("ab", 2);
    EXPECT_EQ(s->state, kQXStreamFailed);
    int32_t v = 3;
    *s >> v;
    EXPECT_EQ(v, 3);
    EXPECT_EQ(s->Tell(), 0);
  }
  negative.Seek(0, 0);
  EXPECT_EQ(negative.state, kQXStreamFailed);
}

// A stream that drains its window into a sink when it is full: the retry in Write goes on.
class DrainingStream : public TQXstrstream {
 public:
  DrainingStream(unsigned char* window, int32_t n) : TQXstrstream(window, n, kQXStreamWritable) {}
  void Overflow() override {
    if (!drain) return TQXstrstream::Overflow();
    sink.append(reinterpret_cast<const char*>(buffer), size_t(Tell()));
    cursor = buffer;
    ++overflows;
  }
  std::string sink;
  int overflows = 0;
  bool drain = true;
};

TEST(StrStreamForms, OverflowDrainsAndRetries) {
  FencedBytes memory(8);
  DrainingStream s(memory.data(), 8);
  std::string expected;
  std::mt19937 rng(33);
  for (int i = 0; i < 200; ++i) {
    std::string chunk(1 + rng() % 8, char('a' + i % 26));
    s.Write(chunk.data(), int32_t(chunk.size()));
    ASSERT_EQ(s.state, 0u);
    expected += chunk;
  }
  EXPECT_EQ(s.sink + Written(s), expected);
  EXPECT_GT(s.overflows, 0);

  // An Overflow that makes no room ends the write with a failure instead of trying for ever.
  s.drain = false;
  s.Seek(4, 0);
  s.Write("123456", 6);
  EXPECT_EQ(s.state, kQXStreamFailed);
  EXPECT_EQ(s.Tell(), 4);
}

}  // namespace
