// QXTime.h: instants and calendar records.
//
// TQXSystemTime is an instant in the system's 100-nanosecond count from 1 January 1601, kept as
// two 32-bit halves, high half first, so two instants compare as a 64-bit number taken in field
// order. The library's instants are in local time: the current time is taken as the local clock
// shows it, and no time-zone conversion follows.
//
// TQXUserTimeRecord is the same instant broken down into 16-bit calendar fields, with dayOfWeek
// 1 (Sunday) to 7. Normalize carries overflow of any field upwards, so date arithmetic may add to
// any field and normalise afterwards; it does not recompute dayOfWeek.
#ifndef QXTIME_H
#define QXTIME_H

#include "QXBase.h"

class TQXString;
class TQXUserTimeRecord;

class QX_EXPORT TQXSystemTime {
 public:
  // Reads the local clock.
  void GetCurrentLocalTime();
  // The time of day in the user's locale, with or without seconds; out is untouched when the
  // instant has no calendar form.
  void FormatTime(TQXString& out, bool withSeconds) const;
  // The short date in the user's locale; out is untouched when the instant has no calendar form.
  void FormatDate(TQXString& out) const;
  // Takes the instant of a record. A record that names no valid instant (month 13, second 60, a
  // year before 1601 or after 30827, ...) leaves this instant unchanged.
  void FromTimeRecord(const TQXUserTimeRecord& record);

  // The 64-bit count; a helper for the library's own users.
  uint64_t Count() const { return (uint64_t(high) << 32) | low; }
  void SetCount(uint64_t count) {
    high = uint32_t(count >> 32);
    low = uint32_t(count);
  }

  uint32_t high;
  uint32_t low;
};

class QX_EXPORT TQXUserTimeRecord {
 public:
  // Breaks an instant down. An instant of 2^63 or more has no calendar form and leaves the record
  // unchanged.
  void SysTimeToTimeRecord(const TQXSystemTime& time);
  // Carries seconds into minutes, minutes into hours, hours into days, then NormalizeDate.
  void Normalize();

  // Steps the month back while day < 1, adding the month's days, or steps it on while day is
  // beyond the month's length.
  static void NormalizeDate(int16_t& year, int16_t& month, int16_t& day);
  // 30 for April, June, September, November; February 28 or 29; 31 for any other value.
  static int16_t DaysInMonth(int16_t year, int16_t month);
  static bool IsLeapYear(int16_t year);
  // 1 (Sunday) to 7 (Saturday).
  static int16_t DayOfWeek(int16_t year, int16_t month, int16_t day);

  int16_t year;
  int16_t month;  // 1 to 12
  int16_t day;
  int16_t hour;
  int16_t minute;
  int16_t second;
  int16_t dayOfWeek;  // 1 (Sunday) to 7
};

#endif  // QXTIME_H
