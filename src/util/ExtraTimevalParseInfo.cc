#include "util/ExtraTimevalParseInfo.h"

#include "util/StructTm.h"

void ExtraTimevalParseInfo::fromGmtUnixtime(int64_t seconds) {
  StructTm tm;
  tm.setFromSeconds(seconds, static_cast<int32_t>(zoneOffset));
  year = tm.year;
  month = tm.month;
  mday = tm.mday;
  wday = tm.wday;
  hour = tm.hour;
  minute = tm.minute;
  second = tm.second;
}
