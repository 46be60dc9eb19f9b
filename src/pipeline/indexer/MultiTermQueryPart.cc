#include "pipeline/indexer/MultiTermQueryPart.h"

#include <algorithm>

#include "pipeline/indexer/IPartitionPolicy.h"
#include "pipeline/indexer/QueryStateMachine.h"
#include "util/Logger.h"

static Logger gLogger("MultiTermQueryPart");

MultiTermQueryPart::MultiTermQueryPart(const std::vector<Str>& andTerms, const std::vector<Str>& orTerms,
                                       const std::vector<Str>& notTerms, QueryStateMachine* sm)
    : QueryPart(sm), _and(andTerms), _or(orTerms), _not(notTerms) {
  _leaf = true;
}

void MultiTermQueryPart::getIds(std::vector<ValueWrapper>& out, unsigned long startPosition, unsigned long count,
                                long minTime, long maxTime) {
  gLogger.debug("Going to run %s", toString().c_str());
  fetchFromIndex(_hint, _and, _or, _not, out, startPosition, count, minTime, maxTime);
}

Str MultiTermQueryPart::toString() const {
  Str s = negationPrefix() + "MULTI(";
  bool first = true;
  auto sep = [&] {
    if (!first) s += ", ";
    first = false;
  };
  for (const Str& t : _and) {
    sep();
    s += t;
  }
  if (!_or.empty()) {
    sep();
    s += "OR(";
    for (size_t i = 0; i < _or.size(); ++i) s += (i ? ", " : "") + _or[i];
    s += ")";
  }
  for (const Str& t : _not) {
    sep();
    s += "NOT " + t;
  }
  return s + ")";
}

long MultiTermQueryPart::getCount() {
  if (_cachedCount != -2) return _cachedCount;
  IPartitionPolicy* p = _sm->getPolicy();
  auto count = [p](const Str& t) -> long {
    if (!p || t.find('*') != Str::npos) return -1;
    return p->getTermCount(t[0] == '+' ? Str(t.substr(1)) : t);
  };
  long andMin = -1;
  for (const Str& t : _and) {
    long c = count(t);
    if (c >= 0 && (andMin < 0 || c < andMin)) andMin = c;
  }
  long orSum = _or.empty() ? -1 : 0;
  for (const Str& t : _or) {
    long c = count(t);
    if (c < 0) {
      orSum = -1;
      break;
    }
    orSum += c;
  }
  _cachedCount = andMin >= 0 && orSum >= 0 ? std::min(andMin, orSum) : andMin >= 0 ? andMin : orSum;
  return _cachedCount;
}

size_t MultiTermQueryPart::sizeInBytes() const {
  size_t n = sizeof(*this) + _hint.atTime.capacity() * sizeof(ValueWrapper);
  for (auto* l : {&_and, &_or, &_not})
    for (const Str& t : *l) n += t.capacity();
  return n;
}

void MultiTermQueryPart::populateKeySet(std::set<Str>& keys) const {
  keys.insert(_and.begin(), _and.end());
  keys.insert(_or.begin(), _or.end());
  keys.insert(_not.begin(), _not.end());
}
