// Byte swaps, the inverse square root and the random generator.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>

#include "QXByteSwap.h"
#include "QXNumerics.h"

namespace {

TEST(ByteSwap, ReversesInPlaceAndReturns) {
  int32_t v = 0x11223344;
  EXPECT_EQ(TQXByteSwap::SwapInt32(v), 0x44332211);
  EXPECT_EQ(v, 0x44332211);
  int16_t s = 0x1234;
  EXPECT_EQ(TQXByteSwap::SwapInt16(s), 0x3412);
  int16_t n = int16_t(0x00F0);
  EXPECT_EQ(TQXByteSwap::SwapInt16(n), int16_t(0xF000));  // sign-extended
  EXPECT_LT(n, 0);
  uint32_t u = 0xA1B2C3D4u;
  EXPECT_EQ(TQXByteSwap::SwapUInt32(u), 0xD4C3B2A1u);
  int64_t w = 0x0102030405060708;
  EXPECT_EQ(TQXByteSwap::SwapInt64(w), 0x0807060504030201);
}

TEST(ByteSwap, FloatsTravelAsBytes) {
  std::mt19937 rng(7);
  for (int i = 0; i < 1000; ++i) {
    uint64_t bits = (uint64_t(rng()) << 32) | rng();
    double d;
    std::memcpy(&d, &bits, 8);
    double swapped = d;
    TQXByteSwap::SwapDouble(swapped);
    uint64_t got;
    std::memcpy(&got, &swapped, 8);
    ASSERT_EQ(got, __builtin_bswap64(bits));
    TQXByteSwap::SwapDouble(swapped);
    std::memcpy(&got, &swapped, 8);
    ASSERT_EQ(got, bits);  // also for NaN payloads

    uint32_t fbits = rng();
    float f;
    std::memcpy(&f, &fbits, 4);
    TQXByteSwap::SwapFloat(f);
    uint32_t fgot;
    std::memcpy(&fgot, &f, 4);
    ASSERT_EQ(fgot, __builtin_bswap32(fbits));
  }
}

TEST(Numerics, InverseSquareRoot) {
  EXPECT_NEAR(sqrtinv_(4.0, 0, 0.5f, 1.5f), 0.5, 1e-15);
  EXPECT_NEAR(sqrtinv_(1.0, 0, 0.5f, 1.5f), 1.0, 1e-15);
  for (double x : {1e-6, 0.3, 2.0, 10.0, 12345.678, 1e12}) {
    EXPECT_NEAR(sqrtinv_(x, 0, 0.5f, 1.5f) * std::sqrt(x), 1.0, 1e-9) << x;
  }
}

TEST(Numerics, RandomGenerator) {
  EXPECT_EQ(QXRandomNext(0), 12345u);
  EXPECT_EQ(QXRandomNext(1), 1103515245u + 12345u);
  QXRandomSeed(42);
  uint32_t expected = 42;
  for (int i = 0; i < 100; ++i) {
    expected = expected * 1103515245u + 12345u;
    ASSERT_EQ(QXRandom(), expected);
  }
}

}  // namespace
