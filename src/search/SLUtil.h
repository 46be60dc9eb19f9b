// SLUtil: time-span words and calendar stepping shared by the binning and
// timeline commands.
//
// Span words. A time span is a count followed by a unit word (util/TimeUnit.h;
// quarters are not a bin unit), case ignored:
//   seconds  s sec secs second seconds        ("30s")
//   minutes  m min mins minute minutes        ("5m", "5min")
//   hours    h hr hrs hour hours              ("1h")
//   days     d day days                       ("1d", "1day")
//   weeks    w week weeks                     ("1w")
//   months   mon mons month months            ("1mon", "1month")
//   years    y yr yrs year years              ("1y")
// A bare number has no unit and is not a time span here (the callers decide
// what it means). The nominal length of a month is 30 days and of a year 365
// days; it serves only for estimates (bin counts, ladder choice). Real bin
// bounds follow the calendar.
//
// Alignment, in the user's time zone (userTimezone()):
//   seconds, minutes, hours: multiples of the span on the local wall clock,
//     using the offset in force at the instant (so a 1h bin starts at the
//     local full hour, also in zones offset by half hours);
//   days: local midnight; N days count from 1970-01-01;
//   weeks: local midnight of a Monday; N weeks count from 1970-01-05;
//   months: local midnight of the first of a month; N months count from
//     January of year 0;
//   years: local midnight of January 1st; N years count from year 0.
//
// All functions are pure except setUserTimezone(), which is meant for
// start-up and tests: it is not synchronised with readers.
#pragma once

#include <cstdint>

#include "util/Str.h"

class LocalStructTm;
class Timezone;

enum tl_unit_t { TL_SECOND = 0, TL_MINUTE, TL_HOUR, TL_DAY, TL_WEEK, TL_MONTH, TL_YEAR };

namespace SLUtil {

// Splits "<count><unit>" as told above. `count` may be 0 or negative (the
// caller refuses those with its own message); seconds = count * nominal unit
// length. False for a missing or unknown unit, a missing count, or an
// overflow; the outputs are then untouched.
bool decompTimeSpanStr(const Str& text, long& seconds, long& count, tl_unit_t& unit);

// Nominal seconds of one unit (month 30 days, year 365 days).
long unitSeconds(tl_unit_t unit);
// The root word of a unit: "sec", "min", "hour", "day", "week", "mon", "year".
const char* unitRoot(tl_unit_t unit);

// The zone bins are aligned in: the one set by setUserTimezone, else the
// process default zone. Null restores the default.
const Timezone& userTimezone();
void setUserTimezone(const Timezone* zone);

// Start (UTC seconds) of the bin of `count` units that holds `t`, aligned as
// told above. REQUIRES: count >= 1. False when the zone cannot map the local
// start back to UTC.
bool timeBinStart(int64_t t, long count, tl_unit_t unit, const Timezone& zone, int64_t& start);
// Start of the bin after the one starting at `start`. False on a failed
// conversion or when the result would not be later than `start`.
bool timeBinNext(int64_t start, long count, tl_unit_t unit, const Timezone& zone, int64_t& next);

}  // namespace SLUtil

// Moves `tm` forward by one unit: seconds, minutes and hours as elapsed time;
// days, weeks, months and years by the calendar at the same local time of day
// (the day of month is clamped to the new month's length). The fields are
// recomputed in `zone`. False (and `tm` untouched) if the local result cannot
// be mapped to UTC or would not be later.
bool tl_advance(LocalStructTm* tm, tl_unit_t unit, const Timezone& zone);
bool tl_advance(LocalStructTm* tm, tl_unit_t unit);  // in SLUtil::userTimezone()
