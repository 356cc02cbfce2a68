// Instants and calendar records.
//
// The count is the system's: 100-nanosecond units from 1 January 1601 (proleptic Gregorian), with
// the same limits as the system's conversions: a calendar time converts when its year lies in
// 1601 to 30827 and every field is in range; a count converts back when it is below 2^63.
#include "QXTime.h"

#include "Platform/QXPlatform.h"
#include "Platform/QXPlatformTime.h"
#include "QXString.h"

namespace {

constexpr int64_t kTicksPerSecond = 10'000'000;
constexpr int64_t kTicksPerDay = kTicksPerSecond * 86'400;
constexpr int64_t kDaysFrom1601To1970 = 134'774;

// Days from 1 January 1970 to the given civil date, for any year (proleptic Gregorian).
int64_t DaysFromCivil(int64_t y, int64_t m, int64_t d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const int64_t yoe = y - era * 400;
  const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

// The civil date of a day counted from 1 January 1970.
void CivilFromDays(int64_t z, int64_t& y, int64_t& m, int64_t& d) {
  z += 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const int64_t doe = z - era * 146097;
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const int64_t mp = (5 * doy + 2) / 153;
  d = doy - (153 * mp + 2) / 5 + 1;
  m = mp + (mp < 10 ? 3 : -9);
  y = yoe + era * 400 + (m <= 2);
}

bool IsLeap(int64_t y) {
  return y % 4 == 0 && (y % 100 != 0 || y % 400 == 0);
}

int64_t MonthLength(int64_t y, int64_t m) {
  if (m == 4 || m == 6 || m == 9 || m == 11) return 30;
  if (m == 2) return IsLeap(y) ? 29 : 28;
  return 31;
}

// Calendar time to count; false when the time has no count.
bool QXCalendarToCount(const TQXCalendarTime& t, uint64_t& count) {
  if (t.year < 1601 || t.year > 30827 || t.month < 1 || t.month > 12 || t.day < 1 ||
      t.day > MonthLength(t.year, t.month) || t.hour < 0 || t.hour > 23 || t.minute < 0 ||
      t.minute > 59 || t.second < 0 || t.second > 59 || t.milliseconds < 0 || t.milliseconds > 999)
    return false;
  const int64_t days = DaysFromCivil(t.year, t.month, t.day) + kDaysFrom1601To1970;
  const int64_t seconds = int64_t(t.hour) * 3600 + t.minute * 60 + t.second;
  count =
      uint64_t(days * kTicksPerDay + seconds * kTicksPerSecond + int64_t(t.milliseconds) * 10'000);
  return true;
}

// Count to calendar time; false for counts of 2^63 and more.
bool QXCountToCalendar(uint64_t count, TQXCalendarTime& t) {
  if (count >> 63) return false;
  const int64_t c = int64_t(count);
  const int64_t days = c / kTicksPerDay;
  const int64_t rest = c % kTicksPerDay;
  int64_t y, m, d;
  CivilFromDays(days - kDaysFrom1601To1970, y, m, d);
  t.year = int32_t(y);
  t.month = int32_t(m);
  t.day = int32_t(d);
  t.hour = int32_t(rest / (3600 * kTicksPerSecond));
  t.minute = int32_t(rest / (60 * kTicksPerSecond) % 60);
  t.second = int32_t(rest / kTicksPerSecond % 60);
  t.milliseconds = int32_t(rest / 10'000 % 1000);
  t.dayOfWeek = int32_t((days + 1) % 7);  // 1 January 1601 was a Monday
  return true;
}

}  // namespace

void TQXSystemTime::GetCurrentLocalTime() {
  TQXCalendarTime now;
  QXPlatform::Get<TQXPlatformTime>().LocalNow(now);
  uint64_t count;
  if (QXCalendarToCount(now, count)) SetCount(count);
}

namespace {
// The time text is made in a buffer of 32 characters, as the host has always seen it; a text
// that does not fit, or a locale that gives none, leaves the string empty.
constexpr size_t kTimeTextSize = 32;
}  // namespace

void TQXSystemTime::FormatTime(TQXString& out, bool withSeconds) const {
  TQXCalendarTime t;
  if (!QXCountToCalendar(Count(), t)) return;
  char text[kTimeTextSize] = {};
  QXPlatform::Get<TQXPlatformTime>().FormatTime(t, withSeconds, text, sizeof text);
  out.FromCPtr(text);
}

void TQXSystemTime::FormatDate(TQXString& out) const {
  TQXCalendarTime t;
  if (!QXCountToCalendar(Count(), t)) return;
  char text[kTimeTextSize] = {};
  QXPlatform::Get<TQXPlatformTime>().FormatDate(t, text, sizeof text);
  out.FromCPtr(text);
}

void TQXSystemTime::FromTimeRecord(const TQXUserTimeRecord& r) {
  TQXCalendarTime t;
  t.year = r.year;
  t.month = r.month;
  t.day = r.day;
  t.hour = r.hour;
  t.minute = r.minute;
  t.second = r.second;
  t.milliseconds = 0;
  t.dayOfWeek = r.dayOfWeek - 1;  // not consulted by the conversion
  uint64_t count;
  if (QXCalendarToCount(t, count)) SetCount(count);
}

void TQXUserTimeRecord::SysTimeToTimeRecord(const TQXSystemTime& time) {
  TQXCalendarTime t;
  if (!QXCountToCalendar(time.Count(), t)) return;
  year = int16_t(t.year);
  month = int16_t(t.month);
  day = int16_t(t.day);
  hour = int16_t(t.hour);
  minute = int16_t(t.minute);
  second = int16_t(t.second);
  dayOfWeek = int16_t(t.dayOfWeek + 1);
}

namespace {
// Fields are 16-bit and wrap as 16-bit values do when a carry runs past their range.
inline void Step(int16_t& v, int d) {
  v = int16_t(v + d);
}

void Carry(int16_t& low, int16_t& high, int16_t base) {
  while (low < 0) {
    Step(low, base);
    Step(high, -1);
  }
  while (low >= base) {
    Step(low, -base);
    Step(high, 1);
  }
}
}  // namespace

void TQXUserTimeRecord::Normalize() {
  Carry(second, minute, 60);
  Carry(minute, hour, 60);
  Carry(hour, day, 24);
  NormalizeDate(year, month, day);
}

void TQXUserTimeRecord::NormalizeDate(int16_t& year, int16_t& month, int16_t& day) {
  if (day < 1) {
    while (day < 1) {
      if (month == 1) {
        month = 12;
        Step(year, -1);
      } else {
        Step(month, -1);
      }
      Step(day, DaysInMonth(year, month));
    }
    return;
  }
  while (day > DaysInMonth(year, month)) {
    Step(day, -DaysInMonth(year, month));
    Step(month, 1);
    if (month > 12) {
      month = 1;
      Step(year, 1);
    }
  }
}

int16_t TQXUserTimeRecord::DaysInMonth(int16_t year, int16_t month) {
  return int16_t(MonthLength(year, month));
}

bool TQXUserTimeRecord::IsLeapYear(int16_t year) {
  return IsLeap(year);
}

int16_t TQXUserTimeRecord::DayOfWeek(int16_t year, int16_t month, int16_t day) {
  int32_t m = month, y = year;
  if (m < 3) {
    m += 10;
    y -= 1;
  } else {
    m -= 2;
  }
  return int16_t((day + y + y / 4 - y / 100 + y / 400 + (31 * m) / 12) % 7 + 1);
}
