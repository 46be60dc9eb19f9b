#include "pipeline/indexer/TermQueryPart.h"

#include "pipeline/indexer/IPartitionPolicy.h"
#include "pipeline/indexer/QueryStateMachine.h"

TermQueryPart::TermQueryPart(const Str& term, QueryStateMachine* sm) : QueryPart(sm), _key(term) {
  if (!_key.empty() && _key[0] == '+') {
    _lower = false;
  } else {
    for (char& c : _key)
      if (c >= 'A' && c <= 'Z') c = char(c + 32);
  }
  _leaf = true;
  _exact = true;
  // The '+' of an exact-case term is not part of the pattern.
  const size_t from = _lower ? 0 : 1;
  const size_t star = _key.find('*', from);
  if (star != Str::npos) {
    _exact = false;
    const size_t len = _key.size() - from;
    _prefix = len >= 2 && star == _key.size() - 1 && _key[from] != '*';
  }
  _terms.push_back(_key);
}

void TermQueryPart::getIds(std::vector<ValueWrapper>& out, unsigned long startPosition, unsigned long count,
                           long minTime, long maxTime) {
  fetchFromIndex(_hint, _terms, {}, {}, out, startPosition, count, minTime, maxTime);
}

long TermQueryPart::getCount() {
  if (_cachedCount == -2) {
    IPartitionPolicy* p = _sm->getPolicy();
    _cachedCount = _exact && p ? p->getTermCount(_lower ? _key : Str(_key.substr(1))) : -1;
  }
  return _cachedCount;
}

size_t TermQueryPart::sizeInBytes() const {
  return sizeof(*this) + _key.capacity() + _hint.atTime.capacity() * sizeof(ValueWrapper);
}
