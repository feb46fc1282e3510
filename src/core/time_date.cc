// The library's time base and the calendar-date conversions.
//
// ZulKestTime counts nanoseconds of the monotonic clock; every deadline, wait
// limit and trace time is one.  ZulKestDate counts nanoseconds since the Unix
// epoch in UTC; stat records carry dates.

#include <cstring>
#include <ctime>

#include "core/platform.h"
#include "kest2.h"

namespace {

constexpr int64_t kNanosecondsPerSecond = 1000000000;

}  // namespace

extern "C" ZulKestTime zulKestTimeGetCurrent(void) { return kest2::MonotonicNanoseconds(); }

extern "C" int64_t zulKestTimeToNanoseconds(ZulKestTime time) { return time; }

extern "C" ZulKestTime zulKestTimeFromNanoseconds(int64_t nanoseconds) {
  return nanoseconds;
}

extern "C" ZulKestDate zulKestDateGetCurrent(void) {
  return static_cast<uint64_t>(kest2::NowMicroseconds()) * 1000u;
}

extern "C" struct tm* zulKestDateToComponents(ZulKestDate date, struct tm* tm) {
  if (tm == nullptr) return tm;
  kest2::UtcFromSeconds(static_cast<int64_t>(date / kNanosecondsPerSecond), tm);
  return tm;
}

extern "C" ZulKestDate zulKestDateFromComponents(const struct tm* tm) {
  if (tm == nullptr) return 0;
  // Only the nine integer fields take part; glibc's extra members stay zero.
  struct tm fields;
  std::memset(&fields, 0, sizeof(fields));
  fields.tm_sec = tm->tm_sec;
  fields.tm_min = tm->tm_min;
  fields.tm_hour = tm->tm_hour;
  fields.tm_mday = tm->tm_mday;
  fields.tm_mon = tm->tm_mon;
  fields.tm_year = tm->tm_year;
  fields.tm_wday = tm->tm_wday;
  fields.tm_yday = tm->tm_yday;
  fields.tm_isdst = tm->tm_isdst;
  // A direct UTC conversion: gives the same results as converting as local
  // time and correcting by the zone offset when the zone is UTC, and stays
  // right across daylight-saving changes when it is not.
  const int64_t seconds = kest2::SecondsFromUtc(&fields);
  if (seconds == -1) return 0;
  return static_cast<ZulKestDate>(seconds) * static_cast<ZulKestDate>(kNanosecondsPerSecond);
}
