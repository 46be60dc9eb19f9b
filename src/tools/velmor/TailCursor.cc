#include "tools/velmor/TailCursor.h"
#include "util/StrSegment.h"

#include <algorithm>

#include "pipeline/indexer/ValueWrapper.h"
#include "search/SearchResults.h"

std::vector<const SearchResult*> TailCursor::take(const SearchResults& rows, size_t& unaddressed) {
  unaddressed = 0;
  sr_index_t cd = rows.keyIndex(Str("_cd"));
  std::vector<const SearchResult*> fresh;
  std::map<uint32_t, uint32_t> seen;
  for (const SearchResult* r : rows) {
    const Str* v = r->getValuePtr(cd);
    uint32_t bucket = 0, address = 0;
    if (!v || !ValueWrapper::parseCd(StrSegment(*v), bucket, address)) {
      ++unaddressed;
      continue;
    }
    auto known = _high.find(bucket);
    if (known == _high.end() || address > known->second) fresh.push_back(r);
    uint32_t& top = seen[bucket];
    top = std::max(top, address);
  }
  for (const auto& [bucket, address] : seen) {
    auto it = _high.find(bucket);
    if (it == _high.end() || address > it->second) _high[bucket] = address;
  }
  std::reverse(fresh.begin(), fresh.end());
  return fresh;
}

void TailCursor::mark(const SearchResults& rows) {
  size_t ignored;
  take(rows, ignored);
}
