// From text to instant: Timeval::parse with a fixed clock, covering the zone
// sources, the year and date guesses, precision and the wall-clock checks.
#include <gtest/gtest.h>

#include <cstring>

#include "util/ExtraTimevalParseInfo.h"
#include "util/TimeFormat.h"
#include "util/TimeGuesser.h"
#include "util/Timeval.h"
#include "util/Timezone.h"

namespace {

class FixedGuesser : public TimeGuesser {
 public:
  FixedGuesser(int64_t now, const Timezone& zone) : _now(now), _zone(zone) {}
  int64_t current() override { return _now; }
  const Timezone& baseTimezone() override { return _zone; }

 private:
  int64_t _now;
  const Timezone& _zone;
};

const int64_t kNow = 1795539600;   // 2026-11-24 17:00:00 UTC

struct SetCase {
  const char* format;
  const char* text;
  const char* baseZone;
  bool ok;
  int64_t sec;
  int32_t usec;
  int precision;
  bool zoneKnown;
  int64_t zoneOffset;
  const char* subsecond;
};

const SetCase kCases[] = {
    {"%F %T", "2026-11-24 17:05:09", "UTC", true, 1795539909, 0, 0, false, 0, ""},
    {"%F %T.%3N", "2026-11-24 17:05:09.047", "UTC", true, 1795539909, 47000, 3, false, 0, "047"},
    {"%F %T.%N", "2026-11-24 17:05:09.000000001", "UTC", true, 1795539909, 0, 9, false, 0, "000000001"},
    {"%F %T %z", "2026-11-24 12:05:09 -0500", "Asia/Tokyo", true, 1795539909, 0, 0, true, -18000, ""},
    {"%F %T %Z", "2026-11-24 12:05:09 EST", "UTC", true, 1795539909, 0, 0, true, -18000, ""},
    {"%F %T %Z", "2026-11-24 12:05:09 Europe/Paris", "UTC", true, 1795518309, 0, 0, true, 3600, ""},
    // A name nobody knows: the default zone, and the zone is not known.
    {"%F %T %Z", "2026-11-24 12:05:09 Mumble", "America/New_York", true, 1795539909, 0, 0, false, -18000, ""},
    {"%F %T", "2026-11-24 12:05:09", "America/New_York", true, 1795539909, 0, 0, false, -18000, ""},
    {"%F %T", "2026-07-01 06:00:00", "America/New_York", true, 1782900000, 0, 0, false, -14400, ""},
    {"%s", "1795539909", "America/New_York", true, 1795539909, 0, 0, false, 0, ""},
    {"%s.%6N", "-14182940.5", "UTC", true, -14182940, 500000, 1, false, 0, "5"},
    {"%F %T", "1969-07-20 20:17:40", "UTC", true, -14182940, 0, 0, false, 0, ""},
    {"%F %T", "9999-12-31 23:59:59", "UTC", true, 253402300799, 0, 0, false, 0, ""},
    {"%F %T", "1900-03-01 00:00:00", "UTC", true, -2203891200, 0, 0, false, 0, ""},
    {"%y-%m-%d %R", "69-07-20 20:17", "UTC", true, -14182980, 0, -1, false, 0, ""},
    {"%C%y%m%d", "19690720", "UTC", true, -14256000, 0, -2, false, 0, ""},
    {"%b %d %T", "Nov 24 17:05:09", "UTC", true, 1795539909, 0, 0, false, 0, ""},
    {"%b %d %T", "Dec 24 17:05:09", "UTC", true, 1766595909, 0, 0, false, 0, ""},    // a month ahead: 2025
    {"%T", "17:05:09", "UTC", true, 1795539909, 0, 0, false, 0, ""},
    {"%T", "23:00:00", "UTC", true, 1795474800, 0, 0, false, 0, ""},                   // yesterday
    {"%Y %j %T", "2024 366 00:00:00", "UTC", true, 1735603200, 0, 0, false, 0, ""},
    {"%Y %b", "2026 Nov", "UTC", true, 1793491200, 0, -2, false, 0, ""},
    {"%F", "2026-02-29", "UTC", false, 0, 0, 0, false, 0, ""},
    {"%F", "2026-04-31", "UTC", false, 0, 0, 0, false, 0, ""},
    {"%Y %j", "2026 366", "UTC", false, 0, 0, 0, false, 0, ""},
    {"%H", "17", "UTC", false, 0, 0, 0, false, 0, ""},   // no minutes: no date can be guessed
    {"%d %T", "24 17:05:09", "UTC", false, 0, 0, 0, false, 0, ""},
    // A 12-hour clock without am/pm on a stated date: morning unless that is over 11 hours old.
    // The afternoon only when that reading is not in the future either.
    {"%F %I:%M", "2026-11-24 04:30", "UTC", true, 1795537800, 0, -1, false, 0, ""},
    {"%F %I:%M", "2026-11-24 05:30", "UTC", true, 1795498200, 0, -1, false, 0, ""},
    {"%F %I:%M", "2026-11-24 08:00", "UTC", true, 1795507200, 0, -1, false, 0, ""},
    {"%F %I:%M %p", "2026-11-24 04:30 AM", "UTC", true, 1795494600, 0, -1, false, 0, ""},
    {"%F %I:%M %p", "2026-11-24 12:30 AM", "UTC", true, 1795480200, 0, -1, false, 0, ""},
};

TEST(TimevalSet, ParseTable) {
  for (const auto& c : kCases) {
    const Timezone* base = Timezone::find(c.baseZone);
    ASSERT_NE(base, nullptr);
    FixedGuesser g(kNow, *base);
    Timeval tv;
    ExtraTimevalParseInfo extra;
    bool ok = tv.parse(c.text, c.text + strlen(c.text), TimeFormat(c.format), g, &extra);
    ASSERT_EQ(ok, c.ok) << c.format << " on " << c.text;
    if (!ok) continue;
    EXPECT_EQ(tv.sec(), c.sec) << c.text;
    EXPECT_EQ(tv.usec(), c.usec) << c.text;
    EXPECT_EQ(extra.precision, c.precision) << c.text;
    EXPECT_EQ(extra.zoneKnown, c.zoneKnown) << c.text;
    EXPECT_EQ(extra.zoneOffset, c.zoneOffset) << c.text;
    EXPECT_STREQ(extra.subsecond, c.subsecond) << c.text;
  }
}

TEST(TimevalSet, ExtraHoldsTheEventsWallClock) {
  FixedGuesser g(kNow, Timezone::gmt());
  const char text[] = "2026-11-24 12:05:09 -0500";
  Timeval tv;
  ExtraTimevalParseInfo extra;
  ASSERT_TRUE(tv.parse(text, text + strlen(text), TimeFormat("%F %T %z"), g, &extra));
  EXPECT_EQ(extra.year, 2026);
  EXPECT_EQ(extra.month, 10);
  EXPECT_EQ(extra.mday, 24);
  EXPECT_EQ(extra.wday, 2);
  EXPECT_EQ(extra.hour, 12);
  EXPECT_EQ(extra.minute, 5);
  EXPECT_EQ(extra.second, 9);
  EXPECT_TRUE(tv.parse(text, text + strlen(text), TimeFormat("%F %T %z"), g, nullptr));
}

TEST(TimevalSet, RepeatedHourWhenDstEnds) {
  // 01:30 on 2026-11-01 in New York is 05:30 or 06:30 UTC.
  const Timezone* ny = Timezone::find("America/New_York");
  ASSERT_NE(ny, nullptr);
  const char text[] = "2026-11-01 01:30:00";
  const struct {
    int64_t now;
    int64_t sec;
  } cases[] = {
      {1793511000 + 1800, 1793511000},   // the later reading would be in the future
      {1793514600 + 60, 1793514600},     // both readings passed: the later one
  };
  for (const auto& c : cases) {
    FixedGuesser g(c.now, *ny);
    Timeval tv;
    ASSERT_TRUE(tv.parse(text, text + strlen(text), TimeFormat("%F %T"), g, nullptr));
    EXPECT_EQ(tv.sec(), c.sec) << c.now;
  }
}

}  // namespace
