#include "pipeline/indexer/WordPositionData.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

Str WordPositionData::toString() const {
  return Str::fromFormat("%lu\t%s\t%llu\t%lu\t%lu\t%lu\n", (unsigned long)_hashCode, word.c_str(),
                         (unsigned long long)count, (unsigned long)firstTime, (unsigned long)lastTime,
                         (unsigned long)recentTime);
}

namespace {

// Reads one unsigned decimal field ending at a tab, newline or NUL.
bool readNumber(const char*& p, uint64_t& out) {
  if (*p < '0' || *p > '9') return false;
  errno = 0;
  char* end = nullptr;
  unsigned long long v = std::strtoull(p, &end, 10);
  if (errno != 0 || (*end != '\t' && *end != '\n' && *end != '\0')) return false;
  out = v;
  p = end;
  return true;
}

bool expectTab(const char*& p) {
  if (*p != '\t') return false;
  ++p;
  return true;
}

}  // namespace

bool WordPositionData::fromString(const char* line) {
  const char* p = line;
  uint64_t code, cnt, first, last, recent;
  if (!readNumber(p, code) || !expectTab(p)) return false;
  const char* tab = std::strchr(p, '\t');
  if (!tab) return false;
  Str w(p, size_t(tab - p));
  p = tab + 1;
  if (!readNumber(p, cnt) || !expectTab(p) || !readNumber(p, first) || !expectTab(p) || !readNumber(p, last) ||
      !expectTab(p) || !readNumber(p, recent))
    return false;
  if (*p != '\n' && *p != '\0') return false;
  _hashCode = code;
  word = std::move(w);
  count = cnt;
  firstTime = int64_t(first);
  lastTime = int64_t(last);
  recentTime = int64_t(recent);
  return true;
}
