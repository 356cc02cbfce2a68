// Fuzz target for the stream readers: the text readers of every type on a memory stream, and the
// binary readers, strings of every capacity class included, on a byte-swapping stream. The input's
// first byte seeds the choice of readers; the rest is the stream's content, in caller memory of
// exactly that size, so a read outside it is a fault under AddressSanitizer. What the text
// readers return is written back through the text writers.
#include <cstdint>
#include <cstring>
#include <vector>

#include "QXStrStream.h"
#include "QXString.h"

namespace {

// A small generator for the choice of operations, so that one input replays exactly.
struct Picker {
  uint32_t x;
  uint32_t Next(uint32_t n) {
    x = x * 1103515245u + 12345u;
    return (x >> 16) % n;
  }
};

// One typed read, and the value written back in text.
template <typename T>
void Echo(TQXiostream& in, TQXiostream& out) {
  T v{};
  in >> v;
  out << v;
}

// One typed read into a value of type T constructed from `args`.
template <typename T, typename... Args>
void Take(TQXiostream& in, Args... args) {
  T v(args...);
  in >> v;
}

void RunText(std::vector<unsigned char>& bytes, int32_t size, uint32_t seed) {
  TQXstrstream in(bytes.data(), size, kQXStreamReadable);
  TQXstrstream out;
  Picker pick{seed};
  char word[kQXStreamWordMax + 1];
  char line[64];
  const char delimiters[] = {'\n', ';', '\0', '"'};
  // Each reader takes a byte or meets the end; the bound only keeps slow inputs short.
  for (int32_t step = 0; step < 4 * size + 16 && (in.state & kQXStreamEnd) == 0; ++step) {
    switch (pick.Next(19)) {
      case 0:
        Echo<int32_t>(in, out);
        break;
      case 1:
        Echo<uint32_t>(in, out);
        break;
      case 2:
        Echo<int16_t>(in, out);
        break;
      case 3:
        Echo<uint16_t>(in, out);
        break;
      case 4:
        Echo<double>(in, out);
        break;
      case 5:
        Echo<float>(in, out);
        break;
      case 6:
        Take<bool>(in);
        break;
      case 7:
        Echo<char>(in, out);
        break;
      case 8:
        Echo<unsigned char>(in, out);
        break;
      case 9:
        in >> word;
        out << word;
        break;
      case 10:
        in.ReadDelimited(word, int32_t(1 + pick.Next(8)));
        break;
      case 11:
        in.ReadWord(word);
        out.WriteQuoted(word);
        break;
      case 12:
        in.GetLine(line, int32_t(pick.Next(sizeof line)) - 1, delimiters[pick.Next(4)]);
        break;
      case 13:
        in.GetToken();
        break;
      case 14:
        Echo<TQXString255>(in, out);
        break;
      case 15:
        Take<TQXDynamicString>(in);
        break;
      case 16:
        in.PutBack(char(pick.Next(256)));
        break;
      case 17:
        in.Seek(int32_t(pick.Next(uint32_t(size) + 8)) - 4, int32_t(pick.Next(4)));
        break;
      default: {
        uint8_t raw[8];
        in.Read(raw, int32_t(pick.Next(9)));
      }
    }
  }
}

void RunBinary(std::vector<unsigned char>& bytes, int32_t size, uint32_t seed) {
  TQXByteSwapStream in(bytes.data(), size);
  Picker pick{seed};
  char word[kQXStreamWordMax + 1];
  for (int32_t step = 0; step < 2 * size + 16 && (in.state & kQXStreamEnd) == 0; ++step) {
    switch (pick.Next(15)) {
      case 0:
        Take<int32_t>(in);
        break;
      case 1:
        Take<uint32_t>(in);
        break;
      case 2:
        Take<int16_t>(in);
        break;
      case 3:
        Take<uint16_t>(in);
        break;
      case 4:
        Take<double>(in);
        break;
      case 5:
        Take<float>(in);
        break;
      case 6:
        Take<bool>(in);
        break;
      case 7:
        Take<char>(in);
        break;
      case 8:
        Take<TQXString15>(in);
        break;
      case 9:
        Take<TQXString255>(in);
        break;
      case 10:
        Take<TQXString1023>(in);
        break;
      case 11:
        Take<TQXDynamicString>(in);
        break;
      case 12:
        Take<TQXDynamicString>(in, nullptr, 300u);
        break;  // 4-byte lengths
      case 13:
        in >> word;
        break;
      default:
        in.Seek(int32_t(pick.Next(uint32_t(size) + 8)) - 4, int32_t(pick.Next(4)));
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > (1u << 20)) return 0;
  const uint32_t seed = data[0];
  const int32_t n = int32_t(size - 1);
  // Exactly n bytes of caller memory (the stream may store into it on PutBack). An empty input
  // gets one zero byte, since a size of 0 takes the buffer as a C string.
  std::vector<unsigned char> text(data + 1, data + size);
  if (text.empty()) text.push_back(0);
  RunText(text, n, seed);
  std::vector<unsigned char> binary(data + 1, data + size);
  if (binary.empty()) binary.push_back(0);
  RunBinary(binary, n, seed);
  return 0;
}
