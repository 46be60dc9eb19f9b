#include "pipeline/indexer/ValueWrapper.h"

#include <algorithm>
#include <cstdio>

size_t ValueWrapper::cdInto(char* buf, size_t size) const {
  int n = snprintf(buf, size, "%u:%u", bucketId, address);
  return n < 0 ? 0 : std::min(size_t(n), size ? size - 1 : 0);
}

Str ValueWrapper::cd() const {
  char buf[24];
  size_t n = cdInto(buf, sizeof buf);
  return Str(buf, n);
}

static bool readU32(const char*& p, const char* end, uint32_t& out) {
  if (p == end || *p < '0' || *p > '9') return false;
  uint64_t v = 0;
  while (p != end && *p >= '0' && *p <= '9') {
    v = v * 10 + uint64_t(*p++ - '0');
    if (v > 0xFFFFFFFFull) return false;
  }
  out = uint32_t(v);
  return true;
}

bool ValueWrapper::parseCd(const StrSegment& text, uint32_t& bucketId, uint32_t& address) {
  const char* p = text.data();
  const char* end = p + text.size();
  if (!readU32(p, end, bucketId)) return false;
  if (p == end || *p++ != ':') return false;
  return readU32(p, end, address) && p == end;
}
