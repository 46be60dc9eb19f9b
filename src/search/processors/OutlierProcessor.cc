#include "search/processors/OutlierProcessor.h"

#include <algorithm>
#include <cmath>
#include <set>

#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/Logger.h"

namespace {
Logger gLogger("outlier");

bool finiteNumber(const Str& s, double& out) { return s.tryToDouble(out) && std::isfinite(out); }

unsigned decimalsOf(const Str& s) {
  size_t dot = s.find('.');
  if (dot == Str::npos || s.find_first_of("eE") != Str::npos) return 0;
  return unsigned(s.size() - dot - 1);
}
}  // namespace

void OutlierProcessor::processArguments() {
  Str type = "iqr", action = "tf";
  getOption("type", type);
  if (lowercase(type) != "iqr") throw searchError(this, gLogger, "Invalid type '%s', must be 'iqr'", type.c_str());
  getOption("action", action);
  action = lowercase(action);
  if (action == "rm" || action == "remove")
    _remove = true;
  else if (action != "tf" && action != "transform")
    throw searchError(this, gLogger, "Invalid action '%s', must be 'tf' or 'rm'", action.c_str());
  if (getOption("param", _param) && !(_param >= 0 && std::isfinite(_param)))
    throw searchError(this, gLogger, "Invalid param, must be a number >= 0");
  getOption("uselower", _useLower);
  getOption("mincount", _minCount);
  std::set<Str> seen;
  getNextArgs(_fields, false);
  for (const Str& f : _fields)
    if (!seen.insert(f).second) throw searchError(this, gLogger, "Field '%s' specified multiple times", f.c_str());
  refuseLeftovers();
}

void OutlierProcessor::collect(SearchResults& results) {
  for (auto& [key, ind] : results.getKeyMap()) {
    bool wanted = _fields.empty() ? !key.startswith('_') : std::find(_fields.begin(), _fields.end(), key) != _fields.end();
    if (!wanted) continue;
    Bounds* b = nullptr;
    for (const SearchResult* r : results) {
      const Str* v = r->getValuePtr(ind);
      double d;
      if (v == nullptr || !finiteNumber(*v, d)) continue;
      if (b == nullptr) b = &_bounds[key];
      b->values.push_back(d);
      b->decimals = std::max(b->decimals, decimalsOf(*v));
    }
  }
}

void OutlierProcessor::apply(SearchResults& results) {
  std::vector<std::pair<const Bounds*, sr_index_t>> cols;
  for (auto& [key, b] : _bounds) {
    sr_index_t ind = results.keyIndex(key);
    if (ind != SearchResults::nkeyindex && (b.useLow || b.useHigh)) cols.emplace_back(&b, ind);
  }
  for (auto it = results.begin(); it != results.end();) {
    bool drop = false;
    for (auto& [b, ind] : cols) {
      const Str* v = (*it)->getValuePtr(ind);
      double d;
      if (v == nullptr || !finiteNumber(*v, d)) continue;
      bool low = b->useLow && d < b->low, high = b->useHigh && d > b->high;
      if (!low && !high) continue;
      if (_remove) {
        drop = true;
        break;
      }
      (*it)->setValue(ind, Str::fromFormat("%.*f", int(b->decimals), low ? b->low : b->high));
    }
    if (drop) {
      delete *it;
      it = results.erase(it);
    } else {
      ++it;
    }
  }
}

void OutlierProcessor::execute(SearchResults& results, SearchResultsInfo&) {
  _bounds.clear();
  results.firstFile();
  while (results.readFile()) {
    collect(results);
    if (!results.nextFile()) break;
  }
  for (auto& [key, b] : _bounds) {
    size_t n = b.values.size();
    if (n < _minCount || n == 0) continue;
    std::sort(b.values.begin(), b.values.end());
    double q1 = b.values[n / 4], q3 = b.values[(3 * n) / 4], iqr = q3 - q1;
    b.high = q3 + _param * iqr;
    b.low = q1 - _param * iqr;
    b.useHigh = std::isfinite(b.high);
    b.useLow = _useLower && std::isfinite(b.low);
    b.values.clear();
    b.values.shrink_to_fit();
  }
  results.firstFile();
  while (results.readFile()) {
    apply(results);
    results.writeFile();
    if (!results.nextFile()) break;
  }
  results.firstFile();
  if (results.hasFiles()) results.readFile();
  _bounds.clear();
}
