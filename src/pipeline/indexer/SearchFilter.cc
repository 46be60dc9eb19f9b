#include "pipeline/indexer/SearchFilter.h"

#include <utility>

#include "pipeline/indexer/IPartitionPolicy.h"
#include "util/Logger.h"

static Logger gLogger("SearchFilter");

namespace {
// getBucketCodesForWord's table number of a kind.
int tableOf(SearchFilter::Kind k) { return k == SearchFilter::kHosts ? 1 : k == SearchFilter::kSources ? 2 : 3; }
}  // namespace

bool SearchFilter::addToAndFilters(const Str& term, IPartitionPolicy* policy) {
  return addToInternalFilters(term, policy, false);
}

bool SearchFilter::addToNotFilters(const Str& term, IPartitionPolicy* policy) {
  return addToInternalFilters(term, policy, true);
}

bool SearchFilter::addToInternalFilters(const Str& term, IPartitionPolicy* policy, bool exclude) {
  gLogger.debug("Attempting to add \"%s\" to the filters", term.c_str());
  Kind kind;
  size_t at;
  if (term.compare(0, 6, "host::") == 0) {
    kind = kHosts;
    at = 6;
  } else if (term.compare(0, 8, "source::") == 0) {
    kind = kSources;
    at = 8;
  } else {
    return false;
  }
  if (!policy || term.size() == at || term.find('*') != Str::npos) return false;
  std::vector<std::pair<uint32_t, uint32_t>> codes;
  policy->getBucketCodesForWord(tableOf(kind), Str(term.substr(at)), codes);
  if (codes.empty()) {
    gLogger.debug("Failed to add \"%s\" to the filters %u %u", term.c_str(), unsigned(kind), unsigned(exclude));
    return false;
  }
  _policy = policy;
  std::set<uint64_t>& set = exclude ? _exclude[kind] : _require[kind];
  for (const auto& [bucket, code] : codes) set.insert(key(bucket, code));
  if (!exclude) _required[kind] = true;
  _terms.push_back({term, kind, exclude});
  return true;
}

void SearchFilter::absorb(const SearchFilter& other) {
  for (int k = 0; k < 3; ++k) {
    _require[k].insert(other._require[k].begin(), other._require[k].end());
    _exclude[k].insert(other._exclude[k].begin(), other._exclude[k].end());
    _required[k] = _required[k] || other._required[k];
  }
  _terms.insert(_terms.end(), other._terms.begin(), other._terms.end());
  if (!_policy) _policy = other._policy;
  // Buckets the other one asked about may be new to this one's terms.
  _askedBuckets.clear();
}

void SearchFilter::resolve() {
  if (!_policy) return;
  std::vector<std::pair<uint32_t, uint32_t>> codes;
  for (const Term& t : _terms) {
    size_t at = t.kind == kHosts ? 6 : 8;
    _policy->getBucketCodesForWord(tableOf(t.kind), Str(t.text.substr(at)), codes);
    std::set<uint64_t>& set = t.exclude ? _exclude[t.kind] : _require[t.kind];
    for (const auto& [bucket, code] : codes) set.insert(key(bucket, code));
  }
}

bool SearchFilter::passes(const ValueWrapper& v) {
  if (_terms.empty()) return true;
  if (_askedBuckets.insert(v.bucketId).second) resolve();
  const uint32_t codes[3] = {v.host, v.source, v.sourceType};
  for (int k = 0; k < 3; ++k) {
    const uint64_t c = key(v.bucketId, codes[k]);
    if (!_exclude[k].empty() && _exclude[k].count(c)) return false;
    if (_required[k] && !_require[k].count(c)) return false;
  }
  return true;
}

size_t SearchFilter::applyFilter(const ValueWrapper* begin, const ValueWrapper* end, std::vector<ValueWrapper>& out) {
  size_t n = 0;
  for (const ValueWrapper* p = begin; p != end; ++p)
    if (passes(*p)) {
      out.push_back(*p);
      ++n;
    }
  return n;
}

Str SearchFilter::toString() const {
  Str s = "FILTER(";
  for (size_t i = 0; i < _terms.size(); ++i) {
    if (i) s += ", ";
    if (_terms[i].exclude) s += "NOT ";
    s += _terms[i].text;
  }
  return s + ")";
}
