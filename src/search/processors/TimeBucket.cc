#include "search/processors/TimeBucket.h"

#include <algorithm>

#include "search/SearchResult.h"

void TimeBucket::addResult(const SearchResult& row, const std::vector<std::pair<Str, sr_index_t>>& fields) {
  for (const auto& f : fields) {
    const Str* v = row.getValuePtr(f.second);
    if (v == nullptr) continue;
    std::map<Str, unsigned long>& counts = _fieldCounts[f.first];
    auto it = counts.find(*v);
    if (it != counts.end()) {
      ++it->second;
    } else if (counts.size() < kMaxValuesPerField) {
      counts.emplace(*v, 1);
    }
  }
}

std::vector<std::pair<Str, unsigned long>> TimeBucket::topValues(const Str& field, size_t top) const {
  std::vector<std::pair<Str, unsigned long>> out;
  auto it = _fieldCounts.find(field);
  if (it == _fieldCounts.end()) return out;
  out.assign(it->second.begin(), it->second.end());
  std::stable_sort(out.begin(), out.end(),
                   [](const auto& a, const auto& b) { return a.second > b.second; });
  if (out.size() > top) out.resize(top);
  return out;
}

void TimeBucket::asResult(SearchResult& row, SearchResults& parent, size_t top, bool withFields) const {
  row.setValue(parent.keyIndex("_time", true), Str::fromFormat("%lld", static_cast<long long>(_start)));
  row.setValue(parent.keyIndex("_span", true), Str::fromFormat("%lld", static_cast<long long>(_end - _start)));
  row.setValue(parent.keyIndex("count", true), Str::fromFormat("%lu", _count));
  if (!withFields) return;
  for (const auto& f : _fieldCounts) {
    Str text;
    for (const auto& vc : topValues(f.first, top)) {
      if (!text.empty()) text += "\n";
      text += vc.first;
      text.appendFormat(":%lu", vc.second);
    }
    row.setValue(parent.keyIndex(f.first, true), text);
  }
}
