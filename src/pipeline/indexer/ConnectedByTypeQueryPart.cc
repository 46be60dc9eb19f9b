#include "pipeline/indexer/ConnectedByTypeQueryPart.h"

#include <algorithm>
#include <climits>
#include <map>
#include <utility>

#include "pipeline/indexer/IPartitionPolicy.h"
#include "pipeline/indexer/QueryStateMachine.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("ConnectedByTypeQueryPart");

ConnectedByTypeQueryPart::ConnectedByTypeQueryPart(const Str& key, QueryStateMachine* sm) : QueryPart(sm), _key(key) {
  _leaf = true;
  for (char& c : _key)
    if (c >= 'A' && c <= 'Z') c = char(c + 32);
}

void ConnectedByTypeQueryPart::getIds(std::vector<ValueWrapper>& out, unsigned long startPosition,
                                      unsigned long count, long minTime, long maxTime) {
  if (!_requested) {
    _requested = true;
    IPartitionPolicy* policy = policyOrThrow();
    std::vector<ValueWrapper> hits;
    bool ok;
    try {
      ok = policy->query({_key}, {}, {}, int32_t(std::max<long>(minTime, INT32_MIN)),
                         int32_t(std::min<long>(maxTime, INT32_MAX)), kHits, hits);
    } catch (const DatabasePartitionPolicyException& e) {
      throw QueryException(e.what());
    }
    if (!ok) throw QueryException("the index \"%s\" could not be queried.", _sm->getDomain().c_str());
    std::map<std::pair<uint32_t, uint32_t>, long> perType;
    for (const ValueWrapper& v : hits) ++perType[{v.bucketId, v.type}];
    const long least = std::max(1L, _sm->getMinRelationByType());
    for (const ValueWrapper& v : hits)
      if (perType[{v.bucketId, v.type}] >= least) _ids.push_back(v);
    std::sort(_ids.begin(), _ids.end());
    gLogger.debug("Ids out size = %u", unsigned(_ids.size()));
  }
  deliverFrom(_ids, out, startPosition, count);
}

size_t ConnectedByTypeQueryPart::sizeInBytes() const {
  return sizeof(*this) + _key.capacity() + _ids.capacity() * sizeof(ValueWrapper);
}
