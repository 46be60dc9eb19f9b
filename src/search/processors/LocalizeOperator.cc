#include "search/processors/LocalizeOperator.h"

#include <algorithm>
#include <cstdlib>

#include "search/SL.h"
#include "search/SearchResults.h"
#include "search/processors/SpilledRows.h"
#include "util/Logger.h"

namespace {
Logger gLogger("localize");

Str seconds(double v) {
  Str s = Str::fromFormat("%.6f", v);
  while (s.endswith('0')) s.pop_back();
  if (s.endswith('.')) s.pop_back();
  return s;
}
}  // namespace

bool LocalizeOperator::parseSpan(const Str& text, double& out) {
  if (text.empty() || !isdigit(static_cast<unsigned char>(text[0]))) return false;
  char* end = nullptr;
  double v = strtod(text.c_str(), &end);
  Str unit(end);
  double mul;
  if (unit.empty() || unit == "s")
    mul = 1;
  else if (unit == "m")
    mul = 60;
  else if (unit == "h")
    mul = 3600;
  else if (unit == "d")
    mul = 86400;
  else
    return false;
  out = v * mul;
  return true;
}

void LocalizeOperator::processArguments() {
  if (getOption("maxresults", _maxResults) && _maxResults == 0)
    throw searchError(this, gLogger, "Invalid value for option 'maxresults': it must be positive");
  for (auto opt : {std::make_pair("maxspan", &_maxSpan), std::make_pair("maxpause", &_maxPause)}) {
    Str v;
    if (getOption(opt.first, v) && !parseSpan(v, *opt.second))
      throw searchError(this, gLogger, "Invalid time span '%s' for option '%s'", v.c_str(), opt.first);
  }
  refuseLeftovers();
}

void LocalizeOperator::execute(SearchResults& results, SearchResultsInfo&) {
  SpilledRows::loadAll(results);
  std::vector<double> times;
  sr_index_t t = results.keyIndex(SL::Timestamp);
  for (const SearchResult* r : results) {
    if (times.size() >= _maxResults) break;
    const Str* v = r->getValuePtr(t);
    double d;
    if (v && v->tryToDouble(d)) times.push_back(d);
  }
  std::sort(times.begin(), times.end());
  struct Region {
    double start, end;
    size_t count;
  };
  std::vector<Region> regions;
  for (double x : times) {
    if (!regions.empty()) {
      Region& cur = regions.back();
      if (x - cur.end <= _maxPause && x - cur.start <= _maxSpan) {
        cur.end = x;
        ++cur.count;
        continue;
      }
    }
    regions.push_back({x, x, 1});
  }
  results.free(false);
  sr_index_t kt = results.keyIndex(SL::Timestamp, true);
  sr_index_t ks = results.keyIndex("starttime", true);
  sr_index_t ke = results.keyIndex("endtime", true);
  sr_index_t kd = results.keyIndex("duration", true);
  sr_index_t kc = results.keyIndex("count", true);
  for (auto it = regions.rbegin(); it != regions.rend(); ++it) {
    SearchResult* r = results.addNewResult();
    r->setValue(kt, seconds(it->start));
    r->setValue(ks, seconds(it->start));
    r->setValue(ke, seconds(it->end));
    r->setValue(kd, seconds(it->end - it->start));
    r->setValue(kc, ToString(static_cast<unsigned long>(it->count)));
  }
}
