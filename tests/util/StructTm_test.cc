// Calendar arithmetic and strftime-style printing, checked against the C
// library's UTC breakdown and against known dates.
#include "util/StructTm.h"

#include <gtest/gtest.h>

#include <ctime>
#include <memory>

#include "util/Timezone.h"

namespace {

TEST(StructTm, BreakdownMatchesLibc) {
  // Every ~9.7 days from 1600 to 9999, including instants before 1970.
  for (int64_t t = -11676096000; t < 253402300799; t += 839999) {
    time_t tt = static_cast<time_t>(t);
    struct tm ref;
    ASSERT_NE(gmtime_r(&tt, &ref), nullptr);
    GmtStructTm tm(t);
    ASSERT_EQ(tm.year, ref.tm_year + 1900) << t;
    ASSERT_EQ(tm.month, ref.tm_mon) << t;
    ASSERT_EQ(tm.mday, ref.tm_mday) << t;
    ASSERT_EQ(tm.hour, ref.tm_hour) << t;
    ASSERT_EQ(tm.minute, ref.tm_min) << t;
    ASSERT_EQ(tm.second, ref.tm_sec) << t;
    ASSERT_EQ(tm.yday, ref.tm_yday) << t;
    ASSERT_EQ(tm.wday, ref.tm_wday) << t;
    ASSERT_EQ(tm.wallSeconds(), t);
    // Week numbers as the C library prints them.
    char buf[64];
    strftime(buf, sizeof buf, "%U %W %V %G %g %j %C %y", &ref);
    ASSERT_EQ(tm.ftime("%U %W %V %G %g %j %C %y"), buf) << t;
  }
}

TEST(StructTm, Ftime) {
  const struct {
    int64_t utc;
    int32_t usec;
    const char* zone;
    const char* format;
    const char* expected;
  } cases[] = {
      {1795539909, 47000, "UTC", "%Y-%m-%d %H:%M:%S.%l", "2026-11-24 17:05:09.047"},
      {1795539909, 123456, "UTC", "%3N|%6N|%9N|%N", "123|123456|123456000|123456000"},
      {1795539909, 0, "UTC", "%a %A %b %B %h %e %k %I %p %u %w", "Tue Tuesday Nov November Nov 24 17 05 PM 2 2"},
      {1795539909, 0, "UTC", "%s %%|%Q|%", "1795539909 %|%Q|%"},
      {1795539909, 0, "America/New_York", "%F %T %z %Z", "2026-11-24 12:05:09 -0500 EST"},
      {1782900000, 0, "America/New_York", "%T %z %Z", "06:00:00 -0400 EDT"},
      {1795539909, 0, "Asia/Kolkata", "%R %z", "22:35 +0530"},
      {-14182940, 0, "UTC", "%c", "Sun Jul 20 20:17:40 1969"},
      {0, 0, "UTC", "%D %x %X %T%n%t", "01/01/70 01/01/70 00:00:00 00:00:00\n\t"},
  };
  for (const auto& c : cases) {
    const Timezone* tz = Timezone::find(c.zone);
    ASSERT_NE(tz, nullptr) << c.zone;
    LocalStructTmHires tm(c.utc, c.usec, *tz);
    EXPECT_EQ(tm.ftime(c.format), c.expected) << c.format;
  }
}

TEST(StructTm, AddCalendarMonths) {
  const struct {
    int year, month, mday, add;
    int toYear, toMonth, toMday;
  } cases[] = {
      {2026, 0, 31, 1, 2026, 1, 28},   {2024, 0, 31, 1, 2024, 1, 29}, {2026, 11, 15, 1, 2027, 0, 15},
      {2026, 0, 15, -1, 2025, 11, 15}, {2026, 2, 31, -13, 2025, 1, 28}, {2026, 5, 30, 24, 2028, 5, 30},
      {1970, 0, 1, -1, 1969, 11, 1},
  };
  for (const auto& c : cases) {
    StructTm tm;
    tm.year = c.year;
    tm.month = c.month;
    tm.mday = c.mday;
    tm.addCalendarMonths(c.add);
    EXPECT_EQ(tm.year, c.toYear) << c.year << "-" << c.month << " + " << c.add;
    EXPECT_EQ(tm.month, c.toMonth) << c.year << "-" << c.month << " + " << c.add;
    EXPECT_EQ(tm.mday, c.toMday) << c.year << "-" << c.month << " + " << c.add;
    StructTm ref;
    ref.setFromSeconds(StructTm::daysFromCivil(tm.year, tm.month, tm.mday) * 86400, 0);
    EXPECT_EQ(tm.yday, ref.yday);
    EXPECT_EQ(tm.wday, ref.wday);
  }
}

TEST(StructTm, LeapYears) {
  const struct {
    int year;
    bool leap;
  } cases[] = {{1900, false}, {2000, true}, {2024, true}, {2026, false}, {2100, false}, {1600, true}};
  for (const auto& c : cases) EXPECT_EQ(StructTm::isLeapYear(c.year), c.leap) << c.year;
}

}  // namespace
