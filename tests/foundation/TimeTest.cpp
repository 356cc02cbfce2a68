// Instants and calendar records: the calendar rules, round trips through the count, Normalize
// against plain arithmetic on the count, and the Linux clock and locale text.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <random>
#include <string>

#include "Platform/Fake/QXFakeTime.h"
#include "Platform/QXPlatform.h"
#include "Platform/QXPlatformTime.h"
#include "QXString.h"
#include "QXTime.h"

namespace {

using R = TQXUserTimeRecord;
constexpr uint64_t kSecond = 10'000'000;

TQXUserTimeRecord Record(int y, int mo, int d, int h = 0, int mi = 0, int s = 0) {
  TQXUserTimeRecord r;
  r.year = int16_t(y);
  r.month = int16_t(mo);
  r.day = int16_t(d);
  r.hour = int16_t(h);
  r.minute = int16_t(mi);
  r.second = int16_t(s);
  r.dayOfWeek = 0;
  return r;
}

uint64_t CountOf(const TQXUserTimeRecord& r) {
  TQXSystemTime t;
  t.SetCount(~uint64_t(0));
  t.FromTimeRecord(r);
  return t.Count();
}

TEST(Time, CalendarRules) {
  EXPECT_TRUE(R::IsLeapYear(2000));
  EXPECT_FALSE(R::IsLeapYear(1900));
  EXPECT_TRUE(R::IsLeapYear(2024));
  EXPECT_FALSE(R::IsLeapYear(2023));
  EXPECT_EQ(R::DaysInMonth(2024, 2), 29);
  EXPECT_EQ(R::DaysInMonth(2023, 2), 28);
  EXPECT_EQ(R::DaysInMonth(2023, 13), 31);
  EXPECT_EQ(R::DaysInMonth(2023, 9), 30);
  EXPECT_EQ(R::DayOfWeek(2000, 1, 1), 7);    // Saturday
  EXPECT_EQ(R::DayOfWeek(2026, 11, 22), 1);  // Sunday
}

TEST(Time, NormalizeCarriesUpwards) {
  TQXUserTimeRecord r = Record(2023, 12, 31, 23, 59, 60);
  r.dayOfWeek = 5;
  r.Normalize();
  EXPECT_EQ(CountOf(r), CountOf(Record(2024, 1, 1)));
  EXPECT_EQ(r.dayOfWeek, 5);  // not recomputed
  TQXUserTimeRecord leap = Record(2024, 3, 0);
  leap.Normalize();
  EXPECT_EQ(leap.month, 2);
  EXPECT_EQ(leap.day, 29);
  TQXUserTimeRecord back = Record(2024, 1, -365, -1, 0, -1);
  back.Normalize();
  EXPECT_EQ(CountOf(back), CountOf(Record(2022, 12, 30, 22, 59, 59)));
}

TEST(Time, KnownInstants) {
  EXPECT_EQ(CountOf(Record(1601, 1, 1)), 0u);
  EXPECT_EQ(CountOf(Record(1970, 1, 1)), 116444736000000000u);
  TQXSystemTime t;
  t.SetCount(116444736000000000u + 86400 * kSecond * 365 + 3723 * kSecond);  // +1971, 01:02:03
  TQXUserTimeRecord r = Record(0, 0, 0);
  r.SysTimeToTimeRecord(t);
  EXPECT_EQ(r.year, 1971);
  EXPECT_EQ(r.month, 1);
  EXPECT_EQ(r.day, 1);
  EXPECT_EQ(r.hour, 1);
  EXPECT_EQ(r.minute, 2);
  EXPECT_EQ(r.second, 3);
  EXPECT_EQ(r.dayOfWeek, 6);  // a Friday
  EXPECT_EQ(t.high, uint32_t(t.Count() >> 32));
}

TEST(Time, InvalidInputsLeaveTheTargetUnchanged) {
  for (auto bad :
       {Record(2023, 13, 1), Record(2023, 2, 29), Record(1600, 12, 31), Record(2023, 1, 1, 24),
        Record(2023, 1, 1, 0, 60), Record(2023, 1, 1, 0, 0, 60), Record(2023, 0, 1)}) {
    EXPECT_EQ(CountOf(bad), ~uint64_t(0));
  }
  TQXSystemTime huge;
  huge.SetCount(uint64_t(1) << 63);
  TQXUserTimeRecord r = Record(1, 2, 3, 4, 5, 6);
  r.SysTimeToTimeRecord(huge);
  EXPECT_EQ(r.year, 1);
  EXPECT_EQ(r.second, 6);
}

// Random instants: record and count round-trip to the second, the record's day of the week
// agrees with DayOfWeek, and Normalize of random out-of-range fields agrees with plain arithmetic
// on the count.
TEST(Time, RandomizedRoundTripsAndNormalize) {
  std::mt19937_64 rng(1601);
  // Years 1700 to 30000, so that the moves below stay within the convertible range.
  const uint64_t first = CountOf(Record(1700, 1, 1)), last = CountOf(Record(30000, 1, 1));
  for (int i = 0; i < 20000; ++i) {
    TQXSystemTime t;
    t.SetCount((first + rng() % (last - first)) / kSecond * kSecond);
    TQXUserTimeRecord r;
    r.SysTimeToTimeRecord(t);
    ASSERT_EQ(CountOf(r), t.Count());
    ASSERT_EQ(r.dayOfWeek, R::DayOfWeek(r.year, r.month, r.day));

    std::uniform_int_distribution<int> delta(-3000, 3000);
    int dd = delta(rng), dh = delta(rng), dm = delta(rng), ds = delta(rng);
    TQXUserTimeRecord moved =
        Record(r.year, r.month, r.day + dd, r.hour + dh, r.minute + dm, r.second + ds);
    moved.Normalize();
    int64_t shift = ((int64_t(dd) * 24 + dh) * 60 + dm) * 60 + ds;
    ASSERT_EQ(CountOf(moved), uint64_t(int64_t(t.Count()) + shift * int64_t(kSecond)))
        << r.year << "-" << r.month << "-" << r.day << " moved by " << dd << "d " << dh << "h "
        << dm << "m " << ds << "s";
  }
}

TEST(TimeFake, CurrentTimeComesFromTheRole) {
  TQXFakeTime fake;
  fake.now.year = 2026;
  fake.now.month = 11;
  fake.now.day = 22;
  fake.now.hour = 18;
  QXPlatform::ScopedRole<TQXPlatformTime> scope(fake);
  TQXSystemTime t;
  t.GetCurrentLocalTime();
  EXPECT_EQ(t.Count(), CountOf(Record(2026, 11, 22, 18)));
}

TEST(TimeFake, FormatsThroughTheRole) {
  TQXFakeTime fake;
  QXPlatform::ScopedRole<TQXPlatformTime> scope(fake);
  TQXSystemTime t;
  t.SetCount(CountOf(Record(2026, 11, 22, 18, 55, 44)));
  TQXString63 text("unchanged");
  t.FormatTime(text, true);
  EXPECT_STREQ(text.StrGet(), "18:55:44");
  t.FormatTime(text, false);
  EXPECT_STREQ(text.StrGet(), "18:55");
  t.FormatDate(text);
  EXPECT_STREQ(text.StrGet(), "2026-11-22");
  fake.failFormatting = true;
  t.FormatDate(text);
  EXPECT_STREQ(text.StrGet(), "");
  TQXSystemTime none;
  none.SetCount(uint64_t(1) << 63);  // no calendar form: the text stays
  text.FromCPtr("kept");
  none.FormatTime(text, true);
  EXPECT_STREQ(text.StrGet(), "kept");
}

// The Linux side: the real clock, and ICU's patterns for the locale in the environment.
class TimeLinux : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* v = getenv("LC_ALL");
    saved_ = v ? v : "";
    had_ = v != nullptr;
  }
  void TearDown() override {
    if (had_)
      setenv("LC_ALL", saved_.c_str(), 1);
    else
      unsetenv("LC_ALL");
  }
  std::string Time(const char* locale, bool seconds) {
    setenv("LC_ALL", locale, 1);
    char buffer[64];
    size_t n = TQXPlatformTime::System().FormatTime(sample_, seconds, buffer, sizeof buffer);
    return std::string(buffer, n);
  }
  std::string Date(const char* locale) {
    setenv("LC_ALL", locale, 1);
    char buffer[64];
    size_t n = TQXPlatformTime::System().FormatDate(sample_, buffer, sizeof buffer);
    return std::string(buffer, n);
  }
  TQXCalendarTime sample_{2026, 1, 5, 18, 7, 9, 0, 1};
  std::string saved_;
  bool had_ = false;
};

TEST_F(TimeLinux, LocaleTimeAndDateText) {
  EXPECT_EQ(Time("en_US.UTF-8", true), "6:07:09 PM");
  EXPECT_EQ(Time("en_US.UTF-8", false), "6:07 PM");
  EXPECT_EQ(Date("en_US.UTF-8"), "1/5/2026");
  EXPECT_EQ(Time("de_DE.UTF-8", true), "18:07:09");
  EXPECT_EQ(Date("de_DE.UTF-8"), "5.1.2026");
  EXPECT_EQ(Time("C", true), "6:07:09 PM");
  std::string ja = Date("ja_JP.UTF-8");
  EXPECT_EQ(ja, "2026/1/5");
  char tiny[4];
  setenv("LC_ALL", "en_US.UTF-8", 1);
  EXPECT_EQ(TQXPlatformTime::System().FormatDate(sample_, tiny, sizeof tiny), 0u);
  EXPECT_EQ(tiny[0], 0);
}

TEST_F(TimeLinux, LocalClockIsNow) {
  TQXCalendarTime a;
  TQXPlatformTime::System().LocalNow(a);
  EXPECT_GE(a.year, 2024);
  EXPECT_TRUE(a.month >= 1 && a.month <= 12 && a.hour < 24 && a.second < 60);
  TQXSystemTime t;
  t.GetCurrentLocalTime();
  TQXUserTimeRecord r;
  r.SysTimeToTimeRecord(t);
  EXPECT_EQ(r.year, a.year);
}

}  // namespace
