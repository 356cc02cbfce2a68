// QXBulkMemoryKernels.h: the body of one x86 kernel set, written once for every vector width.
//
// Not an ordinary header: QXBulkMemoryX86.cpp includes it once per instruction set, inside that
// set's namespace, after defining
//   QX_KERNEL                the attribute that enables the instruction set for a function,
//   V                        the vector operations: T, kSize (the width W in bytes), Load, Store
//                            (unaligned), StoreAligned, Stream (non-temporal, aligned), Splat (a
//                            32-bit pattern in every lane),
//   CopyUnder, FillUnder     copy and fill for n below W,
// beside the shared pieces RepMovsb and RepStosb.
// So it includes nothing and has no include guard, on purpose.
//
// Invariants the kernels keep, which make them give the plain path's bytes:
// - Up to 8 W bytes are copied by loading every byte before storing any, which is right for any
//   overlap in either direction.
// - The loops move blocks of 4 vectors, loading a block before storing it, in the direction of
//   the copy: forward never reads a byte that an earlier store of the same call changed when dst
//   lies below src, backward likewise when dst lies above src. The first and the last vectors of
//   the region are loaded before the loop and stored after it, so the unaligned ends cannot be
//   overwritten before they are read either.
// - A fill stores at offset o from dst the pattern turned by o & 3 (QXPatternAt), so the pattern
//   stays in phase with dst whatever the alignment of a store.

constexpr size_t W = V::kSize;

// n from 0 to 8 W, any overlap.
QX_KERNEL inline void CopyUpTo8W(unsigned char* d, const unsigned char* s, size_t n) {
  if (n < W) {
    CopyUnder(d, s, n);
  } else if (n <= 2 * W) {
    const V::T a = V::Load(s), b = V::Load(s + n - W);
    V::Store(d, a);
    V::Store(d + n - W, b);
  } else if (n <= 4 * W) {
    const V::T a = V::Load(s), b = V::Load(s + W);
    const V::T c = V::Load(s + n - 2 * W), e = V::Load(s + n - W);
    V::Store(d, a);
    V::Store(d + W, b);
    V::Store(d + n - 2 * W, c);
    V::Store(d + n - W, e);
  } else {
    const V::T a = V::Load(s), b = V::Load(s + W), c = V::Load(s + 2 * W), e = V::Load(s + 3 * W);
    const V::T f = V::Load(s + n - 4 * W), g = V::Load(s + n - 3 * W);
    const V::T h = V::Load(s + n - 2 * W), k = V::Load(s + n - W);
    V::Store(d, a);
    V::Store(d + W, b);
    V::Store(d + 2 * W, c);
    V::Store(d + 3 * W, e);
    V::Store(d + n - 4 * W, f);
    V::Store(d + n - 3 * W, g);
    V::Store(d + n - 2 * W, h);
    V::Store(d + n - W, k);
  }
}

QX_KERNEL void Forward(unsigned char* d, const unsigned char* s, size_t n) {
  if (n <= 8 * W) {
    CopyUpTo8W(d, s, n);
    return;
  }
  const QXBulkTuning& tuning = gQXBulkTuning;
  // How far src lies ahead of dst; wraps to a huge value when dst lies above src.
  const size_t ahead = uintptr_t(s) - uintptr_t(d);
  const size_t behind = uintptr_t(d) - uintptr_t(s);
  // The string move is exact for any forward overlap but slow when src is just ahead of dst.
  if (n >= tuning.repMovsbMin && n < tuning.repMovsbMax && ahead >= 64) {
    RepMovsb(d, s, n);
    return;
  }
  const V::T head = V::Load(s);
  const V::T t0 = V::Load(s + n - 4 * W), t1 = V::Load(s + n - 3 * W);
  const V::T t2 = V::Load(s + n - 2 * W), t3 = V::Load(s + n - W);
  // Blocks go to aligned addresses from the first one above dst; the last block may run into the
  // tail, which is stored again afterwards.
  size_t i = W - (uintptr_t(d) & (W - 1));
  const size_t stop = n - 4 * W;
  if (n >= tuning.streamMin && ahead >= n && behind >= n) {
    // Far larger than the caches and no overlap: bypass them rather than evict everything.
    for (; i < stop; i += 4 * W) {
      const V::T a = V::Load(s + i), b = V::Load(s + i + W);
      const V::T c = V::Load(s + i + 2 * W), e = V::Load(s + i + 3 * W);
      V::Stream(d + i, a);
      V::Stream(d + i + W, b);
      V::Stream(d + i + 2 * W, c);
      V::Stream(d + i + 3 * W, e);
    }
    _mm_sfence();
  } else {
    for (; i < stop; i += 4 * W) {
      const V::T a = V::Load(s + i), b = V::Load(s + i + W);
      const V::T c = V::Load(s + i + 2 * W), e = V::Load(s + i + 3 * W);
      V::StoreAligned(d + i, a);
      V::StoreAligned(d + i + W, b);
      V::StoreAligned(d + i + 2 * W, c);
      V::StoreAligned(d + i + 3 * W, e);
    }
  }
  V::Store(d + stop, t0);
  V::Store(d + stop + W, t1);
  V::Store(d + stop + 2 * W, t2);
  V::Store(d + stop + 3 * W, t3);
  V::Store(d, head);
}

QX_KERNEL void Backward(unsigned char* d, const unsigned char* s, size_t n) {
  if (n <= 8 * W) {
    CopyUpTo8W(d, s, n);
    return;
  }
  const V::T h0 = V::Load(s), h1 = V::Load(s + W), h2 = V::Load(s + 2 * W), h3 = V::Load(s + 3 * W);
  const V::T last = V::Load(s + n - W);
  // Blocks end at aligned addresses, from the last one at or below the end of dst down; the
  // lowest block may run into the head, which is stored again afterwards.
  size_t i = n - ((uintptr_t(d) + n) & (W - 1));
  while (i > 4 * W) {
    i -= 4 * W;
    const V::T a = V::Load(s + i + 3 * W), b = V::Load(s + i + 2 * W);
    const V::T c = V::Load(s + i + W), e = V::Load(s + i);
    V::StoreAligned(d + i + 3 * W, a);
    V::StoreAligned(d + i + 2 * W, b);
    V::StoreAligned(d + i + W, c);
    V::StoreAligned(d + i, e);
  }
  V::Store(d + n - W, last);
  V::Store(d, h0);
  V::Store(d + W, h1);
  V::Store(d + 2 * W, h2);
  V::Store(d + 3 * W, h3);
}

QX_KERNEL void Fill(unsigned char* d, size_t n, uint32_t pattern) {
  if (n < W) {
    FillUnder(d, n, pattern);
    return;
  }
  const V::T first = V::Splat(pattern);
  const V::T last = V::Splat(QXPatternAt(pattern, n - W));
  if (n <= 2 * W) {
    V::Store(d, first);
    V::Store(d + n - W, last);
    return;
  }
  const QXBulkTuning& tuning = gQXBulkTuning;
  if (n >= tuning.repStosbMin && n < tuning.repStosbMax && pattern == QXPatternAt(pattern, 1)) {
    RepStosb(d, uint8_t(pattern), n);  // one repeated byte: the string store has no phase
    return;
  }
  V::Store(d, first);
  size_t i = W - (uintptr_t(d) & (W - 1));
  const V::T body = V::Splat(QXPatternAt(pattern, i));  // every aligned store has this phase
  for (; i + 4 * W <= n; i += 4 * W) {
    V::StoreAligned(d + i, body);
    V::StoreAligned(d + i + W, body);
    V::StoreAligned(d + i + 2 * W, body);
    V::StoreAligned(d + i + 3 * W, body);
  }
  for (; i + W <= n; i += W)
    V::StoreAligned(d + i, body);
  V::Store(d + n - W, last);
}
