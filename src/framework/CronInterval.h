// CronInterval: a schedule of five cron fields (minute, hour, day of month,
// month, day of week) and the next time it falls due.
//
// Each field is "*", a number, a range "a-b", a step "*/n" or "a-b/n" or
// "a/n" (from a to the field's top), or a comma-separated list of those.
// Ranges: minute 0-59, hour 0-23, day 1-31, month 1-12, day of week 0-7
// (7 is Sunday, as 0). A minute is due when all five tables hold it: the day
// of month and the day of week must both match (no "either" rule).
//
// next(now) starts at the next whole minute after `now` ((now + 60) / 60 *
// 60; 0 means the current time) and walks forward in local time until all
// five tables hold the minute. After 1000000 minutes without one it logs "No
// suitable time found in the next %u minutes" (logger "CronScheduler") and
// answers now + 60000000. A text that does not parse is invalid: error() says
// why, and next() answers as when nothing was found.
//
// nextCronInterval(text, now) keeps the parsed schedules by text.
//
// An object is immutable after construction: any thread may call next().
// nextCronInterval guards its map with a static mutex.
#pragma once

#include <bitset>
#include <ctime>

#include "util/Str.h"

class CronInterval {
 public:
  static constexpr unsigned kMaxSteps = 1000000;
  static constexpr long kNothingFoundOffset = 60000000;

  explicit CronInterval(const Str& text);

  bool isValid() const { return _error.empty(); }
  const Str& error() const { return _error; }
  const Str& text() const { return _text; }

  // The first due minute after `now` (0: the current time), as above.
  long next(long now = 0) const;
  // True when the local time `tm` (seconds ignored) is due.
  bool matches(const struct tm& tm) const;

  static long nextCronInterval(const Str& text, long now);

 private:
  bool parseField(const Str& field, int lo, int hi, std::bitset<64>& out);

  Str _text;
  Str _error;
  std::bitset<64> _minute, _hour, _dayOfMonth, _month, _dayOfWeek;
};
