#include "util/TimeFormat.h"

#include <cstring>

namespace {

using P = TimeFormatRawParseResult;

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

void skipSpace(const char*& p, const char* end) {
  while (p < end && isSpace(*p)) ++p;
}

// 1 to maxDigits digits in [lo, hi].
bool readNum(const char*& p, const char* end, int maxDigits, int lo, int hi, int& out) {
  const char* b = p;
  int n = 0;
  while (p < end && isDigit(*p) && p - b < maxDigits) n = n * 10 + (*p++ - '0');
  if (p == b || n < lo || n > hi) {
    p = b;
    return false;
  }
  out = n;
  return true;
}

const char* const kWdays[7] = {"sunday", "monday", "tuesday", "wednesday", "thursday", "friday", "saturday"};

bool readWday(const char*& p, const char* end, int& wday) {
  const char* b = p;
  while (p < end && isAlpha(*p)) ++p;
  size_t n = static_cast<size_t>(p - b);
  for (int d = 0; d < 7; ++d) {
    size_t full = strlen(kWdays[d]);
    size_t take = n >= full && strncasecmp(b, kWdays[d], full) == 0 ? full
                  : n >= 3 && strncasecmp(b, kWdays[d], 3) == 0   ? 3
                                                                   : 0;
    if (take) {
      p = b + take;
      wday = d;
      return true;
    }
  }
  p = b;
  return false;
}

bool readMonth(const char*& p, const char* end, P& out) {
  const char* b = p;
  while (p < end && isAlpha(*p)) ++p;
  if (out.setMonth(b, p)) return true;
  if (p - b > 3 && out.setMonth(b, b + 3)) {
    p = b + 3;
    return true;
  }
  p = b;
  return false;
}

// "Z", +hh, +hhmm, +hh:mm.
bool readOffset(const char*& p, const char* end, int32_t& out) {
  if (p < end && (*p == 'Z' || *p == 'z')) {
    ++p;
    out = 0;
    return true;
  }
  if (p >= end || (*p != '+' && *p != '-')) return false;
  const char* b = p;
  int sign = *p++ == '-' ? -1 : 1;
  int hh, mm = 0;
  if (end - p < 2 || !isDigit(p[0]) || !isDigit(p[1])) {
    p = b;
    return false;
  }
  hh = (p[0] - '0') * 10 + (p[1] - '0');
  p += 2;
  const char* q = p;
  if (q < end && *q == ':') ++q;
  if (end - q >= 2 && isDigit(q[0]) && isDigit(q[1])) {
    mm = (q[0] - '0') * 10 + (q[1] - '0');
    p = q + 2;
  }
  if (hh > 23 || mm > 59) {
    p = b;
    return false;
  }
  out = sign * (hh * 3600 + mm * 60);
  return true;
}

}  // namespace

TimeFormat::TimeFormat(const Str& format) : _format(format) {}

const Str& TimeFormat::format() const { return _format; }

bool TimeFormat::rawParse(const char* begin, const char* end, TimeFormatRawParseResult& out,
                          const char** stop) const {
  out.clear();
  const char* p = begin;
  if (!parseRange(_format.data(), _format.data() + _format.size(), p, end, out, 0)) return false;
  if (stop) *stop = p;
  return true;
}

bool TimeFormat::parseRange(const char* f, const char* fe, const char*& p, const char* end,
                            TimeFormatRawParseResult& out, int depth) const {
  auto sub = [&](const char* text) { return parseRange(text, text + strlen(text), p, end, out, depth + 1); };
  while (f < fe) {
    if (isSpace(*f)) {
      while (f < fe && isSpace(*f)) ++f;
      skipSpace(p, end);
      continue;
    }
    if (*f != '%' || f + 1 >= fe) {
      if (p >= end || *p != *f) return false;
      ++p, ++f;
      continue;
    }
    ++f;
    int width = 0;
    if (isDigit(*f) && f + 1 < fe && f[1] == 'N') width = *f++ - '0';
    char c = *f++;
    // Numeric fields allow blanks before them, as space-padded output has.
    if (strchr("YyCmdejHIkMSUWwus", c)) skipSpace(p, end);
    int n = 0;
    switch (c) {
      case 'Y': {
        bool neg = p < end && *p == '-';
        if (neg) ++p;
        if (!readNum(p, end, 4, 0, 9999, n)) return false;
        out.year = neg ? -n : n;
        out.have |= P::HAVE_YEAR;
        break;
      }
      case 'y':
        if (!readNum(p, end, 2, 0, 99, n)) return false;
        out.yearInCentury = n;
        out.have |= P::HAVE_YEAR_IN_CENTURY;
        break;
      case 'C':
        if (!readNum(p, end, 2, 0, 99, n)) return false;
        out.century = n;
        out.have |= P::HAVE_CENTURY;
        break;
      case 'm':
        if (!readNum(p, end, 2, 1, 12, n)) return false;
        out.month = n - 1;
        out.have |= P::HAVE_MONTH;
        break;
      case 'd':
      case 'e':
        if (!readNum(p, end, 2, 1, 31, n)) return false;
        out.mday = n;
        out.have |= P::HAVE_MDAY;
        break;
      case 'j':
        if (!readNum(p, end, 3, 1, 366, n)) return false;
        out.yday = n - 1;
        out.have |= P::HAVE_YDAY;
        break;
      case 'H':
      case 'k':
        if (!readNum(p, end, 2, 0, 23, n)) return false;
        out.hour = n;
        out.have = (out.have & ~P::HAVE_HOUR12) | P::HAVE_HOUR24;
        break;
      case 'I':
        if (!readNum(p, end, 2, 1, 12, n)) return false;
        out.hour = n % 12;
        out.have = (out.have & ~P::HAVE_HOUR24) | P::HAVE_HOUR12;
        break;
      case 'M':
        if (!readNum(p, end, 2, 0, 59, n)) return false;
        out.minute = n;
        out.have |= P::HAVE_MINUTE;
        break;
      case 'S':
        if (!readNum(p, end, 2, 0, 60, n)) return false;
        out.second = n;
        out.have |= P::HAVE_SECOND;
        break;
      case 'l':
        width = 3;
        [[fallthrough]];
      case 'N':
      case 'f': {
        const char* b = p;
        int maxDigits = c == 'f' ? 1 << 30 : (width ? width : 9);
        while (p < end && isDigit(*p) && p - b < maxDigits) ++p;
        if (p == b) return false;
        out.setFracsec(b, p);
        break;
      }
      case 'p': {
        if (end - p < 2) return false;
        char a = static_cast<char>(*p | 0x20);
        if ((a != 'a' && a != 'p') || (p[1] | 0x20) != 'm') {
          if (end - p >= 4 && (a == 'a' || a == 'p') && p[1] == '.' && (p[2] | 0x20) == 'm' && p[3] == '.') {
            out.pm = a == 'p';
            out.have |= P::HAVE_AMPM;
            p += 4;
            break;
          }
          return false;
        }
        out.pm = a == 'p';
        out.have |= P::HAVE_AMPM;
        p += 2;
        break;
      }
      case 'b':
      case 'B':
      case 'h':
        if (!readMonth(p, end, out)) return false;
        break;
      case 'a':
      case 'A':
        if (!readWday(p, end, n)) return false;
        out.wday = n;
        break;
      case 'z':
        if (!readOffset(p, end, out.tzoffset)) return false;
        out.have |= P::HAVE_TZOFFSET;
        break;
      case 'Z': {
        const char* b = p;
        while (p < end && (isAlpha(*p) || *p == '/' || *p == '_')) ++p;
        if (p == b) return false;
        size_t len = static_cast<size_t>(p - b);
        if (len > sizeof out.tzname - 1) len = sizeof out.tzname - 1;
        memcpy(out.tzname, b, len);
        out.tzname[len] = '\0';
        out.have |= P::HAVE_TZNAM;
        break;
      }
      case 's': {
        bool neg = p < end && *p == '-';
        const char* b = neg ? p + 1 : p;
        const char* q = b;
        int64_t v = 0;
        while (q < end && isDigit(*q) && q - b < 18) v = v * 10 + (*q++ - '0');
        if (q == b) return false;
        p = q;
        out.utcepoch = neg ? -v : v;
        out.have |= P::HAVE_UTCEPOCH;
        break;
      }
      case 'U':
      case 'W':
        if (!readNum(p, end, 2, 0, 53, n)) return false;
        out.yweek = n;
        out.yweekFromMonday = c == 'W';
        break;
      case 'w':
        if (!readNum(p, end, 1, 0, 6, n)) return false;
        out.wday = n;
        break;
      case 'u':
        if (!readNum(p, end, 1, 1, 7, n)) return false;
        out.wday = n % 7;
        break;
      case 'T':
        if (!sub("%H:%M:%S")) return false;
        break;
      case 'D':
        if (!sub("%m/%d/%y")) return false;
        break;
      case 'F':
        if (!sub("%Y-%m-%d")) return false;
        break;
      case 'R':
        if (!sub("%H:%M")) return false;
        break;
      case 'r':
        if (!sub("%I:%M:%S %p")) return false;
        break;
      case 'n':
      case 't':
        skipSpace(p, end);
        break;
      case '%':
        if (p >= end || *p != '%') return false;
        ++p;
        break;
      default:
        return false;
    }
  }
  return true;
}
