#include "search/processors/DiscretizationProcessor.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "search/SLLimits.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/Logger.h"

namespace {

Logger gLogger("discretize");

// The default time spans, shortest first.
const char* const __ts_steps[] = {"1s", "10s", "1min", "10min", "1h", "1day", "1month"};

const unsigned long kDefaultBins = 100;
const double kLn10 = 2.302585092994046;
// Times beyond this many seconds from 1970 are not binned (no calendar
// arithmetic on absurd values).
const double kMaxTime = 1e11;

// Decimals needed to print `span` exactly enough (at most 30).
int decimalsOf(double span) {
  int d = 0;
  double scaled = span;
  while (d < 30 && std::fabs(scaled - std::nearbyint(scaled)) > 1e-9 * std::max(1.0, std::fabs(scaled))) {
    ++d;
    scaled = span * std::pow(10.0, d);
  }
  return d;
}

bool needsQuotes(const Str& s) {
  if (s.empty()) return true;
  for (char c : s)
    if (c == ' ' || c == '\t' || c == '=' || c == '"' || c == ',' || c == '|' || c == '[' || c == ']' ||
        c == ':')
      return true;
  return false;
}

}  // namespace

DiscretizationProcessor::DiscretizationProcessor(const Str& n)
    : SearchProcessor(n), _streaming(n == "prebin" || n == "prediscretize") {}

unsigned long DiscretizationProcessor::maxBins() {
  static unsigned long maxbins = [] {
    unsigned long v = 50000;
    if (!SL::getLimit("discretize", "maxbins", v) || v == 0) v = 50000;
    return v;
  }();
  return maxbins;
}

bool DiscretizationProcessor::parseBinValue(const Str& text, double& value) {
  const char* p = text.c_str();
  if (!(*p == '-' || *p == '+' || *p == '.' || (*p >= '0' && *p <= '9'))) return false;
  char* end = nullptr;
  double v = strtod(p, &end);
  if (end == p || !std::isfinite(v)) return false;
  if (*end != '\0') {
    // "<low>-<high>": the label of a bin reads as its low bound.
    if (*end != '-') return false;
    const char* q = end + 1;
    if (!(*q == '-' || *q == '.' || (*q >= '0' && *q <= '9'))) return false;
    char* end2 = nullptr;
    double hi = strtod(q, &end2);
    if (end2 == q || *end2 != '\0' || !std::isfinite(hi) || hi < v) return false;
  }
  value = v;
  return true;
}

void DiscretizationProcessor::processArguments() {
  Str v;
  if (getOption("bins", v)) {
    unsigned long n = 0;
    if (v.startswith('-') || !v.tryToUnsignedLong(n))
      throw searchError(this, gLogger, "Invalid value for option %s '%s'", "bins", v.c_str());
    if (n < 2 || n > maxBins())
      throw searchError(this, gLogger, "Number of bins must be >= 2 and <= %lu", maxBins());
    _bins = n;
  }
  double numSpan = 0;
  if (getOption("span", v)) {
    _spanGiven = v;
    _haveSpan = true;
    long secs = 0, count = 0;
    tl_unit_t unit;
    if (SLUtil::decompTimeSpanStr(v, secs, count, unit)) {
      if (count <= 0) throw searchError(this, gLogger, "Invalid numerical span '%s', must be > 0", v.c_str());
      _isTimeSpan = true;
      _spanSeconds = secs;
      _spanCount = count;
      _spanUnit = unit;
    } else {
      if (!v.tryToDouble(numSpan) || !std::isfinite(numSpan))
        throw searchError(this, gLogger, "Invalid value for option %s '%s'", "span", v.c_str());
      if (numSpan <= 0) throw searchError(this, gLogger, "Invalid numerical span '%s', must be > 0", v.c_str());
    }
  }
  const char* names[2] = {"start", "end"};
  Str* texts[2] = {&_startText, &_endText};
  bool* have[2] = {&_haveStart, &_haveEnd};
  double* vals[2] = {&_start, &_end};
  for (int i = 0; i < 2; ++i) {
    if (!getOption(names[i], v)) continue;
    double d;
    if (!v.tryToDouble(d) || !std::isfinite(d))
      throw searchError(this, gLogger, "Invalid value for option %s '%s'", names[i], v.c_str());
    *texts[i] = v;
    *have[i] = true;
    *vals[i] = d;
  }
  _fixedRange = _haveStart && _haveEnd;
  if (_fixedRange && _end < _start) throw searchError(this, gLogger, "%s value must be >= %s value", "end", "start");

  size_t pos = nextArgIndex();
  if (pos >= args.size()) throw searchError(this, gLogger, "Must specify field to discretize");
  StringArg* a = unconsumedString(pos);
  if (a == nullptr || a->isOption()) {
    refuseLeftovers();
    throw searchError(this, gLogger, "Must specify field to discretize");
  }
  _field = a->getText();
  a->setConsumed();
  if (_field.empty()) throw searchError(this, gLogger, "Must specify field to discretize");
  _target = _field;
  if (isNextKeyword("as")) {
    Str t;
    if (getNextArg(t, true) >= args.size() || t.empty())
      throw searchError(this, gLogger, "Expected field name after '%s'", "as");
    _target = t;
  }
  refuseLeftovers();

  if (_field == "_time") _isTimeSpan = true;
  if (_haveSpan && _isTimeSpan && _spanCount == 0) {
    // A bare number on a time field counts seconds.
    if (numSpan != std::floor(numSpan) || numSpan > 1e15)
      throw searchError(this, gLogger, "Invalid value for option %s '%s'", "span", _spanGiven.c_str());
    _spanSeconds = _spanCount = static_cast<long>(numSpan);
    _spanUnit = TL_SECOND;
  }
  if (_haveSpan) {
    _usedSpan = _spanGiven;
    if (!_isTimeSpan) {
      _numSpan = numSpan;
      _decimals = decimalsOf(numSpan);
    }
    if (_fixedRange) checkBinCount(_start, _end);
  }
}

Str DiscretizationProcessor::getStreamingOp() const {
  if (_streaming || !_haveSpan) return Str();
  Str op = "prebin span=" + _spanGiven;
  if (_haveStart) op += " start=" + _startText;
  if (_haveEnd) op += " end=" + _endText;
  op += " ";
  op += needsQuotes(_field) ? "\"" + _field + "\"" : _field;
  if (_target != _field) op += " as \"" + _target + "\"";
  gLogger.debug("Streaming op: '%s'", op.c_str());
  return op;
}

void DiscretizationProcessor::checkBinCount(double lo, double hi) const {
  double width = _isTimeSpan ? static_cast<double>(_spanSeconds) : _numSpan;
  if (width <= 0) return;
  double n = (hi - lo) / width + 1;
  if (!(n <= static_cast<double>(maxBins())))
    throw searchError(this, gLogger, "Span value '%s' would result in too many (> %lu) bins.  Edit limits.conf to change limits.",
                      _usedSpan.c_str(), maxBins());
}

void DiscretizationProcessor::computeTimeSpan(time_t& seconds, time_t& count, tl_unit_t& unit) const {
  if (_haveSpan && _isTimeSpan) {
    seconds = _spanSeconds;
    count = _spanCount;
    unit = _spanUnit;
    return;
  }
  const double s = std::floor(_start), e = _end;
  seconds = count = 1;
  unit = TL_SECOND;
  if (!(e > s)) return;
  unsigned long bins = _bins ? _bins : kDefaultBins;
  for (const char* step : __ts_steps) {
    long secs = 0, n = 0;
    tl_unit_t u;
    SLUtil::decompTimeSpanStr(step, secs, n, u);
    seconds = secs;
    count = n;
    unit = u;
    if (e - s <= static_cast<double>(secs) * static_cast<double>(bins - 1)) return;
  }
}

void DiscretizationProcessor::computeNumSpan(double& span) const {
  if (_haveSpan) {
    span = _numSpan;
    return;
  }
  unsigned long bins = _bins ? _bins : kDefaultBins;
  double range = _end - _start;
  span = 1;
  if (!(range > 0) || !std::isfinite(range)) return;
  double raw = range / static_cast<double>(bins);
  double r = std::log(raw) / kLn10;
  if (std::fabs(r - std::nearbyint(r)) < 1e-9) r = std::nearbyint(r);
  span = std::pow(10.0, std::ceil(r));
  if (!(span > 0) || !std::isfinite(span)) {
    span = 1;
    return;
  }
  double offset = _start - std::floor(_start / span) * span;
  if (std::ceil((_end - (_start - offset)) / span) > static_cast<double>(bins)) span *= 10;
}

void DiscretizationProcessor::chooseSpan() {
  if (_isTimeSpan) {
    time_t secs, count;
    tl_unit_t unit;
    computeTimeSpan(secs, count, unit);
    _spanSeconds = secs;
    _spanCount = count;
    _spanUnit = unit;
    if (!_haveSpan) {
      _usedSpan = "1s";
      for (const char* step : __ts_steps) {
        long s2, c2;
        tl_unit_t u2;
        SLUtil::decompTimeSpanStr(step, s2, c2, u2);
        if (c2 == count && u2 == unit) _usedSpan = step;
      }
    }
    return;
  }
  double span;
  computeNumSpan(span);
  _numSpan = span;
  _decimals = decimalsOf(span);
  if (!_haveSpan) _usedSpan.format("%.*f", _decimals, span);
}

void DiscretizationProcessor::scanValues(SearchResults& results, bool& any, double& lo, double& hi) {
  sr_index_t k = results.keyIndex(_field);
  if (k == SearchResults::nkeyindex) return;
  for (SearchResult* r : results) {
    const Str* v = r->getValuePtr(k);
    if (v == nullptr) continue;
    double d;
    if (!parseBinValue(*v, d)) continue;
    if (_isTimeSpan && std::fabs(d) > kMaxTime) continue;
    if (!any || d < lo) lo = d;
    if (!any || d > hi) hi = d;
    any = true;
  }
}

bool DiscretizationProcessor::discoverRange(SearchResults& results) {
  bool any = false, fieldSeen = false;
  double lo = 0, hi = 0;
  if (results.hasFiles()) {
    results.firstFile();
    while (results.readFile()) {
      fieldSeen |= results.keyIndex(_field) != SearchResults::nkeyindex;
      scanValues(results, any, lo, hi);
      if (!results.nextFile()) break;
    }
  } else {
    fieldSeen = results.keyIndex(_field) != SearchResults::nkeyindex;
    scanValues(results, any, lo, hi);
  }
  if (!fieldSeen) {
    gLogger.info("Field '%s' does not exist in the data", _field.c_str());
    return false;
  }
  if (!_haveStart) _start = any ? lo : 0;
  if (!_haveEnd) _end = any ? hi : 0;
  if (_isTimeSpan) _start = std::floor(_start);
  return true;
}

bool DiscretizationProcessor::binOne(const Str& value, Str& out) {
  double v;
  if (!parseBinValue(value, v)) return false;
  double binKey;
  if (_isTimeSpan) {
    if (std::fabs(v) > kMaxTime) return false;
    int64_t start;
    if (!SLUtil::timeBinStart(static_cast<int64_t>(std::floor(v)), _spanCount, _spanUnit, SLUtil::userTimezone(),
                              start))
      return false;
    out.format("%lld", static_cast<long long>(start));
    binKey = static_cast<double>(start);
  } else {
    double q = v / _numSpan;
    double qr = std::nearbyint(q);
    if (std::fabs(q - qr) <= 1e-9 * std::max(1.0, std::fabs(q))) q = qr;
    double b = std::floor(q);
    double lo = b * _numSpan + 0.0, hi = (b + 1) * _numSpan + 0.0;
    if (!std::isfinite(lo) || !std::isfinite(hi)) return false;
    out.format("%.*f-%.*f", _decimals, lo, _decimals, hi);
    binKey = lo;
  }
  if (!_seen || binKey < _minBin) _minBin = binKey;
  if (!_seen || binKey > _maxBin) _maxBin = binKey;
  _seen = true;
  return true;
}

bool DiscretizationProcessor::binTime(int64_t t, int64_t& start) {
  if (!SLUtil::timeBinStart(t, _spanCount, _spanUnit, SLUtil::userTimezone(), start)) return false;
  double binKey = static_cast<double>(start);
  if (!_seen || binKey < _minBin) _minBin = binKey;
  if (!_seen || binKey > _maxBin) _maxBin = binKey;
  _seen = true;
  return true;
}

void DiscretizationProcessor::checkBinnedTimes() const {
  if (_haveSpan && _seen) checkBinCount(_minBin, _maxBin);
}

void DiscretizationProcessor::changeValues(SearchResults& results) {
  sr_index_t in = results.keyIndex(_field);
  if (in == SearchResults::nkeyindex) return;
  sr_index_t out = results.keyIndex(_target, true);
  Str label;
  for (SearchResult* r : results) {
    const Str* v = r->getValuePtr(in);
    if (v == nullptr) continue;
    if (!binOne(*v, label))
      throw searchError(this, gLogger, "Failed to discretize value '%s' of field '%s'", v->c_str(), _field.c_str());
    r->setValue(out, label);
  }
  if (_haveSpan && _seen) checkBinCount(_minBin, _maxBin);
}

void DiscretizationProcessor::execute(SearchResults& results, SearchResultsInfo&) {
  if (_streaming) {
    if (_haveSpan) changeValues(results);
    return;
  }
  _seen = false;
  if (!_haveSpan) {
    if (!discoverRange(results)) {
      results.firstFile();
      if (results.hasFiles()) results.readFile();
      return;
    }
    chooseSpan();
  }
  if (!results.hasFiles()) {
    changeValues(results);
    return;
  }
  results.firstFile();
  while (results.readFile()) {
    changeValues(results);
    results.writeFile();
    if (!results.nextFile()) break;
  }
  results.firstFile();
  results.readFile();
}
