#include "pipeline/indexer/DedupeMeta.h"

#include <unordered_set>

#include "pipeline/indexer/MetaComparator.h"
#include "pipeline/indexer/Query.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("DedupeMeta");

void DedupeMeta::runModule() {
  const Str field = getArg("lastby");
  if (field.empty()) throw QueryParseException("No field to keep the last event by. Must be lastby::<field>");
  std::vector<ValueWrapper>& ids = _query->results();
  if (ids.size() < 2) return;
  std::vector<Str> keys;
  MetaComparator(field, _query->policy()).computeKeys(ids, keys);
  std::unordered_set<Str> seen(ids.size());
  size_t kept = 0;
  for (size_t i = 0; i < ids.size(); ++i)
    if (MetaComparator::isMissing(keys[i]) || seen.insert(keys[i]).second) ids[kept++] = ids[i];
  gLogger.debug("Kept %lu of %lu ids, one per %s", (unsigned long)kept, (unsigned long)ids.size(), field.c_str());
  ids.resize(kept);
}
