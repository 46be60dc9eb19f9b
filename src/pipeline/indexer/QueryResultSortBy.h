// QueryResultSortBy ("sortorder"): "!resultsetsortby::<order>", the order of
// the ids: "newest_first" (the default), "newest_last", "arrival" (oldest
// written first) or "reverse_arrival", or their numbers 0-3. Else
// QueryParseException "<value> is not a valid value for !resultsetsortby".
//
// Runs in "SEARCH", on the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class QueryResultSortBy : public Module {
 public:
  using Module::Module;
  void runModule() override;
};
