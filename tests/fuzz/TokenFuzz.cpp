// Fuzz target for the token readers: ReadToken and every getter over arbitrary bytes.
//
// Input: byte 0 gives how many of the following bytes (1 to 16) choose the readers, which are
// then applied in turn, cycling, to the rest of the input; the rest lies in caller memory of
// exactly its size, so a read past it faults under AddressSanitizer. Each reader may throw only
// TQXException with kQXErrIO or kQXErrEndOfFile. The same sequence runs on a plain memory
// stream, which the readers read directly, and on a derived one, which they read through
// GetChar and PutBack: both must end every step in the same place with the same results.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "QXException.h"
#include "QXToken.h"

namespace {

class DerivedStream : public TQXstrstream {
 public:
  DerivedStream(void* data, int32_t n) : TQXstrstream(data, n, kQXStreamReadable) {}
};

struct Picker {
  uint32_t x;
  uint32_t Next(uint32_t n) {
    x = x * 1103515245u + 12345u;
    return (x >> 16) % n;
  }
};

// What one step left behind: folded into a checksum that both runs must agree on.
struct Trace {
  uint64_t sum = 0;
  void Add(uint64_t v) { sum = sum * 1000003u + v; }
  void Add(const void* p, size_t n) {
    const auto* b = static_cast<const uint8_t*>(p);
    for (size_t i = 0; i < n; ++i)
      Add(b[i]);
  }
};

void Step(TQXstrstream& in, uint8_t op, Picker& pick, Trace& trace) {
  namespace T = QXToken;
  char buffer[kQXTokenBufferSize];
  uint8_t bytes[300];
  uint32_t longs[8];
  int16_t shorts[6];
  TQXTokenInfo info{};
  const int32_t count = int32_t(1 + pick.Next(200));
  switch (op % 26) {
    case 0:
    case 1: {
      const uint32_t code = T::ReadToken(in, buffer, op % 2 == 0, &info);
      trace.Add(code);
      trace.Add(buffer, std::strlen(buffer));
      break;
    }
    case 2: {
      TQXDynamicString s;
      T::GetLongString(in, s);
      trace.Add(s.StrGet(), s.ByteLength());
      break;
    }
    case 3:
      T::GetHexBlock(in, count, bytes);
      trace.Add(bytes, size_t(count));
      break;
    case 4:
      T::ReadHexLong(in, longs[0]);
      trace.Add(longs[0]);
      break;
    case 5: {
      int32_t done = 0;
      T::ReadHexLongs(in, int32_t(pick.Next(8)), longs, &done);
      trace.Add(uint64_t(done));
      break;
    }
    case 6:
      T::SkipToDollar(in);
      break;
    case 7:
    case 8:
      T::GetBytes(in, bytes, count, op % 2 == 0);
      trace.Add(bytes, size_t(count));
      break;
    case 9:
      T::SkipValue(in);
      break;
    case 10:
      T::ExpectOpen(in);
      break;
    case 11:
      T::ExpectClose(in);
      break;
    case 12: {
      TQXString31 s;
      trace.Add(T::GetString(s, in));
      trace.Add(s.StrGet(), s.ByteLength());
      break;
    }
    case 13: {
      TQXDynamicString s;
      trace.Add(T::GetDynamicString(in, s));
      trace.Add(s.StrGet(), s.ByteLength());
      break;
    }
    case 14:
      trace.Add(uint64_t(T::GetLong(in)));
      break;
    case 15:
      trace.Add(uint64_t(T::GetShort(in)));
      break;
    case 16: {
      const double d = T::GetDouble(in);
      trace.Add(&d, sizeof d);
      break;
    }
    case 17:
      trace.Add(T::GetByte(in));
      trace.Add(uint64_t(T::GetChar(in)));
      break;
    case 18:
      trace.Add(T::GetBool(in));
      break;
    case 19: {
      TQXPoint p(0, 0);
      T::GetPoint(in, p);
      trace.Add(uint64_t(uint32_t(p.h)) << 32 | uint32_t(p.v));
      break;
    }
    case 20: {
      TQXRect r(0, 0, 0, 0);
      T::GetRect(in, r);
      trace.Add(&r, sizeof r);
      break;
    }
    case 21:
      T::GetShorts(in, int32_t(pick.Next(7)), shorts);
      break;
    case 22:
      trace.Add(T::GetCode(in));
      break;
    case 23: {
      TQXstrstream target;
      int32_t size = 0;
      T::GetBlockText(in, target, &size);
      trace.Add(target.buffer, size_t(size));
      break;
    }
    case 24: {
      uint32_t state = pick.Next(4) | pick.Next(256) << 8;
      T::GetPacked(in, bytes, count, state);
      trace.Add(bytes, size_t(count));
      trace.Add(state);
      break;
    }
    default: {
      const float f = T::GetFloat(in);
      trace.Add(&f, sizeof f);
    }
  }
}

uint64_t Run(TQXstrstream& in, const uint8_t* ops, size_t opCount, int32_t size) {
  Picker pick{uint32_t(opCount) * 7919u + ops[0]};
  Trace trace;
  for (int32_t step = 0; step < 2 * size + 16; ++step) {
    const int32_t before = in.Tell();
    try {
      Step(in, ops[size_t(step) % opCount], pick, trace);
      trace.Add(0);
    } catch (const TQXException& e) {
      if (e.code != kQXErrIO && e.code != kQXErrEndOfFile) std::abort();
      trace.Add(e.code);
      trace.Add(uint64_t(e.line));
    }
    const int32_t after = in.Tell();
    if (after < 0 || after > size) std::abort();
    trace.Add(uint64_t(after));
    trace.Add(in.state);
    // Every reader reads at least one character or meets the end: the run stops there.
    if (after == before && (in.state & kQXStreamEnd) != 0) break;
  }
  return trace.sum;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2 || size > (1u << 16)) return 0;
  const size_t opCount = 1 + data[0] % 16;
  if (size < 1 + opCount) return 0;
  const uint8_t* ops = data + 1;
  const uint8_t* text = ops + opCount;
  const int32_t n = int32_t(size - 1 - opCount);
  // Exactly n bytes each (one zero byte for an empty text, which the stream then reads as an
  // empty C string).
  std::vector<uint8_t> a(text, text + n), b(text, text + n);
  if (n == 0) {
    a.push_back(0);
    b.push_back(0);
  }
  TQXstrstream plain(a.data(), n, kQXStreamReadable);
  DerivedStream derived(b.data(), n);
  const uint64_t x = Run(plain, ops, opCount, n);
  const uint64_t y = Run(derived, ops, opCount, n);
  if (x != y) std::abort();
  return 0;
}
