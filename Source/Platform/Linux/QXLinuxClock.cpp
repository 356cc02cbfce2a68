// The millisecond clock on Linux: CLOCK_MONOTONIC, which counts from boot like the tick count of
// the original platform and is not moved by changes of the wall-clock time.
#include <time.h>

#include "Platform/QXPlatform.h"
#include "Platform/QXPlatformClock.h"

namespace {

class TQXLinuxClock final : public TQXPlatformClock {
 public:
  uint32_t Milliseconds() override {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    // Cut to 32 bits: the count wraps at 2^32 milliseconds as its users expect.
    return uint32_t(uint64_t(ts.tv_sec) * 1000u + uint64_t(ts.tv_nsec) / 1000000u);
  }
};

}  // namespace

TQXPlatformClock& TQXPlatformClock::System() {
  static QXPlatform::NoDestructor<TQXLinuxClock> clock;
  return clock.get();
}
