#include "pipeline/indexer/ValueWrapper.h"

Str ValueWrapper::cd() const { return Str::fromFormat("%u:%u", bucketId, address); }

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
