#include "search/processors/KMeansProcessor.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <set>

#include "search/SLLimits.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/Logger.h"

namespace {
Logger gLogger("kmeans");

bool finiteNumber(const Str& s, double& out) { return s.tryToDouble(out) && std::isfinite(out); }

// A small fixed generator, so that every run picks the same seeds.
struct Lcg {
  unsigned long long s;
  unsigned long next(unsigned long bound) {
    s = s * 6364136223846793005ULL + 1442695040888963407ULL;
    return (unsigned long)((s >> 33) % bound);
  }
};
}  // namespace

void KMeansProcessor::processArguments() {
  getOption("k", _k);
  if (_k < 1) throw searchError(this, gLogger, "Invalid k, must be >= 1");
  Str dt = "l2";
  getOption("dt", dt);
  dt = lowercase(dt);
  if (dt == "l1" || dt == "1")
    _l1 = true;
  else if (dt != "l2" && dt != "2")
    throw searchError(this, gLogger, "Invalid dt '%s', must be 'l1' or 'l2'", dt.c_str());
  getOption("maxiters", _maxIters);
  getOption("reps", _reps);
  if (_maxIters < 1 || _reps < 1) throw searchError(this, gLogger, "maxiters and reps must be >= 1");
  getOption("cfield", _cfield);
  if (_cfield.empty()) throw searchError(this, gLogger, "Invalid cfield");
  getOption("norm", _norm);
  getNextArgs(_fields, false);
  std::set<Str> seen;
  for (const Str& f : _fields)
    if (!seen.insert(f).second) throw searchError(this, gLogger, "Field '%s' specified multiple times", f.c_str());
  refuseLeftovers();
}

double KMeansProcessor::distance(const std::vector<double>& a, const std::vector<double>& b) const {
  double d = 0;
  for (size_t i = 0; i < a.size(); ++i) d += _l1 ? std::fabs(a[i] - b[i]) : (a[i] - b[i]) * (a[i] - b[i]);
  return d;
}

std::vector<unsigned> KMeansProcessor::cluster(const std::vector<std::vector<double>>& points) const {
  const size_t n = points.size(), k = std::min<size_t>(_k, n);
  std::vector<unsigned> best;
  double bestCost = std::numeric_limits<double>::infinity();
  Lcg rng{12345};
  for (unsigned long rep = 0; rep < _reps && n > 0; ++rep) {
    // k distinct starting points (distinct by value where the data allow).
    std::vector<std::vector<double>> centres;
    for (size_t tries = 0; centres.size() < k && tries < 20 * k + n; ++tries) {
      const std::vector<double>& p = points[rng.next(n)];
      if (std::find(centres.begin(), centres.end(), p) == centres.end() || tries >= 10 * k) centres.push_back(p);
    }
    std::vector<unsigned> assign(n, unsigned(-1));
    double cost = 0;
    for (unsigned long iter = 0; iter < _maxIters; ++iter) {
      bool changed = false;
      cost = 0;
      for (size_t i = 0; i < n; ++i) {
        unsigned c = 0;
        double dmin = distance(points[i], centres[0]);
        for (unsigned j = 1; j < centres.size(); ++j) {
          double d = distance(points[i], centres[j]);
          if (d < dmin) dmin = d, c = j;
        }
        cost += dmin;
        if (assign[i] != c) assign[i] = c, changed = true;
      }
      if (!changed) break;
      std::vector<std::vector<double>> sums(centres.size(), std::vector<double>(points[0].size(), 0));
      std::vector<size_t> counts(centres.size(), 0);
      for (size_t i = 0; i < n; ++i) {
        ++counts[assign[i]];
        for (size_t d = 0; d < points[i].size(); ++d) sums[assign[i]][d] += points[i][d];
      }
      for (size_t j = 0; j < centres.size(); ++j)
        if (counts[j] > 0)
          for (size_t d = 0; d < sums[j].size(); ++d) centres[j][d] = sums[j][d] / double(counts[j]);
    }
    if (cost < bestCost) bestCost = cost, best = assign;
  }
  // Number the clusters by their first point.
  std::vector<unsigned> renum(k, unsigned(-1));
  unsigned next = 0;
  for (unsigned& c : best) {
    if (renum[c] == unsigned(-1)) renum[c] = next++;
    c = renum[c];
  }
  return best;
}

void KMeansProcessor::execute(SearchResults& results, SearchResultsInfo& info) {
  static const unsigned long maxPoints = [] {
    unsigned long v = 100000000;
    SL::getLimit("kmeans", "maxdatapoints", v);
    return v;
  }();
  // First pass: choose the fields, then gather the points.
  std::vector<Str> fields = _fields;
  if (fields.empty()) {
    std::set<Str> numeric, other;
    results.firstFile();
    while (results.readFile()) {
      for (auto& [key, ind] : results.getKeyMap()) {
        if (key.startswith('_') || key == _cfield) continue;
        for (const SearchResult* r : results) {
          const Str* v = r->getValuePtr(ind);
          double d;
          if (v == nullptr) continue;
          (finiteNumber(*v, d) ? numeric : other).insert(key);
        }
      }
      if (!results.nextFile()) break;
    }
    for (const Str& f : numeric)
      if (!other.count(f)) fields.push_back(f);
  }
  if (fields.empty()) throw searchError(this, gLogger, "No numeric fields to cluster on");
  std::vector<std::vector<double>> points;
  bool limited = false;
  auto rowPoint = [&](const SearchResults& rs, const SearchResult& r, std::vector<double>& p) {
    p.clear();
    for (const Str& f : fields) {
      const Str* v = r.getValuePtr(rs.keyIndex(f));
      double d;
      if (v == nullptr || !finiteNumber(*v, d)) return false;
      p.push_back(d);
    }
    return true;
  };
  std::vector<double> p;
  results.firstFile();
  while (results.readFile()) {
    for (const SearchResult* r : results) {
      if (!rowPoint(results, *r, p)) continue;
      if (points.size() >= maxPoints) {
        limited = true;
        break;
      }
      points.push_back(p);
    }
    if (!results.nextFile()) break;
  }
  if (points.size() < _k) throw searchError(this, gLogger, "Too few data points for k=%lu", _k);
  std::vector<std::vector<double>> scaled = points;
  if (_norm) {
    for (size_t d = 0; d < fields.size(); ++d) {
      double sum = 0, sumsq = 0;
      for (auto& q : points) sum += q[d], sumsq += q[d] * q[d];
      double mean = sum / double(points.size());
      double sd = std::sqrt(std::max(0.0, sumsq / double(points.size()) - mean * mean));
      for (auto& q : scaled) q[d] = sd > 0 ? (q[d] - mean) / sd : 0;
    }
  }
  std::vector<unsigned> labels = cluster(scaled);
  // Second pass: label the same rows in the same order.
  size_t i = 0;
  results.firstFile();
  while (results.readFile()) {
    for (SearchResult* r : results) {
      if (i >= labels.size() || !rowPoint(results, *r, p)) continue;
      r->setValue(_cfield, ToString(labels[i++] + 1));
    }
    results.writeFile();
    if (!results.nextFile()) break;
  }
  results.firstFile();
  if (results.hasFiles()) results.readFile();
  if (limited) {
    Str text = Str::fromFormat("kmeans read only the first %lu data points; the rest were not clustered", maxPoints);
    gLogger.warn("%s", text.c_str());
    info.addWarning(text);
  }
}
