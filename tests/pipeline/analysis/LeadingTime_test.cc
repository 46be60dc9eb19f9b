// Leading time stamps of log lines, as a table: line in, time (or none) out.
#include "pipeline/analysis/LeadingTime.h"

#include <gtest/gtest.h>

#include <ctime>

namespace {

// 2026-11-23T13:05:56Z, the reference (file time) of the table.
const int64_t kRef = 1795439156;

struct Row {
  const char* line;
  int64_t expected;  // -1: no stamp
};

TEST(LeadingTimeTest, KnownFormsAndNearMisses) {
  const Row rows[] = {
      // ISO-8601, with and without zone and fraction
      {"2026-11-23T13:05:56Z GET /", kRef},
      {"2026-11-23 13:05:56,747 - INFO", kRef},
      {"2026-11-23T13:05:56.123456 x", kRef},
      {"2026-11-23T14:05:56+01:00 x", kRef},
      {"2026-11-23T08:05:56-0500 x", kRef},
      {"2026-11-23T14:05:56+01 x", kRef},
      {"2016-09-28 04:30:30, Info  CBS", 1475037030},
      {"2024-02-29T00:00:00Z leap day", 1709164800},
      {"2026-13-01T00:00:00Z bad month", -1},
      {"2026-11-23T25:00:00Z bad hour", -1},
      {"2026-11-23Tnoon", -1},
      {"2026-11-23", -1},  // a date alone does not time a line
      {"081109 203615 148 INFO", -1},
      // syslog: the year of the reference, or the one before for a stamp
      // more than a day after it
      {"Nov 23 13:05:56 host sshd[1]: x", kRef},
      {"Nov  3 01:02:03 host x", 1793667723},
      {"nov 23 13:05:56 lower-case month", kRef},
      {"Dec 10 06:55:46 LabSZ sshd", 1765349746},  // 2025: after the reference
      {"Nov 24 13:05:56 within a day after", kRef + 86400},
      {"Nov 23 13:05 short clock", -1},
      {"Foo 23 13:05:56 not a month", -1},
      // common log, at the start or after "host ident user"
      {"[23/Nov/2026:13:05:56 +0000] x", kRef},
      {"10.0.0.1 - frank [23/Nov/2026:15:05:56 +0200] \"GET / HTTP/1.0\" 200", kRef},
      {"10.0.0.1 - [23/Nov/2026:13:05:56 +0000] two fields only", -1},
      {"[23/Nov/2026:13:05:56] no zone", kRef},
      {"[23/Nov/2026:13:05:56 +0000 unclosed", -1},
      // bracketed weekday form
      {"[Mon Nov 23 13:05:56 2026] [notice] x", kRef},
      {"[Sun Dec  4 04:47:44 2005] [error]", 1133671664},
      {"[Mon Nov 23 13:05:56.123 2026] fraction", kRef},
      {"[notice] no time", -1},
      // JSON with the time first
      {"{\"time\":\"2026-11-23T13:05:56.709Z\",\"level\":\"info\"}", kRef},
      {"{\"@timestamp\":\"2026-11-23T14:05:56+01:00\"}", kRef},
      {"{\"level\":\"info\",\"time\":\"2026-11-23T13:05:56Z\"}", -1},
      {"{\"time\":\"yesterday\"}", -1},
      // nothing
      {"", -1},
      {"plain text", -1},
      {"- 1131566461 2005.11.09 dn228", -1},
  };
  LeadingTime lt(kRef);
  for (const Row& r : rows) {
    int64_t t = -1;
    bool ok = lt.parse(StrSegment(r.line), t);
    if (r.expected < 0) {
      EXPECT_FALSE(ok) << r.line << " gave " << t;
    } else {
      EXPECT_TRUE(ok) << r.line;
      EXPECT_EQ(t, r.expected) << r.line;
    }
  }
}

TEST(LeadingTimeTest, SyslogYearFollowsTheReference) {
  // A file last written on 2027-01-02 holding late-December lines.
  LeadingTime lt(LeadingTime::fromCivil(2027, 1, 2, 0, 0, 0));
  int64_t t;
  ASSERT_TRUE(lt.parse(StrSegment("Dec 31 23:59:59 x"), t));
  EXPECT_EQ(t, LeadingTime::fromCivil(2026, 12, 31, 23, 59, 59));
  ASSERT_TRUE(lt.parse(StrSegment("Jan  2 10:00:00 x"), t));
  EXPECT_EQ(t, LeadingTime::fromCivil(2027, 1, 2, 10, 0, 0));
}

TEST(LeadingTimeTest, CivilMatchesTheCLibrary) {
  for (int64_t t : {int64_t(0), int64_t(951782400), int64_t(kRef), int64_t(4102444799), int64_t(-86400)}) {
    time_t tt = time_t(t);
    struct tm tm;
    gmtime_r(&tt, &tm);
    EXPECT_EQ(LeadingTime::fromCivil(tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec),
              t);
  }
}

TEST(LeadingTimeTest, Bounds) {
  const Row rows[] = {
      {"1795439156", kRef},
      {"0", 0},
      {"2026-11-23", kRef - 13 * 3600 - 5 * 60 - 56},
      {"2026-11-23T13:05:56Z", kRef},
      {"2026-11-23T14:05:56+01:00", kRef},
      {"2026-11-23T13:05:56Zjunk", -1},
      {"2026-11-23x", -1},
      {"yesterday", -1},
      {"", -1},
      {"12a", -1},
  };
  for (const Row& r : rows) {
    int64_t t = -1;
    bool ok = LeadingTime::parseBound(StrSegment(r.line), t);
    if (r.expected < 0) {
      EXPECT_FALSE(ok) << r.line;
    } else {
      EXPECT_TRUE(ok) << r.line;
      EXPECT_EQ(t, r.expected) << r.line;
    }
  }
}

}  // namespace
