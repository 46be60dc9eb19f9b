#include "search/processors/ContingencyProcessor.h"

#include <algorithm>
#include <vector>

#include "search/SLLimits.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/Logger.h"

namespace {
Logger gLogger("contingency");

const char kCount[] = "_ctcount";

unsigned long ctableMax() {
  static const unsigned long v = [] {
    unsigned long n = 1000;
    SL::getLimit("ctable", "maxvalues", n);
    return n;
  }();
  return v;
}

typedef std::pair<Str, unsigned long> Total;

// The values to keep: by total, largest first (ties by value), until `max`
// are kept or they cover `cover` of `all`.
std::vector<Str> keep(const std::map<Str, unsigned long>& totals, unsigned long max, double cover, unsigned long all) {
  std::vector<Total> v(totals.begin(), totals.end());
  std::stable_sort(v.begin(), v.end(), [](const Total& a, const Total& b) { return a.second > b.second; });
  std::vector<Str> out;
  unsigned long covered = 0;
  for (const Total& t : v) {
    if (out.size() >= max || (all > 0 && double(covered) >= cover * double(all))) break;
    out.push_back(t.first);
    covered += t.second;
  }
  return out;
}
}  // namespace

ContingencyProcessor::ContingencyProcessor(const Str& n) : SearchProcessor(n), _pre(n == "precontingency") {}

void ContingencyProcessor::processArguments() {
  const unsigned long max = ctableMax();
  for (auto [opt, out] : {std::pair<const char*, unsigned long*>{"maxrows", &_maxRows}, {"maxcols", &_maxCols}}) {
    unsigned long v = 0;
    getOption(opt, v);
    if (v > max) throw searchError(this, gLogger, "Value of option '%s' must be <= %lu", opt, max);
    *out = v == 0 ? max : v;
  }
  getOption("minrowcover", _minRowCover);
  getOption("mincolcover", _minColCover);
  if (!(_minRowCover > 0.0 && _minRowCover <= 1.0 && _minColCover > 0.0 && _minColCover <= 1.0))
    throw searchError(this, gLogger, "min row and col covers must be > 0.0 and <= 1.0");
  getOption("usetotal", _useTotal);
  getOption("totalstr", _totalStr);
  std::vector<Str> names;
  getNextArgs(names, false);
  refuseLeftovers();
  if (names.size() != 2 || names[0].empty() || names[1].empty() || names[0] == names[1])
    throw searchError(this, gLogger, "Must specify valid and distinct row and column fields");
  _rowField = names[0];
  _colField = names[1];
}

void ContingencyProcessor::count(SearchResults& results) {
  sr_index_t ri = results.keyIndex(_rowField), ci = results.keyIndex(_colField);
  sr_index_t ni = results.keyIndex(Str(kCount));
  for (const SearchResult* r : results) {
    const Str* rv = r->getValuePtr(ri);
    const Str* cv = r->getValuePtr(ci);
    unsigned long n = 1;
    if (ni != SearchResults::nkeyindex) {
      const Str* nv = r->getValuePtr(ni);
      if (nv == nullptr || !nv->tryToUnsignedLong(n) || n == 0 || rv == nullptr || cv == nullptr)
        throw searchError(this, gLogger, "Corrupt output from precontingency");
    }
    if (rv == nullptr || cv == nullptr || rv->empty() || cv->empty()) continue;
    _cells[{*rv, *cv}] += n;
  }
}

void ContingencyProcessor::execute(SearchResults& results, SearchResultsInfo&) {
  _cells.clear();
  count(results);
  results.free(true);
  sr_index_t ri = results.keyIndex(_rowField, true), ci = results.keyIndex(_colField, true);
  sr_index_t ni = results.keyIndex(Str(kCount), true);
  for (auto& [key, n] : _cells) {
    SearchResult* r = results.addNewResult();
    r->setValue(ri, key.first);
    r->setValue(ci, key.second);
    r->setValue(ni, ToString(n));
  }
  _cells.clear();
}

void ContingencyProcessor::execute_input(SearchResults& results, SearchResultsInfo&) { count(results); }

void ContingencyProcessor::execute_output(SearchResults& results, SearchResultsInfo&) {
  std::map<Str, unsigned long> rowTotals, colTotals;
  unsigned long all = 0;
  for (auto& [key, n] : _cells) {
    rowTotals[key.first] += n;
    colTotals[key.second] += n;
    all += n;
  }
  std::vector<Str> rows = keep(rowTotals, _maxRows, _minRowCover, all);
  std::vector<Str> cols = keep(colTotals, _maxCols, _minColCover, all);
  // A column may not overwrite the row label or the totals.
  cols.erase(std::remove_if(cols.begin(), cols.end(),
                            [this](const Str& c) { return c == _rowField || (_useTotal && c == _totalStr); }),
             cols.end());
  for (const Str& rv : rows) {
    SearchResult* r = results.addNewResult();
    r->setValue(_rowField, rv);
    for (const Str& cv : cols) {
      auto it = _cells.find({rv, cv});
      r->setValue(cv, ToString(it == _cells.end() ? 0UL : it->second));
    }
    if (_useTotal) r->setValue(_totalStr, ToString(rowTotals[rv]));
  }
  if (_useTotal && !_cells.empty()) {
    SearchResult* r = results.addNewResult();
    r->setValue(_rowField, _totalStr);
    for (const Str& cv : cols) r->setValue(cv, ToString(colTotals[cv]));
    r->setValue(_totalStr, ToString(all));
  }
  _cells.clear();
}
