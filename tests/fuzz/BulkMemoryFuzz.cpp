// Fuzz target for the bulk operations: the input picks an operation (QXmemmove, QXmemcpy,
// QXmemfill and the row primitives), the path (plain, or a wide kernel set with its own thresholds
// or with the string or streaming thresholds lowered to 0), the length, both alignments, the
// overlap and the fill value; its remaining bytes are the data. The result is compared over the
// whole arena, guard bytes included, with a byte-by-byte reference, and any difference aborts.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "QXGlobals.h"
#include "QXMemory.h"
#include "memory/QXBulkMemory.h"
#include "memory/QXBulkMemoryWide.h"

namespace {

struct Reader {
  const uint8_t* p;
  size_t n;
  size_t i = 0;
  uint8_t Byte() { return i < n ? p[i++] : 0; }
  uint32_t Word() {
    return Byte() | uint32_t(Byte()) << 8 | uint32_t(Byte()) << 16 | uint32_t(Byte()) << 24;
  }
};

void RefMove(unsigned char* d, const unsigned char* s, size_t n) {
  std::vector<unsigned char> copy(s, s + n);
  for (size_t i = 0; i < n; ++i)
    d[i] = copy[i];
}
// Byte at address a gets byte (a & 3) of `pattern`.
void RefPhased(uint32_t pattern, unsigned char* d, size_t n) {
  for (size_t i = 0; i < n; ++i)
    d[i] = uint8_t(pattern >> (8 * (uintptr_t(d + i) & 3)));
}

enum Op { kMove, kCopy, kFill, kFill32, kFill16, kFill8, kCopyLong, kOpCount };
const char* const kOpNames[] = {"QXmemmove",   "QXmemcpy",   "QXmemfill",   "QXmemfill32",
                                "QXmemfill16", "QXmemfill8", "QXmemcpyLong"};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const QXBulkKernels* sets[8];
  static const int setCount = QXBulkAvailableKernels(sets, 8);
  static const QXBulkTuning own = (QXBulkPinKernels(nullptr), gQXBulkTuning);

  Reader in{data, size};
  const int op = in.Byte() % kOpCount;
  const uint8_t path = in.Byte();
  const uint16_t raw = uint16_t(in.Byte() | in.Byte() << 8);
  // Mostly short lengths, where the stages change; sometimes up to 68 KiB.
  const size_t len = path & 0x80 ? size_t(raw) % 70000 : size_t(raw) % 1100;
  const size_t srcOff = in.Byte() % 64, dstOff = in.Byte() % 64;
  const int overlap = int8_t(in.Byte());
  const uint32_t value = in.Word();

  const bool wide = path & 1;
  TWIN_QXGlobals::gMMX = wide;
  if (wide) {
    QXBulkPinKernels(sets[(path >> 1) % setCount]);
    QXBulkTuning tuning = own;
    switch ((path >> 4) % 4) {
      case 1:  // the string instructions from the smallest size that reaches them
        tuning.repMovsbMin = tuning.repStosbMin = 0;
        tuning.repMovsbMax = tuning.repStosbMax = SIZE_MAX;
        break;
      case 2:  // non-temporal stores whenever there is no overlap
        tuning.streamMin = 0;
        break;
      default:
        break;
    }
    gQXBulkTuning = tuning;
  }

  // The arena: the data cycled through it, the source at 256 (+ its offset); the destination
  // either `overlap` bytes from the source or well past it.
  std::vector<unsigned char> arena(2 * len + 640);
  for (size_t i = 0; i < arena.size(); ++i)
    arena[i] = in.i < size ? data[in.i + i % (size - in.i)] : uint8_t(i * 131);
  unsigned char* src = arena.data() + 256 + srcOff;
  unsigned char* apart = arena.data() + 256 + 64 + len + 64 + dstOff;
  const size_t distance = size_t(overlap < 0 ? -overlap : overlap);
  // QXmemcpy allows an overlap only with the destination more than 31 bytes below the source.
  const bool copyMayOverlap = overlap < -31 || distance >= len;
  const bool isCopy = op == kCopy || op == kCopyLong;
  unsigned char* dst = arena.data() + 256 + dstOff;  // the fills
  if (op == kMove || (isCopy && copyMayOverlap))
    dst = src + overlap;
  else if (isCopy)
    dst = apart;

  std::vector<unsigned char> expected = arena;
  unsigned char* edst = expected.data() + (dst - arena.data());
  const unsigned char* esrc = expected.data() + (src - arena.data());
  const int32_t n = int32_t(len);
  switch (op) {
    case kMove:
      RefMove(edst, esrc, len);
      QXmemmove(dst, src, n);
      break;
    case kCopy:
      RefMove(edst, esrc, len);
      QXmemcpy(dst, src, n);
      break;
    case kFill:
      RefPhased(value, edst, len & ~size_t(3));
      std::memset(edst + (len & ~size_t(3)), int(value & 0xFF), len & 3);
      QXmemfill(int32_t(value), dst, n);
      break;
    case kFill32:
      RefPhased(value, edst, len / 4 * 4);
      QXmemfill32(value, dst, n / 4);
      break;
    case kFill16:
      RefPhased((value & 0xFFFF) * 0x00010001u, edst, len / 2 * 2);
      QXmemfill16(uint16_t(value), dst, n / 2);
      break;
    case kFill8:
      std::memset(edst, int(value & 0xFF), len);
      QXmemfill8(uint8_t(value), dst, n);
      break;
    case kCopyLong:
      RefMove(edst, esrc, len / 4 * 4);
      QXmemcpyLong(dst, src, n / 4);
      break;
  }
  if (arena != expected) {
    size_t at = 0;
    while (arena[at] == expected[at])
      ++at;
    std::fprintf(stderr, "%s on the %s path (%s): n=%zu src+%zu overlap %d, first wrong byte %td\n",
                 kOpNames[op], wide ? "wide" : "plain", wide ? QXBulkWide().name : "-", len, srcOff,
                 overlap, (arena.data() + at) - dst);
    std::abort();
  }
  return 0;
}
