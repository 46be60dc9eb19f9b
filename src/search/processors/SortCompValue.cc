#include "search/processors/SortCompValue.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace {

template <typename T>
int cmp3(const T& a, const T& b) {
  return a < b ? -1 : (b < a ? 1 : 0);
}

int compareBytes(const Str& a, const Str& b) {
  int c = a.compare(b);
  return c < 0 ? -1 : (c > 0 ? 1 : 0);
}

}  // namespace

bool SortCompValue::parseNumber(const Str& text, double& out) {
  const char* s = text.c_str();
  while (*s == ' ' || *s == '\t') ++s;
  if (*s == '\0') return false;
  char* end = nullptr;
  errno = 0;
  double d = strtod(s, &end);
  if (end == s) return false;
  while (*end == ' ' || *end == '\t') ++end;
  if (*end != '\0' || std::isnan(d)) return false;
  out = d;
  return true;
}

bool SortCompValue::parseIp(const Str& text, std::array<uint32_t, 4>& out) {
  size_t part = 0, i = 0, n = text.size();
  while (part < 4) {
    size_t start = i;
    uint32_t v = 0;
    while (i < n && text[i] >= '0' && text[i] <= '9' && i - start < 3) {
      v = v * 10 + static_cast<uint32_t>(text[i] - '0');
      ++i;
    }
    if (i == start || v > 255) return false;
    out[part++] = v;
    if (part < 4) {
      if (i >= n || text[i] != '.') return false;
      ++i;
    }
  }
  return i == n;
}

void SortCompValue::set(const Str* value, sort_type t, bool asc) {
  type = t;
  ascending = asc;
  isNum = isIp = false;
  if (value == nullptr) {
    missing = true;
    text.clear();
    return;
  }
  missing = false;
  text = *value;
  if (t == number_stype || t == auto_stype) isNum = parseNumber(text, num);
  if (t == ip_stype || t == auto_stype) isIp = parseIp(text, ip);
}

int SortCompValue::compare(const SortCompValue& a, const SortCompValue& b) {
  if (a.missing || b.missing) return a.missing == b.missing ? 0 : (a.missing ? 1 : -1);
  if (a.text == b.text) return 0;
  int c = 0;
  switch (a.type) {
    case number_stype:
      if (a.isNum && b.isNum) {
        c = cmp3(a.num, b.num);
      } else if (a.isNum != b.isNum) {
        return a.isNum ? -1 : 1;  // numbers first, whichever the direction
      } else {
        c = compareBytes(a.text, b.text);
      }
      break;
    case ip_stype:
      if (a.isIp && b.isIp) {
        c = cmp3(a.ip, b.ip);
      } else if (a.isIp != b.isIp) {
        return a.isIp ? -1 : 1;
      } else {
        c = compareBytes(a.text, b.text);
      }
      break;
    case auto_stype:
      if (a.isIp && b.isIp) {
        c = cmp3(a.ip, b.ip);
      } else if (a.isNum && b.isNum) {
        c = cmp3(a.num, b.num);
      } else {
        c = compareBytes(a.text, b.text);
      }
      break;
    default:
      c = compareBytes(a.text, b.text);
      break;
  }
  return a.ascending ? c : -c;
}

bool rescomp_t::operator<(const rescomp_t& other) const {
  size_t n = vals.size() < other.vals.size() ? vals.size() : other.vals.size();
  for (size_t i = 0; i < n; ++i) {
    int c = SortCompValue::compare(vals[i], other.vals[i]);
    if (c != 0) return c < 0;
  }
  return pos < other.pos;
}
