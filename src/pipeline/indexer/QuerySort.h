// QuerySort ("sortmeta"): "sort::<field>" with optional "order::desc" puts a
// SortMeta, named "sorter", into the query's "SORT" stage.
//
// Runs in "SEARCH", on the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class QuerySort : public Module {
 public:
  using Module::Module;
  void runModule() override;
};
