#include "search/processors/TotalsProcessor.h"

#include <cmath>

#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/processors/SortCompValue.h"

void TotalsProcessor::processArguments() {
  getOption("fieldname", _dest);
  getNextArgs(_fields, false);
  refuseLeftovers();
}

Str TotalsProcessor::formatNumber(double v) {
  if (std::fabs(v) < 1e15 && v == std::floor(v)) return Str::fromFormat("%lld", static_cast<long long>(v));
  return Str::fromFormat("%.15g", v);
}

void TotalsProcessor::execute(SearchResults& results, SearchResultsInfo&) {
  std::vector<sr_index_t> inds;
  if (_fields.empty()) {
    for (auto& kv : results.getKeyMap())
      if (!kv.first.startswith('_') && kv.first != _dest) inds.push_back(kv.second);
  } else {
    for (const Str& f : _fields) inds.push_back(results.keyIndex(f));
  }
  sr_index_t dest = results.keyIndex(_dest, true);
  for (SearchResult* r : results) {
    double sum = 0, d;
    bool any = false;
    for (sr_index_t i : inds) {
      const Str* v = r->getValuePtr(i);
      if (v && SortCompValue::parseNumber(*v, d)) {
        sum += d;
        any = true;
      }
    }
    if (any) r->setValue(dest, formatNumber(sum));
  }
}
