#include "pipeline/analysis/LeadingTime.h"

#include <cstring>

namespace {

// Reads exactly n decimal digits at p.
bool digits(const char*& p, const char* end, int n, int& out) {
  if (end - p < n) return false;
  int v = 0;
  for (int i = 0; i < n; ++i) {
    if (p[i] < '0' || p[i] > '9') return false;
    v = v * 10 + (p[i] - '0');
  }
  p += n;
  out = v;
  return true;
}

bool lit(const char*& p, const char* end, char c) {
  if (p >= end || *p != c) return false;
  ++p;
  return true;
}

// "Jan".."Dec" (any case) to 1-12.
int month(const char*& p, const char* end) {
  static const char kNames[] = "janfebmaraprmayjunjulaugsepoctnovdec";
  if (end - p < 3) return 0;
  char m[3];
  for (int i = 0; i < 3; ++i) m[i] = char(p[i] | 0x20);
  for (int i = 0; i < 12; ++i) {
    if (std::memcmp(kNames + 3 * i, m, 3) == 0) {
      p += 3;
      return i + 1;
    }
  }
  return 0;
}

bool validTime(int mo, int d, int h, int mi, int s) {
  return mo >= 1 && mo <= 12 && d >= 1 && d <= 31 && h <= 23 && mi <= 59 && s <= 60;
}

// "HH:MM:SS".
bool clock(const char*& p, const char* end, int& h, int& mi, int& s) {
  return digits(p, end, 2, h) && lit(p, end, ':') && digits(p, end, 2, mi) && lit(p, end, ':') &&
         digits(p, end, 2, s);
}

// "Z", "+HH:MM", "+HHMM", "+HH" or nothing; offset in seconds east of UTC.
bool zone(const char*& p, const char* end, int64_t& offset) {
  offset = 0;
  if (p < end && *p == 'Z') {
    ++p;
    return true;
  }
  if (p >= end || (*p != '+' && *p != '-')) return true;
  const char* q = p;
  int sign = *q++ == '-' ? -1 : 1;
  int hh = 0, mm = 0;
  if (!digits(q, end, 2, hh)) return true;  // not a zone: leave it
  if (q < end && *q == ':') {
    const char* r = q + 1;
    if (digits(r, end, 2, mm)) q = r;
  } else {
    digits(q, end, 2, mm);
  }
  if (hh > 23 || mm > 59) return false;
  offset = sign * (hh * 3600 + mm * 60);
  p = q;
  return true;
}

}  // namespace

int64_t LeadingTime::fromCivil(int64_t y, int m, int d, int hh, int mi, int ss) {
  // Days from 1970-01-01 of a proleptic Gregorian date.
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const int64_t yoe = y - era * 400;
  const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  const int64_t days = era * 146097 + doe - 719468;
  return days * 86400 + hh * 3600 + mi * 60 + ss;
}

LeadingTime::LeadingTime(int64_t reference) : _reference(reference) {
  // The civil year of the reference time.
  int64_t days = reference >= 0 ? reference / 86400 : (reference - 86399) / 86400;
  days += 719468;
  const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const int64_t doe = days - era * 146097;
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const int64_t mp = (5 * doy + 2) / 153;
  const int64_t m = mp < 10 ? mp + 3 : mp - 9;
  _referenceYear = yoe + era * 400 + (m <= 2);
}

bool LeadingTime::iso(const char* p, const char* end, int64_t& out, const char** stop) const {
  int y, mo, d, h = 0, mi = 0, s = 0;
  if (!(digits(p, end, 4, y) && lit(p, end, '-') && digits(p, end, 2, mo) && lit(p, end, '-') &&
        digits(p, end, 2, d)))
    return false;
  if (p >= end || (*p != 'T' && *p != ' ')) return false;
  ++p;
  if (!clock(p, end, h, mi, s) || !validTime(mo, d, h, mi, s)) return false;
  if (p < end && (*p == '.' || *p == ',')) {
    ++p;
    while (p < end && *p >= '0' && *p <= '9') ++p;
  }
  int64_t offset;
  if (!zone(p, end, offset)) return false;
  out = fromCivil(y, mo, d, h, mi, s) - offset;
  if (stop) *stop = p;
  return true;
}

bool LeadingTime::syslog(const char* p, const char* end, int64_t& out) const {
  int mo = month(p, end);
  int d = 0, h, mi, s;
  if (!mo || !lit(p, end, ' ')) return false;
  if (p < end && *p == ' ') {
    ++p;
    if (!digits(p, end, 1, d)) return false;
  } else if (!digits(p, end, 2, d)) {
    if (!digits(p, end, 1, d)) return false;
  }
  if (!lit(p, end, ' ') || !clock(p, end, h, mi, s) || !validTime(mo, d, h, mi, s)) return false;
  int64_t t = fromCivil(_referenceYear, mo, d, h, mi, s);
  // A stamp well after the reference belongs to the year before (a file
  // written in January holding December's lines).
  if (t > _reference + 86400) t = fromCivil(_referenceYear - 1, mo, d, h, mi, s);
  out = t;
  return true;
}

bool LeadingTime::commonLog(const char* p, const char* end, int64_t& out) const {
  int d, y, h, mi, s;
  if (!lit(p, end, '[') || !digits(p, end, 2, d) || !lit(p, end, '/')) return false;
  int mo = month(p, end);
  if (!mo || !lit(p, end, '/') || !digits(p, end, 4, y) || !lit(p, end, ':') || !clock(p, end, h, mi, s) ||
      !validTime(mo, d, h, mi, s))
    return false;
  int64_t offset = 0;
  if (lit(p, end, ' ') && !zone(p, end, offset)) return false;
  if (!lit(p, end, ']')) return false;
  out = fromCivil(y, mo, d, h, mi, s) - offset;
  return true;
}

bool LeadingTime::bracketed(const char* p, const char* end, int64_t& out) const {
  // "[Www Mmm dd HH:MM:SS yyyy]"
  if (!lit(p, end, '[') || end - p < 4 || p[3] != ' ') return false;
  p += 4;
  int mo = month(p, end);
  int d, h, mi, s, y;
  if (!mo || !lit(p, end, ' ')) return false;
  if (p < end && *p == ' ') ++p;
  if (!digits(p, end, 2, d) && !digits(p, end, 1, d)) return false;
  if (!lit(p, end, ' ') || !clock(p, end, h, mi, s)) return false;
  if (p < end && *p == '.')
    for (++p; p < end && *p >= '0' && *p <= '9';) ++p;
  if (!lit(p, end, ' ') || !digits(p, end, 4, y) || !lit(p, end, ']') || !validTime(mo, d, h, mi, s)) return false;
  out = fromCivil(y, mo, d, h, mi, s);
  return true;
}

bool LeadingTime::parse(const StrSegment& line, int64_t& out) const {
  const char* p = line.data();
  const char* end = p + line.size();
  if (p == end) return false;
  if (*p >= '0' && *p <= '9') {
    if (iso(p, end, out)) return true;
  } else if (*p == '[') {
    return commonLog(p, end, out) || bracketed(p, end, out);
  } else if (*p == '{') {
    // A JSON event whose first member is its time.
    for (const char* key : {"{\"time\":\"", "{\"timestamp\":\"", "{\"@timestamp\":\""}) {
      size_t n = std::strlen(key);
      if (size_t(end - p) > n && std::memcmp(p, key, n) == 0) return iso(p + n, end, out);
    }
    return false;
  } else if (syslog(p, end, out)) {
    return true;
  }
  // "host ident user [stamp]": the bracket after the third blank.
  const char* q = p;
  for (int fields = 0; fields < 3; ++fields) {
    const void* blank = std::memchr(q, ' ', size_t(end - q));
    if (!blank) return false;
    q = static_cast<const char*>(blank) + 1;
  }
  return q < end && *q == '[' && commonLog(q, end, out);
}

bool LeadingTime::parseBound(const StrSegment& text, int64_t& out) {
  const char* p = text.data();
  const char* end = p + text.size();
  if (p == end) return false;
  bool number = true;
  for (const char* q = (*p == '-' ? p + 1 : p); q < end; ++q) number = number && *q >= '0' && *q <= '9';
  if (number && end - p > (*p == '-' ? 1 : 0)) {
    int64_t v = 0;
    for (const char* q = (*p == '-' ? p + 1 : p); q < end; ++q) {
      if (v > (INT64_MAX - 9) / 10) return false;
      v = v * 10 + (*q - '0');
    }
    out = *p == '-' ? -v : v;
    return true;
  }
  int y, mo, d;
  const char* q = p;
  if (!(digits(q, end, 4, y) && lit(q, end, '-') && digits(q, end, 2, mo) && lit(q, end, '-') &&
        digits(q, end, 2, d)))
    return false;
  if (q == end) {
    if (!validTime(mo, d, 0, 0, 0)) return false;
    out = fromCivil(y, mo, d, 0, 0, 0);
    return true;
  }
  int64_t t;
  const char* stop = nullptr;
  // The whole text must be the stamp.
  if (!LeadingTime(0).iso(p, end, t, &stop) || stop != end) return false;
  out = t;
  return true;
}
