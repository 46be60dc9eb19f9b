#include "search/processors/SelectOperator.h"

#include <set>

#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/Logger.h"

namespace {
Logger gLogger("fields");
}

void SelectOperator::processArguments() {
  std::vector<Str> names;
  getNextArgs(names, false);
  refuseLeftovers();
  size_t i = 0;
  if (!names.empty() && (names[0] == "+" || names[0] == "-")) {
    _remove = names[0] == "-";
    i = 1;
  }
  std::set<Str> seen;
  for (; i < names.size(); ++i) {
    if (names[i].empty()) throw searchError(this, gLogger, "Field names must not be empty strings");
    if (!seen.insert(names[i]).second)
      throw searchError(this, gLogger, "Field '%s' specified multiple times", names[i].c_str());
    _patterns.emplace_back(names[i]);
  }
  if (_patterns.empty()) throw searchError(this, gLogger, "Field names must not be empty strings");
}

void SelectOperator::execute(SearchResults& results, SearchResultsInfo& info) {
  // Public keys by index, the order of first appearance.
  std::vector<Str> keys;
  results.getColumnOrder(keys);
  std::vector<Str> drop;
  for (const Str& k : keys) {
    bool named = false;
    for (const FieldPattern& p : _patterns) named = named || p.match(k);
    if (_remove ? named : (!named && !k.startswith('_'))) drop.push_back(k);
  }
  for (const Str& k : drop) results.removeKey(k);
  if (_remove) return;
  info.columnOrder.clear();
  for (const FieldPattern& p : _patterns) {
    if (!p.hasWildcard()) {
      info.columnOrder.push_back(p.text());
      continue;
    }
    for (const Str& k : keys)
      if (p.match(k)) info.columnOrder.push_back(k);
  }
}
