#include "search/processors/CorrelateProcessor.h"

#include "search/SLLimits.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/Logger.h"

namespace {
Logger gLogger("correlate");

unsigned long maxFields() {
  static const unsigned long v = [] {
    unsigned long n = 1000;
    SL::getLimit("correlate", "maxfields", n);
    return n;
  }();
  return v;
}
}  // namespace

void CorrelateProcessor::processArguments() {
  Str type = "cocur";
  getOption("type", type);
  if (lowercase(type) != "cocur") throw searchError(this, gLogger, "Invalid type '%s', must be 'cocur'", type.c_str());
  std::vector<Str> fields;
  getNextArgs(fields, false);
  for (const Str& f : fields)
    if (!_given.insert(f).second) throw searchError(this, gLogger, "Field '%s' specified multiple times", f.c_str());
  refuseLeftovers();
}

void CorrelateProcessor::execute_input(SearchResults& results, SearchResultsInfo&) {
  std::vector<std::pair<Str, sr_index_t>> cols;
  for (auto& [key, ind] : results.getKeyMap())
    if (_given.empty() ? !key.startswith('_') : _given.count(key) > 0) cols.emplace_back(key, ind);
  std::vector<const Str*> present;
  for (const SearchResult* r : results) {
    present.clear();
    for (auto& [key, ind] : cols) {
      const Str* v = r->getValuePtr(ind);
      if (v != nullptr && !v->empty()) present.push_back(&key);
    }
    for (size_t i = 0; i < present.size(); ++i) {
      ++_single[*present[i]];
      for (size_t j = i + 1; j < present.size(); ++j) ++_both[{*present[i], *present[j]}];
    }
  }
}

void CorrelateProcessor::execute_output(SearchResults& results, SearchResultsInfo& info) {
  std::vector<Str> fields;
  for (auto& [f, n] : _single) {
    if (fields.size() >= maxFields()) {
      Str text = Str::fromFormat("correlate compares at most %lu fields; the rest were dropped", maxFields());
      gLogger.warn("%s", text.c_str());
      info.addWarning(text);
      break;
    }
    fields.push_back(f);
  }
  for (const Str& a : fields) {
    SearchResult* r = results.addNewResult();
    r->setValue(Str("RowField"), a);
    for (const Str& b : fields) {
      unsigned long both = a == b ? _single[a] : _both[a < b ? std::make_pair(a, b) : std::make_pair(b, a)];
      unsigned long either = _single[a] + _single[b] - both;
      r->setValue(b, Str::fromFormat("%f", either ? double(both) / double(either) : 0.0));
    }
  }
  _single.clear();
  _both.clear();
}
