// A clock that shows the time a test sets, and plain, locale-free time and date text
// ("18:55:44", "18:55", "2026-11-22"), or none at all when told to fail.
#ifndef QXFAKETIME_H
#define QXFAKETIME_H

#include "Platform/QXPlatformTime.h"

class TQXFakeTime final : public TQXPlatformTime {
 public:
  void LocalNow(TQXCalendarTime& out) override { out = now; }
  size_t FormatTime(const TQXCalendarTime& t, bool withSeconds, char* out,
                    size_t capacity) override;
  size_t FormatDate(const TQXCalendarTime& t, char* out, size_t capacity) override;

  TQXCalendarTime now;
  bool failFormatting = false;
};

#endif  // QXFAKETIME_H
