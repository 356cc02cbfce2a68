// The fast inverse square root and the random generator.
#include "QXNumerics.h"

#include <bit>

double sqrtinv_(double x, double, float half, float threeHalves) {
  // The steps below are Halley's and Newton's with their usual factor 3, which the routine forms
  // from the caller's constant as 1.5 + 1.5; with it, 4 gives 0.5 and 1 gives 1 exactly.
  const double h = double(half), t = double(threeHalves) + double(threeHalves);
  // Initial guess of sqrt(x): halve the exponent by shifting the high word right by one and
  // re-biasing it (0x1FF80000); the low word stays.
  const uint64_t bits = std::bit_cast<uint64_t>(x);
  const uint32_t high = (uint32_t(bits >> 32) >> 1) + 0x1FF80000u;
  const double g = std::bit_cast<double>((uint64_t(high) << 32) | (bits & 0xFFFFFFFFu));
  // One Halley step for the square root, turned into an inverse.
  const double y = (t * g * g + x) / (g * (t * x + g * g));
  // Two Newton steps for the inverse root; the second is the result.
  const double z = h * y * (t - x * y * y);
  return (t - z * (x * z)) * (h * z);
}

namespace {
uint32_t gQXRandomState = 0;
}

uint32_t QXRandomNext(uint32_t state) {
  return state * 1103515245u + 12345u;
}
void QXRandomSeed(uint32_t seed) {
  gQXRandomState = seed;
}
uint32_t QXRandom() {
  return gQXRandomState = QXRandomNext(gQXRandomState);
}
