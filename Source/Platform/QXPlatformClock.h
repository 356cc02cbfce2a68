// QXPlatformClock.h: the role of the system's millisecond clock.
//
// Contract: Milliseconds() is a monotonic count of milliseconds since an arbitrary start (the
// system's boot on Linux), cut to 32 bits, so it wraps after about 49.7 days. The library's tick
// (TQXPlatformUtilities::TickCount) is this value shifted right by 4.
#ifndef QXPLATFORMCLOCK_H
#define QXPLATFORMCLOCK_H

#include <cstdint>

class TQXPlatformClock {
 public:
  virtual ~TQXPlatformClock() = default;

  // Milliseconds since an arbitrary start; never goes backwards except by wrapping at 2^32.
  virtual uint32_t Milliseconds() = 0;

  // The Linux implementation: CLOCK_MONOTONIC.
  static TQXPlatformClock& System();
};

#endif  // QXPLATFORMCLOCK_H
