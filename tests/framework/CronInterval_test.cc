// Schedules of five cron fields: the next due minute for a table of
// schedules (local time pinned by TZ, a day that loses an hour included),
// texts that do not parse, and the answer when nothing is ever due.
#include "framework/CronInterval.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

namespace {

// Pins TZ for one test and puts the old value back.
class PinnedZone {
 public:
  explicit PinnedZone(const char* tz) {
    const char* old = getenv("TZ");
    _had = old != nullptr;
    if (_had) _old = old;
    setenv("TZ", tz, 1);
    tzset();
  }
  ~PinnedZone() {
    if (_had) {
      setenv("TZ", _old.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }

 private:
  bool _had = false;
  std::string _old;
};

std::string local(long t) {
  time_t tt = t;
  struct tm tm;
  localtime_r(&tt, &tm);
  char buf[64];
  strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S %a", &tm);
  return buf;
}

// 2026-11-25 04:53:51 UTC, a Wednesday.
const long kNow = 1795582431;

TEST(CronInterval, NextDueMinuteInUtc) {
  PinnedZone utc("UTC");
  struct Case {
    const char* schedule;
    const char* next;
  };
  const Case cases[] = {
      {"* * * * *", "2026-11-25 04:54:00 Wed"},
      {"0 * * * *", "2026-11-25 05:00:00 Wed"},
      {"*/15 * * * *", "2026-11-25 05:00:00 Wed"},
      {"5,50 * * * *", "2026-11-25 05:05:00 Wed"},
      {"54 4 * * *", "2026-11-25 04:54:00 Wed"},
      {"53 4 * * *", "2026-11-26 04:53:00 Thu"},  // this minute has begun: tomorrow
      {"30 2 * * *", "2026-11-26 02:30:00 Thu"},
      {"0 9-17/4 * * *", "2026-11-25 09:00:00 Wed"},
      {"0 10/4 * * *", "2026-11-25 10:00:00 Wed"},
      {"0 0 1 * *", "2026-12-01 00:00:00 Tue"},
      {"0 12 * * 0", "2026-11-29 12:00:00 Sun"},
      {"0 12 * * 7", "2026-11-29 12:00:00 Sun"},  // 7 is Sunday too
      {"0 12 * * 1-5", "2026-11-25 12:00:00 Wed"},
      {"0 0 * 1 *", "2027-01-01 00:00:00 Fri"},
      {"0 0 13 * 5", "2027-08-13 00:00:00 Fri"},  // day of month AND day of week
      {"0 0 29 2 *", "2028-02-29 00:00:00 Tue"},  // the next leap day, 664k minutes on
      {"  1   2  3  4  * ", "2027-04-03 02:01:00 Sat"},  // blanks of any length
  };
  for (const Case& c : cases) {
    CronInterval ci(c.schedule);
    ASSERT_TRUE(ci.isValid()) << c.schedule << ": " << ci.error();
    EXPECT_EQ(local(ci.next(kNow)), c.next) << c.schedule;
    EXPECT_EQ(local(CronInterval::nextCronInterval(c.schedule, kNow)), c.next) << c.schedule;
  }
  // From a whole minute the next one is the one after.
  EXPECT_EQ(CronInterval("* * * * *").next(1795582440), 1795582500);
}

TEST(CronInterval, LocalTimeAcrossClockChanges) {
  PinnedZone berlin("Europe/Berlin");
  struct Case {
    const char* schedule;
    long now;
    const char* next;
  };
  const Case cases[] = {
      // 2027-03-28 has no 02:30 in Berlin: the next one is a day later.
      {"30 2 * * *", 1806145200 /* 2027-03-27 12:00 CET */, "2027-03-29 02:30:00 Mon"},
      {"30 3 * * *", 1806145200, "2027-03-28 03:30:00 Sun"},
      // 2027-10-31 has 02:30 twice: the first one is due.
      {"30 2 * * *", 1824890400 /* 2027-10-30 12:00 CEST */, "2027-10-31 02:30:00 Sun"},
  };
  for (const Case& c : cases) EXPECT_EQ(local(CronInterval(c.schedule).next(c.now)), c.next) << c.schedule;
  EXPECT_EQ(CronInterval("30 2 * * *").next(1824890400), 1824942600);  // the summer-time 02:30
}

TEST(CronInterval, TextsThatDoNotParseAreNeverDue) {
  PinnedZone utc("UTC");
  const char* bad[] = {"",          "* * * *",     "* * * * * *", "60 * * * *", "* 24 * * *", "* * 0 * *",
                       "* * 32 * *", "* * * 13 *", "* * * 0 *",   "* * * * 8",  "*/0 * * * *", "a * * * *",
                       "5-1 * * * *", "1,,2 * * * *", "-1 * * * *", "1- * * * *", "*/x * * * *", "@daily"};
  for (const char* text : bad) {
    CronInterval ci(text);
    EXPECT_FALSE(ci.isValid()) << text;
    EXPECT_FALSE(ci.error().empty()) << text;
    EXPECT_EQ(ci.next(kNow), kNow + CronInterval::kNothingFoundOffset) << text;
  }
}

TEST(CronInterval, ScheduleThatNeverFallsDueStopsAtTheCap) {
  PinnedZone utc("UTC");
  for (const char* never : {"0 0 31 2 *", "0 0 30 2 *", "0 0 31 4,6,9,11 *"}) {
    CronInterval ci(never);
    ASSERT_TRUE(ci.isValid()) << never;
    EXPECT_EQ(ci.next(kNow), kNow + CronInterval::kNothingFoundOffset) << never;
  }
}

TEST(CronInterval, MatchesReadsAllFiveFields) {
  CronInterval ci("15 8 1 6 1");  // 08:15 on June 1st when it is a Monday
  struct tm tm = {};
  tm.tm_min = 15, tm.tm_hour = 8, tm.tm_mday = 1, tm.tm_mon = 5, tm.tm_wday = 1;
  EXPECT_TRUE(ci.matches(tm));
  const std::vector<std::function<void(struct tm&)>> changes = {
      [](struct tm& t) { t.tm_min = 16; }, [](struct tm& t) { t.tm_hour = 9; },
      [](struct tm& t) { t.tm_mday = 2; }, [](struct tm& t) { t.tm_mon = 6; },
      [](struct tm& t) { t.tm_wday = 2; }};
  for (const auto& change : changes) {
    struct tm copy = tm;
    change(copy);
    EXPECT_FALSE(ci.matches(copy));
  }
}

}  // namespace
