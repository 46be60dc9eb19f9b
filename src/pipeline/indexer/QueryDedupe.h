// QueryDedupe ("lastby"): "lastby::<field>" puts a DedupeMeta, named
// "deduper", into the query's "SORT" stage.
//
// Runs in "SEARCH", on the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class QueryDedupe : public Module {
 public:
  using Module::Module;
  void runModule() override;
};
