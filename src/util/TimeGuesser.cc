#include "util/TimeGuesser.h"

#include <ctime>

#include "util/StructTm.h"
#include "util/Timezone.h"

TimeGuesser::~TimeGuesser() = default;

TimeGuesser& TimeGuesser::basic() {
  static TimeGuesser* g = new TimeGuesser();
  return *g;
}

int64_t TimeGuesser::current() { return static_cast<int64_t>(time(nullptr)); }

const Timezone& TimeGuesser::baseTimezone() { return Timezone::getDefaultTimezone(); }

void TimeGuesser::currentDoy(int& year, int& doy) {
  LocalStructTm now(current(), baseTimezone());
  year = now.year;
  doy = now.yday;
}

bool TimeGuesser::guessTimezone(const char* name, TimezoneGuessResult& result) {
  result = TimezoneGuessResult();
  if (!name || !*name) {
    result.zone = &baseTimezone();
    return true;
  }
  const Timezone* tz = Timezone::find(name);
  if (!tz) return false;
  result.zone = tz;
  return true;
}

bool TimeGuesser::convertToGmt(const TimezoneGuessResult& zone, int64_t& seconds) {
  if (zone.offsetKnown) {
    seconds -= zone.offset;
    return true;
  }
  return (zone.zone ? *zone.zone : baseTimezone()).convertToGmt(seconds);
}

int TimeGuesser::expandShortYear(int yy) {
  int y = yy + 2000;
  if (yy > 68 || yy < -2000) y -= 100;
  return y;
}

bool TimeGuesser::guessYear(TimeFormatRawParseResult& parse) {
  using P = TimeFormatRawParseResult;
  if ((parse.have & (P::HAVE_MONTH | P::HAVE_MDAY)) != (P::HAVE_MONTH | P::HAVE_MDAY)) return false;
  int year, today;
  currentDoy(year, today);
  int d = static_cast<int>(StructTm::daysFromCivil(year, parse.month, parse.mday) -
                           StructTm::daysFromCivil(year, 0, 1));
  if (d < 3 && today > 363) {
    ++year;   // early January seen on New Year's Eve
  } else if (!(today + 2 > d - 1)) {
    --year;   // more than two days ahead: last year's date
  }
  parse.year = year;
  parse.have |= P::HAVE_YEAR;
  return true;
}

bool TimeGuesser::guessDate(TimeFormatRawParseResult& parse, const TimezoneGuessResult& zone) {
  using P = TimeFormatRawParseResult;
  if (!(parse.have & P::HAVE_MINUTE) || !(parse.have & (P::HAVE_HOUR24 | P::HAVE_HOUR12))) return false;
  int64_t now = current();
  int32_t offset = zone.offsetKnown ? zone.offset : (zone.zone ? *zone.zone : baseTimezone()).offsetAt(now);
  int64_t wallNow = now + offset;
  int64_t midnight = wallNow - ((wallNow % 86400) + 86400) % 86400;
  int64_t tod = int64_t{parse.minute} * 60 + parse.second;
  int64_t t;
  if ((parse.have & P::HAVE_HOUR12) && !(parse.have & P::HAVE_AMPM)) {
    // Take the afternoon reading, and step back half a day at a time while
    // it lies more than an hour and a half ahead.
    t = midnight + (parse.hour % 12 + 12) * 3600 + tod;
    while (t - wallNow > 5400) t -= 43200;
  } else {
    int h = parse.hour;
    if (parse.have & P::HAVE_HOUR12) h = parse.hour % 12 + (parse.pm ? 12 : 0);
    t = midnight + h * 3600 + tod;
    if (t - wallNow > 10800) t -= 86400;   // a time far ahead was yesterday's
  }
  StructTm tm;
  tm.setFromSeconds(t, 0);
  parse.year = tm.year;
  parse.month = tm.month;
  parse.mday = tm.mday;
  parse.hour = tm.hour;
  parse.have = (parse.have & ~(P::HAVE_HOUR12 | P::HAVE_AMPM | P::HAVE_YEAR_IN_CENTURY | P::HAVE_CENTURY |
                               P::HAVE_YDAY)) |
               P::HAVE_HOUR24 | P::HAVE_YEAR | P::HAVE_MONTH | P::HAVE_MDAY;
  return true;
}

bool TimeGuesser::ambigiousDst(int64_t seconds) { return current() > seconds + 3600; }

bool TimeGuesser::usePmInstead(int64_t seconds) { return current() > seconds + 39600; }
