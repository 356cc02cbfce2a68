// A clock that stands still until a test moves it.
#ifndef QXFAKECLOCK_H
#define QXFAKECLOCK_H

#include "Platform/QXPlatformClock.h"

class TQXFakeClock final : public TQXPlatformClock {
 public:
  explicit TQXFakeClock(uint32_t start = 0) : now_(start) {}

  uint32_t Milliseconds() override {
    ++reads_;
    return now_;
  }

  void Set(uint32_t ms) { now_ = ms; }
  void Advance(uint32_t ms) { now_ += ms; }  // wraps at 2^32 like the real count
  uint32_t Reads() const { return reads_; }

 private:
  uint32_t now_;
  uint32_t reads_ = 0;
};

#endif  // QXFAKECLOCK_H
