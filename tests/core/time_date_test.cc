// Clocks and calendar-date conversions.

#include <gtest/gtest.h>
#include <time.h>

#include <cstdlib>
#include <cstring>

#include "kest2.h"

namespace {

TEST(TimeTest, MonotonicClockAdvancesInNanoseconds) {
  const ZulKestTime a = zulKestTimeGetCurrent();
  const ZulKestTime b = zulKestTimeGetCurrent();
  EXPECT_LE(a, b);
  EXPECT_EQ(zulKestTimeToNanoseconds(a), a);
  EXPECT_EQ(zulKestTimeFromNanoseconds(12345), 12345);
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  const int64_t direct = now.tv_sec * 1000000000LL + now.tv_nsec;
  EXPECT_LT(std::llabs(direct - zulKestTimeGetCurrent()), 1000000000LL);
}

TEST(DateTest, ComponentsOfTheEpochAndFarDates) {
  struct tm fields;
  std::memset(&fields, 0x55, sizeof(fields));
  ASSERT_EQ(zulKestDateToComponents(0, &fields), &fields);
  EXPECT_EQ(fields.tm_year, 70);
  EXPECT_EQ(fields.tm_mon, 0);
  EXPECT_EQ(fields.tm_mday, 1);
  EXPECT_EQ(fields.tm_hour, 0);
  EXPECT_EQ(zulKestDateToComponents(5, nullptr), nullptr);

  // 2400-02-29 12:34:56 UTC, a leap day far from the epoch.
  const uint64_t seconds = 13574608496ULL;
  zulKestDateToComponents(seconds * 1000000000ULL + 999, &fields);
  EXPECT_EQ(fields.tm_year, 500);
  EXPECT_EQ(fields.tm_mon, 1);
  EXPECT_EQ(fields.tm_mday, 29);
  EXPECT_EQ(fields.tm_hour, 12);
  EXPECT_EQ(fields.tm_min, 34);
  EXPECT_EQ(fields.tm_sec, 56);
  EXPECT_EQ(zulKestDateFromComponents(&fields), seconds * 1000000000ULL);
}

TEST(DateTest, FromComponentsIsUtcWhateverTheLocalZone) {
  const char* saved = std::getenv("TZ");
  std::string savedValue = saved != nullptr ? saved : "";
  setenv("TZ", "America/New_York", 1);
  tzset();
  struct tm fields {};
  fields.tm_year = 70;
  fields.tm_mday = 1;
  EXPECT_EQ(zulKestDateFromComponents(&fields), 0u);
  fields.tm_year = 124;  // 2024-07-01, in daylight-saving time locally
  fields.tm_mon = 6;
  EXPECT_EQ(zulKestDateFromComponents(&fields), 1719792000ULL * 1000000000ULL);
  if (saved != nullptr) {
    setenv("TZ", savedValue.c_str(), 1);
  } else {
    unsetenv("TZ");
  }
  tzset();
  EXPECT_EQ(zulKestDateFromComponents(nullptr), 0u);
}

TEST(DateTest, CurrentDateTracksTheSystemClock) {
  const ZulKestDate now = zulKestDateGetCurrent();
  const time_t system = time(nullptr);
  EXPECT_LE(std::llabs(static_cast<long long>(now / 1000000000ULL) - system), 2);
  EXPECT_EQ(now % 1000, 0u);  // microsecond resolution
}

}  // namespace
