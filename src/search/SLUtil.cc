#include "search/SLUtil.h"

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "util/StructTm.h"
#include "util/TimeUnit.h"
#include "util/Timezone.h"

namespace {

const Timezone* gUserZone = nullptr;

int64_t floorDiv(int64_t a, int64_t b) {
  int64_t q = a / b;
  if ((a % b != 0) && ((a < 0) != (b < 0))) --q;
  return q;
}

// Local midnight of a civil date, as UTC.
bool midnightToUtc(int year, int month, int mday, const Timezone& zone, int64_t& out) {
  int64_t wall = StructTm::daysFromCivil(year, month, mday) * 86400;
  if (!zone.convertToGmt(wall)) return false;
  out = wall;
  return true;
}

// The civil date of the first day of the calendar bin of `count` units that
// holds the local date (y, m, d). Days and weeks go through the day number.
void calendarFloor(int& y, int& m, int& d, long count, tl_unit_t unit) {
  switch (unit) {
    case TL_DAY: {
      int64_t days = StructTm::daysFromCivil(y, m, d);
      StructTm::civilFromDays(floorDiv(days, count) * count, y, m, d);
      break;
    }
    case TL_WEEK: {
      const int64_t monday = 4;  // 1970-01-05
      int64_t days = StructTm::daysFromCivil(y, m, d) - monday;
      StructTm::civilFromDays(floorDiv(days, 7 * count) * 7 * count + monday, y, m, d);
      break;
    }
    case TL_MONTH: {
      int64_t mi = floorDiv(static_cast<int64_t>(y) * 12 + m, count) * count;
      y = static_cast<int>(floorDiv(mi, 12));
      m = static_cast<int>(mi - static_cast<int64_t>(y) * 12);
      d = 1;
      break;
    }
    case TL_YEAR:
      y = static_cast<int>(floorDiv(y, count) * count);
      m = 0;
      d = 1;
      break;
    default:
      break;
  }
}

// Adds `count` calendar units to a civil date whose day is 1 for months and
// years (clamped otherwise).
void calendarAdd(int& y, int& m, int& d, long count, tl_unit_t unit) {
  switch (unit) {
    case TL_DAY:
    case TL_WEEK: {
      int64_t days = StructTm::daysFromCivil(y, m, d) + count * (unit == TL_WEEK ? 7 : 1);
      StructTm::civilFromDays(days, y, m, d);
      break;
    }
    case TL_MONTH:
    case TL_YEAR: {
      StructTm tm;
      tm.year = y;
      tm.month = m;
      tm.mday = d;
      tm.addCalendarMonths(static_cast<int>(unit == TL_YEAR ? count * 12 : count));
      y = tm.year;
      m = tm.month;
      d = tm.mday;
      break;
    }
    default:
      break;
  }
}

bool isFixedUnit(tl_unit_t unit) { return unit == TL_SECOND || unit == TL_MINUTE || unit == TL_HOUR; }

}  // namespace

namespace SLUtil {

bool decompTimeSpanStr(const Str& text, long& seconds, long& count, tl_unit_t& unit) {
  const char* p = text.c_str();
  const char* digits = (*p == '-' || *p == '+') ? p + 1 : p;
  if (*digits < '0' || *digits > '9') return false;
  char* end = nullptr;
  errno = 0;
  long n = strtol(p, &end, 10);
  if (errno != 0 || end == p) return false;
  if (*end == '\0') return false;
  TimeUnit named;
  if (!timeUnitByName(end, named)) return false;
  static const tl_unit_t kBinUnit[] = {TL_SECOND, TL_MINUTE, TL_HOUR, TL_DAY, TL_WEEK, TL_MONTH, TL_MONTH, TL_YEAR};
  if (named == TimeUnit::kQuarter) return false;  // not a bin unit
  const tl_unit_t u = kBinUnit[static_cast<int>(named)];
  long us = unitSeconds(u);
  if (n > LONG_MAX / us || n < LONG_MIN / us) return false;
  seconds = n * us;
  count = n;
  unit = u;
  return true;
}

long unitSeconds(tl_unit_t unit) {
  switch (unit) {
    case TL_SECOND: return 1;
    case TL_MINUTE: return 60;
    case TL_HOUR: return 3600;
    case TL_DAY: return 86400;
    case TL_WEEK: return 7 * 86400;
    case TL_MONTH: return 30 * 86400;
    case TL_YEAR: return 365 * 86400;
  }
  return 1;
}

const char* unitRoot(tl_unit_t unit) {
  static const char* const roots[] = {"sec", "min", "hour", "day", "week", "mon", "year"};
  return roots[unit];
}

const Timezone& userTimezone() { return gUserZone ? *gUserZone : Timezone::getDefaultTimezone(); }

void setUserTimezone(const Timezone* zone) { gUserZone = zone; }

bool timeBinStart(int64_t t, long count, tl_unit_t unit, const Timezone& zone, int64_t& start) {
  if (isFixedUnit(unit)) {
    int64_t size = static_cast<int64_t>(count) * unitSeconds(unit);
    int64_t wall = t + zone.offsetAt(t);
    start = t - (wall - floorDiv(wall, size) * size);
    return true;
  }
  LocalStructTm lt(t, zone);
  int y = lt.year, m = lt.month, d = lt.mday;
  calendarFloor(y, m, d, count, unit);
  int64_t s;
  if (!midnightToUtc(y, m, d, zone, s)) return false;
  // In a zone whose midnight falls into a gap the converted start may land
  // after t; step one bin back then.
  if (s > t) {
    calendarAdd(y, m, d, -count, unit);
    if (!midnightToUtc(y, m, d, zone, s) || s > t) return false;
  }
  start = s;
  return true;
}

bool timeBinNext(int64_t start, long count, tl_unit_t unit, const Timezone& zone, int64_t& next) {
  int64_t n;
  if (isFixedUnit(unit)) {
    n = start + static_cast<int64_t>(count) * unitSeconds(unit);
  } else {
    LocalStructTm lt(start, zone);
    int y = lt.year, m = lt.month, d = lt.mday;
    calendarFloor(y, m, d, count, unit);
    calendarAdd(y, m, d, count, unit);
    if (!midnightToUtc(y, m, d, zone, n)) return false;
  }
  if (n <= start) return false;
  next = n;
  return true;
}

}  // namespace SLUtil

bool tl_advance(LocalStructTm* tm, tl_unit_t unit, const Timezone& zone) {
  int64_t utc;
  if (isFixedUnit(unit)) {
    utc = tm->epoch + SLUtil::unitSeconds(unit);
  } else {
    int y = tm->year, m = tm->month, d = tm->mday;
    calendarAdd(y, m, d, 1, unit);
    utc = StructTm::daysFromCivil(y, m, d) * 86400 + tm->hour * 3600 + tm->minute * 60 + tm->second;
    if (!zone.convertToGmt(utc)) return false;
  }
  if (utc <= tm->epoch) return false;
  *tm = LocalStructTm(utc, zone);
  return true;
}

bool tl_advance(LocalStructTm* tm, tl_unit_t unit) { return tl_advance(tm, unit, SLUtil::userTimezone()); }
