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

}  // namespace
