// Bulk memory: every length and alignment against a byte-by-byte reference, on the plain path and
// on every wide kernel set this processor can run, each with its own thresholds and with them
// lowered so that the string instructions and the non-temporal loop are reached by small buffers.
// Each operation works inside an arena of random bytes; the whole arena is compared with the
// reference's, so a byte written outside the target region fails the same way as a wrong one.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "QXException.h"
#include "QXGlobals.h"
#include "QXMemory.h"
#include "memory/QXBulkMemory.h"
#include "memory/QXBulkMemoryWide.h"

namespace {

using Bytes = std::vector<unsigned char>;

// --- The reference: obviously right, one byte at a time ---------------------------------------

void RefMove(unsigned char* d, const unsigned char* s, size_t n) {
  static Bytes copy;  // kept between calls: the tests make hundreds of thousands
  copy.assign(s, s + n);
  for (size_t i = 0; i < n; ++i)
    d[i] = copy[i];
}

// Byte at address a gets byte (a & 3) of `pattern`, for `count` bytes.
void RefPhased(uint32_t pattern, unsigned char* d, size_t count) {
  for (size_t i = 0; i < count; ++i)
    d[i] = uint8_t(pattern >> (8 * (uintptr_t(d + i) & 3)));
}

void RefFill(uint32_t value, unsigned char* d, size_t n) {
  RefPhased(value, d, n & ~size_t(3));
  for (size_t i = n & ~size_t(3); i < n; ++i)
    d[i] = uint8_t(value);
}

// --- The paths ----------------------------------------------------------------------------

struct Path {
  std::string name;
  const QXBulkKernels* set;  // null: the plain path
  QXBulkTuning tuning;
};

std::vector<Path> AllPaths() {
  std::vector<Path> paths = {{"plain", nullptr, {}}};
  const QXBulkKernels* sets[8];
  const int count = QXBulkAvailableKernels(sets, 8);
  QXBulkPinKernels(nullptr);
  const QXBulkTuning own = gQXBulkTuning;
  for (int k = 0; k < count; ++k) {
    paths.push_back({sets[k]->name, sets[k], own});
    QXBulkTuning strings;  // rep movsb / rep stosb from the smallest size that reaches them
    strings.repMovsbMin = strings.repStosbMin = 0;
    strings.repMovsbMax = strings.repStosbMax = SIZE_MAX;
    paths.push_back({std::string(sets[k]->name) + "+strings", sets[k], strings});
    QXBulkTuning streaming;
    streaming.streamMin = 0;
    paths.push_back({std::string(sets[k]->name) + "+streaming", sets[k], streaming});
  }
  return paths;
}

class ScopedPath {
 public:
  explicit ScopedPath(const Path& path) {
    TWIN_QXGlobals::gMMX = path.set != nullptr;
    if (path.set) {
      QXBulkPinKernels(path.set);
      gQXBulkTuning = path.tuning;
    }
  }
  ~ScopedPath() {
    TWIN_QXGlobals::gMMX = false;
    QXBulkPinKernels(nullptr);
  }
};

Bytes RandomBytes(size_t n, uint32_t seed) {
  std::mt19937_64 rng(seed);
  Bytes b(n + 8);
  for (size_t i = 0; i < n; i += 8) {
    const uint64_t r = rng();
    std::memcpy(&b[i], &r, 8);
  }
  b.resize(n);
  return b;
}

// Arena offsets are taken from a 64-byte aligned base, so an offset is also an alignment.
constexpr size_t kSlack = 64;
unsigned char* Base(Bytes& arena) {
  auto* p = arena.data() + kSlack;
  return p - (uintptr_t(p) & 63);
}

// Lengths: all of 0 to 64, then around 8 W of each vector width (128, 256, 512 bytes), where the
// kernels' loops begin.
std::vector<size_t> Lengths() {
  std::vector<size_t> n;
  for (size_t i = 0; i <= 64; ++i)
    n.push_back(i);
  for (size_t edge : {127, 128, 129, 255, 256, 257, 383, 511, 512, 513, 640, 1029})
    n.push_back(edge);
  return n;
}

// Large lengths: around the string-move threshold (2112), the plain byte-loop limit (3200), a
// page, and a block larger than the level-2 cache, where the string move stops. Under the
// sanitizers, which slow every byte down, that block is smaller.
#if defined(QX_SANITIZED_BUILD)
constexpr size_t kLarge = (size_t(1) << 16) + 7;
#else
constexpr size_t kLarge = (size_t(1) << 20) + 7;
#endif
const size_t kLargeLengths[] = {2111, 2112, 2113, 3199, 3200, 3201, 4095, 4096, 4097, kLarge};

// --- Copies -------------------------------------------------------------------------------

// QXmemcpy and QXmemcpyLong between separate regions at every pair of alignments.
TEST(BulkMemory, CopyEveryLengthAndAlignment) {
  Bytes expected;
  for (const Path& path : AllPaths()) {
    ScopedPath scope(path);
    for (size_t n : Lengths()) {
      const size_t alignments = n <= 64 ? 16 : 64;
      Bytes arena = RandomBytes(2 * n + 4 * kSlack + 64, uint32_t(n));
      unsigned char* base = Base(arena);
      for (size_t so = 0; so < alignments; so += n <= 64 ? 1 : 3) {
        for (size_t dof = 0; dof < alignments; ++dof) {
          unsigned char* src = base + n + kSlack + so;
          unsigned char* dst = base + dof;
          expected = arena;
          RefMove(expected.data() + (dst - arena.data()), src, n);
          QXmemcpy(dst, src, int32_t(n));
          ASSERT_EQ(arena, expected)
              << path.name << " QXmemcpy n=" << n << " src+" << so << " dst+" << dof;
          const size_t words = n / 4;
          RefMove(expected.data() + (dst + 1 - arena.data()), src + 2, words * 4);
          QXmemcpyLong(dst + 1, src + 2, int32_t(words));
          ASSERT_EQ(arena, expected) << path.name << " QXmemcpyLong words=" << words;
        }
      }
    }
  }
}

// QXmemmove at every overlap from -64 to 64 bytes and at a few far ones, and QXmemcpy wherever its
// contract allows an overlap (dst more than 31 bytes below src).
TEST(BulkMemory, MoveEveryOverlap) {
  Bytes expected, before;
  for (const Path& path : AllPaths()) {
    ScopedPath scope(path);
    for (size_t n : Lengths()) {
      Bytes arena = RandomBytes(n + 300 + 2 * kSlack, uint32_t(n) + 77);
      unsigned char* base = Base(arena) + 130;
      for (int d = -130; d <= 130; ++d) {
        if (d < -64 && d != -130 && d != -100) continue;
        if (d > 64 && d != 100 && d != 130) continue;
        for (size_t align : {0, 1, 3, 13}) {
          unsigned char* src = base + align;
          unsigned char* dst = src + d;
          expected = arena;
          RefMove(expected.data() + (dst - arena.data()), src, n);
          before = arena;
          QXmemmove(dst, src, int32_t(n));
          ASSERT_EQ(arena, expected) << path.name << " QXmemmove n=" << n << " d=" << d;
          if (d < -31 || size_t(d < 0 ? -d : d) >= n) {
            arena = before;
            QXmemcpy(dst, src, int32_t(n));
            ASSERT_EQ(arena, expected) << path.name << " QXmemcpy n=" << n << " d=" << d;
          }
        }
      }
    }
  }
}

// Large random blocks across the thresholds: copies, and moves by 1, 4 and 64 either way.
TEST(BulkMemory, LargeCopiesAndMoves) {
  for (const Path& path : AllPaths()) {
    ScopedPath scope(path);
    for (size_t n : kLargeLengths) {
      const Bytes start = RandomBytes(n + 200, uint32_t(n));
      Bytes dst(n + 9, 0xA5);
      QXmemcpy(dst.data() + 5, start.data() + 3, int32_t(n));
      ASSERT_EQ(std::memcmp(dst.data() + 5, start.data() + 3, n), 0) << path.name << " n=" << n;
      ASSERT_EQ(dst[4], 0xA5);
      ASSERT_EQ(dst[n + 5], 0xA5);
      for (int d : {1, -1, 4, -4, 64, -64}) {
        Bytes arena = start;
        Bytes expected = start;
        unsigned char* s = arena.data() + 100 + 3;
        RefMove(expected.data() + 100 + 3 + d, expected.data() + 100 + 3, n);
        QXmemmove(s + d, s, int32_t(n));
        ASSERT_EQ(arena, expected) << path.name << " QXmemmove n=" << n << " d=" << d;
      }
    }
  }
}

// --- Fills --------------------------------------------------------------------------------

TEST(BulkMemory, FillPhaseRule) {
  for (const Path& path : AllPaths()) {
    ScopedPath scope(path);
    alignas(16) unsigned char buf[16];
    std::memset(buf, 0xEE, sizeof buf);
    QXmemfill(0x04030201, buf, 6);
    const unsigned char aligned[] = {1, 2, 3, 4, 1, 1, 0xEE};
    EXPECT_EQ(std::memcmp(buf, aligned, 7), 0) << path.name;
    std::memset(buf, 0xEE, sizeof buf);
    QXmemfill(0x04030201, buf + 1, 6);  // the words keep the address's phase
    const unsigned char shifted[] = {0xEE, 2, 3, 4, 1, 1, 1, 0xEE};
    EXPECT_EQ(std::memcmp(buf, shifted, 8), 0) << path.name;
    std::memset(buf, 0xEE, sizeof buf);
    QXmemfill16(0xBBAA, buf + 1, 3);  // an odd address turns the 16-bit value
    const unsigned char pixels[] = {0xEE, 0xBB, 0xAA, 0xBB, 0xAA, 0xBB, 0xAA, 0xEE};
    EXPECT_EQ(std::memcmp(buf, pixels, 8), 0) << path.name;
  }
}

TEST(BulkMemory, FillEveryLengthAndAlignment) {
  Bytes expected;
  std::vector<size_t> lengths = Lengths();
  lengths.insert(lengths.end(), std::begin(kLargeLengths), std::end(kLargeLengths));
  for (const Path& path : AllPaths()) {
    ScopedPath scope(path);
    for (size_t n : lengths) {
      Bytes arena = RandomBytes(n + 2 * kSlack + 64, uint32_t(n) + 5);
      const size_t alignments = n <= 1029 ? 64 : 3;
      for (uint32_t value : {0x04030201u, 0u, 0xC3C3C3C3u, 0x80FF7F01u}) {
        for (size_t off = 0; off < alignments; ++off) {
          unsigned char* d = Base(arena) + off;
          const size_t at = size_t(d - arena.data());
          expected = arena;
          RefFill(value, expected.data() + at, n);
          QXmemfill(int32_t(value), d, int32_t(n));
          ASSERT_EQ(arena, expected) << path.name << " QXmemfill n=" << n << " +" << off;
          RefPhased(value, expected.data() + at, n / 4 * 4);
          QXmemfill32(value, d, int32_t(n / 4));
          ASSERT_EQ(arena, expected) << path.name << " QXmemfill32 n=" << n << " +" << off;
          RefPhased((value & 0xFFFF) * 0x00010001u, expected.data() + at, n / 2 * 2);
          QXmemfill16(uint16_t(value), d, int32_t(n / 2));
          ASSERT_EQ(arena, expected) << path.name << " QXmemfill16 n=" << n << " +" << off;
          std::memset(expected.data() + at, int(value >> 8) & 0xFF, n);
          QXmemfill8(uint8_t(value >> 8), d, int32_t(n));
          ASSERT_EQ(arena, expected) << path.name << " QXmemfill8 n=" << n << " +" << off;
        }
      }
    }
  }
}

// --- Lengths of 0 or less, faults ------------------------------------------------------------

TEST(BulkMemory, LengthsOfZeroOrLessDoNothing) {
  for (const Path& path : AllPaths()) {
    ScopedPath scope(path);
    for (int32_t n : {0, -1, -4, -33, INT32_MIN}) {
      // Null pointers show that nothing is touched at all.
      QXmemcpy(nullptr, nullptr, n);
      QXmemmove(nullptr, nullptr, n);
      QXmemfill(0x01020304, nullptr, n);
      QXmemfill32(1, nullptr, n);
      QXmemfill16(1, nullptr, n);
      QXmemfill8(1, nullptr, n);
      QXmemcpyLong(nullptr, nullptr, n);
    }
  }
}

// A fault inside any kernel, the string instructions included, reaches the caller as an exception
// when the failure handlers are installed. The sanitizers report null accesses first.
TEST(BulkMemory, FaultInsideACopyBecomesAnException) {
#if defined(QX_SANITIZED_BUILD)
  GTEST_SKIP() << "the sanitizers take null accesses over";
#else
  QXInstallFailureHandlers(true);
  for (const Path& path : AllPaths()) {
    ScopedPath scope(path);
    static unsigned char buffer[8192];
    const void* volatile bad = nullptr;
    for (int32_t n : {16, 300, 8192}) {
      EXPECT_THROW(QXmemcpy(buffer, bad, n), TQXException) << path.name << " n=" << n;
      EXPECT_THROW(QXmemmove(const_cast<void*>(bad), buffer, n), TQXException) << path.name;
      EXPECT_THROW(QXmemfill(0, const_cast<void*>(bad), n), TQXException) << path.name;
    }
  }
  QXInstallFailureHandlers(false);
#endif
}

}  // namespace
