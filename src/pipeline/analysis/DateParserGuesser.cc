#include "pipeline/analysis/DateParserGuesser.h"

#include <cstring>
#include <ctime>

#include "util/Timezone.h"

namespace {

int64_t floorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

// Year and 0-based day of year of a count of days since 1970-01-01.
void yearAndDoy(int64_t days, int& year, int& doy) {
  // Civil-from-days (proleptic Gregorian).
  const int64_t z = days + 719468;
  const int64_t era = floorDiv(z, 146097);
  const int64_t doe = z - era * 146097;
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  int64_t y = yoe + era * 400;
  const int64_t doyMar = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const int64_t mp = (5 * doyMar + 2) / 153;
  const int64_t d = doyMar - (153 * mp + 2) / 5 + 1;
  const int64_t m = mp < 10 ? mp + 3 : mp - 9;
  if (m <= 2) ++y;
  static const int kCum[12] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
  const bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
  year = static_cast<int>(y);
  doy = kCum[m - 1] + static_cast<int>(d) - 1 + (leap && m > 2 ? 1 : 0);
}

}  // namespace

DateParserGuesser::DateParserGuesser() { setMinMaxDays(1825, 7); }

void DateParserGuesser::setMinMaxDays(int ago, int hence) {
  if (ago > 10950) ago = 10950;
  if (hence > 1825) hence = 1825;
  _agoSecs = static_cast<uint32_t>(static_cast<int64_t>(ago) * 86400);
  _henceSecs = static_cast<uint32_t>(static_cast<int64_t>(hence) * 86400);
  _now = static_cast<int64_t>(std::time(nullptr));
}

bool DateParserGuesser::withinDateWindow(int64_t t) const {
  if (t >= _now) return t - static_cast<int64_t>(_henceSecs) <= _now;
  return t + static_cast<int64_t>(_agoSecs) >= _now;
}

bool DateParserGuesser::setTZ(const Str& name) {
  const Timezone* z = Timezone::find(name);
  if (!z) return false;
  _fixedZone = z;
  _nameCached = false;
  _hourZone = nullptr;
  return true;
}

void DateParserGuesser::setDate(int year, int month, int mday) {
  _date.clear();
  _date.year = year;
  _date.month = month;
  _date.mday = mday;
  _date.have = TimeFormatRawParseResult::HAVE_YEAR | TimeFormatRawParseResult::HAVE_MONTH |
               TimeFormatRawParseResult::HAVE_MDAY;
  _haveDate = true;
  _lastHour = 0;
}

bool DateParserGuesser::guessTimezone(const char* name, TimezoneGuessResult& result) {
  if (name && *name) {
    const size_t len = std::strlen(name);
    if (_nameCached && len < sizeof _cachedName && std::strcmp(name, _cachedName) == 0) {
      result = _cachedResult;
      return true;
    }
    if (const Timezone* z = Timezone::find(Str(name))) {
      result = TimezoneGuessResult();
      result.zone = z;
      if (len < sizeof _cachedName) {
        std::memcpy(_cachedName, name, len + 1);
        _cachedResult = result;
        _nameCached = true;
        _hourZone = nullptr;
      }
      return true;
    }
  }
  if (_fixedZone) {
    result = TimezoneGuessResult();
    result.zone = _fixedZone;
    return !(name && *name);
  }
  return TimeGuesser::guessTimezone(nullptr, result) && !(name && *name);
}

bool DateParserGuesser::convertToGmt(const TimezoneGuessResult& zone, int64_t& seconds) {
  if (zone.offsetKnown || !zone.zone) return TimeGuesser::convertToGmt(zone, seconds);
  const int64_t hour = floorDiv(seconds, 3600);
  if (_hourZone == zone.zone && _hour == hour) {
    seconds -= _hourOffset;
    return true;
  }
  int64_t utc = seconds;
  if (!zone.zone->convertToGmt(utc)) return false;
  _hourZone = zone.zone;
  _hour = hour;
  _hourOffset = seconds - utc;
  seconds = utc;
  return true;
}

bool DateParserGuesser::guessDate(TimeFormatRawParseResult& parse, const TimezoneGuessResult& zone) {
  if (!_haveDate) return TimeGuesser::guessDate(parse, zone);
  int hour = parse.hour;
  if ((parse.have & TimeFormatRawParseResult::HAVE_HOUR12) && (parse.have & TimeFormatRawParseResult::HAVE_AMPM) &&
      parse.pm)
    hour += 12;
  if (hour < _lastHour) _date.incrementDay();
  _lastHour = hour;
  parse.year = _date.year;
  parse.month = _date.month;
  parse.mday = _date.mday;
  parse.have |= TimeFormatRawParseResult::HAVE_YEAR | TimeFormatRawParseResult::HAVE_MONTH |
                TimeFormatRawParseResult::HAVE_MDAY;
  return true;
}

void DateParserGuesser::currentDoy(int& year, int& doy) {
  const int64_t local = _now + baseTimezone().offsetAt(_now);
  yearAndDoy(floorDiv(local, 86400), year, doy);
}

const Timezone& DateParserGuesser::baseTimezone() {
  return _fixedZone ? *_fixedZone : TimeGuesser::baseTimezone();
}
