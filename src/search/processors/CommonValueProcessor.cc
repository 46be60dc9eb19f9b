#include "search/processors/CommonValueProcessor.h"

#include <algorithm>
#include <set>

#include "search/SLLimits.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/Logger.h"

namespace {
Logger gLogger("top");

const char kCountField[] = "_cvcount";
const char kTotalField[] = "_cvtotal";

struct TopLimits {
  unsigned long maxResultRows = 50000;
  unsigned long maxValues = 10000;
  unsigned long maxValueSize = 1000;
};

const TopLimits& topLimits() {
  static const TopLimits limits = [] {
    TopLimits l;
    SL::getLimit("top", "maxresultrows", l.maxResultRows);
    SL::getLimit("top", "maxvalues", l.maxValues);
    SL::getLimit("top", "maxvaluesize", l.maxValueSize);
    return l;
  }();
  return limits;
}

bool allDigits(const Str& s) {
  return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}
}  // namespace

CommonValueProcessor::CommonValueProcessor(const Str& n)
    : SearchProcessor(n), _pre(n.startswith("pre")), _rare(n.endswith("rare")) {}

Str CommonValueProcessor::getStreamingOp() const {
  Str op = _rare ? "prerare" : "pretop";
  for (const Str& f : _fields) op += " " + f;
  if (!_by.empty()) {
    op += " by";
    for (const Str& f : _by) op += " " + f;
  }
  return op;
}

void CommonValueProcessor::processArguments() {
  const TopLimits& lim = topLimits();
  unsigned long limit = 10;
  bool haveLimit = getOption("limit", limit);
  getOption("showcount", _showCount);
  getOption("showperc", _showPerc);
  getOption("countfield", _countField);
  getOption("percentfield", _percField);
  std::vector<Str> names;
  getNextArgs(names, false, "by", true);
  if (!names.empty() && allDigits(names.front()) && names.size() > 1) {
    if (!haveLimit) limit = names.front().toUnsignedLong(10);
    haveLimit = true;
    names.erase(names.begin());
  }
  std::set<Str> seen;
  auto addField = [&](const Str& f, std::vector<Str>& to) {
    if (!seen.insert(f).second) throw searchError(this, gLogger, "Field specified multiple times: %s", f.c_str());
    to.push_back(f);
  };
  for (const Str& f : names) addField(f, _fields);
  if (_fields.empty()) throw searchError(this, gLogger, "No fields specified");
  if (isNextKeyword("by")) {
    std::vector<Str> by;
    getNextArgs(by, false);
    if (by.empty()) throw searchError(this, gLogger, "No fields specified");
    for (const Str& f : by) addField(f, _by);
  }
  refuseLeftovers();
  if (limit == 0) limit = lim.maxResultRows;
  if (limit > lim.maxResultRows) throw searchError(this, gLogger, "limit must be <= %lu", lim.maxResultRows);
  _limit = limit;
  if (_countField.empty() || _percField.empty() || _countField == _percField)
    throw searchError(this, gLogger, "Field specified multiple times: %s", _countField.c_str());
}

void CommonValueProcessor::add(const Key& group, const Key& values, unsigned long n) {
  Group& g = _groups[group];
  auto it = g.counts.find(values);
  if (it != g.counts.end()) {
    it->second += n;
    return;
  }
  unsigned long maxValues = topLimits().maxValues;
  if (maxValues != 0 && g.counts.size() >= maxValues) {
    _valuesLimited = true;
    return;
  }
  g.counts.emplace(values, n);
}

Str CommonValueProcessor::cut(const Str& v) {
  const unsigned long maxSize = topLimits().maxValueSize;
  if (maxSize == 0 || v.size() <= maxSize) return v;
  _valuesLimited = true;
  return v.substr(0, maxSize);
}

void CommonValueProcessor::countRows(SearchResults& results) {
  std::vector<sr_index_t> fi, bi;
  for (const Str& f : _fields) fi.push_back(results.keyIndex(f));
  for (const Str& f : _by) bi.push_back(results.keyIndex(f));
  for (const Str& f : _fields)
    if (results.keyIndex(f) != SearchResults::nkeyindex) _seen.insert(f);
  for (const Str& f : _by)
    if (results.keyIndex(f) != SearchResults::nkeyindex) _seen.insert(f);
  sr_index_t ci = results.keyIndex(Str(kCountField)), ti = results.keyIndex(Str(kTotalField));
  bool fromMap = ci != SearchResults::nkeyindex || ti != SearchResults::nkeyindex;
  Key group(_by.size()), values(_fields.size());
  // Reads single values of `inds` into `out`; false if one is missing or empty.
  auto read = [&](const SearchResult& r, const std::vector<sr_index_t>& inds, Key& out) {
    for (size_t k = 0; k < inds.size(); ++k) {
      const Str* v = r.getValuePtr(inds[k]);
      if (v == nullptr || v->empty()) return false;
      out[k] = cut(*v);
    }
    return true;
  };
  std::vector<std::vector<Str>> elems(_fields.size());
  std::vector<size_t> pos(_fields.size());
  for (const SearchResult* r : results) {
    if (fromMap) {
      const Str* c = r->getValuePtr(ci);
      const Str* t = r->getValuePtr(ti);
      unsigned long n = 0;
      if ((c == nullptr) == (t == nullptr) || !(c ? c : t)->tryToUnsignedLong(n) || n == 0)
        throw searchError(this, gLogger, "Corrupt output from pretop or prerare (zero count)");
      if (!read(*r, bi, group) || (c != nullptr && !read(*r, fi, values)))
        throw searchError(this, gLogger, "Corrupt output from pretop or prerare (missing fields)");
      if (c != nullptr)
        add(group, values, n);
      else
        _groups[group].total += n;
      continue;
    }
    if (!read(*r, bi, group)) continue;
    // Every combination of the fields' values (each element of a
    // multi-value field on its own) counts once; the row counts once.
    bool all = true;
    for (size_t k = 0; k < fi.size() && all; ++k) {
      std::vector<Str>& e = elems[k];
      r->getMultiValues(fi[k], e);
      e.erase(std::remove_if(e.begin(), e.end(), [](const Str& v) { return v.empty(); }), e.end());
      for (Str& v : e) v = cut(v);
      all = !e.empty();
      pos[k] = 0;
    }
    if (!all) continue;
    _groups[group].total += 1;
    for (;;) {
      for (size_t k = 0; k < fi.size(); ++k) values[k] = elems[k][pos[k]];
      add(group, values, 1);
      size_t k = 0;
      while (k < pos.size() && ++pos[k] == elems[k].size()) pos[k++] = 0;
      if (k == pos.size()) break;
    }
  }
}

void CommonValueProcessor::writeWarnings(SearchResultsInfo& info) {
  if (!_valuesLimited) return;
  Str names;
  for (const Str& f : _fields) names += (names.empty() ? "" : ",") + f;
  Str text = Str::fromFormat(
      "Limit for field '%s' reached.  Some values may have been truncated or ignored.  If necessary, edit "
      "limits.conf to adjust limits.",
      names.c_str());
  gLogger.warn("%s", text.c_str());
  info.addWarning(text);
  _valuesLimited = false;
}

void CommonValueProcessor::execute(SearchResults& results, SearchResultsInfo& info) {
  _groups.clear();
  countRows(results);
  results.free(true);
  std::vector<sr_index_t> fi, bi;
  for (const Str& f : _fields) fi.push_back(results.keyIndex(f, true));
  for (const Str& f : _by) bi.push_back(results.keyIndex(f, true));
  sr_index_t ci = results.keyIndex(Str(kCountField), true), ti = results.keyIndex(Str(kTotalField), true);
  for (auto& [group, g] : _groups) {
    SearchResult* t = results.addNewResult();
    for (size_t k = 0; k < bi.size(); ++k) t->setValue(bi[k], group[k]);
    t->setValue(ti, ToString(g.total));
    for (auto& [values, n] : g.counts) {
      SearchResult* r = results.addNewResult();
      for (size_t k = 0; k < bi.size(); ++k) r->setValue(bi[k], group[k]);
      for (size_t k = 0; k < fi.size(); ++k) r->setValue(fi[k], values[k]);
      r->setValue(ci, ToString(n));
    }
  }
  _groups.clear();
  writeWarnings(info);
}

void CommonValueProcessor::execute_input(SearchResults& results, SearchResultsInfo&) { countRows(results); }

void CommonValueProcessor::execute_output(SearchResults& results, SearchResultsInfo& info) {
  typedef std::pair<const Key*, unsigned long> Entry;
  for (auto& [group, g] : _groups) {
    std::vector<Entry> entries;
    entries.reserve(g.counts.size());
    for (auto& [values, n] : g.counts) entries.emplace_back(&values, n);
    // Stable: equal counts keep the map's ascending value order.
    if (_rare)
      std::stable_sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) { return a.second < b.second; });
    else
      std::stable_sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) { return a.second > b.second; });
    if (entries.size() > _limit) entries.resize(_limit);
    // Map-half rows without their total rows: the counts are the total.
    double total = double(g.total);
    if (g.total == 0)
      for (auto& [values, n] : g.counts) total += double(n);
    for (const Entry& e : entries) {
      SearchResult* r = results.addNewResult();
      for (size_t k = 0; k < _by.size(); ++k) r->setValue(_by[k], group[k]);
      for (size_t k = 0; k < _fields.size(); ++k) r->setValue(_fields[k], (*e.first)[k]);
      if (_showCount) r->setValue(_countField, ToString(e.second));
      if (_showPerc) r->setValue(_percField, Str::fromFormat("%f", e.second * 100.0 / total));
    }
  }
  std::set<Str> missing;
  for (const Str& f : _fields)
    if (!_seen.count(f)) missing.insert(f);
  for (const Str& f : _by)
    if (!_seen.count(f)) missing.insert(f);
  if (!missing.empty()) info.warnMissingFields(gLogger, missing);
  _seen.clear();
  _groups.clear();
  writeWarnings(info);
}
