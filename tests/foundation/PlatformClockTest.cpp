// The clock role: one contract, run against the Linux clock and the fake.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "Platform/Fake/QXFakeClock.h"
#include "Platform/QXPlatform.h"
#include "Platform/QXPlatformClock.h"

namespace {

TEST(PlatformClockLinux, MonotonicMillisecondsFollowRealTime) {
  TQXPlatformClock& clock = QXPlatform::Get<TQXPlatformClock>();
  ASSERT_EQ(&clock, &TQXPlatformClock::System());
  uint32_t a = clock.Milliseconds();
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  uint32_t b = clock.Milliseconds();
  EXPECT_GE(uint32_t(b - a), 25u);
  EXPECT_LT(uint32_t(b - a), 10000u);  // loose: the machine may stall, never run backwards
}

TEST(PlatformClockFake, InstalledForAScopeOnly) {
  TQXFakeClock fake(0xFFFFFFF0u);
  {
    QXPlatform::ScopedRole<TQXPlatformClock> scope(fake);
    EXPECT_EQ(QXPlatform::Get<TQXPlatformClock>().Milliseconds(), 0xFFFFFFF0u);
    fake.Advance(0x20);
    EXPECT_EQ(QXPlatform::Get<TQXPlatformClock>().Milliseconds(), 0x10u);  // wraps
    TQXFakeClock inner(5);
    {
      QXPlatform::ScopedRole<TQXPlatformClock> nested(inner);
      EXPECT_EQ(QXPlatform::Get<TQXPlatformClock>().Milliseconds(), 5u);
    }
    EXPECT_EQ(&QXPlatform::Get<TQXPlatformClock>(), &fake);
  }
  EXPECT_EQ(&QXPlatform::Get<TQXPlatformClock>(), &TQXPlatformClock::System());
}

}  // namespace
