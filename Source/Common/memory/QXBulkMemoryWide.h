// QXBulkMemoryWide.h: the wide path of the bulk operations, internal to the library.
//
// The wide path is three kernels over plain byte counts:
//   forward   copies n bytes from the first byte up. Correct when the regions do not overlap and
//             whenever dst lies below src (the bytes ahead are read before they are written).
//   backward  copies n bytes from the last byte down. Correct whenever dst lies above src.
//   fill      stores n bytes of a 4-byte pattern that is in phase with dst: byte i of the region
//             gets byte (i & 3) of the pattern, counted from the low byte.
// Each kernel gives exactly the bytes of the plain path for the calls it serves; how it moves
// them (vector width, alignment, overlapping stores, string instructions) is its own affair.
//
// Several kernel sets exist: a portable one, and on x86-64 one each for SSE2, AVX2 and AVX-512.
// The first wide call asks the processor once which it can run and keeps the best; nothing
// happens at load. Tests may pin any set the processor can run, and lower the thresholds so that
// every branch of a kernel is reached with small buffers.
#ifndef QXBULKMEMORYWIDE_H
#define QXBULKMEMORYWIDE_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

struct QXBulkKernels {
  const char* name;  // "portable", "sse2", "avx2", "avx512"
  void (*forward)(unsigned char* dst, const unsigned char* src, size_t n);
  void (*backward)(unsigned char* dst, const unsigned char* src, size_t n);
  void (*fill)(unsigned char* dst, size_t n, uint32_t pattern);
};

// Byte counts at which the x86 kernels change technique, set from the processor's caches when the
// kernels are chosen. A range [min, max) that is empty switches its technique off.
struct QXBulkTuning {
  size_t repMovsbMin = SIZE_MAX;  // forward copies in [repMovsbMin, repMovsbMax) use rep movsb
  size_t repMovsbMax = 0;
  size_t repStosbMin = SIZE_MAX;  // fills of one repeated byte in [min, max) use rep stosb
  size_t repStosbMax = 0;
  size_t streamMin = SIZE_MAX;  // copies without overlap from here on bypass the caches
};
extern QXBulkTuning gQXBulkTuning;

// The kernels in force, one load per call. Until the first wide call it points at a set whose
// kernels choose the real ones, store them here and pass the call on; so the choice costs the
// fast path nothing, and a library that never takes the wide path never asks the processor.
extern std::atomic<const QXBulkKernels*> gQXBulkWide;
inline const QXBulkKernels& QXBulkWide() {
  return *gQXBulkWide.load(std::memory_order_acquire);
}
// Chooses the best set this processor can run, with its thresholds, and puts it in force.
const QXBulkKernels* QXBulkChooseKernels();

// Tests: the kernel sets this processor can run, the portable set first and the best last (at most
// `max` of them), and a way to pin one, which keeps the thresholds in force (this processor's
// after a first choice). Pinning null chooses anew, thresholds included.
int QXBulkAvailableKernels(const QXBulkKernels** sets, int max);
void QXBulkPinKernels(const QXBulkKernels* set);

// The portable kernel set: 8-byte moves, any processor.
extern const QXBulkKernels kQXBulkPortable;

#if defined(__x86_64__)
// The x86-64 kernel sets this processor can run (SSE2 first, best last) into `sets`, which has room
// for three; returns how many. Fills `tuning` with thresholds fit for this processor.
int QXBulkX86Kernels(const QXBulkKernels** sets, QXBulkTuning& tuning);
#endif

// Unaligned scalar moves without undefined behaviour: the compiler turns them into single loads
// and stores.
inline uint64_t QXLoad64(const unsigned char* p) {
  uint64_t v;
  std::memcpy(&v, p, 8);
  return v;
}
inline void QXStore64(unsigned char* p, uint64_t v) {
  std::memcpy(p, &v, 8);
}
inline uint32_t QXLoad32(const unsigned char* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}
inline void QXStore32(unsigned char* p, uint32_t v) {
  std::memcpy(p, &v, 4);
}

// The byte pattern turned so that byte i of the result is byte (i + offset) & 3 of `pattern`:
// the pattern in phase with a point `offset` bytes further on.
inline uint32_t QXPatternAt(uint32_t pattern, size_t offset) {
  const unsigned shift = unsigned(offset & 3) * 8;
  return (pattern >> shift) | (pattern << ((32 - shift) & 31));
}
// The 4-byte pattern as a native 32-bit word whose bytes in memory are, in address order, byte 0
// to byte 3 of `pattern` (its low byte first), whatever the machine's byte order.
inline uint32_t QXPatternWord(uint32_t pattern) {
  const unsigned char bytes[4] = {uint8_t(pattern), uint8_t(pattern >> 8), uint8_t(pattern >> 16),
                                  uint8_t(pattern >> 24)};
  return QXLoad32(bytes);
}

#endif  // QXBULKMEMORYWIDE_H
