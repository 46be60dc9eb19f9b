#include "pipeline/indexer/IdListQueryPart.h"

#include <algorithm>
#include <utility>

#include "pipeline/indexer/DataWrapper.h"
#include "pipeline/indexer/IPartitionPolicy.h"
#include "pipeline/indexer/QueryStateMachine.h"
#include "util/Logger.h"

static Logger gLogger("IdListQueryPart");

IdListQueryPart::IdListQueryPart(const Str& token, QueryStateMachine* sm) : QueryPart(sm) {
  _leaf = true;
  const size_t at = token.find("::");
  _listed = parseString(at == Str::npos ? token : Str(token.substr(at + 2)));
}

std::vector<ValueWrapper> IdListQueryPart::parseString(const Str& list) {
  std::vector<ValueWrapper> ids;
  size_t from = 0;
  while (from <= list.size()) {
    size_t comma = list.find(',', from);
    if (comma == Str::npos) comma = list.size();
    size_t b = list.find_first_not_of(' ', from), e = comma;
    while (e > from && list[e - 1] == ' ') --e;
    if (b < e) {
      ValueWrapper v;
      if (ValueWrapper::parseCd(StrSegment(list.data() + b, e - b), v.bucketId, v.address))
        ids.push_back(v);
      else
        gLogger.warn("Ignoring the malformed id \"%s\" of an id list", list.substr(b, e - b).c_str());
    }
    from = comma + 1;
  }
  if (ids.empty()) gLogger.warn("idList not implemented");
  return ids;
}

void IdListQueryPart::getIds(std::vector<ValueWrapper>& out, unsigned long startPosition, unsigned long count,
                             long minTime, long maxTime) {
  if (!_resolved) {
    _resolved = true;
    IPartitionPolicy* policy = policyOrThrow();
    std::vector<DataWrapper> data;
    std::vector<bool> ok;
    policy->read(_listed, data, ok);
    std::vector<std::pair<uint32_t, uint32_t>> codes;
    auto codeIn = [&](int table, const Str& word, uint32_t bucket) -> uint32_t {
      if (word.empty()) return 0;
      policy->getBucketCodesForWord(table, word, codes);
      for (const auto& [b, c] : codes)
        if (b == bucket) return c;
      return 0;
    };
    for (size_t i = 0; i < _listed.size(); ++i) {
      if (!ok[i]) {
        gLogger.warn("Unable to read the listed event %s", _listed[i].cd().c_str());
        continue;
      }
      if (data[i].time < minTime || data[i].time > maxTime) continue;
      ValueWrapper v = _listed[i];
      v.time = data[i].time;
      v.host = codeIn(1, data[i].host, v.bucketId);
      v.source = codeIn(2, data[i].source, v.bucketId);
      v.sourceType = codeIn(3, data[i].sourceType, v.bucketId);
      _ids.push_back(v);
    }
    std::sort(_ids.begin(), _ids.end());
    _ids.erase(std::unique(_ids.begin(), _ids.end()), _ids.end());
  }
  deliverFrom(_ids, out, startPosition, count);
}

Str IdListQueryPart::toString() const {
  Str s = negationPrefix() + "IDLIST(";
  for (size_t i = 0; i < _listed.size(); ++i) {
    if (i) s += ", ";
    s += _listed[i].cd();
  }
  return s + ")";
}

size_t IdListQueryPart::sizeInBytes() const {
  return sizeof(*this) + (_listed.capacity() + _ids.capacity()) * sizeof(ValueWrapper);
}
