#include "search/processors/AssociateProcessor.h"

#include <algorithm>
#include <set>

#include "search/SLLimits.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/Logger.h"

namespace {
Logger gLogger("associate");

const size_t kMaxValuesPerField = 1000;
}  // namespace

void AssociateProcessor::processArguments() {
  SL::getLimit("associate", "supfreq", _supFreq);
  SL::getLimit("associate", "improv", _improv);
  getOption("supcnt", _supCnt);
  getOption("supfreq", _supFreq);
  getOption("improv", _improv);
  if (!(_supFreq >= 0 && _supFreq <= 1)) throw searchError(this, gLogger, "Value of option 'supfreq' must be between 0 and 1");
  getNextArgs(_fields, false);
  std::set<Str> seen;
  for (const Str& f : _fields)
    if (!seen.insert(f).second) throw searchError(this, gLogger, "Field '%s' specified multiple times", f.c_str());
  refuseLeftovers();
}

void AssociateProcessor::execute_input(SearchResults& results, SearchResultsInfo&) {
  std::vector<std::pair<Str, sr_index_t>> cols;
  for (auto& [key, ind] : results.getKeyMap()) {
    bool wanted = _fields.empty() ? !key.startswith('_') : std::find(_fields.begin(), _fields.end(), key) != _fields.end();
    if (wanted) cols.emplace_back(key, ind);
  }
  std::map<Str, size_t> distinct;
  for (auto& [item, n] : _items) ++distinct[item.first];
  std::vector<Item> row;
  for (const SearchResult* r : results) {
    ++_rows;
    row.clear();
    for (auto& [key, ind] : cols) {
      const Str* v = r->getValuePtr(ind);
      if (v == nullptr || v->empty()) continue;
      ++_fieldRows[key];
      Item item(key, *v);
      auto it = _items.find(item);
      if (it == _items.end()) {
        if (distinct[key] >= kMaxValuesPerField) continue;
        ++distinct[key];
        it = _items.emplace(item, 0).first;
      }
      ++it->second;
      row.push_back(item);
    }
    for (const Item& a : row)
      for (const Item& b : row)
        if (a.first != b.first) ++_pairs[{a, b}];
  }
}

void AssociateProcessor::execute_output(SearchResults& results, SearchResultsInfo&) {
  struct Rule {
    const Item* ref;
    const Item* target;
    double support, confidence, improvement;
  };
  std::vector<Rule> rules;
  for (auto& [pair, n] : _pairs) {
    const Item& ref = pair.first;
    const Item& target = pair.second;
    unsigned long refCount = _items[ref];
    if (refCount < _supCnt || double(refCount) < _supFreq * double(_rows)) continue;
    double confidence = double(n) / double(refCount);
    double prior = double(_items[target]) / double(_fieldRows[target.first]);
    double improvement = confidence - prior;
    if (improvement < _improv) continue;
    rules.push_back({&ref, &target, double(n) / double(_rows), confidence, improvement});
  }
  // The map gives reference-then-target order; the stable sort keeps it on ties.
  std::stable_sort(rules.begin(), rules.end(), [](const Rule& a, const Rule& b) { return a.improvement > b.improvement; });
  for (const Rule& rule : rules) {
    SearchResult* r = results.addNewResult();
    r->setValue(Str("reference_key"), rule.ref->first);
    r->setValue(Str("reference_value"), rule.ref->second);
    r->setValue(Str("target_key"), rule.target->first);
    r->setValue(Str("target_value"), rule.target->second);
    r->setValue(Str("support"), Str::fromFormat("%f", rule.support));
    r->setValue(Str("confidence"), Str::fromFormat("%f", rule.confidence));
    r->setValue(Str("improvement"), Str::fromFormat("%f", rule.improvement));
  }
  _items.clear();
  _pairs.clear();
  _fieldRows.clear();
  _rows = 0;
}
