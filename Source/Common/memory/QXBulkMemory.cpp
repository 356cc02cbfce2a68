// Bulk memory: block copies, moves and fills, on two paths.
//
// The plain path (gMMX false) is the reference: it moves 32-byte rounds as four 8-byte moves,
// then 16-byte rounds as two, then single 4-byte words, then the tail bytes, with no alignment
// step. QXmemmove picks a routine by d = dst - src (below), and fills keep their 4-byte pattern
// in phase with the address. The wide path (gMMX true) hands the same calls to the kernels of
// QXBulkMemoryWide.h, chosen once for this processor; every call gives the same bytes on both.
//
// Which overlaps give a defined result: QXmemmove any; QXmemcpy none, except a destination more
// than 31 bytes below the source, which QXmemmove itself hands to QXmemcpy (a forward copy reads
// each byte before it is overwritten there).
#include "memory/QXBulkMemory.h"

#include <cstring>

#include "QXGlobals.h"
#include "QXMemory.h"
#include "memory/QXBulkMemoryWide.h"

namespace {

// Byte runs up to this length are moved by a plain loop; longer ones by the C library's block
// move, which goes the same way for an overlap as the loop would.
constexpr size_t kByteLoopLimit = 3200;

inline void Move8(unsigned char* d, const unsigned char* s) {
  QXStore64(d, QXLoad64(s));
}
inline void Move4(unsigned char* d, const unsigned char* s) {
  QXStore32(d, QXLoad32(s));
}

// The word stages of QXmemcpy: 32 bytes a round, then 16, then single words.
[[gnu::noinline]] void CopyWordsPlain(unsigned char* d, const unsigned char* s, size_t words) {
  for (; words >= 8; words -= 8, d += 32, s += 32) {
    Move8(d, s);
    Move8(d + 8, s + 8);
    Move8(d + 16, s + 16);
    Move8(d + 24, s + 24);
  }
  for (; words >= 4; words -= 4, d += 16, s += 16) {
    Move8(d, s);
    Move8(d + 8, s + 8);
  }
  for (; words > 0; --words, d += 4, s += 4)
    Move4(d, s);
}

[[gnu::noinline]] void CopyPlain(unsigned char* d, const unsigned char* s, size_t n) {
  const size_t words = n >> 2;
  CopyWordsPlain(d, s, words);
  for (size_t i = words * 4; i < n; ++i)
    d[i] = s[i];
}

// dst 4 to 31 bytes below src: whole words up, then the tail bytes.
void ForwardWordsPlain(unsigned char* d, const unsigned char* s, size_t n) {
  size_t i = 0;
  for (; i + 4 <= n; i += 4)
    Move4(d + i, s + i);
  for (; i < n; ++i)
    d[i] = s[i];
}

// dst 1 to 3 bytes below src.
void ForwardBytesPlain(unsigned char* d, const unsigned char* s, size_t n) {
  if (n > kByteLoopLimit) {
    std::memmove(d, s, n);
    return;
  }
  for (size_t i = 0; i < n; ++i)
    d[i] = s[i];
}

// dst 1 to 3 bytes above src: from the last byte down.
void BackwardBytesPlain(unsigned char* d, const unsigned char* s, size_t n) {
  if (n > kByteLoopLimit) {
    std::memmove(d, s, n);
    return;
  }
  while (n > 0) {
    --n;
    d[n] = s[n];
  }
}

// dst 4 or more bytes above src: whole words from the end down, then the head bytes.
void BackwardWordsPlain(unsigned char* d, const unsigned char* s, size_t n) {
  while (n >= 4) {
    n -= 4;
    Move4(d + n, s + n);
  }
  while (n > 0) {
    --n;
    d[n] = s[n];
  }
}

// The fill scheme: the bytes up to the next multiple of 4 of the address, then aligned words,
// then the bytes after the last whole word, each byte from byte (address & 3) of `value`.
inline uint8_t ByteAt(uint32_t value, const unsigned char* p) {
  return uint8_t(value >> (8 * (uintptr_t(p) & 3)));
}
[[gnu::noinline]] void FillPlain(unsigned char* d, size_t n, uint32_t value) {
  const size_t lead = (4 - (uintptr_t(d) & 3)) & 3;
  size_t i = 0;
  for (; i < lead && i < n; ++i)
    d[i] = ByteAt(value, d + i);
  const uint32_t word = QXPatternWord(value);
  for (; i + 4 <= n; i += 4)
    QXStore32(d + i, word);
  for (; i < n; ++i)
    d[i] = ByteAt(value, d + i);
}

// The plain QXmemmove: a routine by the signed distance d = dst - src. Regions far apart fall
// into the first or the last row (the word copies), where no byte is read after it is written.
[[gnu::noinline]] void MovePlain(unsigned char* d, const unsigned char* s, size_t n) {
  const intptr_t diff = intptr_t(uintptr_t(d) - uintptr_t(s));
  if (diff < -31)
    CopyPlain(d, s, n);  // what QXmemcpy does on this path
  else if (diff <= -4)
    ForwardWordsPlain(d, s, n);
  else if (diff < 0)
    ForwardBytesPlain(d, s, n);
  else if (diff <= 3)
    BackwardBytesPlain(d, s, n);
  else
    BackwardWordsPlain(d, s, n);
}

// QXmemfill: the word routine over the whole words, then the low byte into the last n & 3 bytes.
[[gnu::noinline]] void FillValuePlain(unsigned char* d, size_t n, uint32_t value) {
  const size_t words = n & ~size_t(3);
  FillPlain(d, words, value);
  for (size_t i = words; i < n; ++i)
    d[i] = uint8_t(value);
}

// The wide fill of n bytes by address: the pattern turned into phase with dst.
[[gnu::always_inline]] inline void FillWide(unsigned char* d, size_t n, uint32_t value) {
  QXBulkWide().fill(d, n, QXPatternAt(value, uintptr_t(d)));
}

}  // namespace

// The exported functions stay small, so that the wide path costs a test and a jump; the plain
// routines are kept out of line (noinline) for the same reason.
void QXmemcpy(void* dst, const void* src, int32_t n) {
  if (n <= 0) return;
  auto* d = static_cast<unsigned char*>(dst);
  const auto* s = static_cast<const unsigned char*>(src);
  if (TWIN_QXGlobals::gMMX)
    QXBulkWide().forward(d, s, size_t(n));
  else
    CopyPlain(d, s, size_t(n));
}

void QXmemmove(void* dst, const void* src, int32_t n) {
  if (n <= 0 || dst == src) return;
  auto* d = static_cast<unsigned char*>(dst);
  const auto* s = static_cast<const unsigned char*>(src);
  const size_t len = size_t(n);
  if (!TWIN_QXGlobals::gMMX)
    MovePlain(d, s, len);
  else if (uintptr_t(d) - uintptr_t(s) >= len)  // dst below src or past its end: forward
    QXBulkWide().forward(d, s, len);
  else
    QXBulkWide().backward(d, s, len);
}

void QXmemfill(int32_t value, void* dst, int32_t n) {
  if (n <= 0) return;
  auto* d = static_cast<unsigned char*>(dst);
  const uint32_t v = uint32_t(value);
  if (!TWIN_QXGlobals::gMMX)
    FillValuePlain(d, size_t(n), v);
  else if (v == QXPatternAt(v, 1))  // one repeated byte: words and tail alike, one fill
    QXBulkWide().fill(d, size_t(n), v);
  else {
    // The tail first, so that the words end the function with a jump into the kernel.
    const size_t words = size_t(n) & ~size_t(3), tail = size_t(n) & 3;
    if (tail > 0) d[words] = uint8_t(v);
    if (tail > 1) d[words + 1] = uint8_t(v);
    if (tail > 2) d[words + 2] = uint8_t(v);
    FillWide(d, words, v);
  }
}

void QXmemfill32(uint32_t value, void* dst, int32_t count) {
  if (count <= 0) return;
  auto* d = static_cast<unsigned char*>(dst);
  if (TWIN_QXGlobals::gMMX)
    FillWide(d, size_t(count) * 4, value);
  else
    FillPlain(d, size_t(count) * 4, value);
}

void QXmemfill16(uint16_t value, void* dst, int32_t count) {
  if (count <= 0) return;
  auto* d = static_cast<unsigned char*>(dst);
  const uint32_t doubled = uint32_t(value) * 0x00010001u;
  if (TWIN_QXGlobals::gMMX)
    FillWide(d, size_t(count) * 2, doubled);
  else
    FillPlain(d, size_t(count) * 2, doubled);
}

void QXmemfill8(uint8_t value, void* dst, int32_t count) {
  if (count <= 0) return;
  auto* d = static_cast<unsigned char*>(dst);
  const uint32_t repeated = uint32_t(value) * 0x01010101u;
  if (TWIN_QXGlobals::gMMX)
    QXBulkWide().fill(d, size_t(count), repeated);
  else
    FillPlain(d, size_t(count), repeated);
}

void QXmemcpyLong(void* dst, const void* src, int32_t count) {
  if (count <= 0) return;
  auto* d = static_cast<unsigned char*>(dst);
  const auto* s = static_cast<const unsigned char*>(src);
  if (TWIN_QXGlobals::gMMX)
    QXBulkWide().forward(d, s, size_t(count) * 4);
  else
    CopyWordsPlain(d, s, size_t(count));
}

// ---------------------------------------------------------------------------------------------
// The portable kernel set, and the choice of the set in force.
// ---------------------------------------------------------------------------------------------

namespace {

void PortableForward(unsigned char* d, const unsigned char* s, size_t n) {
  size_t i = 0;
  for (; i + 8 <= n; i += 8)
    Move8(d + i, s + i);
  for (; i < n; ++i)
    d[i] = s[i];
}

void PortableBackward(unsigned char* d, const unsigned char* s, size_t n) {
  while (n >= 8) {
    n -= 8;
    Move8(d + n, s + n);
  }
  while (n > 0) {
    --n;
    d[n] = s[n];
  }
}

void PortableFill(unsigned char* d, size_t n, uint32_t pattern) {
  const uint32_t word = QXPatternWord(pattern);
  unsigned char twice[8];
  QXStore32(twice, word);
  QXStore32(twice + 4, word);
  const uint64_t pair = QXLoad64(twice);
  size_t i = 0;
  for (; i + 8 <= n; i += 8)
    QXStore64(d + i, pair);
  for (; i < n; ++i)
    d[i] = uint8_t(pattern >> (8 * (i & 3)));
}

// The set in force before the first wide call: each kernel chooses, then passes the call on.
void ChooseThenForward(unsigned char* d, const unsigned char* s, size_t n) {
  QXBulkChooseKernels()->forward(d, s, n);
}
void ChooseThenBackward(unsigned char* d, const unsigned char* s, size_t n) {
  QXBulkChooseKernels()->backward(d, s, n);
}
void ChooseThenFill(unsigned char* d, size_t n, uint32_t pattern) {
  QXBulkChooseKernels()->fill(d, n, pattern);
}
constexpr QXBulkKernels kChooser = {"chooser", ChooseThenForward, ChooseThenBackward,
                                    ChooseThenFill};

}  // namespace

const QXBulkKernels kQXBulkPortable = {"portable", PortableForward, PortableBackward, PortableFill};

QXBulkTuning gQXBulkTuning;
std::atomic<const QXBulkKernels*> gQXBulkWide{&kChooser};

int QXBulkAvailableKernels(const QXBulkKernels** sets, int max) {
  const QXBulkKernels* all[4] = {&kQXBulkPortable};
  int count = 1;
#if defined(__x86_64__)
  QXBulkTuning unused;
  count += QXBulkX86Kernels(all + 1, unused);
#endif
  int n = 0;
  for (; n < count && n < max; ++n)
    sets[n] = all[n];
  return n;
}

const QXBulkKernels* QXBulkChooseKernels() {
  const QXBulkKernels* best = &kQXBulkPortable;
  QXBulkTuning tuning;
#if defined(__x86_64__)
  const QXBulkKernels* x86[3];
  const int count = QXBulkX86Kernels(x86, tuning);
  if (count > 0) best = x86[count - 1];
#endif
  gQXBulkTuning = tuning;
  gQXBulkWide.store(best, std::memory_order_release);
  return best;
}

void QXBulkPinKernels(const QXBulkKernels* set) {
  // Choosing sets this processor's thresholds, which a test may lower afterwards. It asks CPUID,
  // slow under a hypervisor, so a set is pinned without asking again once a choice was made.
  if (set == nullptr || gQXBulkWide.load(std::memory_order_acquire) == &kChooser)
    QXBulkChooseKernels();
  if (set != nullptr) gQXBulkWide.store(set, std::memory_order_release);
}
