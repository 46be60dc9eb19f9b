// DateParserGuesser: the date window (caps, the wrap of negative day counts),
// the zone caches across a daylight-saving change, and the file-name date
// moving on at midnight.
#include <gtest/gtest.h>

#include <ctime>

#include "pipeline/analysis/DateParserGuesser.h"
#include "util/Timezone.h"

namespace {

int64_t utc(int y, int mon, int d, int h, int mi, int s) {
  struct tm t = {};
  t.tm_year = y - 1900;
  t.tm_mon = mon - 1;
  t.tm_mday = d;
  t.tm_hour = h;
  t.tm_min = mi;
  t.tm_sec = s;
  return static_cast<int64_t>(timegm(&t));
}

TEST(DateParserGuesser, DateWindow) {
  const int64_t now = utc(2026, 11, 24, 12, 0, 0);
  struct Case {
    int ago, hence;
    int64_t offset;  // from now
    bool inside;
  } cases[] = {
      {1825, 7, 0, true},
      {1825, 7, 7 * 86400, true},
      {1825, 7, 7 * 86400 + 1, false},
      {1825, 7, -1825LL * 86400, true},
      {1825, 7, -1825LL * 86400 - 1, false},
      {99999, 99999, -10950LL * 86400, true},       // ago capped at 10950 days
      {99999, 99999, -10950LL * 86400 - 1, false},
      {99999, 99999, 1825LL * 86400 + 1, false},    // hence capped at 1825 days
      {-1, -1, 4294880896LL, true},                 // -86400 s taken as unsigned 32 bits
      {-1, -1, 4294880897LL, false},
      {-1, -1, -4294880896LL, true},
      {0, 0, 1, false},
      {0, 0, -1, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.ago << "/" << c.hence << " " << c.offset);
    DateParserGuesser g;
    g.setMinMaxDays(c.ago, c.hence);
    g.setNow(now);
    EXPECT_EQ(g.withinDateWindow(now + c.offset), c.inside);
  }
}

TEST(DateParserGuesser, HourCacheFollowsDaylightSaving) {
  DateParserGuesser g;
  ASSERT_TRUE(g.setTZ("America/New_York"));
  TimezoneGuessResult zone;
  ASSERT_TRUE(g.guessTimezone(nullptr, zone));
  // Wall times (as if UTC) around 2026-03-08 02:00, when New York moves to EDT,
  // and again in the same hours; the cache must give the same answers.
  struct Case {
    int64_t wall, want;
  } cases[] = {
      {utc(2026, 3, 8, 1, 30, 0), utc(2026, 3, 8, 6, 30, 0)},
      {utc(2026, 3, 8, 1, 59, 0), utc(2026, 3, 8, 6, 59, 0)},
      {utc(2026, 3, 8, 3, 30, 0), utc(2026, 3, 8, 7, 30, 0)},
      {utc(2026, 3, 8, 3, 31, 0), utc(2026, 3, 8, 7, 31, 0)},
      {utc(2026, 3, 8, 1, 30, 0), utc(2026, 3, 8, 6, 30, 0)},
  };
  for (const Case& c : cases) {
    int64_t t = c.wall;
    ASSERT_TRUE(g.convertToGmt(zone, t));
    EXPECT_EQ(t, c.want);
  }
}

TEST(DateParserGuesser, ZoneNamesAndTheirCache) {
  DateParserGuesser g;
  TimezoneGuessResult r;
  ASSERT_TRUE(g.guessTimezone("JST", r));
  ASSERT_NE(r.zone, nullptr);
  const Timezone* jst = r.zone;
  TimezoneGuessResult again;
  ASSERT_TRUE(g.guessTimezone("JST", again));
  EXPECT_EQ(again.zone, jst);
  ASSERT_TRUE(g.guessTimezone("Europe/Berlin", r));  // long names work, uncached
  EXPECT_NE(r.zone, jst);
  // An unknown name is not understood; the source's zone stands in.
  ASSERT_TRUE(g.setTZ("Asia/Tokyo"));
  EXPECT_FALSE(g.guessTimezone("NOPE", r));
  ASSERT_NE(r.zone, nullptr);
  EXPECT_EQ(r.zone->offsetAt(0), 9 * 3600);
  EXPECT_FALSE(g.setTZ("Not/AZone"));
}

TEST(DateParserGuesser, FileDateMovesOnWhenTheHourGoesBack) {
  DateParserGuesser g;
  g.setDate(2026, 11, 31);  // 31 December (month 0-based)
  TimezoneGuessResult zone;
  const int hours[] = {22, 23, 1, 5, 4};
  const int days[] = {31, 31, 1, 1, 2};
  for (int i = 0; i < 5; ++i) {
    TimeFormatRawParseResult p;
    p.hour = hours[i];
    p.have = TimeFormatRawParseResult::HAVE_HOUR24 | TimeFormatRawParseResult::HAVE_MINUTE;
    ASSERT_TRUE(g.guessDate(p, zone));
    EXPECT_EQ(p.mday, days[i]) << "hour " << hours[i];
    EXPECT_EQ(p.year, i < 2 ? 2026 : 2027);
  }
}

}  // namespace
