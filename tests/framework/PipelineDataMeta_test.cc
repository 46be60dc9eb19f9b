#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "framework/PipelineData.h"
#include "util/ExtraTimevalParseInfo.h"
#include "util/Timeval.h"

namespace {

ExtraTimevalParseInfo info(int precision, bool zoneKnown, int64_t offset, const char* subsecond = "") {
  ExtraTimevalParseInfo x;
  x.precision = precision;
  x.zoneKnown = zoneKnown;
  x.zoneOffset = offset;
  x.year = 2026;
  x.month = 10;
  x.mday = 24;
  x.wday = 2;
  x.hour = 13;
  x.minute = 5;
  x.second = 56;
  size_t n = std::min(strlen(subsecond), sizeof x.subsecond - 1);
  memcpy(x.subsecond, subsecond, n);
  x.subsecond[n] = '\0';
  return x;
}

TEST(PipelineDataMeta, DateTermsFollowThePrecisionOfTheParse) {
  const char* date = "date_year::2026 date_month::november date_mday::24 date_wday::tuesday";
  struct Case {
    ExtraTimevalParseInfo extra;
    std::string meta;
  } cases[] = {
      {info(3, true, 3600, "047"),
       "_subsecond:.047 date_second::56 date_hour::13 date_minute::5 " + std::string(date) + " date_zone::60"},
      {info(9, true, -18000, "123456789"),
       "_subsecond:.123456789 date_second::56 date_hour::13 date_minute::5 " + std::string(date) +
           " date_zone::-300"},
      {info(0, false, 0), "date_second::56 date_hour::13 date_minute::5 " + std::string(date) + " date_zone::local"},
      {info(-1, true, 0), "date_hour::13 date_minute::5 " + std::string(date) + " date_zone::0"},
      {info(-2, false, 0), std::string(date) + " date_zone::local"},
      {info(-3, true, 0), "timestamp::none"},
  };
  Timeval t(1795525556, 0);
  for (const Case& c : cases) {
    PipelineData r;
    r.addMetaTimeInfo(&t, &c.extra);
    EXPECT_EQ(r.getStr(PipelineData::metaKey), c.meta) << c.extra.precision;
  }
}

// The text is appended to what the buffer holds, the same as the record
// gets after a blank; odd fields print as printf would.
TEST(PipelineDataMeta, AppendedTextMatchesTheRecordsDateTerms) {
  ExtraTimevalParseInfo odd = info(0, true, -59);  // less than a minute west: zone 0
  odd.year = -44;
  odd.month = 12;
  odd.wday = -1;
  odd.hour = 0;
  ExtraTimevalParseInfo noDigits = info(4, false, 0);  // subseconds claimed, none written
  ExtraTimevalParseInfo wide = info(-1, true, 14 * 3600);
  wide.mday = 31;
  struct Case {
    ExtraTimevalParseInfo extra;
    const char* text;
  } cases[] = {
      {odd,
       "date_second::56 date_hour::0 date_minute::5 date_year::-44 date_month::unknown date_mday::24 "
       "date_wday::unknown date_zone::0"},
      {noDigits,
       "date_second::56 date_hour::13 date_minute::5 date_year::2026 date_month::november date_mday::24 "
       "date_wday::tuesday date_zone::local"},
      {wide,
       "date_hour::13 date_minute::5 date_year::2026 date_month::november date_mday::31 date_wday::tuesday "
       "date_zone::840"},
  };
  for (const Case& c : cases) {
    Str out = "kept";
    PipelineData::appendMetaTimeInfo(&c.extra, out);
    EXPECT_EQ(out, std::string("kept") + c.text);
    PipelineData r;
    r.put(PipelineData::metaKey, "tag::x");
    r.addMetaTimeInfo(nullptr, &c.extra);
    EXPECT_EQ(r.getStr(PipelineData::metaKey), std::string("tag::x ") + c.text);
  }
  Str none;
  PipelineData::appendMetaTimeInfo(nullptr, none);
  EXPECT_EQ(none, "timestamp::none");
}

TEST(PipelineDataMeta, TimeTextIsUnsignedDecimal) {
  struct Case {
    unsigned long seconds;
    const char* text;
  } cases[] = {
      {0, "0"},
      {7, "7"},
      {1795525556, "1795525556"},
      {(unsigned long)-1, "18446744073709551615"},
      {(unsigned long)(long)-100, "18446744073709551516"},  // a time before 1970, as "%lu" writes it
  };
  for (const Case& c : cases) {
    Str out = "t=";
    PipelineData::appendTimeText(c.seconds, out);
    EXPECT_EQ(out, std::string("t=") + c.text);
    PipelineData r;
    r.setTimeKey(c.seconds);
    EXPECT_EQ(r.getStr(PipelineData::timeKey), c.text);
  }
}

}  // namespace
