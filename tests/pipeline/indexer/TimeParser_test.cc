// The time range of a query: tables of (zone, clock, keywords in order) ->
// (min, max), and of bad values -> the exact error text. Expected times are
// written in UTC; the zone decides what "local" means for the words.
#include "pipeline/indexer/TimeParser.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "util/Exceptions.h"

namespace {

// "YYYY-MM-DD HH:MM:SS" in UTC.
int64_t utc(const char* text) {
  struct tm tm = {};
  int n = std::sscanf(text, "%d-%d-%d %d:%d:%d", &tm.tm_year, &tm.tm_mon, &tm.tm_mday, &tm.tm_hour, &tm.tm_min,
                      &tm.tm_sec);
  EXPECT_EQ(n, 6) << text;
  tm.tm_year -= 1900;
  tm.tm_mon -= 1;
  return timegm(&tm);
}

std::string show(int64_t t) {
  if (t == TimeParser::kMinTime) return "MIN";
  if (t == TimeParser::kMaxTime) return "MAX";
  time_t tt = static_cast<time_t>(t);
  struct tm tm;
  char buf[64];
  if (!gmtime_r(&tt, &tm)) return std::to_string(t);
  std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm);
  return buf;
}

// A bound as the tables write it: "-" not set, "MIN"/"MAX" the clamped ends,
// else a UTC time.
void expectBound(const char* want, bool have, int64_t got, int64_t unset, const std::string& what) {
  if (std::string(want) == "-") {
    EXPECT_FALSE(have) << what;
    EXPECT_EQ(got, unset) << what;
    return;
  }
  EXPECT_TRUE(have) << what;
  int64_t t = std::string(want) == "MIN" ? TimeParser::kMinTime
              : std::string(want) == "MAX" ? TimeParser::kMaxTime
                                           : utc(want);
  EXPECT_EQ(show(got), show(t)) << what;
}

struct Case {
  const char* tz;
  const char* now;  // UTC
  std::vector<std::pair<const char*, const char*>> keywords;
  const char* min;
  const char* max;
  const char* format = "";
};

class TimeParserTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* tz = std::getenv("TZ");
    _hadTz = tz != nullptr;
    if (_hadTz) _oldTz = tz;
  }
  void TearDown() override {
    if (_hadTz)
      setenv("TZ", _oldTz.c_str(), 1);
    else
      unsetenv("TZ");
    tzset();
  }

  static void useZone(const char* tz) {
    setenv("TZ", tz, 1);
    tzset();
  }

  static void check(const std::vector<Case>& cases) {
    for (const Case& c : cases) {
      useZone(c.tz);
      std::string what = std::string("TZ=") + c.tz + " now=" + c.now + " format=" + c.format + ":";
      for (const auto& [k, v] : c.keywords) what += std::string(" ") + k + "::" + v;
      TimeParser p;
      try {
        for (const auto& [k, v] : c.keywords) p.parse(k, v, c.format, static_cast<time_t>(utc(c.now)));
      } catch (const TimeParseException& e) {
        ADD_FAILURE() << what << " threw " << e.what();
        continue;
      }
      expectBound(c.min, p.hasMinTime(), p.getMinTime(), TimeParser::kMinTime, what + " (min)");
      expectBound(c.max, p.hasMaxTime(), p.getMaxTime(), TimeParser::kMaxTime, what + " (max)");
    }
  }

 private:
  bool _hadTz = false;
  std::string _oldTz;
};

constexpr char kNow[] = "2024-03-15 14:30:45";  // a Friday

TEST_F(TimeParserTest, AbsolutePointsInEveryForm) {
  check({
      {"UTC", kNow, {{"starttime", "03/10/2024:08:00:00"}}, "2024-03-10 08:00:00", "-"},
      {"UTC", kNow, {{"endtime", "03/10/2024:08:00:00"}}, "-", "2024-03-10 08:00:00"},
      {"UTC", kNow, {{"StartTime", "3/9/2024"}}, "2024-03-09 00:00:00", "-"},
      {"UTC", kNow, {{"starttime", "2024-03-10 08:09:10.999Z"}}, "2024-03-10 08:09:10", "-"},
      {"UTC", kNow, {{"starttime", "2024-03-10T08:09:10+05:30"}}, "2024-03-10 02:39:10", "-"},
      {"UTC", kNow, {{"starttime", "2024-03-10t08:09-0400"}}, "2024-03-10 12:09:00", "-"},
      {"UTC", kNow, {{"starttime", " \"2024-03-10\" "}}, "2024-03-10 00:00:00", "-"},
      // Without a zone an ISO or slash date is local time, winter or summer.
      {"America/New_York", kNow, {{"starttime", "2024-03-10T08:09:10"}}, "2024-03-10 12:09:10", "-"},
      {"America/New_York", kNow, {{"starttime", "2024-01-10T08:00:00"}}, "2024-01-10 13:00:00", "-"},
      {"America/New_York", kNow, {{"starttime", "03/10/2024"}}, "2024-03-10 05:00:00", "-"},
      {"America/New_York", kNow, {{"endtime", "03/10/2024:08:00:00"}}, "-", "2024-03-10 12:00:00"},
      {"America/New_York", kNow, {{"starttime", "2024-03-10T08:09:10Z"}}, "2024-03-10 08:09:10", "-"},
      // Epoch seconds; the query's own format is tried before them.
      {"UTC", kNow, {{"starttime", "1700000000"}}, "2023-11-14 22:13:20", "-"},
      {"UTC", kNow, {{"starttime", "1700000000.9"}}, "2023-11-14 22:13:20", "-"},
      {"UTC", kNow, {{"starttime", "20240310"}}, "1970-08-23 06:18:30", "-"},
      {"UTC", kNow, {{"starttime", "20240310"}}, "2024-03-10 00:00:00", "-", "%Y%m%d"},
      {"UTC", kNow, {{"starttime", "202403100809"}}, "2024-03-10 08:09:00", "-", "%Y%m%d%H%M"},
      {"UTC", kNow, {{"starttime", "2024-03-10"}}, "2024-03-10 00:00:00", "-", "%Y%m%d"},
      {"UTC", kNow, {{"starttimeu", " 1700000000 "}, {"endtimeu", "-5.5"}}, "2023-11-14 22:13:20",
       "1969-12-31 23:59:54"},
      // A later keyword overrides an earlier one for the same bound.
      {"UTC", kNow, {{"starttime", "2024-03-10"}, {"starttime", "2024-03-11"}}, "2024-03-11 00:00:00", "-"},
  });
}

TEST_F(TimeParserTest, NamedAndRelativeWordsWithSnapping) {
  check({
      {"UTC", kNow, {{"starttime", "now"}}, kNow, "-"},
      {"UTC", kNow, {{"starttime", "today"}}, "2024-03-15 00:00:00", "-"},
      {"UTC", kNow, {{"starttime", "Yesterday"}, {"endtime", "tomorrow"}}, "2024-03-14 00:00:00",
       "2024-03-16 00:00:00"},
      {"UTC", kNow, {{"starttime", "EPOCH"}}, "1970-01-01 00:00:00", "-"},
      {"UTC", kNow, {{"starttime", "earliest"}, {"endtime", "latest"}}, "MIN", "MAX"},
      {"UTC", kNow, {{"starttime", "-24h"}, {"endtime", "+30m"}}, "2024-03-14 14:30:45", "2024-03-15 15:00:45"},
      {"UTC", kNow, {{"starttime", "-2Hours"}}, "2024-03-15 12:30:45", "-"},
      {"UTC", kNow, {{"starttime", "-h"}}, "2024-03-15 13:30:45", "-"},
      {"UTC", kNow, {{"starttime", "-1d@d"}}, "2024-03-14 00:00:00", "-"},
      {"UTC", kNow, {{"starttime", "@d"}}, "2024-03-15 00:00:00", "-"},
      {"UTC", kNow, {{"starttime", "-1d@d+8h"}}, "2024-03-14 08:00:00", "-"},
      {"UTC", kNow, {{"starttime", "today+8h"}, {"endtime", "now-15m"}}, "2024-03-15 08:00:00",
       "2024-03-15 14:15:45"},
      {"UTC", kNow, {{"starttime", "@s"}, {"endtime", "@m"}}, kNow, "2024-03-15 14:30:00"},
      {"UTC", kNow, {{"starttime", "@h"}}, "2024-03-15 14:00:00", "-"},
      // Weeks start on Sunday unless a weekday is named; the current day counts.
      {"UTC", kNow, {{"starttime", "@w"}}, "2024-03-10 00:00:00", "-"},
      {"UTC", kNow, {{"starttime", "@w1"}}, "2024-03-11 00:00:00", "-"},
      {"UTC", kNow, {{"starttime", "@w5"}}, "2024-03-15 00:00:00", "-"},
      {"UTC", kNow, {{"starttime", "@w6"}}, "2024-03-09 00:00:00", "-"},
      {"UTC", kNow, {{"starttime", "@mon"}}, "2024-03-01 00:00:00", "-"},
      {"UTC", kNow, {{"starttime", "@q"}, {"endtime", "-1q@q"}}, "2024-01-01 00:00:00", "2023-10-01 00:00:00"},
      {"UTC", kNow, {{"starttime", "@y"}}, "2024-01-01 00:00:00", "-"},
      // Half-hour zone: local hours and days are not UTC ones.
      {"Asia/Kolkata", kNow, {{"starttime", "@h"}}, "2024-03-15 14:30:00", "-"},
      {"Asia/Kolkata", kNow, {{"starttime", "@d"}}, "2024-03-14 18:30:00", "-"},
  });
}

TEST_F(TimeParserTest, DaylightSavingChanges) {
  // Spring forward on 2024-03-10; the clock reads 00:30 EDT on the 11th.
  const char* afterSpring = "2024-03-11 04:30:00";
  // Fall back on 2024-11-03; 23:30 EST on the 3rd, a 25-hour day.
  const char* afterFall = "2024-11-04 04:30:00";
  const char* ny = "America/New_York";
  check({
      {ny, afterSpring, {{"starttime", "@d"}}, "2024-03-11 04:00:00", "-"},
      {ny, afterSpring, {{"starttime", "-1d@d"}}, "2024-03-10 05:00:00", "-"},
      {ny, afterSpring, {{"starttime", "yesterday"}}, "2024-03-10 05:00:00", "-"},
      {ny, afterSpring, {{"starttime", "-1d"}}, "2024-03-10 05:30:00", "-"},
      {ny, afterSpring, {{"starttime", "-24h"}}, "2024-03-10 04:30:00", "-"},
      {ny, afterSpring, {{"daysago", "1"}}, "2024-03-10 04:30:00", afterSpring},
      {ny, afterFall, {{"starttime", "@d"}}, "2024-11-03 04:00:00", "-"},
      {ny, afterFall, {{"starttime", "-1d@d"}}, "2024-11-02 04:00:00", "-"},
      {ny, afterFall, {{"endtime", "tomorrow"}}, "-", "2024-11-04 05:00:00"},
      {ny, afterFall, {{"starttime", "-1w"}}, "2024-10-28 03:30:00", "-"},
      // 01:30 happens twice on the fall-back night; each rounds to its own 01:00.
      {ny, "2024-11-03 05:30:00", {{"starttime", "@h"}}, "2024-11-03 05:00:00", "-"},
      {ny, "2024-11-03 06:30:00", {{"starttime", "@h"}}, "2024-11-03 06:00:00", "-"},
      // A month back across the change keeps 08:00 local.
      {ny, "2024-04-10 12:00:00", {{"starttime", "-1mon"}}, "2024-03-10 12:00:00", "-"},
      {ny, "2024-04-10 12:00:00", {{"starttime", "-2mon"}}, "2024-02-10 13:00:00", "-"},
  });
}

TEST_F(TimeParserTest, MonthArithmeticAtMonthEnds) {
  check({
      {"UTC", "2024-03-31 12:00:00", {{"starttime", "-1mon"}}, "2024-02-29 12:00:00", "-"},
      {"UTC", "2023-03-31 12:00:00", {{"starttime", "-1mon"}}, "2023-02-28 12:00:00", "-"},
      {"UTC", "2024-03-31 12:00:00", {{"monthsago", "1"}}, "2024-02-29 12:00:00", "2024-03-31 12:00:00"},
      {"UTC", "2024-01-31 12:00:00", {{"starttime", "+1mon"}, {"endtime", "+2mon"}}, "2024-02-29 12:00:00",
       "2024-03-31 12:00:00"},
      {"UTC", "2024-05-31 12:00:00", {{"starttime", "-1q"}}, "2024-02-29 12:00:00", "-"},
      {"UTC", "2024-02-29 12:00:00", {{"starttime", "-1y"}, {"endtime", "+4y"}}, "2023-02-28 12:00:00",
       "2028-02-29 12:00:00"},
      {"UTC", "2024-01-15 12:00:00", {{"starttime", "-1mon"}, {"endtime", "-13mon"}}, "2023-12-15 12:00:00",
       "2022-12-15 12:00:00"},
      {"UTC", "2024-01-15 12:00:00", {{"startmonthsago", "25"}}, "2021-12-15 12:00:00", "-"},
  });
}

TEST_F(TimeParserTest, AgoKeywords) {
  check({
      {"UTC", kNow, {{"daysago", "2"}}, "2024-03-13 14:30:45", kNow},
      {"UTC", kNow, {{"hoursago", "1.5"}}, "2024-03-15 13:00:45", kNow},
      {"UTC", kNow, {{"minutesago", "0"}}, kNow, kNow},
      {"UTC", kNow, {{"monthsago", "1.0"}}, "2024-02-15 14:30:45", kNow},
      {"UTC", kNow, {{"startdaysago", "1"}}, "2024-03-14 14:30:45", "-"},
      {"UTC", kNow, {{"startminutesago", "30"}}, "2024-03-15 14:00:45", "-"},
      {"UTC", kNow, {{"starthoursago", "2"}}, "2024-03-15 12:30:45", "-"},
      {"UTC", kNow, {{"startmonthsago", "2"}}, "2024-01-15 14:30:45", "-"},
      {"UTC", kNow, {{"enddaysago", "1"}}, "-", "2024-03-14 14:30:45"},
      {"UTC", kNow, {{"endminutesago", " 5 "}}, "-", "2024-03-15 14:25:45"},
      {"UTC", kNow, {{"endhoursago", "24"}}, "-", "2024-03-14 14:30:45"},
      {"UTC", kNow, {{"endmonthsago", "12"}}, "-", "2023-03-15 14:30:45"},
      {"UTC", kNow, {{"starthoursago", "3"}, {"endhoursago", "1"}}, "2024-03-15 11:30:45", "2024-03-15 13:30:45"},
  });
}

TEST_F(TimeParserTest, SpanKeywordsInBothOrders) {
  const char* mar10 = "03/10/2024:00:00:00";
  check({
      {"UTC", kNow, {{"searchtimespanhours", "2"}}, "2024-03-15 12:30:45", "-"},
      {"UTC", kNow, {{"searchtimespanminutes", "90"}}, "2024-03-15 13:00:45", "-"},
      // Only the start set: the span runs forward from it.
      {"UTC", kNow, {{"starttime", mar10}, {"searchtimespanhours", "2"}}, "2024-03-10 00:00:00",
       "2024-03-10 02:00:00"},
      {"UTC", kNow, {{"startdaysago", "1"}, {"searchtimespanhours", "1"}}, "2024-03-14 14:30:45",
       "2024-03-14 15:30:45"},
      {"UTC", kNow, {{"starttime", mar10}, {"searchtimespanmonths", "1"}}, "2024-03-10 00:00:00",
       "2024-04-10 00:00:00"},
      // The span first ends at now; the later start replaces its minimum.
      {"UTC", kNow, {{"searchtimespanhours", "2"}, {"starttime", mar10}}, "2024-03-10 00:00:00", "-"},
      // An end set: the span runs back from it.
      {"UTC", kNow, {{"endtime", mar10}, {"searchtimespanhours", "2"}}, "2024-03-09 22:00:00",
       "2024-03-10 00:00:00"},
      {"UTC", kNow, {{"endtime", "03/31/2024:00:00:00"}, {"searchtimespanmonths", "1"}}, "2024-02-29 00:00:00",
       "2024-03-31 00:00:00"},
      // The other order leaves a start after the end: an empty range, no error.
      {"UTC", kNow, {{"searchtimespanhours", "2"}, {"endtime", mar10}}, "2024-03-15 12:30:45",
       "2024-03-10 00:00:00"},
      {"UTC", kNow, {{"starttime", "03/01/2024:00:00:00"}, {"endtime", mar10}, {"searchtimespandays", "1"}},
       "2024-03-09 00:00:00", "2024-03-10 00:00:00"},
  });
}

TEST_F(TimeParserTest, ResultsAreClampedToTheIndexRange) {
  check({
      {"UTC", kNow, {{"starttime", "1800-01-01"}, {"endtime", "2100-01-01T00:00:00Z"}}, "MIN", "MAX"},
      {"UTC", kNow, {{"endtime", "99999999999999999999999"}}, "-", "MAX"},
      {"UTC", kNow, {{"starttime", "-200y"}, {"endtime", "+1000000000000y"}}, "MIN", "MAX"},
      {"UTC", kNow, {{"daysago", "99999999999999999999"}}, "MIN", kNow},
      {"UTC", kNow, {{"startmonthsago", "999999999"}, {"endtimeu", "99999999999"}}, "MIN", "MAX"},
      {"UTC", kNow, {{"starttime", "2024-03-10"}, {"searchtimespandays", "100000"}}, "2024-03-10 00:00:00", "MAX"},
      {"America/New_York", kNow, {{"starttime", "epoch-100y"}}, "MIN", "-"},
  });
  // Sums of many huge steps neither overflow nor wrap round.
  std::string forward, back;
  for (int i = 0; i < 200; ++i) {
    forward += "+999999999999h";
    back += "-99999999d";
  }
  check({{"UTC", kNow, {{"endtime", forward.c_str()}, {"starttime", back.c_str()}}, "MIN", "MAX"}});

  TimeParser p;
  p.setMinTime(-(int64_t(1) << 50));
  p.setMaxTime(int64_t(1) << 50);
  EXPECT_TRUE(p.hasMinTime() && p.hasMaxTime());
  EXPECT_EQ(p.getMinTime(), TimeParser::kMinTime);
  EXPECT_EQ(p.getMaxTime(), TimeParser::kMaxTime);
}

struct BadCase {
  const char* keyword;
  const char* value;
  const char* format;
  std::string message;
};

TEST_F(TimeParserTest, BadValuesGiveExactTextsAndLeaveTheRangeAlone) {
  std::vector<BadCase> cases = {
      {"foo", "1", "", "Unknown time keyword 'foo'"},
      {"", "1", "", "Unknown time keyword ''"},
      {"endtime", "x", "%Y%m%d", "Invalid value \"x\" for endtime: not a time in the format %Y%m%d or a time word"},
      {"starttimeu", "abc", "", "Invalid value \"abc\" for starttimeu: not a number of seconds since the epoch"},
      {"endtimeu", "1e9", "", "Invalid value \"1e9\" for endtimeu: not a number of seconds since the epoch"},
      {"daysago", "-3", "", "Invalid value \"-3\" for daysago: must be a non-negative number"},
      {"hoursago", "", "", "Invalid value \"\" for hoursago: must be a non-negative number"},
      {"minutesago", "1.", "", "Invalid value \"1.\" for minutesago: must be a non-negative number"},
      {"searchtimespanhours", "two", "", "Invalid value \"two\" for searchtimespanhours: must be a non-negative number"},
      {"monthsago", "1.5", "", "Invalid value \"1.5\" for monthsago: must be a whole number of months"},
      {"EndMonthsAgo", "0.25", "", "Invalid value \"0.25\" for EndMonthsAgo: must be a whole number of months"},
  };
  // Not a point in time: impossible dates are refused, not rolled over.
  for (const char* v : {"abc", "", "\"\"", "02/30/2024:00:00:00", "13/01/2024", "2024-02-30", "2024-3-10",
                        "2024-03-10T25:00", "2024-03-10T08:00+2400", "2024-03-10X", "03/10/2024:08:00", "-5",
                        "-1x", "@w7", "@", "today-", "latest-1d", "now now", "1e9"})
    cases.push_back({"starttime", v, "",
                     std::string("Invalid value \"") + v +
                         "\" for starttime: not a time in the format %m/%d/%Y:%H:%M:%S or a time word"});

  useZone("UTC");
  for (const BadCase& c : cases) {
    TimeParser p;
    p.parse("starttime", "2024-03-10", "", utc(kNow));
    try {
      p.parse(c.keyword, c.value, c.format, utc(kNow));
      ADD_FAILURE() << c.keyword << "::" << c.value << " was accepted";
    } catch (const TimeParseException& e) {
      EXPECT_EQ(std::string(e.what()), c.message);
    }
    EXPECT_EQ(show(p.getMinTime()), "2024-03-10 00:00:00") << c.keyword << "::" << c.value;
    EXPECT_FALSE(p.hasMaxTime()) << c.keyword << "::" << c.value;
  }
}

}  // namespace
