// Span words, bin alignment in a time zone and calendar stepping.
#include "search/SLUtil.h"

#include <gtest/gtest.h>

#include "util/StructTm.h"
#include "util/Timezone.h"

namespace {

const Timezone& india() {
  static const Timezone* z = Timezone::fixed("IST", 19800);
  return *z;
}
const Timezone& cet() {
  static const Timezone* z = Timezone::fromPosixTZ("CET-1CEST,M3.5.0,M10.5.0/3");
  return *z;
}

TEST(SLUtilTest, DecompTimeSpanStr) {
  struct Case {
    const char* text;
    bool ok;
    long seconds, count;
    tl_unit_t unit;
  } cases[] = {
      {"30s", true, 30, 30, TL_SECOND},        {"1sec", true, 1, 1, TL_SECOND},
      {"5m", true, 300, 5, TL_MINUTE},         {"5min", true, 300, 5, TL_MINUTE},
      {"10minutes", true, 600, 10, TL_MINUTE}, {"1h", true, 3600, 1, TL_HOUR},
      {"2HOURS", true, 7200, 2, TL_HOUR},      {"1d", true, 86400, 1, TL_DAY},
      {"1day", true, 86400, 1, TL_DAY},        {"1w", true, 604800, 1, TL_WEEK},
      {"1mon", true, 2592000, 1, TL_MONTH},    {"1month", true, 2592000, 1, TL_MONTH},
      {"3months", true, 7776000, 3, TL_MONTH}, {"1y", true, 31536000, 1, TL_YEAR},
      {"0s", true, 0, 0, TL_SECOND},           {"-5m", true, -300, -5, TL_MINUTE},
      {"", false, 0, 0, TL_SECOND},            {"s", false, 0, 0, TL_SECOND},
      {"10", false, 0, 0, TL_SECOND},          {"10x", false, 0, 0, TL_SECOND},
      {"1.5h", false, 0, 0, TL_SECOND},        {"h1", false, 0, 0, TL_SECOND},
      {"10 s", false, 0, 0, TL_SECOND},        {"5mo", false, 0, 0, TL_SECOND},
      {"99999999999999999999s", false, 0, 0, TL_SECOND},
      {"9223372036854775807y", false, 0, 0, TL_SECOND},
  };
  for (const Case& c : cases) {
    long seconds = -1, count = -1;
    tl_unit_t unit = TL_YEAR;
    ASSERT_EQ(SLUtil::decompTimeSpanStr(c.text, seconds, count, unit), c.ok) << c.text;
    if (!c.ok) {
      EXPECT_EQ(seconds, -1) << c.text;
      continue;
    }
    EXPECT_EQ(seconds, c.seconds) << c.text;
    EXPECT_EQ(count, c.count) << c.text;
    EXPECT_EQ(unit, c.unit) << c.text;
  }
}

TEST(SLUtilTest, BinStartAndNextFollowTheZoneAndCalendar) {
  const int64_t t = 1710510432;  // 2024-03-15 13:47:12 UTC, a Friday
  struct Case {
    const char* what;
    const Timezone* zone;
    int64_t t;
    long count;
    tl_unit_t unit;
    int64_t start, next;
  } cases[] = {
      {"1h utc", &Timezone::gmt(), t, 1, TL_HOUR, 1710507600, 1710511200},
      {"10min utc", &Timezone::gmt(), t, 10, TL_MINUTE, 1710510000, 1710510600},
      {"30s utc", &Timezone::gmt(), t, 30, TL_SECOND, 1710510420, 1710510450},
      {"1d utc", &Timezone::gmt(), t, 1, TL_DAY, 1710460800, 1710547200},
      {"1w utc starts monday", &Timezone::gmt(), t, 1, TL_WEEK, 1710115200, 1710720000},
      {"1mon utc", &Timezone::gmt(), t, 1, TL_MONTH, 1709251200, 1711929600},
      {"1y utc", &Timezone::gmt(), t, 1, TL_YEAR, 1704067200, 1735689600},
      {"feb 2024 has 29 days", &Timezone::gmt(), 1706745600 + 5, 1, TL_MONTH, 1706745600, 1709251200},
      {"feb 2023 has 28 days", &Timezone::gmt(), 1675209600 + 99, 1, TL_MONTH, 1675209600, 1677628800},
      {"1h at half-hour zone", &india(), t, 1, TL_HOUR, 1710509400, 1710513000},
      {"1d at local midnight", &india(), t, 1, TL_DAY, 1710441000, 1710527400},
      {"short dst day", &cet(), 1711843200 + 3600, 1, TL_DAY, 1711839600, 1711922400},
      {"long dst day", &cet(), 1729980000 + 7200, 1, TL_DAY, 1729980000, 1730070000},
      {"before 1970", &Timezone::gmt(), -1, 1, TL_DAY, -86400, 0},
  };
  for (const Case& c : cases) {
    int64_t start = 0, next = 0;
    ASSERT_TRUE(SLUtil::timeBinStart(c.t, c.count, c.unit, *c.zone, start)) << c.what;
    EXPECT_EQ(start, c.start) << c.what;
    ASSERT_TRUE(SLUtil::timeBinNext(start, c.count, c.unit, *c.zone, next)) << c.what;
    EXPECT_EQ(next, c.next) << c.what;
    // The start of a bin is its own bin's start.
    int64_t again = 0;
    ASSERT_TRUE(SLUtil::timeBinStart(start, c.count, c.unit, *c.zone, again)) << c.what;
    EXPECT_EQ(again, start) << c.what;
  }
}

TEST(SLUtilTest, TlAdvanceStepsByTheCalendar) {
  struct Case {
    const char* what;
    const Timezone* zone;
    int64_t from;
    tl_unit_t unit;
    int64_t to;
  } cases[] = {
      {"second", &Timezone::gmt(), 100, TL_SECOND, 101},
      {"hour is elapsed time", &cet(), 1711843200, TL_HOUR, 1711846800},
      {"jan 31 + 1 month clamps to feb 29", &Timezone::gmt(), 1706695200, TL_MONTH, 1709200800},
      {"day keeps local noon over dst", &cet(), 1711796400, TL_DAY, 1711879200},
      {"week", &Timezone::gmt(), 1710115200, TL_WEEK, 1710720000},
      {"year from feb 29", &Timezone::gmt(), 1709200800, TL_YEAR, 1740736800},
  };
  for (const Case& c : cases) {
    LocalStructTm tm(c.from, *c.zone);
    ASSERT_TRUE(tl_advance(&tm, c.unit, *c.zone)) << c.what;
    EXPECT_EQ(tm.epoch, c.to) << c.what;
  }
}

TEST(SLUtilTest, UnitRootsAndUserZone) {
  EXPECT_STREQ(SLUtil::unitRoot(TL_SECOND), "sec");
  EXPECT_STREQ(SLUtil::unitRoot(TL_MINUTE), "min");
  EXPECT_STREQ(SLUtil::unitRoot(TL_DAY), "day");
  EXPECT_STREQ(SLUtil::unitRoot(TL_MONTH), "mon");
  SLUtil::setUserTimezone(&india());
  EXPECT_EQ(&SLUtil::userTimezone(), &india());
  SLUtil::setUserTimezone(nullptr);
  EXPECT_EQ(&SLUtil::userTimezone(), &Timezone::getDefaultTimezone());
}

}  // namespace
