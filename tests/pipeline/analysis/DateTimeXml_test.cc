// The shipped datetime.xml: each common stamp form gives the right UTC time,
// and the pattern chosen when several could apply is the one that explains
// the line.
#include <gtest/gtest.h>

#include <ctime>

#include "pipeline/analysis/DateParser.h"

namespace {

const char* kXml = VELMOR_SOURCE_DIR "/etc/datetime.xml";

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

struct Case {
  const char* text;
  int64_t sec;   // -1: no time expected
  int32_t usec;
};

TEST(DateTimeXml, StampFormsGiveTheirUtcTime) {
  const Case cases[] = {
      {"2026-11-24T13:05:56.123Z GET /", utc(2026, 11, 24, 13, 5, 56), 123000},
      {"2026-11-24T13:05:56+01:00 x", utc(2026, 11, 24, 12, 5, 56), 0},
      {"2026-11-24 13:05:56 -0500 x", utc(2026, 11, 24, 18, 5, 56), 0},
      {"2026-11-24 13:05:56,123 INFO [main] c.e.App - started", utc(2026, 11, 24, 13, 5, 56), 123000},
      {"2026-11-24 13:05:56.123456789 trace", utc(2026, 11, 24, 13, 5, 56), 123456},
      {"127.0.0.1 - - [10/Oct/2026:13:55:36 -0700] \"GET / HTTP/1.0\" 200 2326", utc(2026, 10, 10, 20, 55, 36), 0},
      {"Nov 24 13:05:56 web-01 sshd[42]: Accepted", utc(2026, 11, 24, 13, 5, 56), 0},
      {"Nov  2 13:05:56 web-01 cron[1]: x", utc(2026, 11, 2, 13, 5, 56), 0},
      {"Nov 24 2025 13:05:56 host app: x", utc(2025, 11, 24, 13, 5, 56), 0},
      {"[Tue Nov 24 10:47:44 2026] [error] x", utc(2026, 11, 24, 10, 47, 44), 0},
      {"11/24/2026 1:05:56 PM Service started", utc(2026, 11, 24, 13, 5, 56), 0},
      {"11/24/2026 12:05:56 AM Service started", utc(2026, 11, 24, 0, 5, 56), 0},
      {"11/24/2026 12:05:56 PM Service started", utc(2026, 11, 24, 12, 5, 56), 0},
      {"{\"ts\":1700000000.123,\"msg\":\"x\"}", 1700000000, 123000},
      {"{\"time\":1700000000123,\"msg\":\"x\"}", 1700000000, 123000},
      {"ts=1700000000 level=info", 1700000000, 0},
      {"1700000000 started", 1700000000, 0},
      {"@4000000068a1b2c30000000a rest", 0x68a1b2c3, 0},
      {"level=info ts=2026-11-24T13:05:56.000Z msg=ok", utc(2026, 11, 24, 13, 5, 56), 0},
      {"081109 203615 148 INFO dfs.DataNode: x", utc(2008, 11, 9, 20, 36, 15), 0},
      {"17/06/09 20:10:40 INFO spark: x", utc(2017, 6, 9, 20, 10, 40), 0},
      {"2016/9/27 20:30:31.455 x", utc(2016, 9, 27, 20, 30, 31), 455000},
      {"- 1131566461 2005.11.09 dn228 Nov 9 12:01:01 dn228/dn228 crond: x", 1131566461, 0},
      // Two stamps: the fuller one at the head wins over a later clock.
      {"2016-09-28 04:30:31, Info CSI 00000001@2016/9/27:20:30:31.455 x", utc(2016, 9, 28, 4, 30, 31), 0},
      // Numbers that only look like parts of stamps.
      {"block blk_1234567890123 size 1700000000 bytes", -1, 0},
      {"version 10.2.3.4 build 20:61:99", -1, 0},
      {"no time here at all", -1, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    DateParser p(true);
    p.loadRegexes(kXml);
    p.setTZ("UTC");
    p.setMinMaxDays(-1, -1);
    Timeval out;
    ExtraTimevalParseInfo extra;
    const bool ok = p.parseDate(out, StrSegment(c.text), Timeval(utc(2026, 11, 24, 18, 0, 0), 0), extra);
    if (c.sec < 0) {
      EXPECT_FALSE(ok) << out.sec();
      continue;
    }
    ASSERT_TRUE(ok);
    EXPECT_EQ(out.sec(), c.sec);
    EXPECT_EQ(out.usec(), c.usec);
  }
}

TEST(DateTimeXml, DatedFileNamesGiveADate) {
  const char* names[] = {"/var/log/app-2026-11-20.log", "/var/log/app.20261120.log", "/logs/20 Nov 2026/app.log"};
  for (const char* name : names) {
    SCOPED_TRACE(name);
    DateParser p(true);
    p.loadRegexes(kXml);
    p.setTZ("UTC");
    p.setDateByString(StrSegment(name));
    Timeval out;
    ExtraTimevalParseInfo extra;
    ASSERT_TRUE(p.parseDate(out, StrSegment("10:00:00 started"), Timeval(utc(2026, 11, 24, 18, 0, 0), 0), extra));
    EXPECT_EQ(out.sec(), utc(2026, 11, 20, 10, 0, 0));
  }
}

}  // namespace
