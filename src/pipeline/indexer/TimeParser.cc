// The time keywords of an inner query and the time words they take.
//
// Time words, read where a point in time is taken (starttime, endtime), in
// this order: the query's time format (strptime, the whole text), a named
// word or relative steps, a plain number, an ISO date, a slash date. Case
// does not matter; "local" is the process's TZ.
//
//   text                          meaning
//   ----------------------------  ---------------------------------------------
//   now                           the query's clock
//   today                         local midnight that began today
//   yesterday / tomorrow          local midnight one calendar day before / after today
//   epoch                         0 (1970-01-01T00:00:00Z)
//   earliest / latest             the start / end of time (kMinTime / kMaxTime)
//   -24h  +30m  -90s              now moved by fixed seconds, minutes, hours
//   -7d  -2w                      calendar days / weeks: the wall-clock time is
//                                 kept across a daylight-saving change
//   -1mon  -1q  -1y               calendar months / quarters / years; the day is
//                                 cut to the end of a shorter month
//   @s @m @h                      round down to the local second, minute, hour
//   @d                            round down to local midnight
//   @w  @w0 .. @w6                round down to midnight of the last Sunday (w0)
//                                 .. Saturday (w6), today included
//   @mon  @q  @y                  round down to the first of the month, of the
//                                 quarter (Jan, Apr, Jul, Oct), of the year
//   -1d@d  @w1+8h  today+8h       steps chain left to right, from now or from a
//                                 named word (now, today, yesterday, tomorrow,
//                                 epoch); "-h" is "-1h"
//   1700000000  1700000000.5      epoch seconds (unsigned; the fraction is dropped)
//   2024-03-10                    local midnight of that date
//   2024-03-10T14:05[:09[.123]]   local time; "T" may be a blank
//   ...Z  ...+05:30  ...-0400     a time at that offset from UTC
//   03/10/2024                    local midnight (MM/DD/YYYY)
//   03/10/2024:14:05:09           local time (MM/DD/YYYY:HH:MM:SS)
//
// Unit names: s sec secs second seconds | m min mins minute minutes | h hr
// hrs hour hours | d day days | w week weeks | mon month months | q quarter
// quarters | y yr yrs year years.
//
// Intermediate results are kept within +-2^40 seconds, where localtime_r
// and mktime are exact; the final result is clamped to the index's range.
#include "pipeline/indexer/TimeParser.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "util/Exceptions.h"
#include "util/Logger.h"
#include "util/TimeUnit.h"

static Logger gLogger("TimeParser");

namespace {

constexpr char kDefaultFormat[] = "%m/%d/%Y:%H:%M:%S";
constexpr int64_t kWorkLimit = int64_t(1) << 40;
// Counts in words and keywords saturate here; anything larger lands
// outside the working range anyway.
constexpr int64_t kMaxCount = 1000000000000LL;

using Unit = TimeUnit;

int64_t clampWork(int64_t t) { return t < -kWorkLimit ? -kWorkLimit : (t > kWorkLimit ? kWorkLimit : t); }

int64_t floorMod(int64_t a, int64_t b) {
  int64_t r = a % b;
  return r < 0 ? r + b : r;
}

int daysInMonth(int64_t year, int mon0) {
  static const int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return mon0 == 1 && leap ? 29 : kDays[mon0];
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

int64_t fixedSeconds(Unit u) {
  switch (u) {
    case Unit::kSecond: return 1;
    case Unit::kMinute: return 60;
    case Unit::kHour: return 3600;
    default: return 86400;  // only the ago keywords count days in fixed seconds
  }
}

bool toLocal(int64_t t, struct tm& out) {
  time_t tt = static_cast<time_t>(t);
  return localtime_r(&tt, &out) != nullptr;
}

// A local wall-clock time to seconds, the zone deciding daylight saving.
bool fromLocal(struct tm& tm, int64_t& out) {
  tm.tm_isdst = -1;
  errno = 0;
  time_t t = mktime(&tm);
  if (t == static_cast<time_t>(-1) && errno != 0) return false;
  out = t;
  return true;
}

// Moves t by n units, n of either sign. Seconds, minutes and hours are fixed
// lengths; days and weeks move the local date and keep the wall-clock time;
// months, quarters and years move the month and cut the day to its length.
int64_t addUnits(int64_t t, int64_t n, Unit u) {
  int64_t saturated = n < 0 ? -kWorkLimit : kWorkLimit;
  if (u == Unit::kSecond || u == Unit::kMinute || u == Unit::kHour) return clampWork(t + n * fixedSeconds(u));
  struct tm tm;
  if (!toLocal(t, tm)) return saturated;
  if (u == Unit::kDay || u == Unit::kWeek) {
    int64_t days = u == Unit::kWeek ? n * 7 : n;
    if (days > 20000000 || days < -20000000) return saturated;
    tm.tm_mday += static_cast<int>(days);
  } else {
    int64_t months = n * (u == Unit::kYear ? 12 : u == Unit::kQuarter ? 3 : 1);
    if (months > 600000 || months < -600000) return saturated;
    int64_t total = tm.tm_mon + months;
    int64_t mon = floorMod(total, 12);
    tm.tm_year += static_cast<int>((total - mon) / 12);
    tm.tm_mon = static_cast<int>(mon);
    int dim = daysInMonth(int64_t(tm.tm_year) + 1900, tm.tm_mon);
    if (tm.tm_mday > dim) tm.tm_mday = dim;
  }
  int64_t out;
  if (!fromLocal(tm, out)) return saturated;
  return clampWork(out);
}

// Rounds t down to the start of its local unit; `weekday` (0 Sunday) is the
// first day of a week.
int64_t snap(int64_t t, Unit u, int weekday) {
  struct tm tm;
  if (!toLocal(t, tm)) return t;
  switch (u) {
    case Unit::kSecond: return t;
    case Unit::kMinute:
    case Unit::kHour: {
      int64_t len = fixedSeconds(u);
      return t - floorMod(t + tm.tm_gmtoff, len);
    }
    case Unit::kDay: break;
    case Unit::kWeek: tm.tm_mday -= (tm.tm_wday - weekday + 7) % 7; break;
    case Unit::kMonth: tm.tm_mday = 1; break;
    case Unit::kQuarter:
      tm.tm_mon -= tm.tm_mon % 3;
      tm.tm_mday = 1;
      break;
    case Unit::kYear:
      tm.tm_mon = 0;
      tm.tm_mday = 1;
      break;
  }
  tm.tm_hour = tm.tm_min = tm.tm_sec = 0;
  int64_t out;
  return fromLocal(tm, out) ? clampWork(out) : t;
}

size_t alphaRun(std::string_view s, size_t i) {
  size_t j = i;
  while (j < s.size() && isAlpha(s[j])) ++j;
  return j - i;
}

// A named word alone, or relative steps after an optional named base.
// `s` is lower-cased.
bool parseTimeWord(std::string_view s, int64_t now, int64_t& out) {
  size_t i = alphaRun(s, 0);
  int64_t t = clampWork(now);
  if (i > 0) {
    std::string_view name = s.substr(0, i);
    if (name == "earliest" || name == "latest") {
      if (i != s.size()) return false;
      out = name == "earliest" ? TimeParser::kMinTime : TimeParser::kMaxTime;
      return true;
    }
    if (name == "today") {
      t = snap(t, Unit::kDay, 0);
    } else if (name == "yesterday" || name == "tomorrow") {
      t = snap(addUnits(t, name == "yesterday" ? -1 : 1, Unit::kDay), Unit::kDay, 0);
    } else if (name == "epoch") {
      t = 0;
    } else if (name != "now") {
      return false;
    }
  } else if (s.empty()) {
    return false;
  }
  while (i < s.size()) {
    char c = s[i++];
    if (c == '@') {
      size_t len = alphaRun(s, i);
      Unit u;
      if (!timeUnitByName(s.substr(i, len), u)) return false;
      i += len;
      int weekday = 0;
      if (u == Unit::kWeek && i < s.size() && isDigit(s[i])) {
        weekday = s[i++] - '0';
        if (weekday > 6) return false;
      }
      t = snap(t, u, weekday);
    } else if (c == '+' || c == '-') {
      int64_t n = 0;
      size_t start = i;
      while (i < s.size() && isDigit(s[i])) {
        n = n * 10 + (s[i++] - '0');
        if (n > kMaxCount) n = kMaxCount;
      }
      if (i == start) n = 1;
      size_t len = alphaRun(s, i);
      Unit u;
      if (!timeUnitByName(s.substr(i, len), u)) return false;
      i += len;
      t = addUnits(t, c == '-' ? -n : n, u);
    } else {
      return false;
    }
  }
  out = t;
  return true;
}

// "[-]digits[.digits]" as whole seconds, rounded down; the sign only when
// allowed.
bool parseEpoch(std::string_view s, bool allowSign, int64_t& out) {
  size_t i = 0;
  bool negative = false;
  if (allowSign && i < s.size() && s[i] == '-') {
    negative = true;
    ++i;
  }
  size_t start = i;
  int64_t n = 0;
  while (i < s.size() && isDigit(s[i])) {
    n = n * 10 + (s[i++] - '0');
    if (n > kMaxCount) n = kMaxCount;
  }
  if (i == start) return false;
  bool fraction = false;
  if (i < s.size() && s[i] == '.') {
    size_t f = ++i;
    while (i < s.size() && isDigit(s[i])) fraction |= s[i++] != '0';
    if (i == f) return false;
  }
  if (i != s.size()) return false;
  out = negative ? -n - (fraction ? 1 : 0) : n;
  return true;
}

// Exactly `width` digits at s[i].
bool fixedDigits(std::string_view s, size_t& i, int width, int& out) {
  out = 0;
  for (int k = 0; k < width; ++k, ++i) {
    if (i >= s.size() || !isDigit(s[i])) return false;
    out = out * 10 + (s[i] - '0');
  }
  return true;
}

// One or two digits at s[i].
bool shortDigits(std::string_view s, size_t& i, int& out) {
  if (!fixedDigits(s, i, 1, out)) return false;
  int more;
  if (i < s.size() && isDigit(s[i]) && fixedDigits(s, i, 1, more)) out = out * 10 + more;
  return true;
}

bool literal(std::string_view s, size_t& i, char c) {
  if (i >= s.size() || s[i] != c) return false;
  ++i;
  return true;
}

struct Fields {
  int year = 0, mon = 1, day = 1, hour = 0, min = 0, sec = 0;
  bool zoned = false;
  int offset = 0;  // seconds east of UTC

  bool valid() const {
    return mon >= 1 && mon <= 12 && day >= 1 && day <= daysInMonth(year, mon - 1) && hour <= 23 && min <= 59 &&
           sec <= 60;
  }

  bool toSeconds(int64_t& out) const {
    struct tm tm = {};
    tm.tm_year = year - 1900;
    tm.tm_mon = mon - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = min;
    tm.tm_sec = sec;
    if (!zoned) return fromLocal(tm, out);
    out = static_cast<int64_t>(timegm(&tm)) - offset;
    return true;
  }
};

// "YYYY-MM-DD[(T| )HH:MM[:SS[.f+]][z|(+|-)HH[[:]MM]]]", lower-cased.
bool parseIso(std::string_view s, int64_t& out) {
  Fields f;
  size_t i = 0;
  if (!fixedDigits(s, i, 4, f.year) || !literal(s, i, '-') || !fixedDigits(s, i, 2, f.mon) ||
      !literal(s, i, '-') || !fixedDigits(s, i, 2, f.day))
    return false;
  if (i < s.size()) {
    if (s[i] != 't' && s[i] != ' ') return false;
    ++i;
    if (!fixedDigits(s, i, 2, f.hour) || !literal(s, i, ':') || !fixedDigits(s, i, 2, f.min)) return false;
    if (literal(s, i, ':')) {
      if (!fixedDigits(s, i, 2, f.sec)) return false;
      if (literal(s, i, '.') || literal(s, i, ',')) {
        size_t start = i;
        while (i < s.size() && isDigit(s[i])) ++i;
        if (i == start) return false;
      }
    }
    if (literal(s, i, 'z')) {
      f.zoned = true;
    } else if (i < s.size() && (s[i] == '+' || s[i] == '-')) {
      int sign = s[i++] == '-' ? -1 : 1;
      int oh, om = 0;
      if (!fixedDigits(s, i, 2, oh)) return false;
      bool colon = literal(s, i, ':');
      if ((colon || i < s.size()) && !fixedDigits(s, i, 2, om)) return false;
      if (oh > 23 || om > 59) return false;
      f.zoned = true;
      f.offset = sign * (oh * 3600 + om * 60);
    }
    if (i != s.size()) return false;
  }
  return f.valid() && f.toSeconds(out);
}

// "MM/DD/YYYY" or "MM/DD/YYYY:HH:MM:SS", local time.
bool parseSlashDate(std::string_view s, int64_t& out) {
  Fields f;
  size_t i = 0;
  if (!shortDigits(s, i, f.mon) || !literal(s, i, '/') || !shortDigits(s, i, f.day) || !literal(s, i, '/') ||
      !fixedDigits(s, i, 4, f.year))
    return false;
  if (i < s.size()) {
    if (!literal(s, i, ':') || !shortDigits(s, i, f.hour) || !literal(s, i, ':') ||
        !fixedDigits(s, i, 2, f.min) || !literal(s, i, ':') || !fixedDigits(s, i, 2, f.sec) || i != s.size())
      return false;
  }
  return f.valid() && f.toSeconds(out);
}

// The whole text in the strptime format, as local time. A day past the end
// of its month ("02/30/2024") is refused rather than rolled over.
bool parseWithFormat(const std::string& text, const std::string& format, int64_t& out) {
  struct tm tm = {};
  tm.tm_mday = 1;
  const char* end = strptime(text.c_str(), format.c_str(), &tm);
  if (end == nullptr || end != text.c_str() + text.size()) return false;
  if (tm.tm_mon < 0 || tm.tm_mon > 11 || tm.tm_mday < 1 ||
      tm.tm_mday > daysInMonth(int64_t(tm.tm_year) + 1900, tm.tm_mon))
    return false;
  return fromLocal(tm, out);
}

// The value without surrounding blanks and one pair of double quotes.
std::string_view unwrap(const Str& value) {
  std::string_view v(value);
  auto trim = [](std::string_view& s) {
    while (!s.empty() && std::strchr(" \t\r\n", s.front()) != nullptr && s.front() != '\0') s.remove_prefix(1);
    while (!s.empty() && std::strchr(" \t\r\n", s.back()) != nullptr && s.back() != '\0') s.remove_suffix(1);
  };
  trim(v);
  if (v.size() >= 2 && v.front() == '"' && v.back() == '"') {
    v = v.substr(1, v.size() - 2);
    trim(v);
  }
  return v;
}

std::string lowered(std::string_view s) {
  std::string out(s);
  lowercaseInPlace(out);
  return out;
}

[[noreturn]] void badValue(const Str& keyword, const Str& value, const std::string& why) {
  throw TimeParseException("Invalid value \"" + value + "\" for " + keyword + ": " + why);
}

// What an "ago" or span keyword does with its amount.
enum class Kind { kLast, kStart, kEnd, kSpan };

struct AmountKeyword {
  const char* name;
  Kind kind;
  Unit unit;
};

const AmountKeyword kAmountKeywords[] = {
    {"daysago", Kind::kLast, Unit::kDay},
    {"hoursago", Kind::kLast, Unit::kHour},
    {"minutesago", Kind::kLast, Unit::kMinute},
    {"monthsago", Kind::kLast, Unit::kMonth},
    {"startdaysago", Kind::kStart, Unit::kDay},
    {"startminutesago", Kind::kStart, Unit::kMinute},
    {"starthoursago", Kind::kStart, Unit::kHour},
    {"startmonthsago", Kind::kStart, Unit::kMonth},
    {"enddaysago", Kind::kEnd, Unit::kDay},
    {"endminutesago", Kind::kEnd, Unit::kMinute},
    {"endhoursago", Kind::kEnd, Unit::kHour},
    {"endmonthsago", Kind::kEnd, Unit::kMonth},
    {"searchtimespanhours", Kind::kSpan, Unit::kHour},
    {"searchtimespanminutes", Kind::kSpan, Unit::kMinute},
    {"searchtimespandays", Kind::kSpan, Unit::kDay},
    {"searchtimespanmonths", Kind::kSpan, Unit::kMonth},
};

// The amount of an ago or span keyword: a non-negative decimal number,
// whole for months. Fixed units come back in seconds (rounded down), months
// as a count.
bool parseAmount(std::string_view s, Unit unit, int64_t& out) {
  size_t i = 0;
  int64_t whole = 0;
  while (i < s.size() && isDigit(s[i])) {
    whole = whole * 10 + (s[i++] - '0');
    if (whole > kMaxCount) whole = kMaxCount;
  }
  if (i == 0) return false;
  int64_t len = unit == Unit::kMonth ? 1 : fixedSeconds(unit);
  int64_t fracSeconds = 0;
  if (i < s.size() && s[i] == '.') {
    size_t start = ++i;
    int64_t num = 0, den = 1;
    for (; i < s.size() && isDigit(s[i]); ++i) {
      if (den < 1000000000) {
        num = num * 10 + (s[i] - '0');
        den *= 10;
      }
    }
    if (i == start) return false;
    if (unit == Unit::kMonth && num != 0) return false;
    fracSeconds = num * len / den;
  }
  if (i != s.size()) return false;
  out = whole * len + fracSeconds;
  return true;
}

}  // namespace

void TimeParser::setMinTime(int64_t t) {
  _minTime = clamp(t);
  _haveMin = true;
}

void TimeParser::setMaxTime(int64_t t) {
  _maxTime = clamp(t);
  _haveMax = true;
}

bool TimeParser::parseTime(const Str& text, const Str& format, time_t now, int64_t& out) {
  std::string_view v = unwrap(text);
  if (v.empty()) return false;
  std::string raw(v);
  std::string lower = lowered(v);
  int64_t t;
  if (parseWithFormat(raw, format.empty() ? std::string(kDefaultFormat) : std::string(format), t) ||
      parseTimeWord(lower, now, t) || parseEpoch(lower, false, t) || parseIso(lower, t) ||
      parseSlashDate(lower, t)) {
    out = clamp(t);
    return true;
  }
  return false;
}

void TimeParser::parse(const Str& keyword, const Str& value, const Str& format, time_t now) {
  std::string kw = lowered(keyword);
  Str fmt = format.empty() ? Str(kDefaultFormat) : format;
  int64_t t;
  if (kw == "starttime" || kw == "endtime") {
    if (!parseTime(value, fmt, now, t))
      badValue(keyword, value, "not a time in the format " + fmt + " or a time word");
    kw == "starttime" ? setMinTime(t) : setMaxTime(t);
  } else if (kw == "starttimeu" || kw == "endtimeu") {
    if (!parseEpoch(unwrap(value), true, t)) badValue(keyword, value, "not a number of seconds since the epoch");
    kw == "starttimeu" ? setMinTime(t) : setMaxTime(t);
  } else {
    const AmountKeyword* def = nullptr;
    for (const AmountKeyword& k : kAmountKeywords)
      if (kw == k.name) def = &k;
    if (def == nullptr) throw TimeParseException("Unknown time keyword '" + keyword + "'");
    std::string_view v = unwrap(value);
    int64_t amount;
    if (!parseAmount(v, def->unit, amount)) {
      bool fractionalMonths = def->unit == Unit::kMonth && parseAmount(v, Unit::kDay, amount);
      badValue(keyword, value, fractionalMonths ? "must be a whole number of months" : "must be a non-negative number");
    }
    // The base moved back (sign -1) or forward (+1) by the amount.
    auto shift = [&](int64_t base, int sign) {
      if (def->unit == Unit::kMonth) return addUnits(clampWork(base), sign * amount, Unit::kMonth);
      return clampWork(clampWork(base) + sign * amount);
    };
    switch (def->kind) {
      case Kind::kLast:
        setMinTime(shift(now, -1));
        setMaxTime(now);
        break;
      case Kind::kStart: setMinTime(shift(now, -1)); break;
      case Kind::kEnd: setMaxTime(shift(now, -1)); break;
      case Kind::kSpan:
        if (_haveMin && !_haveMax)
          setMaxTime(shift(_minTime, +1));
        else
          setMinTime(shift(_haveMax ? _maxTime : int64_t(now), -1));
        break;
    }
  }
  gLogger.debug("%s::%s gives the range [%lld, %lld]", keyword.c_str(), value.c_str(),
                static_cast<long long>(_minTime), static_cast<long long>(_maxTime));
}
