#include "pipeline/indexer/QueryResultSortBy.h"

#include "pipeline/indexer/Query.h"
#include "util/Exceptions.h"

void QueryResultSortBy::runModule() {
  static const char* const kOrders[] = {"newest_first", "newest_last", "arrival", "reverse_arrival"};
  const Str value = getArg("!resultsetsortby");
  for (int i = 0; i < 4; ++i)
    if (value == kOrders[i] || value == ToString(i)) {
      _query->setSortOrder(i);
      return;
    }
  throw QueryParseException(value + " is not a valid value for !resultsetsortby");
}
