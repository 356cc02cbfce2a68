#include "Platform/Fake/QXFakeTime.h"

#include <cstdio>

namespace {
size_t Put(int n, char* out, size_t capacity) {
  if (n < 0 || size_t(n) >= capacity) {
    if (capacity) out[0] = 0;
    return 0;
  }
  return size_t(n);
}
}  // namespace

size_t TQXFakeTime::FormatTime(const TQXCalendarTime& t, bool withSeconds, char* out,
                               size_t capacity) {
  if (failFormatting || capacity == 0) return 0;
  int n = withSeconds ? std::snprintf(out, capacity, "%02d:%02d:%02d", t.hour, t.minute, t.second)
                      : std::snprintf(out, capacity, "%02d:%02d", t.hour, t.minute);
  return Put(n, out, capacity);
}

size_t TQXFakeTime::FormatDate(const TQXCalendarTime& t, char* out, size_t capacity) {
  if (failFormatting || capacity == 0) return 0;
  return Put(std::snprintf(out, capacity, "%04d-%02d-%02d", t.year, t.month, t.day), out, capacity);
}
