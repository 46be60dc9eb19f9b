// Timeval::set and Timeval::parse: from the fields a format found to an
// instant, guessing what is missing with a TimeGuesser.
//
// Beyond the zone's own reading of a wall time, two checks may move it:
//  - a wall time that the zone reads twice (the hour repeated when DST ends)
//    is taken at its later reading when ambigiousDst() says even that one is
//    in the past, otherwise at the earlier one;
//  - a 12-hour hour without am/pm on a stated date is moved to the afternoon
//    when usePmInstead() says the morning reading is more than 11 hours old
//    and the afternoon reading is not in the future.
#include <cstdio>
#include <cstring>

#include "util/ExtraTimevalParseInfo.h"
#include "util/StructTm.h"
#include "util/TimeFormat.h"
#include "util/TimeGuesser.h"
#include "util/Timeval.h"
#include "util/Timezone.h"

bool Timeval::set(const TimeFormatRawParseResult& in, TimeGuesser& guesser, ExtraTimevalParseInfo* extra) {
  using P = TimeFormatRawParseResult;
  P p = in;
  ExtraTimevalParseInfo scratch;
  ExtraTimevalParseInfo& x = extra ? *extra : scratch;
  x = ExtraTimevalParseInfo();

  int32_t usec = 0;
  if (p.fracDigits > 0) {
    int digits = p.fracDigits > 9 ? 9 : p.fracDigits;
    snprintf(x.subsecond, sizeof x.subsecond, "%0*u", digits, p.fracsec);
    char six[7] = "000000";
    memcpy(six, x.subsecond, digits < 6 ? digits : 6);
    usec = static_cast<int32_t>(strtol(six, nullptr, 10));
  }
  int precision = p.fracDigits > 0            ? p.fracDigits
                  : (p.have & P::HAVE_SECOND) ? 0
                  : (p.have & P::HAVE_MINUTE) ? -1
                                              : -2;

  if (p.have & P::HAVE_UTCEPOCH) {
    x.precision = p.fracDigits > 0 ? p.fracDigits : 0;
    x.zoneKnown = (p.have & P::HAVE_TZOFFSET) != 0;
    x.zoneOffset = x.zoneKnown ? p.tzoffset : 0;
    x.fromGmtUnixtime(p.utcepoch);
    set(p.utcepoch, usec);
    return true;
  }

  TimezoneGuessResult zone;
  if (p.have & P::HAVE_TZOFFSET) {
    zone.offsetKnown = true;
    zone.offset = p.tzoffset;
    x.zoneKnown = true;
  } else if ((p.have & P::HAVE_TZNAM) && guesser.guessTimezone(p.tzname, zone)) {
    x.zoneKnown = true;
  } else if (!guesser.guessTimezone(nullptr, zone)) {
    return false;
  }

  bool dateGuessed = false;
  if (p.have & P::HAVE_YEAR) {
  } else if ((p.have & P::HAVE_CENTURY) && (p.have & P::HAVE_YEAR_IN_CENTURY)) {
    p.year = p.century * 100 + p.yearInCentury;
  } else if (p.have & P::HAVE_YEAR_IN_CENTURY) {
    p.year = guesser.expandShortYear(p.yearInCentury);
  } else if ((p.have & P::HAVE_MONTH) && (p.have & P::HAVE_MDAY)) {
    if (!guesser.guessYear(p)) return false;
  } else if (p.have & P::HAVE_YDAY) {
    int doy;
    guesser.currentDoy(p.year, doy);
  } else {
    // A day of the month alone cannot be placed.
    if ((p.have & P::HAVE_MDAY) && !(p.have & P::HAVE_MONTH)) return false;
    if (!guesser.guessDate(p, zone)) return false;
    dateGuessed = true;
  }
  if (p.year < 0 || p.year > 9999) return false;

  if (!(p.have & (P::HAVE_MONTH | P::HAVE_YDAY)) && p.yweek >= 0) {
    p.have |= P::HAVE_YEAR;
    p.computeYdayFromYweek();
  }
  if ((p.have & P::HAVE_YDAY) && !(p.have & P::HAVE_MONTH)) {
    if (p.yday >= (StructTm::isLeapYear(p.year) ? 366 : 365)) return false;
    p.computeMmddFromYday();
  }
  if (!(p.have & P::HAVE_MONTH)) return false;
  if (!(p.have & P::HAVE_MDAY)) p.mday = 1;
  if (!p.mdayValidForMonth()) return false;

  int hour = 0;
  bool hour12NoAmPm = false;
  if (p.have & P::HAVE_HOUR24) {
    hour = p.hour;
  } else if (p.have & P::HAVE_HOUR12) {
    hour = p.hour % 12;
    if (p.have & P::HAVE_AMPM) {
      hour += p.pm ? 12 : 0;
    } else {
      hour12NoAmPm = true;
    }
  }
  if (hour < 0 || hour > 23 || p.minute < 0 || p.minute > 59 || p.second < 0 || p.second > 60) return false;
  int64_t wall = StructTm::daysFromCivil(p.year, p.month, p.mday) * 86400 + hour * 3600 +
                 p.minute * 60 + p.second;
  int64_t utc = wall;
  if (!guesser.convertToGmt(zone, utc)) return false;

  if (!zone.offsetKnown && zone.zone) {
    // A wall time read twice: the later reading, if consistent, lies past the earlier one.
    int64_t later = wall - zone.zone->offsetAt(utc + 3 * 3600);
    if (later > utc && zone.zone->offsetAt(later) == wall - later && guesser.ambigiousDst(utc)) utc = later;
  }
  if (hour12NoAmPm && !dateGuessed && guesser.usePmInstead(utc) && guesser.current() >= utc + 43200) {
    utc += 43200;
  }

  x.precision = precision;
  x.zoneOffset = zone.offsetKnown ? zone.offset : (zone.zone ? zone.zone->offsetAt(utc) : 0);
  x.fromGmtUnixtime(utc);
  set(utc, usec);
  return true;
}

bool Timeval::parse(const char* begin, const char* end, const TimeFormat& format, TimeGuesser& guesser,
                    ExtraTimevalParseInfo* extra) {
  TimeFormatRawParseResult raw;
  if (!format.rawParse(begin, end, raw)) return false;
  return set(raw, guesser, extra);
}
