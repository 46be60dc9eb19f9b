// TimeParser: the time range of an inner query, built from its time
// keywords ("starttime::", "endtime::", "daysago::", ...). Each keyword of a
// query is handed in on its own by the time module, in query order; the
// parser narrows [minTime, maxTime] as each one says. A later keyword
// overrides what an earlier one set for the same bound.
//
// Time words. Wherever a keyword takes a point in time (starttime, endtime),
// the value may be, besides a date in the query's time format:
//   relative:  "-24h", "+30m", "-7d", "-2w", "-1mon", "-1y" (units s sec secs
//              second seconds, m min mins minute minutes, h hr hrs hour hours,
//              d day days, w week weeks, mon mons month months, q quarter quarters,
//              y yr yrs year years), optionally followed by "@<unit>" which
//              rounds down to the start of that unit in local time
//              ("-1d@d" is yesterday midnight; "@w" rounds to Sunday, "@w1"
//              to Monday); "@d" alone rounds now down. Steps chain left to
//              right ("-1d@d+8h" is 8 o'clock yesterday) and may follow a
//              named word ("today+8h", "now-15m"). Seconds, minutes and hours
//              are fixed lengths; days and weeks keep the wall-clock time
//              across a daylight-saving change; months, quarters and years
//              are calendar months whose day is cut to the end of a shorter
//              month (Mar 31 - 1mon is Feb 28 or 29).
//   named:     "now", "today", "yesterday", "tomorrow", "epoch", "latest"
//              (the end of time), "earliest" (the start of time).
//   absolute:  "YYYY-MM-DD", "YYYY-MM-DDTHH:MM[:SS]" (optionally ".fff" and a
//              "Z", "+hh:mm" or "-hhmm" zone; without one it is local time),
//              "MM/DD/YYYY", "MM/DD/YYYY:HH:MM:SS".
//   epoch:     a plain unsigned decimal number of seconds ("-5" is not one).
// Words and units are read without regard to case; blanks and one pair of
// double quotes around the value are dropped. Local time is the process's TZ.
// The table of these lives beside the code (TimeParser.cc) and in README.
//
// Every bound is clamped to [kMinTime, kMaxTime]. A minimum above the
// maximum is not an error: the query then simply finds nothing.
//
// A plain value; one thread uses an object at a time (parseTime is safe from
// any thread). Errors throw TimeParseException with a text that names the
// keyword and the value.
#pragma once

#include <cstdint>
#include <ctime>

#include "util/Str.h"

class TimeParser {
 public:
  static constexpr int64_t kMinTime = INT32_MIN;  // the start of time for the index
  static constexpr int64_t kMaxTime = INT32_MAX;  // the end of time for the index

  TimeParser() = default;

  // Applies one keyword with its value. `format` is the strptime format of
  // absolute dates given to starttime and endtime ("%m/%d/%Y:%H:%M:%S"
  // unless the query has a "timeformat"; empty means that default); `now`
  // is the query's clock. Keywords (any case):
  //   starttime endtime      a point in time: the format, or a time word
  //   starttimeu endtimeu    epoch seconds (may be negative or fractional)
  //   daysago hoursago minutesago monthsago
  //                          the last N units: min = now - N, max = now
  //   start{days,hours,minutes,months}ago   min = now - N units
  //   end{days,hours,minutes,months}ago     max = now - N units
  //   searchtimespan{hours,minutes,days,months}
  //                          a span of N units: with only the start bound
  //                          set, max = min + N; else min = (max, or now) - N
  // N is a non-negative decimal number, whole for months. Days, hours and
  // minutes here are fixed lengths (a day is 86400 seconds); months are
  // calendar months in local time.
  // Throws TimeParseException on an unknown keyword or a bad value, leaving
  // the bounds as they were.
  void parse(const Str& keyword, const Str& value, const Str& format, time_t now);

  // Reads one point in time (format, time word or epoch seconds), clamped to
  // [kMinTime, kMaxTime]. False when the text is none of them.
  static bool parseTime(const Str& text, const Str& format, time_t now, int64_t& out);

  int64_t getMinTime() const { return _minTime; }
  int64_t getMaxTime() const { return _maxTime; }
  // Set a bound as a keyword would (clamped; marks the bound as set).
  void setMinTime(int64_t t);
  void setMaxTime(int64_t t);
  // Whether a keyword or a setter set a bound (a query without one searches
  // all time).
  bool hasMinTime() const { return _haveMin; }
  bool hasMaxTime() const { return _haveMax; }

  static int64_t clamp(int64_t t) { return t < kMinTime ? kMinTime : (t > kMaxTime ? kMaxTime : t); }

 private:
  int64_t _minTime = kMinTime;
  int64_t _maxTime = kMaxTime;
  bool _haveMin = false;
  bool _haveMax = false;
};
