#include "search/processors/StatsKeyInfo.h"

#include <ctype.h>
#include <errno.h>
#include <math.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "search/SearchResult.h"
#include "search/SearchResults.h"

namespace {

// Decimal places beyond this are not printed: they only come from texts
// like "1e-300", whose full expansion helps nobody.
const unsigned kMaxDecimals = 40;

Str fixed(unsigned places, double d) { return Str::fromFormat("%.*f", static_cast<int>(places), d); }
Str ratio(double d) { return Str::fromFormat("%f", d); }

int memcmpOrder(const Str& a, const Str& b) {
  size_t n = std::min(a.size(), b.size());
  int c = n ? memcmp(a.data(), b.data(), n) : 0;
  if (c != 0) return c;
  return a.size() < b.size() ? -1 : (a.size() > b.size() ? 1 : 0);
}

Str joinLines(const std::vector<Str>& v) {
  Str out;
  for (size_t i = 0; i < v.size(); ++i) {
    if (i) out += '\n';
    out += v[i];
  }
  return out;
}

}  // namespace

StatsKeyInfo::StatsKeyInfo(const StatsInclOptions& opts, const StatsLimits& limits)
    : _keepNumbers(opts.needsNumbers()),
      _keepDistinct(opts.needsDistinct()),
      _keepList(opts.needsList()),
      _limits(limits) {}

bool StatsKeyInfo::parseNumber(const Str& text, double& out) {
  if (text.empty()) return false;
  const char* p = text.c_str();
  while (isspace(static_cast<unsigned char>(*p))) ++p;
  const char* q = (*p == '-' || *p == '+') ? p + 1 : p;
  if (!isdigit(static_cast<unsigned char>(*q)) && *q != '.') return false;  // nan, inf
  if (q[0] == '0' && (q[1] == 'x' || q[1] == 'X')) return false;            // hex
  char* end = nullptr;
  errno = 0;
  double d = strtod(text.c_str(), &end);
  if (end != text.c_str() + text.size() || end == text.c_str()) return false;
  if (!std::isfinite(d)) return false;
  out = d;
  return true;
}

unsigned StatsKeyInfo::decimalsOf(const Str& text) {
  size_t dot = text.find('.');
  long frac = 0;
  size_t i = dot == Str::npos ? 0 : dot + 1;
  if (dot != Str::npos)
    while (i < text.size() && isdigit(static_cast<unsigned char>(text[i]))) ++i, ++frac;
  size_t e = text.find_first_of("eE", dot == Str::npos ? 0 : dot);
  if (e != Str::npos) frac -= strtol(text.c_str() + e + 1, nullptr, 10);
  if (frac < 0) return 0;
  return frac > static_cast<long>(kMaxDecimals) ? kMaxDecimals : static_cast<unsigned>(frac);
}

void StatsKeyInfo::addDistinct(const Str& v, unsigned long n) {
  if (!_keepDistinct) return;
  auto it = _distinct.find(v);
  if (it != _distinct.end()) {
    it->second += n;
  } else if (_limits.maxvalues == 0 || _distinct.size() < _limits.maxvalues) {
    _distinct.emplace(v, n);
  } else {
    _limitReached = true;
    return;
  }
  _distinctTotal += n;
}

void StatsKeyInfo::addString(const Str& v) {
  _last = v;
  if (!_haveStr) {
    _first = v;
    _strMin = v;
    _strMax = v;
    _haveStr = true;
  } else {
    if (memcmpOrder(v, _strMin) < 0) _strMin = v;
    if (memcmpOrder(v, _strMax) > 0) _strMax = v;
  }
}

void StatsKeyInfo::addNumber(double d, unsigned dec) {
  if (_keepNumbers) _numbers.push_back(d);
  if (dec > _decimals) _decimals = dec;
  if (_numMin == kUnset || d < _numMin) _numMin = d;
  if (_numMax == kUnset || d > _numMax) _numMax = d;
  _sum += d;
  _sumsq += d * d;
}

void StatsKeyInfo::addValue(const Str& value) {
  const Str* v = &value;
  Str cut;
  if (_limits.maxvaluesize != 0 && value.size() > _limits.maxvaluesize) {
    cut.assign(value, 0, _limits.maxvaluesize);
    v = &cut;
    _limitReached = true;
  }
  addString(*v);
  ++_count;
  addDistinct(*v, 1);
  if (_keepList) {
    if (_limits.maxvalues == 0 || _list.size() < _limits.maxvalues)
      _list.push_back(*v);
    else
      _limitReached = true;
  }
  if (_allNumeric) {
    double d;
    if (!parseNumber(*v, d)) {
      _allNumeric = false;
      _numbers.clear();
      _numbers.shrink_to_fit();
    } else {
      addNumber(d, decimalsOf(*v));
    }
  }
}

void StatsKeyInfo::addTime(double t) {
  if (_tMin == kUnset || t < _tMin) _tMin = t;
  if (_tMax == kUnset || t > _tMax) _tMax = t;
}

double StatsKeyInfo::var(const std::vector<double>& v) {
  if (v.size() <= 1) return 0;
  double mean = 0;
  for (double d : v) mean += d;
  mean /= static_cast<double>(v.size());
  double ss = 0;
  for (double d : v) ss += (d - mean) * (d - mean);
  return ss / static_cast<double>(v.size() - 1);
}

double StatsKeyInfo::varp(const std::vector<double>& v) {
  if (v.empty()) return 0;
  return var(v) * static_cast<double>(v.size() - 1) / static_cast<double>(v.size());
}

double StatsKeyInfo::varFromSums(bool population) const {
  if (_count <= 1) return 0;
  double n = static_cast<double>(_count);
  double r = (_sumsq - (_sum / n) * _sum) / (population ? n : n - 1);
  return r < 0 ? 0 : r;
}

Str StatsKeyInfo::fmtNum(double d) const { return fixed(_decimals, d); }

void StatsKeyInfo::writeResult(SearchResult& out, const StatsInclOptions& o) const {
  auto put = [&](StatsFunc f, const Str& text) {
    for (const Str& n : o.names[f]) out.setValue(n, text);
  };
  put(SF_COUNT, Str::fromFormat("%lu", _count));
  put(SF_DC, Str::fromFormat("%lu", static_cast<unsigned long>(_distinct.size())));
  if (_count == 0) return;
  bool vec = _keepNumbers && _numbers.size() == _count;
  if (_allNumeric) {
    double n = static_cast<double>(_count);
    if (o.has(SF_AVG)) put(SF_AVG, ratio(_sum / n));
    double v = vec ? var(_numbers) : varFromSums(false);
    double vp = vec ? varp(_numbers) : varFromSums(true);
    if (o.has(SF_STDEV)) put(SF_STDEV, ratio(sqrt(v)));
    if (o.has(SF_STDEVP)) put(SF_STDEVP, ratio(sqrt(vp)));
    if (o.has(SF_VAR)) put(SF_VAR, ratio(v));
    if (o.has(SF_VARP)) put(SF_VARP, ratio(vp));
    if (o.has(SF_SUM)) put(SF_SUM, fmtNum(_sum));
    if (o.has(SF_MIN)) put(SF_MIN, fmtNum(_numMin));
    if (o.has(SF_MAX)) put(SF_MAX, fmtNum(_numMax));
  } else {
    if (o.has(SF_MIN)) put(SF_MIN, _strMin);
    if (o.has(SF_MAX)) put(SF_MAX, _strMax);
  }
  std::vector<double> sorted;
  if (_allNumeric && vec && (o.has(SF_MEDIAN) || !o.percs.empty())) {
    sorted = _numbers;
    std::sort(sorted.begin(), sorted.end());
  }
  if (o.has(SF_MEDIAN) && !sorted.empty()) {
    size_t n = sorted.size(), i = n / 2;
    if (n % 2) {
      put(SF_MEDIAN, fmtNum(sorted[i]));
    } else {
      // The mean of two numbers needs at most one more place than they had.
      double m = (sorted[i - 1] + sorted[i]) / 2;
      Str s = fmtNum(m);
      if (strtod(s.c_str(), nullptr) != m) s = fixed(_decimals + 1, m);
      put(SF_MEDIAN, s);
    }
  }
  if (o.has(SF_MODE) && !_distinct.empty()) {
    auto best = _distinct.begin();
    for (auto it = _distinct.begin(); it != _distinct.end(); ++it)
      if (it->second > best->second) best = it;
    put(SF_MODE, best->first);
  }
  if (_haveStr) {
    put(SF_FIRST, _first);
    put(SF_LAST, _last);
  }
  if (_allNumeric && o.has(SF_RANGE)) put(SF_RANGE, fmtNum(_numMax - _numMin));
  auto putMulti = [&](StatsFunc f, const std::vector<Str>& vals) {
    for (const Str& n : o.names[f]) {
      out.setValue(n, joinLines(vals));
      SearchResults* p = out.getParent();
      if (p && vals.size() > 1) out.setMultiValues(p->keyIndex(n), vals);
    }
  };
  if (o.has(SF_VALUES)) {
    std::vector<Str> vals;
    for (auto& kv : _distinct) vals.push_back(kv.first);
    putMulti(SF_VALUES, vals);
  }
  if (o.has(SF_LIST)) putMulti(SF_LIST, _list);
  if (_allNumeric && o.has(SF_RATE) && _tMin != kUnset && _tMax > _tMin)
    put(SF_RATE, ratio((_numMax - _numMin) / (_tMax - _tMin)));
  if (!sorted.empty())
    for (auto& [p, names] : o.percs) {
      size_t idx = static_cast<size_t>(p) * sorted.size() / 100;
      for (const Str& n : names) out.setValue(n, fmtNum(sorted[idx]));
    }
}

void StatsKeyInfo::writePrestats(std::vector<Entry>& out) const {
  out.clear();
  auto num = [&](const char* type, const Str& text) { out.push_back({type, text, Str(), true, false}); };
  auto str = [&](const char* type, const Str& text) { out.push_back({type, Str(), text, false, true}); };
  unsigned places = _decimals + 2;
  num("count", Str::fromFormat("%lu", _count));
  if (_count == 0) return;
  num("dec", Str::fromFormat("%u", _decimals));
  if (_limitReached) num("limit", "1");
  if (!_allNumeric) {
    num("nonnum", "1");
  } else if (_numMin != kUnset) {
    // A key that never saw a number (the row count of a group) has none of
    // these to give.
    num("sum", fixed(places, _sum));
    num("sumsq", fixed(2 * _decimals + 2, _sumsq));
    num("nummin", fixed(places, _numMin));
    num("nummax", fixed(places, _numMax));
  }
  if (_haveStr) {
    str("strmin", _strMin);
    str("strmax", _strMax);
    str("first", _first);
    str("last", _last);
  }
  if (_tMin != kUnset) {
    num("tmin", fixed(6, _tMin));
    num("tmax", fixed(6, _tMax));
  }
  for (auto& kv : _distinct) out.push_back({"dv", Str::fromFormat("%lu", kv.second), kv.first, true, true});
  if (_allNumeric)
    for (double d : _numbers) num("nv", fixed(places, d));
  for (const Str& s : _list) str("li", s);
}

int StatsKeyInfo::mergeEntry(const Str& type, const Str* num, const Str* str) {
  static const char* const kNumTypes[] = {"count", "dec", "limit", "nonnum", "sum", "sumsq",
                                          "nummin", "nummax", "tmin", "tmax", "nv"};
  static const char* const kStrTypes[] = {"strmin", "strmax", "first", "last", "li"};
  bool wantsNum = false, wantsStr = false;
  for (const char* t : kNumTypes) wantsNum = wantsNum || type == t;
  for (const char* t : kStrTypes) wantsStr = wantsStr || type == t;
  if (type == "dv") wantsNum = wantsStr = true;
  if (!wantsNum && !wantsStr) return 1;
  if ((wantsNum && num == nullptr) || (wantsStr && str == nullptr)) return 2;
  double d = 0;
  if (wantsNum && !parseNumber(*num, d)) return 3;
  if (type == "count" || type == "dv") {
    unsigned long n;
    if (num->find('-') != Str::npos || !num->tryToUnsignedLong(n)) return 4;
    if (type == "count") {
      _count += n;
    } else {
      addDistinct(*str, n);
    }
    return 0;
  }
  if (type == "dec") {
    if (d > _decimals) _decimals = d > kMaxDecimals ? kMaxDecimals : static_cast<unsigned>(d);
  } else if (type == "limit") {
    _limitReached = true;
  } else if (type == "nonnum") {
    _allNumeric = false;
    _numbers.clear();
  } else if (type == "tmin" || type == "tmax") {
    addTime(d);
  } else if (!_allNumeric) {
    // A key that already saw a word ignores the numeric entries.
  } else if (type == "sum") {
    _sum += d;
  } else if (type == "sumsq") {
    _sumsq += d;
  } else if (type == "nummin") {
    if (_numMin == kUnset || d < _numMin) _numMin = d;
  } else if (type == "nummax") {
    if (_numMax == kUnset || d > _numMax) _numMax = d;
  } else if (type == "nv") {
    if (_keepNumbers) _numbers.push_back(d);
  }
  if (wantsStr) {
    if (type == "strmin") {
      if (!_haveStr || memcmpOrder(*str, _strMin) < 0) _strMin = *str;
    } else if (type == "strmax") {
      if (!_haveStr || memcmpOrder(*str, _strMax) > 0) _strMax = *str;
    } else if (type == "first") {
      if (!_haveStr) _first = *str;
    } else if (type == "last") {
      _last = *str;
      _haveStr = true;
    } else if (type == "li" && _keepList) {
      if (_limits.maxvalues == 0 || _list.size() < _limits.maxvalues)
        _list.push_back(*str);
      else
        _limitReached = true;
    }
  }
  return 0;
}
