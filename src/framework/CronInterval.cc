#include "framework/CronInterval.h"

#include <cstdlib>
#include <map>
#include <memory>
#include <vector>

#include "util/Logger.h"
#include "util/Mutex.h"

static Logger gLogger("CronScheduler");

namespace {

// A whole non-negative decimal number; false for anything else.
bool readNumber(const Str& s, int& out) {
  if (s.empty() || s.size() > 4) return false;
  int v = 0;
  for (char c : s) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + (c - '0');
  }
  out = v;
  return true;
}

std::vector<Str> split(const Str& s, char sep) {
  std::vector<Str> out;
  Str cur;
  for (char c : s) {
    if (c == sep) {
      out.push_back(cur);
      cur.clear();
    } else {
      cur += c;
    }
  }
  out.push_back(cur);
  return out;
}

}  // namespace

CronInterval::CronInterval(const Str& text) : _text(text) {
  std::vector<Str> fields;
  Str cur;
  for (char c : text) {
    if (c == ' ' || c == '\t' || c == '\n' || c == '\r') {
      if (!cur.empty()) fields.push_back(cur);
      cur.clear();
    } else {
      cur += c;
    }
  }
  if (!cur.empty()) fields.push_back(cur);
  if (fields.size() != 5) {
    _error = Str::fromFormat("A schedule has five fields, '%s' has %zu", text.c_str(), fields.size());
    return;
  }
  if (!parseField(fields[0], 0, 59, _minute) || !parseField(fields[1], 0, 23, _hour) ||
      !parseField(fields[2], 1, 31, _dayOfMonth) || !parseField(fields[3], 1, 12, _month) ||
      !parseField(fields[4], 0, 7, _dayOfWeek))
    return;
  // 7 is another name of Sunday.
  if (_dayOfWeek.test(7)) _dayOfWeek.set(0);
}

bool CronInterval::parseField(const Str& field, int lo, int hi, std::bitset<64>& out) {
  for (const Str& item : split(field, ',')) {
    Str range = item;
    int step = 1;
    const size_t slash = item.find('/');
    if (slash != Str::npos) {
      range = item.substr(0, slash);
      if (!readNumber(item.substr(slash + 1), step) || step == 0) {
        _error = Str::fromFormat("Bad step in '%s' of schedule '%s'", item.c_str(), _text.c_str());
        return false;
      }
    }
    int from = lo, to = hi;
    if (range == "*") {
      // the whole range
    } else {
      const size_t dash = range.find('-');
      if (dash == Str::npos) {
        if (!readNumber(range, from)) {
          _error = Str::fromFormat("Bad value '%s' in schedule '%s'", item.c_str(), _text.c_str());
          return false;
        }
        // "a/n" runs from a to the top; a lone "a" is just a.
        to = slash == Str::npos ? from : hi;
      } else if (!readNumber(range.substr(0, dash), from) || !readNumber(range.substr(dash + 1), to)) {
        _error = Str::fromFormat("Bad range '%s' in schedule '%s'", item.c_str(), _text.c_str());
        return false;
      }
    }
    if (from < lo || to > hi || from > to) {
      _error = Str::fromFormat("'%s' is out of range %d-%d in schedule '%s'", item.c_str(), lo, hi, _text.c_str());
      return false;
    }
    for (int v = from; v <= to; v += step) out.set(v);
  }
  return true;
}

bool CronInterval::matches(const struct tm& tm) const {
  return _minute.test(tm.tm_min) && _hour.test(tm.tm_hour) && _dayOfMonth.test(tm.tm_mday) &&
         _month.test(tm.tm_mon + 1) && _dayOfWeek.test(tm.tm_wday);
}

long CronInterval::next(long now) const {
  if (now == 0) now = static_cast<long>(::time(nullptr));
  if (!isValid()) {
    gLogger.error("Schedule is not valid: %s", _error.c_str());
    return now + kNothingFoundOffset;
  }
  long t = (now + 60) / 60 * 60;
  // Minute by minute; a whole hour is passed at once when its hour, day,
  // month or weekday is not due, counted as the minutes it holds.
  unsigned steps = 0;
  while (steps < kMaxSteps) {
    time_t tt = static_cast<time_t>(t);
    struct tm tm;
    localtime_r(&tt, &tm);
    if (matches(tm)) return t;
    if (!_hour.test(tm.tm_hour) || !_dayOfMonth.test(tm.tm_mday) || !_month.test(tm.tm_mon + 1) ||
        !_dayOfWeek.test(tm.tm_wday)) {
      const int skip = 60 - tm.tm_min;
      t += 60L * skip;
      steps += skip;
    } else {
      t += 60;
      ++steps;
    }
  }
  gLogger.error("No suitable time found in the next %u minutes", kMaxSteps);
  return now + kNothingFoundOffset;
}

long CronInterval::nextCronInterval(const Str& text, long now) {
  static Mutex mutex;
  static std::map<Str, std::shared_ptr<const CronInterval>> parsed;
  std::shared_ptr<const CronInterval> c;
  {
    ScopedLock lock(mutex);
    if (parsed.size() >= 1000 && parsed.find(text) == parsed.end()) parsed.clear();  // bounded
    auto& slot = parsed[text];
    if (!slot) slot = std::make_shared<const CronInterval>(text);
    c = slot;
  }
  return c->next(now);
}
