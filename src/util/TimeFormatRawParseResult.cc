#include "util/TimeFormatRawParseResult.h"

#include <cstring>

#include "util/StructTm.h"

void TimeFormatRawParseResult::clear() { *this = TimeFormatRawParseResult(); }

void TimeFormatRawParseResult::mergeIn(const TimeFormatRawParseResult& o) {
  uint32_t h = o.have;
  if (h & HAVE_UTCEPOCH) utcepoch = o.utcepoch;
  if (h & HAVE_TZOFFSET) tzoffset = o.tzoffset;
  if (h & HAVE_TZNAM) memcpy(tzname, o.tzname, sizeof tzname);
  if (h & HAVE_YEAR) year = o.year;
  if (h & HAVE_CENTURY) century = o.century;
  if (h & HAVE_YEAR_IN_CENTURY) yearInCentury = o.yearInCentury;
  if (h & HAVE_MONTH) month = o.month;
  if (h & HAVE_MDAY) mday = o.mday;
  if (h & (HAVE_HOUR24 | HAVE_HOUR12)) {
    hour = o.hour;
    have &= ~(HAVE_HOUR24 | HAVE_HOUR12);
  }
  if (h & HAVE_AMPM) pm = o.pm;
  if (h & HAVE_MINUTE) minute = o.minute;
  if (h & HAVE_SECOND) second = o.second;
  if (h & HAVE_YDAY) yday = o.yday;
  if (o.fracDigits > 0) {
    fracsec = o.fracsec;
    fracDigits = o.fracDigits;
  }
  if (o.yweek >= 0) {
    yweek = o.yweek;
    yweekFromMonday = o.yweekFromMonday;
  }
  if (o.wday >= 0) wday = o.wday;
  have |= h;
}

bool TimeFormatRawParseResult::setYear(const char* b, const char* e) {
  int n = 0;
  for (const char* p = b; p < e; ++p) {
    if (*p < '0' || *p > '9') return false;
    n = n * 10 + (*p - '0');
  }
  if (e - b == 4) {
    year = n;
    have |= HAVE_YEAR;
    return true;
  }
  if (e - b == 2) {
    yearInCentury = n;
    have |= HAVE_YEAR_IN_CENTURY;
    return true;
  }
  return false;
}

namespace {
const char* const kMonths[12] = {"january", "february", "march",     "april",
                                 "may",     "june",     "july",      "august",
                                 "september", "october", "november", "december"};
}

bool TimeFormatRawParseResult::setMonth(const char* b, const char* e) {
  size_t n = static_cast<size_t>(e - b);
  if (n < 3) return false;
  for (int m = 0; m < 12; ++m) {
    size_t full = strlen(kMonths[m]);
    if (n != 3 && n != full) continue;
    bool ok = true;
    for (size_t i = 0; i < n && ok; ++i) ok = (b[i] | 0x20) == kMonths[m][i];
    if (ok) {
      month = m;
      have |= HAVE_MONTH;
      return true;
    }
  }
  return false;
}

void TimeFormatRawParseResult::setFracsec(const char* b, const char* e) {
  fracsec = 0;
  fracDigits = 0;
  for (const char* p = b; p < e && fracDigits < 9; ++p) {
    if (*p < '0' || *p > '9') break;
    fracsec = fracsec * 10 + static_cast<uint32_t>(*p - '0');
    ++fracDigits;
  }
}

void TimeFormatRawParseResult::computeMmddFromYday() {
  int64_t days = StructTm::daysFromCivil(year, 0, 1) + yday;
  int y;
  StructTm::civilFromDays(days, y, month, mday);
  have |= HAVE_MONTH | HAVE_MDAY;
}

void TimeFormatRawParseResult::computeYdayFromYweek() {
  if (yweek < 0 || wday < 0 || !(have & HAVE_YEAR)) return;
  int jan1Wday = static_cast<int>(((StructTm::daysFromCivil(year, 0, 1) % 7) + 11) % 7);
  int d;
  if (yweekFromMonday) {
    // Week 1 starts on the first Monday.
    int firstMonday = (8 - jan1Wday) % 7;
    d = firstMonday + (yweek - 1) * 7 + (wday + 6) % 7;
  } else {
    int firstSunday = (7 - jan1Wday) % 7;
    d = firstSunday + (yweek - 1) * 7 + wday;
  }
  if (d < 0 || d >= (StructTm::isLeapYear(year) ? 366 : 365)) return;
  yday = d;
  have |= HAVE_YDAY;
}

void TimeFormatRawParseResult::incrementDay() {
  if (++mday <= StructTm::daysInMonth(year, month)) return;
  mday = 1;
  if (++month < 12) return;
  month = 0;
  ++year;
}

bool TimeFormatRawParseResult::mdayValidForMonth() const {
  return mday >= 1 && mday <= StructTm::daysInMonth(year, month);
}
