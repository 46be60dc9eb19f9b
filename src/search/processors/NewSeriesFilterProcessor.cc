#include "search/processors/NewSeriesFilterProcessor.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <limits>
#include <map>
#include <vector>

#include "search/SearchFactory.h"
#include "search/SearchParser.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/Logger.h"
#include "util/RE.h"

namespace {
Logger gLogger("newseriesfilter");

const char* const kValueField = "_nsf_value";

bool isRankFunc(const Str& f) {
  static const char* const names[] = {"count", "c",   "dc",  "distinct_count", "sum",  "avg",
                                      "mean",  "min", "max", "range",          "median"};
  for (const char* n : names)
    if (f == n) return true;
  return false;
}

// The plotted values of one series.
struct SeriesValues {
  std::vector<double> nums;
  std::set<Str> distinct;
};

// NaN when the series has no numeric value (ranked last, fails comparisons).
double rankValue(const Str& func, SeriesValues& v) {
  if (func == "count" || func == "c") return static_cast<double>(v.nums.size());
  if (func == "dc" || func == "distinct_count") return static_cast<double>(v.distinct.size());
  if (v.nums.empty()) return std::numeric_limits<double>::quiet_NaN();
  double sum = 0, lo = v.nums[0], hi = v.nums[0];
  for (double d : v.nums) {
    sum += d;
    lo = std::min(lo, d);
    hi = std::max(hi, d);
  }
  if (func == "sum") return sum;
  if (func == "avg" || func == "mean") return sum / static_cast<double>(v.nums.size());
  if (func == "min") return lo;
  if (func == "max") return hi;
  if (func == "range") return hi - lo;
  // median
  std::sort(v.nums.begin(), v.nums.end());
  size_t n = v.nums.size(), i = n / 2;
  return n % 2 == 0 ? (v.nums[i - 1] + v.nums[i]) / 2 : v.nums[i];
}

}  // namespace

void NewSeriesFilterProcessor::processArguments() {
  getOption("usenull", _useNull);
  getOption("nullstr", _nullStr);
  getOption("useother", _useOther);
  getOption("otherstr", _otherStr);
  Str words[5];
  for (size_t k = 0; k < 5; ++k) {
    // The comparators "<=", ">=", "=", "==" and "!=" read as options.
    size_t i = nextArgIndex();
    StringArg* a = i < args.size() ? unconsumedString(i) : nullptr;
    if (a == nullptr)
      throw searchError(this, gLogger,
                        "Invalid usage, expected: %s <xfield> <seriesfield> <aggregator> <comp> <criteria> [options]",
                        name.c_str());
    if (k == 3 && a->isOption()) {
      words[k] = a->getText();
      a->setConsumed();
    } else {
      getNextNonOpt(words[k], true);
    }
  }
  _x = words[0];
  _series = words[1];
  if (_x.empty() || _series.empty() || _nullStr.empty() || _otherStr.empty())
    throw searchError(this, gLogger, "Invalid usage");

  // <rank>(<value>): the rank function up to the first '(', the plotted
  // value up to the last ')'.
  const Str& agg = words[2];
  size_t open = agg.find('(');
  if (open == Str::npos || open == 0 || agg.back() != ')' || open + 2 >= agg.size())
    throw searchError(this, gLogger, "Invalid aggregator field: '%s'", agg.c_str());
  _rankFunc = lowercase(Str(agg.substr(0, open)));
  _valueSpec = agg.substr(open + 1, agg.size() - open - 2);
  if (!isRankFunc(_rankFunc)) throw searchError(this, gLogger, "Invalid aggregator field: '%s'", agg.c_str());

  Str comp = lowercase(words[3]);
  static const std::pair<const char*, Comp> comps[] = {{"in", CMP_IN},  {"notin", CMP_NOTIN}, {"<", CMP_LT},
                                                       {"<=", CMP_LE},  {">", CMP_GT},        {">=", CMP_GE},
                                                       {"=", CMP_EQ},   {"==", CMP_EQ},       {"!=", CMP_NE}};
  bool found = false;
  for (auto& c : comps)
    if (comp == c.first) {
      _comp = c.second;
      found = true;
    }
  if (!found) throw searchError(this, gLogger, "Invalid comparator: '%s'", words[3].c_str());

  const Str& crit = words[4];
  if (_comp == CMP_IN || _comp == CMP_NOTIN) {
    static const RE re("(?i)(top|bottom)([1-9]\\d*)");
    std::string which, count;
    if (!re.FullMatch(crit, &which, &count) || !Str(count).tryToUnsignedLong(_n))
      throw searchError(this, gLogger, "Invalid usage");
    _top = lowercase(Str(which)) == "top";
  } else if (!crit.tryToDouble(_threshold) || std::isnan(_threshold)) {
    throw searchError(this, gLogger, "Invalid numerical threshold: '%s'", crit.c_str());
  }
  refuseLeftovers();

  // The plotted values, one per x and series.
  makeStats();
}

void NewSeriesFilterProcessor::makeStats() {
  Str text = _valueSpec + " as " + kValueField + " by " + SearchParser::quoteWord(_x) + " " + SearchParser::quoteWord(_series);
  try {
    _stats.reset(SearchFactory::getProcessor("stats", true));
    _stats->addArgument(new StringArg(text, false, false));
    _stats->parseArguments();
    _stats->processArguments();
  } catch (const std::exception& e) {
    throw searchError(this, gLogger, "Exception caught from subcommand: %s", e.what());
  }
}

namespace {

enum class SeriesEdit { kKeep, kSet, kDrop };

// Decides every row of every spill file by its series value (null when the
// row has none): kept, given `*to`, or dropped; each file is written back
// and the first is loaded again at the end. `create` interns the series
// name in each file's dictionary first.
template <typename Decide>
void rewriteSeries(SearchResults& results, const Str& series, bool create, const Str* to, Decide decide) {
  results.firstFile();
  while (results.readFile()) {
    sr_index_t si = results.keyIndex(series, create);
    for (auto it = results.begin(); it != results.end();) {
      const Str* v = si == SearchResults::nkeyindex ? nullptr : (*it)->getValuePtr(si);
      switch (decide(v)) {
        case SeriesEdit::kKeep:
          ++it;
          break;
        case SeriesEdit::kSet:
          (*it)->setValue(si, *to);
          ++it;
          break;
        case SeriesEdit::kDrop:
          delete *it;
          it = results.erase(it);
          break;
      }
    }
    results.writeFile();
    if (!results.nextFile()) break;
  }
  results.firstFile();
  if (results.hasFiles()) results.readFile();
}

}  // namespace

void NewSeriesFilterProcessor::fillNullSeries(SearchResults& results, const Str& series, bool useNull,
                                              const Str& nullStr) {
  rewriteSeries(results, series, useNull, &nullStr, [useNull](const Str* v) {
    if (v != nullptr && !v->empty()) return SeriesEdit::kKeep;
    return useNull ? SeriesEdit::kSet : SeriesEdit::kDrop;
  });
}

void NewSeriesFilterProcessor::judge(SearchResults& plotted) {
  std::map<Str, SeriesValues> bySeries;
  sr_index_t si = plotted.keyIndex(_series), vi = plotted.keyIndex(Str(kValueField));
  for (SearchResult* r : plotted) {
    const Str* s = r->getValuePtr(si);
    if (s == nullptr) continue;
    SeriesValues& sv = bySeries[*s];
    const Str* v = r->getValuePtr(vi);
    double d;
    if (v == nullptr) continue;
    sv.distinct.insert(*v);
    if (v->tryToDouble(d) && !std::isnan(d)) sv.nums.push_back(d);
  }
  std::vector<std::pair<double, Str>> ranked;
  for (auto& kv : bySeries) ranked.emplace_back(rankValue(_rankFunc, kv.second), kv.first);
  _kept.clear();
  if (_comp == CMP_IN || _comp == CMP_NOTIN) {
    bool top = _top;
    std::stable_sort(ranked.begin(), ranked.end(), [top](const auto& a, const auto& b) {
      bool an = std::isnan(a.first), bn = std::isnan(b.first);
      if (an != bn) return bn;
      if (!an && a.first != b.first) return top ? a.first > b.first : a.first < b.first;
      return a.second < b.second;
    });
    for (size_t i = 0; i < ranked.size(); ++i)
      if ((i < _n) == (_comp == CMP_IN)) _kept.insert(ranked[i].second);
    return;
  }
  for (auto& rv : ranked) {
    double d = rv.first, t = _threshold;
    bool pass = false;
    if (!std::isnan(d)) {
      switch (_comp) {
        case CMP_LT: pass = d < t; break;
        case CMP_LE: pass = d <= t; break;
        case CMP_GT: pass = d > t; break;
        case CMP_GE: pass = d >= t; break;
        case CMP_EQ: pass = d == t; break;
        case CMP_NE: pass = d != t; break;
        default: break;
      }
    }
    if (pass) _kept.insert(rv.second);
  }
}

void NewSeriesFilterProcessor::changeValues(SearchResults& results) {
  rewriteSeries(results, _series, false, &_otherStr, [this](const Str* v) {
    if (v == nullptr || _kept.count(*v)) return SeriesEdit::kKeep;
    return _useOther ? SeriesEdit::kSet : SeriesEdit::kDrop;
  });
}

void NewSeriesFilterProcessor::execute(SearchResults& results, SearchResultsInfo& info) {
  fillNullSeries(results, _series, _useNull, _nullStr);
  SearchResults plotted;
  makeStats();  // stats keeps its groups from one run to the next
  try {
    _stats->execute_transform(results, plotted, info);
  } catch (const std::exception& e) {
    throw searchError(this, gLogger, "Exception from subcommand: %s", e.what());
  }
  judge(plotted);
  changeValues(results);
}
