// QXNumerics.h: the fast inverse square root and the library's random generator.
#ifndef QXNUMERICS_H
#define QXNUMERICS_H

#include "QXBase.h"

// 1 / sqrt(x) for x > 0, from a halved-exponent guess refined by one Halley and two Newton steps.
// The caller passes half = 0.5f and threeHalves = 1.5f; `unused` is ignored. Not defined for
// x <= 0 (it returns whatever the steps give, without faulting).
double sqrtinv_(double x, double unused, float half, float threeHalves);

// The linear congruential generator: state * 1103515245 + 12345, modulo 2^32.
uint32_t QXRandomNext(uint32_t state);  // the pure step
void QXRandomSeed(uint32_t seed);       // sets the shared state
uint32_t QXRandom();                    // advances the shared state and returns it

#endif  // QXNUMERICS_H
