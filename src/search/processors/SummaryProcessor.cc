#include "search/processors/SummaryProcessor.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "search/SLLimits.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/Logger.h"

namespace {
Logger gLogger("summary");

const unsigned kShown = 5;  // values in top_values and bottom_values

unsigned long maxValues() {
  static const unsigned long v = [] {
    unsigned long n = 10000;
    SL::getLimit("top", "maxvalues", n);
    return n;
  }();
  return v;
}

unsigned long maxValueSize() {
  static const unsigned long v = [] {
    unsigned long n = 1000;
    SL::getLimit("top", "maxvaluesize", n);
    return n;
  }();
  return v;
}

bool finiteNumber(const Str& s, double& out) { return s.tryToDouble(out) && std::isfinite(out); }

typedef std::pair<Str, unsigned long> ValueCount;

// The values by count, largest first (smallest first with ascending), ties
// in ascending value order.
std::vector<ValueCount> byCount(const std::map<Str, unsigned long>& values, bool ascending) {
  std::vector<ValueCount> v(values.begin(), values.end());
  std::stable_sort(v.begin(), v.end(), [ascending](const ValueCount& a, const ValueCount& b) {
    return ascending ? a.second < b.second : a.second > b.second;
  });
  return v;
}

Str listValues(const std::vector<ValueCount>& v) {
  Str out;
  for (size_t i = 0; i < v.size() && i < kShown; ++i) {
    if (i) out += ", ";
    out.appendFormat("%s (%lu)", v[i].first.c_str(), v[i].second);
  }
  return out;
}

Str spName(const char* type, const Str& field) { return Str("_sp_") + type + "_" + field + "__"; }
Str spName(const char* type, unsigned i, const Str& field) {
  return Str::fromFormat("_sp_%s%u_", type, i) + field + "__";
}
}  // namespace

SummaryProcessor::SummaryProcessor(const Str& n) : SearchProcessor(n), _pre(n == "presummary") {}

void SummaryProcessor::processArguments() {
  if (!args.empty()) throw searchError(this, gLogger, "'%s' command takes no arguments", name.c_str());
}

void SummaryProcessor::addValue(FieldInfo& fi, const Str& value, unsigned long n) {
  fi.count += n;
  Str cut = value;
  if (maxValueSize() != 0 && cut.size() > maxValueSize()) cut.resize(maxValueSize());
  auto it = fi.values.find(cut);
  if (it != fi.values.end()) {
    it->second += n;
    fi.kept += n;
  } else if (maxValues() == 0 || fi.values.size() < maxValues()) {
    fi.values.emplace(cut, n);
    fi.kept += n;
  }
}

void SummaryProcessor::readPlain(SearchResults& results) {
  std::vector<std::pair<FieldInfo*, sr_index_t>> cols;
  for (auto& [key, ind] : results.getKeyMap())
    if (!key.startswith('_')) cols.emplace_back(&_fields[key], ind);
  for (const SearchResult* r : results) {
    ++_total;
    for (auto& [fi, ind] : cols) {
      const Str* v = r->getValuePtr(ind);
      if (v == nullptr || v->empty()) continue;
      addValue(*fi, *v, 1);
      double d;
      if (!fi->numeric) continue;
      if (!finiteNumber(*v, d)) {
        fi->numeric = false;
        continue;
      }
      fi->n += 1;
      fi->sum += d;
      fi->sumsq += d * d;
    }
  }
}

void SummaryProcessor::readMapHalf(SearchResults& results) {
  sr_index_t sizeInd = results.keyIndex(Str("_group_size"));
  // Per field: the columns of its counts, values and moments.
  struct Cols {
    sr_index_t ct = 0, dc = 0, mean = 0, stdev = 0;
    std::map<Str, std::pair<sr_index_t, sr_index_t>> pairs;  // "tv3" -> (value, count)
  };
  std::map<Str, Cols> cols;
  for (auto& [key, ind] : results.getKeyMap()) {
    if (!key.startswith("_sp_")) continue;
    size_t us = key.find('_', 4);
    if (us == Str::npos || key.size() < us + 4 || !key.endswith("__"))
      throw searchError(this, gLogger, "Corrupt prestats type");
    Str type = key.substr(4, us - 4), field = key.substr(us + 1, key.size() - us - 3);
    Cols& c = cols[field];
    if (type == "ct") {
      c.ct = ind;
    } else if (type == "dc") {
      c.dc = ind;
    } else if (type == "mean") {
      c.mean = ind;
    } else if (type == "stdev") {
      c.stdev = ind;
    } else if (type.size() > 2 && (type.startswith("tv") || type.startswith("tc") || type.startswith("bv") ||
                                   type.startswith("bc"))) {
      unsigned long i;
      if (!Str(type.substr(2)).tryToUnsignedLong(i)) throw searchError(this, gLogger, "Corrupt prestats type");
      Str slot = Str(type.substr(0, 1)) + type.substr(2);
      auto& p = c.pairs[slot];
      (type[1] == 'v' ? p.first : p.second) = ind;
    } else {
      throw searchError(this, gLogger, "Corrupt prestats type");
    }
  }
  for (const SearchResult* r : results) {
    unsigned long size;
    const Str* sz = r->getValuePtr(sizeInd);
    if (sz == nullptr || !sz->tryToUnsignedLong(size)) throw searchError(this, gLogger, "Corrupt prestats groupcount");
    _total += size;
    for (auto& [field, c] : cols) {
      const Str* ct = r->getValuePtr(c.ct);
      if (ct == nullptr) continue;  // the chunk did not know this field
      unsigned long count;
      if (!ct->tryToUnsignedLong(count) || count > size) throw searchError(this, gLogger, "Corrupt prestats type");
      FieldInfo& fi = _fields[field];
      unsigned long listed = 0;
      for (auto& [slot, p] : c.pairs) {
        const Str* v = r->getValuePtr(p.first);
        const Str* n = r->getValuePtr(p.second);
        if (v == nullptr && n == nullptr) continue;
        unsigned long k;
        if (v == nullptr || n == nullptr || !n->tryToUnsignedLong(k) || k == 0)
          throw searchError(this, gLogger, "Corrupt prestats type");
        addValue(fi, *v, k);
        listed += k;
      }
      if (listed > count) throw searchError(this, gLogger, "Corrupt prestats type");
      fi.count += count - listed;  // values the chunk could not keep
      const Str* mean = r->getValuePtr(c.mean);
      const Str* stdev = r->getValuePtr(c.stdev);
      double m, s;
      if (count == 0) continue;
      if (mean == nullptr || stdev == nullptr) {
        fi.numeric = false;
      } else if (!finiteNumber(*mean, m) || !finiteNumber(*stdev, s)) {
        throw searchError(this, gLogger, "Corrupt prestats type");
      } else {
        double n = double(count);
        fi.n += n;
        fi.sum += m * n;
        fi.sumsq += s * s * (n - 1) + n * m * m;
      }
    }
  }
}

bool SummaryProcessor::moments(const FieldInfo& fi, double& mean, double& stdev) {
  if (!fi.numeric || fi.count == 0) return false;
  double n = double(fi.count), var = 0;
  if (fi.kept == fi.count) {
    // Every value is at hand: sum in value order, whatever the chunking was.
    double sum = 0, d;
    for (auto& [v, c] : fi.values)
      if (finiteNumber(v, d)) sum += d * double(c);
    mean = sum / n;
    for (auto& [v, c] : fi.values)
      if (finiteNumber(v, d)) var += (d - mean) * (d - mean) * double(c);
    var = n > 1 ? var / (n - 1) : 0;
  } else {
    mean = fi.sum / fi.n;
    var = fi.n > 1 ? (fi.sumsq - fi.sum * mean) / (fi.n - 1) : 0;
  }
  stdev = std::sqrt(std::max(var, 0.0));
  return std::isfinite(mean) && std::isfinite(stdev);
}

void SummaryProcessor::execute(SearchResults& results, SearchResultsInfo&) {
  _fields.clear();
  _total = 0;
  if (results.keyIndex(Str("_group_size")) != SearchResults::nkeyindex)
    readMapHalf(results);
  else
    readPlain(results);
  results.free(true);
  SearchResult* r = results.addNewResult();
  r->setValue(Str("group_summary"), Str("1"));
  r->setValue(Str("_group_size"), ToString(_total));
  for (auto& [field, fi] : _fields) {
    if (fi.count == 0) continue;
    r->setValue(spName("ct", field), ToString(fi.count));
    r->setValue(spName("dc", field), ToString((unsigned long)fi.values.size()));
    std::vector<ValueCount> v = byCount(fi.values, false);
    size_t half = (v.size() + 1) / 2;
    for (size_t i = 0; i < v.size(); ++i) {
      bool top = i < half;
      unsigned slot = unsigned(top ? i + 1 : i - half + 1);
      r->setValue(spName(top ? "tv" : "bv", slot, field), v[i].first);
      r->setValue(spName(top ? "tc" : "bc", slot, field), ToString(v[i].second));
    }
    double mean, stdev;
    if (fi.numeric && fi.n > 0) {
      mean = fi.sum / fi.n;
      double var = fi.n > 1 ? (fi.sumsq - fi.sum * mean) / (fi.n - 1) : 0;
      stdev = std::sqrt(std::max(var, 0.0));
      if (std::isfinite(mean) && std::isfinite(stdev)) {
        r->setValue(spName("mean", field), Str::fromFormat("%.17g", mean));
        r->setValue(spName("stdev", field), Str::fromFormat("%.17g", stdev));
      }
    }
  }
  _fields.clear();
  _total = 0;
}

void SummaryProcessor::execute_input(SearchResults& results, SearchResultsInfo&) {
  if (results.keyIndex(Str("_group_size")) != SearchResults::nkeyindex)
    readMapHalf(results);
  else
    readPlain(results);
}

void SummaryProcessor::execute_output(SearchResults& results, SearchResultsInfo&) {
  for (auto& [field, fi] : _fields) {
    if (fi.count == 0) continue;
    SearchResult* r = results.addNewResult();
    r->setValue(Str("field"), field);
    r->setValue(Str("count"), ToString(fi.count));
    r->setValue(Str("coverage"), Str::fromFormat("%f", _total ? fi.count * 100.0 / double(_total) : 0.0));
    r->setValue(Str("distinct_count"), ToString((unsigned long)fi.values.size()));
    r->setValue(Str("is_exact"), fi.kept == fi.count ? "1" : "0");
    r->setValue(Str("top_values"), listValues(byCount(fi.values, false)));
    r->setValue(Str("bottom_values"), listValues(byCount(fi.values, true)));
    double mean, stdev;
    if (moments(fi, mean, stdev)) {
      r->setValue(Str("mean"), Str::fromFormat("%f", mean));
      r->setValue(Str("stdev"), Str::fromFormat("%f", stdev));
    }
  }
  _fields.clear();
  _total = 0;
}
