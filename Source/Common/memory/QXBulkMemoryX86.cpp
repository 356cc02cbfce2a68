// The x86-64 kernel sets of the bulk operations' wide path: SSE2 (always there on x86-64), AVX2
// and AVX-512, each enabled per function with a target attribute so that the rest of the library
// keeps the baseline instruction set. Which sets the processor can run is asked of CPUID and
// XGETBV once, at the first wide call; nothing runs at load.
//
// Techniques beside the vector loops (thresholds in QXBulkTuning, from the caches of this
// processor):
// - `rep movsb` for forward copies of a few KiB up to the size of the level-2 cache on AMD (above
//   it, its fast mode loses to the vector loop there) or up to the streaming threshold elsewhere,
//   on processors with fast string moves (ERMS).
// - `rep stosb` for fills of one repeated byte from 2 KiB on.
// - Non-temporal stores for copies without overlap above a quarter of the last-level cache.
// The string instructions are written inline; a fault inside one unwinds like any other faulting
// load or store of these functions, which own no objects to clean up.
#include "memory/QXBulkMemoryWide.h"

#if defined(__x86_64__)

#include <cpuid.h>
#include <immintrin.h>

namespace {

// --- Pieces shared by every set -------------------------------------------------------------

inline void RepMovsb(unsigned char* d, const unsigned char* s, size_t n) {
  asm volatile("rep movsb" : "+D"(d), "+S"(s), "+c"(n) : : "memory");
}
inline void RepStosb(unsigned char* d, uint8_t value, size_t n) {
  asm volatile("rep stosb" : "+D"(d), "+c"(n) : "a"(value) : "memory");
}

inline uint64_t PatternPair(uint32_t pattern) {
  return pattern | uint64_t(pattern) << 32;
}

// Below 16 bytes, any overlap: two overlapping moves of the largest size that fits, both loaded
// before either is stored.
inline void CopyUnder16(unsigned char* d, const unsigned char* s, size_t n) {
  if (n >= 8) {
    const uint64_t a = QXLoad64(s), b = QXLoad64(s + n - 8);
    QXStore64(d, a);
    QXStore64(d + n - 8, b);
  } else if (n >= 4) {
    const uint32_t a = QXLoad32(s), b = QXLoad32(s + n - 4);
    QXStore32(d, a);
    QXStore32(d + n - 4, b);
  } else if (n >= 2) {
    const unsigned char a = s[0], b = s[1], c = s[n - 1];
    d[0] = a;
    d[1] = b;
    d[n - 1] = c;
  } else if (n == 1) {
    d[0] = s[0];
  }
}

inline void FillUnder16(unsigned char* d, size_t n, uint32_t pattern) {
  if (n >= 8) {
    QXStore64(d, PatternPair(pattern));
    QXStore64(d + n - 8, PatternPair(QXPatternAt(pattern, n - 8)));
  } else if (n >= 4) {
    QXStore32(d, pattern);
    QXStore32(d + n - 4, QXPatternAt(pattern, n - 4));
  } else {
    for (size_t i = 0; i < n; ++i)
      d[i] = uint8_t(pattern >> (8 * i));
  }
}

inline __m128i Load16(const unsigned char* p) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i_u*>(p));
}
inline void Store16(unsigned char* p, __m128i v) {
  _mm_storeu_si128(reinterpret_cast<__m128i_u*>(p), v);
}

inline void CopyUnder32(unsigned char* d, const unsigned char* s, size_t n) {
  if (n >= 16) {
    const __m128i a = Load16(s), b = Load16(s + n - 16);
    Store16(d, a);
    Store16(d + n - 16, b);
  } else {
    CopyUnder16(d, s, n);
  }
}

inline void FillUnder32(unsigned char* d, size_t n, uint32_t pattern) {
  if (n >= 16) {
    Store16(d, _mm_set1_epi32(int(pattern)));
    Store16(d + n - 16, _mm_set1_epi32(int(QXPatternAt(pattern, n - 16))));
  } else {
    FillUnder16(d, n, pattern);
  }
}

template <class T>
inline T* Aligned(unsigned char* p) {
  return static_cast<T*>(static_cast<void*>(p));
}

// --- SSE2: 16-byte vectors ------------------------------------------------------------------

namespace sse2 {
#define QX_KERNEL __attribute__((target("sse2")))
struct V {
  using T = __m128i;
  static constexpr size_t kSize = 16;
  QX_KERNEL static T Load(const unsigned char* p) { return Load16(p); }
  QX_KERNEL static void Store(unsigned char* p, T v) { Store16(p, v); }
  QX_KERNEL static void StoreAligned(unsigned char* p, T v) { _mm_store_si128(Aligned<T>(p), v); }
  QX_KERNEL static void Stream(unsigned char* p, T v) { _mm_stream_si128(Aligned<T>(p), v); }
  QX_KERNEL static T Splat(uint32_t pattern) { return _mm_set1_epi32(int(pattern)); }
};
QX_KERNEL inline void CopyUnder(unsigned char* d, const unsigned char* s, size_t n) {
  CopyUnder16(d, s, n);
}
QX_KERNEL inline void FillUnder(unsigned char* d, size_t n, uint32_t pattern) {
  FillUnder16(d, n, pattern);
}
#include "memory/QXBulkMemoryKernels.h"
#undef QX_KERNEL
const QXBulkKernels kSet = {"sse2", Forward, Backward, Fill};
}  // namespace sse2

// --- AVX2: 32-byte vectors ------------------------------------------------------------------

namespace avx2 {
#define QX_KERNEL __attribute__((target("avx2")))
struct V {
  using T = __m256i;
  static constexpr size_t kSize = 32;
  QX_KERNEL static T Load(const unsigned char* p) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i_u*>(p));
  }
  QX_KERNEL static void Store(unsigned char* p, T v) {
    _mm256_storeu_si256(reinterpret_cast<__m256i_u*>(p), v);
  }
  QX_KERNEL static void StoreAligned(unsigned char* p, T v) {
    _mm256_store_si256(Aligned<T>(p), v);
  }
  QX_KERNEL static void Stream(unsigned char* p, T v) { _mm256_stream_si256(Aligned<T>(p), v); }
  QX_KERNEL static T Splat(uint32_t pattern) { return _mm256_set1_epi32(int(pattern)); }
};
QX_KERNEL inline void CopyUnder(unsigned char* d, const unsigned char* s, size_t n) {
  CopyUnder32(d, s, n);
}
QX_KERNEL inline void FillUnder(unsigned char* d, size_t n, uint32_t pattern) {
  FillUnder32(d, n, pattern);
}
#include "memory/QXBulkMemoryKernels.h"
#undef QX_KERNEL
const QXBulkKernels kSet = {"avx2", Forward, Backward, Fill};
}  // namespace avx2

// --- AVX-512: 64-byte vectors ---------------------------------------------------------------

namespace avx512 {
#define QX_KERNEL __attribute__((target("avx512f")))
struct V {
  using T = __m512i;
  static constexpr size_t kSize = 64;
  QX_KERNEL static T Load(const unsigned char* p) { return _mm512_loadu_si512(p); }
  QX_KERNEL static void Store(unsigned char* p, T v) { _mm512_storeu_si512(p, v); }
  QX_KERNEL static void StoreAligned(unsigned char* p, T v) { _mm512_store_si512(p, v); }
  QX_KERNEL static void Stream(unsigned char* p, T v) { _mm512_stream_si512(Aligned<T>(p), v); }
  QX_KERNEL static T Splat(uint32_t pattern) { return _mm512_set1_epi32(int(pattern)); }
};
QX_KERNEL inline void CopyUnder(unsigned char* d, const unsigned char* s, size_t n) {
  if (n >= 32) {
    const __m256i a = avx2::V::Load(s), b = avx2::V::Load(s + n - 32);
    avx2::V::Store(d, a);
    avx2::V::Store(d + n - 32, b);
  } else {
    CopyUnder32(d, s, n);
  }
}
QX_KERNEL inline void FillUnder(unsigned char* d, size_t n, uint32_t pattern) {
  if (n >= 32) {
    avx2::V::Store(d, avx2::V::Splat(pattern));
    avx2::V::Store(d + n - 32, avx2::V::Splat(QXPatternAt(pattern, n - 32)));
  } else {
    FillUnder32(d, n, pattern);
  }
}
#include "memory/QXBulkMemoryKernels.h"
#undef QX_KERNEL
const QXBulkKernels kSet = {"avx512", Forward, Backward, Fill};
}  // namespace avx512

// --- What this processor offers -------------------------------------------------------------

struct Processor {
  bool amd = false;
  bool avx2 = false;    // and the system saves the 256-bit registers
  bool avx512 = false;  // AVX-512F, and the system saves the 512-bit registers
  bool erms = false;    // fast rep movsb / rep stosb
  bool fsrm = false;    // fast rep movsb for short copies too
  size_t level2 = 0;    // bytes, 0 when unknown
  size_t level3 = 0;
};

__attribute__((target("xsave"))) uint64_t SavedRegisterState() {
  return _xgetbv(0);
}

// The last-level cache of an Intel processor from the deterministic cache leaf (4).
size_t IntelLevel3(unsigned maxLeaf) {
  if (maxLeaf < 4) return 0;
  for (unsigned sub = 0; sub < 16; ++sub) {
    unsigned a, b, c, d;
    __cpuid_count(4, sub, a, b, c, d);
    const unsigned type = a & 31;
    if (type == 0) break;
    if (((a >> 5) & 7) != 3) continue;
    return size_t((b >> 22) + 1) * (((b >> 12) & 0x3FF) + 1) * ((b & 0xFFF) + 1) * (size_t(c) + 1);
  }
  return 0;
}

Processor Probe() {
  Processor p;
  unsigned a, b, c, d;
  if (!__get_cpuid(0, &a, &b, &c, &d)) return p;
  const unsigned maxLeaf = a;
  p.amd = b == signature_AMD_ebx && c == signature_AMD_ecx && d == signature_AMD_edx;
  __cpuid(1, a, b, c, d);
  const bool osSaves = (c >> 27) & 1, avx = (c >> 28) & 1;
  const uint64_t state = osSaves ? SavedRegisterState() : 0;
  const bool ymm = avx && (state & 0x06) == 0x06;  // SSE and AVX state
  const bool zmm = ymm && (state & 0xE0) == 0xE0;  // and opmask, upper ZMM, ZMM16-31
  if (maxLeaf >= 7) {
    __cpuid_count(7, 0, a, b, c, d);
    p.avx2 = ymm && ((b >> 5) & 1);
    p.avx512 = zmm && ((b >> 16) & 1);
    p.erms = (b >> 9) & 1;
    p.fsrm = (d >> 4) & 1;
  }
  __cpuid(0x80000000, a, b, c, d);
  if (a >= 0x80000006) {
    __cpuid(0x80000006, a, b, c, d);
    p.level2 = size_t(c >> 16) * 1024;
    if (p.amd) p.level3 = size_t(d >> 18) * 512 * 1024;
  }
  if (!p.amd) p.level3 = IntelLevel3(maxLeaf);
  return p;
}

}  // namespace

int QXBulkX86Kernels(const QXBulkKernels** sets, QXBulkTuning& tuning) {
  const Processor p = Probe();
  int count = 0;
  sets[count++] = &sse2::kSet;
  // AVX-512 is preferred on AMD processors, which run it at full clock; elsewhere it stays
  // available to the tests but AVX2 is the choice.
  const bool preferWidest = p.amd;
  if (p.avx512 && !preferWidest) sets[count++] = &avx512::kSet;
  if (p.avx2) sets[count++] = &avx2::kSet;
  if (p.avx512 && preferWidest) sets[count++] = &avx512::kSet;

  const size_t kMiB = size_t(1) << 20;
  tuning = QXBulkTuning();
  tuning.streamMin = p.level3 != 0 ? (p.level3 / 4 > kMiB ? p.level3 / 4 : kMiB) : SIZE_MAX;
  if (p.erms) {
    tuning.repMovsbMin = p.fsrm ? 2112 : 4096;
    tuning.repMovsbMax = p.amd ? (p.level2 != 0 ? p.level2 : kMiB) : tuning.streamMin;
    tuning.repStosbMin = 2048;
    tuning.repStosbMax = SIZE_MAX;
  }
  return count;
}

#endif  // defined(__x86_64__)
