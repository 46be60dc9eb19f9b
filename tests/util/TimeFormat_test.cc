// strptime-style parsing: which fields each text yields, where parsing stops,
// and the texts that must be refused.
#include "util/TimeFormat.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using P = TimeFormatRawParseResult;

struct ParseCase {
  const char* format;
  const char* text;
  bool ok;
  uint32_t have;   // exactly these bits when ok
  int year, month, mday, hour, minute, second;
  uint32_t fracsec;
  int fracDigits;
  const char* rest;   // text left after the parse
};

constexpr uint32_t kYmd = P::HAVE_YEAR | P::HAVE_MONTH | P::HAVE_MDAY;
constexpr uint32_t kHms = P::HAVE_HOUR24 | P::HAVE_MINUTE | P::HAVE_SECOND;

const ParseCase kCases[] = {
    {"%Y-%m-%d %H:%M:%S", "2026-11-24 17:05:09 rest", true, kYmd | kHms, 2026, 10, 24, 17, 5, 9, 0, 0, " rest"},
    {"%F %T.%3N", "2026-01-02 03:04:05.047", true, kYmd | kHms, 2026, 0, 2, 3, 4, 5, 47, 3, ""},
    {"%F %T,%l", "2026-01-02 03:04:05,999", true, kYmd | kHms, 2026, 0, 2, 3, 4, 5, 999, 3, ""},
    {"%F %T.%f", "2026-01-02 03:04:05.1234567891234", true, kYmd | kHms, 2026, 0, 2, 3, 4, 5, 123456789, 9, ""},
    {"%F %T.%6N", "2026-01-02 03:04:05.1234567", true, kYmd | kHms, 2026, 0, 2, 3, 4, 5, 123456, 6, "7"},
    {"%d/%b/%Y:%H:%M:%S", "24/Nov/2026:17:05:09", true, kYmd | kHms, 2026, 10, 24, 17, 5, 9, 0, 0, ""},
    {"%b %e %T", "Nov  4 07:05:09", true, P::HAVE_MONTH | P::HAVE_MDAY | kHms, 0, 10, 4, 7, 5, 9, 0, 0, ""},
    {"%B %d, %Y", "september 03, 1969", true, kYmd, 1969, 8, 3, 0, 0, 0, 0, 0, ""},
    {"%a %b %d", "Tuesday Sept 01", false, 0, 0, 0, 0, 0, 0, 0, 0, 0, ""},   // "Sept" is cut to "Sep"
    {"%a, %d %b %Y", "Tue, 24 NOV 2026", true, kYmd, 2026, 10, 24, 0, 0, 0, 0, 0, ""},
    {"%D %R", "11/24/26 17:05", true,
     P::HAVE_MONTH | P::HAVE_MDAY | P::HAVE_YEAR_IN_CENTURY | P::HAVE_HOUR24 | P::HAVE_MINUTE, 0, 10, 24, 17, 5, 0, 0,
     0, ""},
    {"%I:%M:%S %p", "12:30:00 AM", true, P::HAVE_HOUR12 | P::HAVE_AMPM | P::HAVE_MINUTE | P::HAVE_SECOND, 0, 0, 0, 0,
     30, 0, 0, 0, ""},
    {"%I:%M %p", "07:15 p.m.", true, P::HAVE_HOUR12 | P::HAVE_AMPM | P::HAVE_MINUTE, 0, 0, 0, 7, 15, 0, 0, 0, ""},
    {"%Y%j", "2024366", true, P::HAVE_YEAR | P::HAVE_YDAY, 2024, 0, 0, 0, 0, 0, 0, 0, ""},
    {"%Y%m%d%H%M%S", "20261124170509", true, kYmd | kHms, 2026, 10, 24, 17, 5, 9, 0, 0, ""},
    {"%H:%M  %%", "1:02%", true, P::HAVE_HOUR24 | P::HAVE_MINUTE, 0, 0, 0, 1, 2, 0, 0, 0, ""},
    {"%Y-%m-%d", "2026-13-01", false, 0, 0, 0, 0, 0, 0, 0, 0, 0, ""},
    {"%Y-%m-%d", "2026-12-32", false, 0, 0, 0, 0, 0, 0, 0, 0, 0, ""},
    {"%H:%M:%S", "24:00:00", false, 0, 0, 0, 0, 0, 0, 0, 0, 0, ""},
    {"%H:%M:%S", "12:60:00", false, 0, 0, 0, 0, 0, 0, 0, 0, 0, ""},
    {"%Y-%m-%d", "2026-11", false, 0, 0, 0, 0, 0, 0, 0, 0, 0, ""},
    {"%T.%N", "12:00:00.", false, 0, 0, 0, 0, 0, 0, 0, 0, 0, ""},
    {"%b", "Noc", false, 0, 0, 0, 0, 0, 0, 0, 0, 0, ""},
    {"%p", "XM", false, 0, 0, 0, 0, 0, 0, 0, 0, 0, ""},
    {"%Q", "anything", false, 0, 0, 0, 0, 0, 0, 0, 0, 0, ""},
    {"T%H", "t12", false, 0, 0, 0, 0, 0, 0, 0, 0, 0, ""},
};

TEST(TimeFormat, ParseFields) {
  for (const auto& c : kCases) {
    TimeFormat f(c.format);
    P out;
    const char* stop = nullptr;
    const char* end = c.text + strlen(c.text);
    bool ok = f.rawParse(c.text, end, out, &stop);
    ASSERT_EQ(ok, c.ok) << c.format << " on " << c.text;
    if (!ok) continue;
    EXPECT_EQ(out.have, c.have) << c.format << " on " << c.text;
    if (c.have & P::HAVE_YEAR) {
      EXPECT_EQ(out.year, c.year) << c.text;
    }
    if (c.have & P::HAVE_MONTH) {
      EXPECT_EQ(out.month, c.month) << c.text;
    }
    if (c.have & P::HAVE_MDAY) {
      EXPECT_EQ(out.mday, c.mday) << c.text;
    }
    EXPECT_EQ(out.hour, c.hour) << c.text;
    EXPECT_EQ(out.minute, c.minute) << c.text;
    EXPECT_EQ(out.second, c.second) << c.text;
    EXPECT_EQ(out.fracsec, c.fracsec) << c.text;
    EXPECT_EQ(out.fracDigits, c.fracDigits) << c.text;
    EXPECT_STREQ(stop, c.rest) << c.text;
  }
}

TEST(TimeFormat, ZonesAndEpoch) {
  const struct {
    const char* format;
    const char* text;
    bool ok;
    uint32_t have;
    int32_t offset;
    const char* name;
    int64_t epoch;
  } cases[] = {
      {"%T %z", "10:00:00 +0530", true, P::HAVE_TZOFFSET, 19800, "", 0},
      {"%T%z", "10:00:00-04:00", true, P::HAVE_TZOFFSET, -14400, "", 0},
      {"%T%z", "10:00:00Z", true, P::HAVE_TZOFFSET, 0, "", 0},
      {"%T %z", "10:00:00 -07", true, P::HAVE_TZOFFSET, -25200, "", 0},
      {"%T %z", "10:00:00 +2500", false, 0, 0, "", 0},
      {"%T %z", "10:00:00 EST", false, 0, 0, "", 0},
      {"%T %Z", "10:00:00 PDT", true, P::HAVE_TZNAM, 0, "PDT", 0},
      {"%T %Z", "10:00:00 America/Argentina/Buenos_Aires", true, P::HAVE_TZNAM, 0, "America/Argenti", 0},
      {"%T %Z", "10:00:00 +0100", false, 0, 0, "", 0},
      {"%s", "1795539600", true, P::HAVE_UTCEPOCH, 0, "", 1795539600},
      {"%s", "-14182940", true, P::HAVE_UTCEPOCH, 0, "", -14182940},
      {"%s.%3N", "1795539600.250", true, P::HAVE_UTCEPOCH, 0, "", 1795539600},
      {"%s", "x1", false, 0, 0, "", 0},
  };
  for (const auto& c : cases) {
    P out;
    bool ok = TimeFormat(c.format).rawParse(c.text, c.text + strlen(c.text), out);
    ASSERT_EQ(ok, c.ok) << c.format << " on " << c.text;
    if (!ok) continue;
    EXPECT_EQ(out.have & (P::HAVE_TZOFFSET | P::HAVE_TZNAM | P::HAVE_UTCEPOCH), c.have) << c.text;
    EXPECT_EQ(out.tzoffset, c.offset) << c.text;
    EXPECT_STREQ(out.tzname, c.name) << c.text;
    EXPECT_EQ(out.utcepoch, c.epoch) << c.text;
  }
}

TEST(TimeFormat, ParseStopsAtTheEndGiven) {
  // The text is not NUL-terminated where the caller says it ends.
  const char text[] = "2026-11-24 17:05:09.123456";
  P out;
  EXPECT_FALSE(TimeFormat("%F %T").rawParse(text, text + 15, out));
  const char* stop = nullptr;
  ASSERT_TRUE(TimeFormat("%F %T.%N").rawParse(text, text + 22, out, &stop));
  EXPECT_EQ(stop, text + 22);
  EXPECT_EQ(out.fracsec, 12u);
  EXPECT_EQ(out.fracDigits, 2);
}

TEST(TimeFormatRawParseResult, CalendarHelpers) {
  const struct {
    int year, yday, month, mday;
  } ydays[] = {{2026, 0, 0, 1}, {2026, 58, 1, 28}, {2026, 59, 2, 1}, {2024, 59, 1, 29}, {2024, 365, 11, 31}};
  for (const auto& c : ydays) {
    P p;
    p.year = c.year;
    p.yday = c.yday;
    p.computeMmddFromYday();
    EXPECT_EQ(p.month, c.month) << c.year << " " << c.yday;
    EXPECT_EQ(p.mday, c.mday) << c.year << " " << c.yday;
  }
  const struct {
    int year, month, mday;
    bool valid;
    int nextYear, nextMonth, nextMday;
  } days[] = {{2024, 1, 29, true, 2024, 2, 1},  {2026, 1, 29, false, 2026, 2, 1},
              {1900, 1, 29, false, 1900, 2, 1}, {2000, 1, 29, true, 2000, 2, 1},
              {2026, 11, 31, true, 2027, 0, 1}, {2026, 3, 31, false, 2026, 4, 1},
              {2026, 0, 0, false, 2026, 0, 1}};
  for (const auto& c : days) {
    P p;
    p.year = c.year;
    p.month = c.month;
    p.mday = c.mday;
    EXPECT_EQ(p.mdayValidForMonth(), c.valid) << c.year << "-" << c.month << "-" << c.mday;
    if (c.valid) {
      p.incrementDay();
      EXPECT_EQ(p.year, c.nextYear);
      EXPECT_EQ(p.month, c.nextMonth);
      EXPECT_EQ(p.mday, c.nextMday);
    }
  }
  // %U/%W weeks with a weekday: 2026-01-01 is a Thursday.
  const struct {
    int week, wday;
    bool monday;
    int yday;
  } weeks[] = {{0, 4, false, 0}, {1, 0, false, 3}, {1, 1, true, 4}, {0, 4, true, 0}, {47, 2, true, 327}};
  for (const auto& c : weeks) {
    P p;
    p.year = 2026;
    p.have = P::HAVE_YEAR;
    p.yweek = c.week;
    p.wday = c.wday;
    p.yweekFromMonday = c.monday;
    p.computeYdayFromYweek();
    EXPECT_EQ(p.yday, c.yday) << c.week << " " << c.wday;
  }
  P merged;
  merged.year = 1999;
  merged.have = P::HAVE_YEAR;
  P other;
  other.month = 3;
  other.hour = 4;
  other.have = P::HAVE_MONTH | P::HAVE_HOUR12;
  merged.mergeIn(other);
  EXPECT_EQ(merged.have, P::HAVE_YEAR | P::HAVE_MONTH | P::HAVE_HOUR12);
  EXPECT_EQ(merged.year, 1999);
  EXPECT_EQ(merged.month, 3);
}

}  // namespace
