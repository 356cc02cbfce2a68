// QXPlatformTime.h: the role of the wall clock and of time and date text in the user's locale.
//
// Contract:
//  - LocalNow fills the current local time (no time-zone conversion left to do), with
//    milliseconds.
//  - FormatTime and FormatDate write the text of a calendar time as the user's locale shows it
//    (hours, minutes and, when asked, seconds; the short date), in the library's single-byte or
//    double-byte text, terminated, into a buffer of `capacity` bytes. They return the length
//    without the terminator, or 0 when the text does not fit or cannot be made.
#ifndef QXPLATFORMTIME_H
#define QXPLATFORMTIME_H

#include <cstddef>
#include <cstdint>

// A broken-down time as the calendar shows it: month 1 to 12, dayOfWeek 0 (Sunday) to 6.
struct TQXCalendarTime {
  int32_t year = 1601;
  int32_t month = 1;
  int32_t day = 1;
  int32_t hour = 0;
  int32_t minute = 0;
  int32_t second = 0;
  int32_t milliseconds = 0;
  int32_t dayOfWeek = 1;
};

class TQXPlatformTime {
 public:
  virtual ~TQXPlatformTime() = default;

  virtual void LocalNow(TQXCalendarTime& out) = 0;
  virtual size_t FormatTime(const TQXCalendarTime& t, bool withSeconds, char* out,
                            size_t capacity) = 0;
  virtual size_t FormatDate(const TQXCalendarTime& t, char* out, size_t capacity) = 0;

  // The Linux implementation: the real-time clock with the process's time zone, and the time
  // and date patterns of the locale that LC_ALL, LC_TIME or LANG name.
  static TQXPlatformTime& System();
};

#endif  // QXPLATFORMTIME_H
