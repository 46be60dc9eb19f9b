#include "pipeline/indexer/SortMeta.h"

#include <algorithm>
#include <numeric>

#include "pipeline/indexer/MetaComparator.h"
#include "pipeline/indexer/Query.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("SortMeta");

void SortMeta::runModule() {
  const Str field = getArg("sort");
  if (field.empty()) throw QueryParseException("No field to sort by. Must be sort::<field>");
  const bool desc = lowercase(getArg("order")) == "desc";
  std::vector<ValueWrapper>& ids = _query->results();
  if (ids.size() < 2) return;
  std::vector<Str> keys;
  MetaComparator(field, _query->policy()).computeKeys(ids, keys);
  std::vector<size_t> order(ids.size());
  std::iota(order.begin(), order.end(), 0);
  std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) {
    const bool ma = MetaComparator::isMissing(keys[a]), mb = MetaComparator::isMissing(keys[b]);
    if (ma != mb) return mb;
    return desc ? keys[b] < keys[a] : keys[a] < keys[b];
  });
  std::vector<ValueWrapper> sorted;
  sorted.reserve(ids.size());
  for (size_t i : order) sorted.push_back(ids[i]);
  ids.swap(sorted);
  gLogger.debug("Sorted %lu ids by %s%s", (unsigned long)ids.size(), field.c_str(), desc ? " descending" : "");
}
