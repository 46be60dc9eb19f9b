#include "pipeline/analysis/TimeRegexList.h"

#include <cstring>

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

bool TimeRegexList::parseZoneOffset(const StrSegment& z, int32_t& offset) {
  if (z.size() == 1 && (z[0] == 'Z' || z[0] == 'z')) {
    offset = 0;
    return true;
  }
  if (z.size() < 5 || (z[0] != '+' && z[0] != '-')) return false;
  int hh, mm;
  if (z.size() == 5 && isDigit(z[1]) && isDigit(z[2]) && isDigit(z[3]) && isDigit(z[4])) {
    hh = (z[1] - '0') * 10 + (z[2] - '0');
    mm = (z[3] - '0') * 10 + (z[4] - '0');
  } else if (z.size() == 6 && isDigit(z[1]) && isDigit(z[2]) && z[3] == ':' && isDigit(z[4]) && isDigit(z[5])) {
    hh = (z[1] - '0') * 10 + (z[2] - '0');
    mm = (z[4] - '0') * 10 + (z[5] - '0');
  } else {
    return false;
  }
  if (hh >= 24 || mm >= 60) return false;
  offset = (hh * 3600 + mm * 60) * (z[0] == '-' ? -1 : 1);
  return true;
}

int TimeRegexList::parse(const BindingValues& map, ParseState& state) const {
  TimeFormatRawParseResult& p = state.parse;
  const int score = static_cast<int>(state.end - state.begin);
  int64_t n = 0;

  if (map.has(DataBinding::SUBSECOND)) {
    const StrSegment& f = map[DataBinding::SUBSECOND];
    for (char c : f.view())
      if (!isDigit(c)) return -1;
    p.setFracsec(f.begin(), f.end());
  }

  if (map.has(DataBinding::UTCEPOCH)) {
    const StrSegment& e = map[DataBinding::UTCEPOCH];
    if (e.size() > 16 && e[0] == '@') {
      int64_t v = 0;
      for (size_t i = 9; i < 17; ++i) {
        const int h = hexValue(e[i]);
        if (h < 0) return -1;
        v = v * 16 + h;
      }
      p.utcepoch = v;
    } else {
      // Decimal seconds, possibly with a fraction the pattern left attached.
      const size_t dot = e.find('.');
      StrSegment whole = dot == StrSegment::npos ? e : StrSegment(e.data(), dot);
      if (!readNumber(whole, n)) return -1;
      p.utcepoch = n;
      if (dot != StrSegment::npos && !map.has(DataBinding::SUBSECOND)) {
        StrSegment frac(e.data() + dot + 1, e.size() - dot - 1);
        for (char c : frac.view())
          if (!isDigit(c)) return -1;
        if (!frac.empty()) p.setFracsec(frac.begin(), frac.end());
      }
    }
    p.have |= TimeFormatRawParseResult::HAVE_UTCEPOCH;
    return score;
  }

  if (!map.has(DataBinding::HOUR) || !map.has(DataBinding::MINUTE)) return -1;
  if (!readNumber(map[DataBinding::HOUR], n) || n > 23) return -1;
  int hour = static_cast<int>(n);
  if (!readNumber(map[DataBinding::MINUTE], n) || n > 59) return -1;
  p.minute = static_cast<int>(n);
  p.have |= TimeFormatRawParseResult::HAVE_MINUTE;
  if (map.has(DataBinding::SECOND)) {
    if (!readNumber(map[DataBinding::SECOND], n) || n > 59) return -1;
    p.second = static_cast<int>(n);
    p.have |= TimeFormatRawParseResult::HAVE_SECOND;
  }
  const StrSegment& ampm = map[DataBinding::AMPM];
  if (map.has(DataBinding::AMPM) && !ampm.empty() && hour >= 1 && hour <= 12) {
    p.hour = hour == 12 ? 0 : hour;
    p.pm = ampm[0] == 'p' || ampm[0] == 'P';
    p.have |= TimeFormatRawParseResult::HAVE_HOUR12 | TimeFormatRawParseResult::HAVE_AMPM;
  } else {
    // "13:05 PM" and the like: the clock already says which half of the day.
    p.hour = hour;
    p.have |= TimeFormatRawParseResult::HAVE_HOUR24;
  }
  if (map.has(DataBinding::ZONE) && !map[DataBinding::ZONE].empty()) {
    const StrSegment& z = map[DataBinding::ZONE];
    int32_t offset = 0;
    if (parseZoneOffset(z, offset)) {
      p.tzoffset = offset;
      p.have |= TimeFormatRawParseResult::HAVE_TZOFFSET;
    } else {
      const size_t len = z.size() < sizeof p.tzname - 1 ? z.size() : sizeof p.tzname - 1;
      std::memcpy(p.tzname, z.data(), len);
      p.tzname[len] = '\0';
      p.have |= TimeFormatRawParseResult::HAVE_TZNAM;
    }
  }
  return score;
}
