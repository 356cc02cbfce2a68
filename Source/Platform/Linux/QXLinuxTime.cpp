// The wall clock and locale time text on Linux.
//
// The clock is CLOCK_REALTIME broken down by localtime_r in the process's time zone (TZ or
// /etc/localtime). The text uses ICU's pattern generator on the locale that LC_ALL, LC_TIME or
// LANG name, in that order, the way the user's locale is chosen for any C program; the library
// never calls setlocale. The skeletons give what the user's locale shows for the time with
// seconds ("jmmss": 6:55:44 PM in en_US, 18:55:44 in de), without seconds ("jmm"), and the short
// date ("yMd": 11/22/2026 in en_US, 22.11.2026 in de). ICU carries its own locale data, so the
// glibc locale need not be installed. The text is UTF-8, which is how the library passes text
// under the usual UTF-8 locales.
#include <time.h>
#include <unicode/udat.h>
#include <unicode/udatpg.h>
#include <unicode/ustring.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "Platform/QXPlatform.h"
#include "Platform/QXPlatformTime.h"

namespace {

// The ICU locale id of the user's time locale: "de_DE.UTF-8@euro" gives "de_DE"; C and POSIX
// give en_US.
std::string UserTimeLocale() {
  const char* name = nullptr;
  for (const char* var : {"LC_ALL", "LC_TIME", "LANG"}) {
    const char* v = std::getenv(var);
    if (v && *v) {
      name = v;
      break;
    }
  }
  std::string id = name ? name : "";
  id = id.substr(0, id.find_first_of(".@"));
  if (id.empty() || id == "C" || id == "POSIX") id = "en_US";
  return id;
}

// Formats `t` with the best pattern for `skeleton` in the user's locale.
size_t FormatWithSkeleton(const TQXCalendarTime& t, const char* skeleton, char* out,
                          size_t capacity) {
  if (capacity == 0) return 0;
  out[0] = 0;
  const std::string locale = UserTimeLocale();
  UErrorCode status = U_ZERO_ERROR;
  UDateTimePatternGenerator* generator = udatpg_open(locale.c_str(), &status);
  if (U_FAILURE(status)) return 0;
  UChar skeleton16[16];
  u_uastrcpy(skeleton16, skeleton);
  UChar pattern[64];
  int32_t patternLength = udatpg_getBestPattern(generator, skeleton16, -1, pattern, 64, &status);
  udatpg_close(generator);
  if (U_FAILURE(status) || patternLength >= 64) return 0;

  // The calendar time is shown as it stands: format it as UTC so no zone shifts it.
  UChar utc[] = {'U', 'T', 'C', 0};
  UDateFormat* format = udat_open(UDAT_PATTERN, UDAT_PATTERN, locale.c_str(), utc, -1, pattern,
                                  patternLength, &status);
  if (U_FAILURE(status)) return 0;
  UCalendar* calendar = ucal_open(utc, -1, locale.c_str(), UCAL_GREGORIAN, &status);
  if (U_FAILURE(status)) {
    udat_close(format);
    return 0;
  }
  ucal_setDateTime(calendar, t.year, t.month - 1, t.day, t.hour, t.minute, t.second, &status);
  ucal_set(calendar, UCAL_MILLISECOND, t.milliseconds);
  UDate when = ucal_getMillis(calendar, &status);
  ucal_close(calendar);
  UChar text[128];
  int32_t textLength = udat_format(format, when, text, 128, nullptr, &status);
  udat_close(format);
  if (U_FAILURE(status) || textLength >= 128) return 0;

  // Newer locale data puts a narrow or plain no-break space before AM/PM; the text the host
  // shows and parses has an ordinary space there.
  for (int32_t i = 0; i < textLength; ++i)
    if (text[i] == 0x202F || text[i] == 0x00A0) text[i] = ' ';

  int32_t written = 0;
  status = U_ZERO_ERROR;
  u_strToUTF8(out, int32_t(capacity - 1), &written, text, textLength, &status);
  if (U_FAILURE(status) || status == U_STRING_NOT_TERMINATED_WARNING ||
      size_t(written) >= capacity) {
    out[0] = 0;
    return 0;
  }
  out[written] = 0;
  return size_t(written);
}

class TQXLinuxTime final : public TQXPlatformTime {
 public:
  void LocalNow(TQXCalendarTime& out) override {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    tm local;
    localtime_r(&ts.tv_sec, &local);
    out.year = local.tm_year + 1900;
    out.month = local.tm_mon + 1;
    out.day = local.tm_mday;
    out.hour = local.tm_hour;
    out.minute = local.tm_min;
    out.second = local.tm_sec > 59 ? 59 : local.tm_sec;  // a leap second shows as :59
    out.milliseconds = int32_t(ts.tv_nsec / 1'000'000);
    out.dayOfWeek = local.tm_wday;
  }

  size_t FormatTime(const TQXCalendarTime& t, bool withSeconds, char* out,
                    size_t capacity) override {
    return FormatWithSkeleton(t, withSeconds ? "jmmss" : "jmm", out, capacity);
  }

  size_t FormatDate(const TQXCalendarTime& t, char* out, size_t capacity) override {
    return FormatWithSkeleton(t, "yMd", out, capacity);
  }
};

}  // namespace

TQXPlatformTime& TQXPlatformTime::System() {
  static QXPlatform::NoDestructor<TQXLinuxTime> time;
  return time.get();
}
