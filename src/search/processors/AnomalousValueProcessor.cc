#include "search/processors/AnomalousValueProcessor.h"

#include <algorithm>
#include <cmath>
#include <set>

#include "search/SLLimits.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/Logger.h"

namespace {
Logger gLogger("anomalousvalue");

bool isFraction(double v) { return v >= 0.0 && v <= 1.0; }
}  // namespace

void AnomalousValueProcessor::processArguments() {
  SL::getLimit("anomalousvalue", "minsupfreq", _minSupFreq);
  SL::getLimit("anomalousvalue", "minnormfreq", _minNormFreq);
  getOption("action", _action);
  _action = lowercase(_action);
  if (_action != "filter" && _action != "annotate" && _action != "summary")
    throw searchError(this, gLogger, "Invalid action '%s', must be filter, annotate or summary", _action.c_str());
  for (auto [opt, out] : {std::pair<const char*, double*>{"pthresh", &_pthresh},
                          {"maxanofreq", &_maxAnoFreq},
                          {"minsupfreq", &_minSupFreq},
                          {"minnormfreq", &_minNormFreq}}) {
    getOption(opt, *out);
    if (!isFraction(*out)) throw searchError(this, gLogger, "Value of option '%s' must be between 0 and 1", opt);
  }
  getOption("minsupcount", _minSupCount);
  getNextArgs(_fields, false);
  std::set<Str> seen;
  for (const Str& f : _fields)
    if (!seen.insert(f).second) throw searchError(this, gLogger, "Field '%s' specified multiple times", f.c_str());
  refuseLeftovers();
}

void AnomalousValueProcessor::countRows(SearchResults& results) {
  std::vector<std::pair<FieldCounts*, sr_index_t>> cols;
  for (auto& [key, ind] : results.getKeyMap()) {
    bool wanted = _fields.empty() ? !key.startswith('_') && key != "anomalous_fields" && key != "anomaly_score"
                                  : std::find(_fields.begin(), _fields.end(), key) != _fields.end();
    if (wanted) cols.emplace_back(&_counts[key], ind);
  }
  for (const SearchResult* r : results) {
    ++_rows;
    for (auto& [fc, ind] : cols) {
      const Str* v = r->getValuePtr(ind);
      if (v == nullptr || v->empty()) continue;
      ++fc->count;
      ++fc->values[*v];
    }
  }
}

void AnomalousValueProcessor::judge() {
  for (auto& [field, fc] : _counts) {
    fc.judged = false;
    if (fc.count == 0 || fc.count < _minSupCount || double(fc.count) < _minSupFreq * double(_rows)) continue;
    unsigned long top = 0, anomalous = 0;
    for (auto& [v, n] : fc.values) {
      top = std::max(top, n);
      if (double(n) <= _pthresh * double(fc.count)) anomalous += n;
    }
    if (double(top) < _minNormFreq * double(fc.count)) continue;
    if (double(anomalous) > _maxAnoFreq * double(fc.count)) continue;
    fc.judged = anomalous > 0;
  }
}

void AnomalousValueProcessor::mark(SearchResults& results) {
  std::vector<std::pair<std::pair<const Str, FieldCounts>*, sr_index_t>> cols;
  for (auto& entry : _counts)
    if (entry.second.judged) cols.emplace_back(&entry, results.keyIndex(entry.first));
  for (auto it = results.begin(); it != results.end();) {
    Str names;
    double score = 0;
    for (auto& [entry, ind] : cols) {
      const Str* v = (*it)->getValuePtr(ind);
      if (v == nullptr || v->empty()) continue;
      const FieldCounts& fc = entry->second;
      auto found = fc.values.find(*v);
      if (found == fc.values.end() || double(found->second) > _pthresh * double(fc.count)) continue;
      if (!names.empty()) names += ", ";
      names += entry->first;
      score -= std::log10(double(found->second) / double(fc.count));
    }
    if (names.empty() && _action == "filter") {
      delete *it;
      it = results.erase(it);
      continue;
    }
    if (!names.empty()) {
      (*it)->setValue(Str("anomalous_fields"), names);
      (*it)->setValue(Str("anomaly_score"), Str::fromFormat("%f", score));
    }
    ++it;
  }
}

void AnomalousValueProcessor::execute(SearchResults& results, SearchResultsInfo&) {
  _counts.clear();
  _rows = 0;
  results.firstFile();
  while (results.readFile()) {
    countRows(results);
    if (!results.nextFile()) break;
  }
  judge();
  if (_action == "summary") {
    results.clearFileList();
    results.free(false);
    for (auto& [field, fc] : _counts) {
      if (!fc.judged) continue;
      unsigned long values = 0, rows = 0;
      for (auto& [v, n] : fc.values)
        if (double(n) <= _pthresh * double(fc.count)) ++values, rows += n;
      SearchResult* r = results.addNewResult();
      r->setValue(Str("field"), field);
      r->setValue(Str("count"), ToString(fc.count));
      r->setValue(Str("distinct_count"), ToString((unsigned long)fc.values.size()));
      r->setValue(Str("anomalous_values"), ToString(values));
      r->setValue(Str("anomalous_rows"), ToString(rows));
    }
  } else {
    results.firstFile();
    while (results.readFile()) {
      mark(results);
      results.writeFile();
      if (!results.nextFile()) break;
    }
    results.firstFile();
    if (results.hasFiles()) results.readFile();
  }
  _counts.clear();
}
