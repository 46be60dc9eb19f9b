#include "pipeline/indexer/QueryValue.h"

#include <climits>

bool QueryValue::parseUnsigned(const Str& text, unsigned long& out) {
  if (text.empty()) return false;
  unsigned long v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    unsigned d = static_cast<unsigned>(c - '0');
    if (v > (ULONG_MAX - d) / 10) return false;
    v = v * 10 + d;
  }
  out = v;
  return true;
}

bool QueryValue::parseLong(const Str& text, long& out) {
  const bool negative = text.startswith('-');
  unsigned long magnitude;
  if (!parseUnsigned(negative ? Str(text.substr(1)) : text, magnitude)) return false;
  if (negative) {
    if (magnitude > static_cast<unsigned long>(LONG_MAX) + 1) return false;
    out = magnitude == static_cast<unsigned long>(LONG_MAX) + 1 ? LONG_MIN : -static_cast<long>(magnitude);
  } else {
    if (magnitude > static_cast<unsigned long>(LONG_MAX)) return false;
    out = static_cast<long>(magnitude);
  }
  return true;
}
