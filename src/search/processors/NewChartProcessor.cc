#include "search/processors/NewChartProcessor.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <set>

#include "search/SLUtil.h"
#include "search/SearchFactory.h"
#include "search/SearchParser.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/processors/DiscretizationProcessor.h"
#include "search/processors/NewSeriesFilterProcessor.h"
#include "util/Logger.h"

namespace {
Logger gLogger("chart");

// At most this many rows are added by cont, whatever the span.
const size_t kMaxFilledRows = 100000;

bool isKeyword(const Str& w, const char* kw) { return lowercase(w) == kw; }

Str q(const Str& s) { return SearchParser::quoteWord(s); }

// The number an x value sorts by: a number, a time, or a bin label's low
// bound.
bool xNumber(const Str& text, double& d) { return DiscretizationProcessor::parseBinValue(text, d); }

int decimalsOf(const Str& text) {
  size_t dot = text.find('.');
  if (dot == Str::npos) return 0;
  size_t n = 0;
  while (dot + 1 + n < text.size() && isdigit(static_cast<unsigned char>(text[dot + 1 + n]))) ++n;
  return static_cast<int>(n);
}

}  // namespace

bool NewChartProcessor::countLike() const {
  if (_specs.size() != 1) return false;
  const Str& f = _specs[0].func;
  return f == "count" || f == "c" || f == "dc" || f == "distinct_count";
}

void NewChartProcessor::readSpecs(const std::vector<Str>& words, size_t& i) {
  while (i < words.size() && !isKeyword(words[i], "by") && !isKeyword(words[i], "where")) {
    Str spec = words[i++];
    if (spec.find('(') != Str::npos || spec.find(')') != Str::npos) {
      // `avg( x )` arrives as several words: join them until the
      // parentheses balance.
      auto depth = [](const Str& s) {
        long d = 0;
        for (char c : s) d += c == '(' ? 1 : c == ')' ? -1 : 0;
        return d;
      };
      while (depth(spec) > 0 && i < words.size() && !isKeyword(words[i], "by") && !isKeyword(words[i], "where") &&
             !isKeyword(words[i], "as"))
        spec += words[i++];
      size_t open = spec.find('(');
      if (depth(spec) != 0 || open == 0 || open == Str::npos || spec.back() != ')')
        throw searchError(this, gLogger, "Malformed data field: '%s'", spec.c_str());
      DataSpec d{spec, lowercase(Str(spec.substr(0, open))), spec};
      // count() is the row count, named as `count` alone would be.
      if ((d.func == "count" || d.func == "c") && (spec.substr(open) == "()" || spec.substr(open) == "(*)"))
        d = DataSpec{d.func, d.func, spec.substr(0, open)};
      _specs.push_back(d);
    } else {
      Str f = lowercase(spec);
      if (f == "count" || f == "c")
        _specs.push_back(DataSpec{f, f, spec});
      else if (f == "default" || f == "all")
        _specs.push_back(DataSpec{spec, f, Str()});
      else
        throw searchError(this, gLogger, "Invalid specifier '%s', must be in form <func>(<field>).  E.g. max(size)",
                          spec.c_str());
    }
    if (i < words.size() && isKeyword(words[i], "as")) {
      ++i;
      if (i >= words.size() || isKeyword(words[i], "by") || isKeyword(words[i], "where"))
        throw searchError(this, gLogger, "Must specify a field name after 'as'");
      if (words[i].empty() || _specs.back().name.empty()) throw searchError(this, gLogger, "Invalid rename value");
      _specs.back().name = words[i++];
    }
  }
  if (_specs.empty()) throw searchError(this, gLogger, "Must specify data field(s) to chart!");
}

void NewChartProcessor::readByClause(const std::vector<Str>& words, size_t& i) {
  if (i >= words.size() || !isKeyword(words[i], "by")) return;
  ++i;
  bool more = i < words.size() && !isKeyword(words[i], "where");
  if (!_time) {
    if (!more) throw searchError(this, gLogger, "Expected x-axis field");
    if (words[i].empty()) throw searchError(this, gLogger, "x-axis field must not be empty");
    _x = words[i++];
    more = i < words.size() && !isKeyword(words[i], "where");
    if (!more) return;
  } else if (!more) {
    throw searchError(this, gLogger, "Expected splitby field");
  }
  if (words[i].empty()) throw searchError(this, gLogger, "splitby field cannot have empty name");
  _series = words[i++];
}

void NewChartProcessor::readWhereClause(const std::vector<Str>& words, size_t& i) {
  if (i >= words.size() || !isKeyword(words[i], "where")) return;
  ++i;
  if (i + 3 > words.size()) throw searchError(this, gLogger, "Invalid argument: '%s'", "where");
  _rankFunc = lowercase(words[i++]);
  if (_rankFunc == "c" || _rankFunc == "count") _rankFunc = "sum";
  _comp = words[i++];
  _criteria = words[i++];
}

Str NewChartProcessor::binText() const {
  Str t;
  if (!_bins.empty()) t += "bins=" + q(_bins) + " ";
  if (!_span.empty()) t += "span=" + q(_span) + " ";
  if (!_start.empty()) t += "start=" + q(_start) + " ";
  if (!_end.empty()) t += "end=" + q(_end) + " ";
  return t + q(_x);
}

Str NewChartProcessor::statsText() const {
  Str t;
  for (const DataSpec& d : _specs) {
    if (!t.empty()) t += " ";
    t += d.spec;
    // Unrenamed results already carry the name stats gives them.
    if (!d.name.empty() && d.name != d.spec) t += " as " + q(d.name);
  }
  if (!_x.empty()) {
    t += " by " + q(_x);
    if (!_series.empty()) t += " " + q(_series);
  }
  return t;
}

Str NewChartProcessor::filterText() const {
  return q(_x) + " " + q(_series) + " " + q(_rankFunc + "(" + _specs[0].spec + ")") + " " + q(_comp) + " " +
         q(_criteria) + " usenull=" + (_useNull ? "t" : "f") + " nullstr=" + q(_nullStr) +
         " useother=" + (_useOther ? "t" : "f") + " otherstr=" + q(_otherStr);
}

SearchProcessor* NewChartProcessor::makeInner(const Str& cmd, const Str& text) const {
  std::unique_ptr<SearchProcessor> p(SearchFactory::getProcessor(cmd, true));
  p->addArgument(new StringArg(text, false, false));
  p->parseArguments();
  p->processArguments();
  return p.release();
}

void NewChartProcessor::processArguments() {
  _cont = _time;
  for (const char* o : {"usenull", "useother"}) {
    bool v = true;
    if (getOption(o, v)) {
      _seriesOptionGiven = true;
      (Str(o) == "usenull" ? _useNull : _useOther) = v;
    }
  }
  if (getOption("nullstr", _nullStr)) _seriesOptionGiven = true;
  if (getOption("otherstr", _otherStr)) _seriesOptionGiven = true;
  getOption("fixedrange", _fixedRange);
  getOption("cont", _cont);
  getOption("limit", _limit);
  getOption("bins", _bins);
  getOption("span", _span);
  getOption("start", _start);
  getOption("end", _end);

  std::vector<Str> words;
  getNextArgs(words, false);
  size_t i = 0;
  readSpecs(words, i);
  readByClause(words, i);
  readWhereClause(words, i);
  if (i < words.size()) throw searchError(this, gLogger, "Invalid argument: '%s'", words[i].c_str());
  refuseLeftovers();

  if (_time) _x = "_time";
  _bin = !_x.empty() && (_time || !_bins.empty() || !_span.empty() || !_start.empty() || !_end.empty());
  if (!_series.empty()) {
    const DataSpec& d = _specs[0];
    if (_specs.size() != 1 || d.name.empty() || d.spec.find('*') != Str::npos)
      throw searchError(this, gLogger,
                        "Only single functions applied to a non-wildcarded data field is allowed when specifying a "
                        "split by field");
    if (_criteria.empty() && _limit > 0) _criteria = Str::fromFormat("top%lu", _limit);
    _filter = !_criteria.empty();
  }

  buildInner();
}

void NewChartProcessor::buildInner() {
  try {
    if (_bin) _binProc.reset(makeInner("bin", binText()));
    if (_filter) _filterProc.reset(makeInner("newseriesfilter", filterText()));
    _statsProc.reset(makeInner("stats", statsText()));
  } catch (const std::exception& e) {
    throw searchError(this, gLogger, "Exception caught from subcommand: %s", e.what());
  }
}

Str NewChartProcessor::getStreamingOp() const {
  Str op;
  if (_bin && !_span.empty()) op += "prebin " + binText() + " | ";
  if (!_series.empty() && _useNull) op += "fillnull value=" + q(_nullStr) + " " + q(_series) + " | ";
  op += "prestats " + statsText();
  gLogger.debug("Streaming op: '%s'", op.c_str());
  return op;
}

void NewChartProcessor::execute(SearchResults& results, SearchResultsInfo& info) {
  if (_series.empty() && _seriesOptionGiven)
    info.addWarning("usenull/useother/nullstr/otherstr options have no effect when no split-by series is specified");
  // Fresh inner commands: stats keeps its groups from one run to the next.
  Str saveStart = _start, saveEnd = _end;
  if (_bin && _fixedRange && _time && _start.empty() && _end.empty() && info.earliestTime.sec() != 0 &&
      info.latestTime.sec() != 0) {
    _start = Str::fromFormat("%lld", static_cast<long long>(info.earliestTime.sec()));
    _end = Str::fromFormat("%lld", static_cast<long long>(info.latestTime.sec()));
  }
  buildInner();
  _start = saveStart;
  _end = saveEnd;
  Str span;
  try {
    // Rows from the map half (prestats rows) are binned again: binning is
    // idempotent at the same span, and without a span the map half left x
    // as it was, so the range seen here is the range of the events.
    if (_binProc) {
      _binProc->execute_dispatch(results, info);
      if (auto* bin = dynamic_cast<DiscretizationProcessor*>(_binProc.get())) span = bin->spanText();
      gLogger.debug("x-axis span: '%s'", span.c_str());
    }
    if (!_series.empty()) {
      if (_filterProc)
        _filterProc->execute_dispatch(results, info);
      else
        NewSeriesFilterProcessor::fillNullSeries(results, _series, _useNull, _nullStr);
    }
    _statsProc->execute_dispatch(results, info);
    // Binned by the map half: the span is the one given.
    if (span.empty() && _bin) span = _span;
  } catch (const std::exception& e) {
    throw searchError(this, gLogger, "Exception from subcommand: %s", e.what());
  }
  pivot(results, info, span);
}

void NewChartProcessor::pivot(SearchResults& results, SearchResultsInfo& info, const Str& span) {
  // Stats leaves its rows in memory.
  sr_index_t xi = _x.empty() ? SearchResults::nkeyindex : results.keyIndex(_x);
  sr_index_t si = _series.empty() ? SearchResults::nkeyindex : results.keyIndex(_series);
  std::vector<Str> valueCols;
  if (_series.empty()) {
    std::vector<Str> order;
    results.getColumnOrder(order);
    for (const Str& c : order)
      if (c != _x) valueCols.push_back(c);
  }

  // x values in order, with their cells.
  std::map<Str, std::map<Str, Str>> cells;  // x -> column -> value
  std::set<Str> seriesSeen;
  for (SearchResult* r : results) {
    Str x = xi == SearchResults::nkeyindex ? Str() : r->getValue(xi);
    auto& row = cells[x];
    if (_series.empty()) {
      for (const Str& c : valueCols) {
        const Str* v = r->getValuePtr(results.keyIndex(c));
        if (v) row[c] = *v;
      }
    } else {
      const Str* s = r->getValuePtr(si);
      const Str* v = r->getValuePtr(results.keyIndex(_specs[0].name));
      if (s == nullptr) continue;
      // A series named like the x field must not overwrite x.
      Str col = *s == _x ? _series + ": " + *s : *s;
      seriesSeen.insert(col);
      if (v) row[col] = *v;
    }
  }
  if (!_series.empty()) {
    for (const Str& s : seriesSeen)
      if (s != _nullStr && s != _otherStr) valueCols.push_back(s);
    if (seriesSeen.count(_nullStr)) valueCols.push_back(_nullStr);
    if (seriesSeen.count(_otherStr) && _otherStr != _nullStr) valueCols.push_back(_otherStr);
  }

  std::vector<std::pair<double, Str>> xs;
  bool numeric = !_x.empty();
  for (auto& kv : cells) {
    double d = 0;
    if (numeric && (!xNumber(kv.first, d) || std::isnan(d))) numeric = false;
    xs.emplace_back(d, kv.first);
  }
  if (numeric) std::stable_sort(xs.begin(), xs.end(), [](const auto& a, const auto& b) { return a.first < b.first; });

  // cont: add the missing bins between the first and the last.
  if (_cont && _bin && numeric && xs.size() >= 2 && !span.empty()) {
    std::vector<std::pair<double, Str>> filled;
    long secs = 0, count = 0;
    tl_unit_t unit;
    bool timeMode = _x == "_time" || SLUtil::decompTimeSpanStr(span, secs, count, unit);
    if (timeMode && !SLUtil::decompTimeSpanStr(span, secs, count, unit)) {
      // A bare number is seconds.
      double d;
      if (span.tryToDouble(d) && d >= 1) {
        count = static_cast<long>(d);
        unit = TL_SECOND;
      } else {
        count = 0;
      }
    }
    double step = 0;
    int dec = 0;
    if (!timeMode && span.tryToDouble(step) && step > 0) dec = decimalsOf(span);
    std::set<double> have;
    for (auto& x : xs) have.insert(x.first);
    double last = xs.back().first;
    double cur = xs.front().first;
    size_t added = 0;
    while (added < kMaxFilledRows) {
      if (!have.count(cur)) {
        Str label;
        if (timeMode)
          label = Str::fromFormat("%lld", static_cast<long long>(cur));
        else
          label = Str::fromFormat("%.*f-%.*f", dec, cur, dec, cur + step);
        filled.emplace_back(cur, label);
        cells[label];
        ++added;
      }
      double next;
      if (timeMode) {
        if (count < 1) break;
        int64_t n;
        if (!SLUtil::timeBinNext(static_cast<int64_t>(cur), count, unit, SLUtil::userTimezone(), n)) break;
        next = static_cast<double>(n);
      } else {
        if (!(step > 0)) break;
        // Bins sit on multiples of the span.
        next = std::round((cur + step) / step) * step + 0.0;
        if (next == 0) next = 0;  // no "-0.0" labels
      }
      if (!(next > cur) || next > last) break;
      cur = next;
    }
    xs.insert(xs.end(), filled.begin(), filled.end());
    std::stable_sort(xs.begin(), xs.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  }

  SearchResults out;
  std::vector<Str> order;
  sr_index_t oxi = SearchResults::nkeyindex;
  if (!_x.empty()) {
    oxi = out.keyIndex(_x, true);
    order.push_back(_x);
  }
  std::vector<sr_index_t> cols;
  for (const Str& c : valueCols) {
    cols.push_back(out.keyIndex(c, true));
    order.push_back(c);
  }
  bool zeroFill = _cont && countLike();
  for (auto& x : xs) {
    SearchResult* r = out.addNewResult();
    if (oxi != SearchResults::nkeyindex) r->setValue(oxi, x.second);
    auto& row = cells[x.second];
    for (size_t k = 0; k < valueCols.size(); ++k) {
      auto it = row.find(valueCols[k]);
      if (it != row.end())
        r->setValue(cols[k], it->second);
      else if (zeroFill)
        r->setValue(cols[k], Str("0"));
    }
  }
  results.free(false);
  results.usurp(out, true);
  info.columnOrder = order;
}
