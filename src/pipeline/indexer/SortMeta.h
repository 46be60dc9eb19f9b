// SortMeta ("sorter"): orders the ids the search found by one field
// ("sort::<field>", see MetaComparator), ascending, or descending with
// "order::desc" (any case); events without the field come last either way,
// and equal keys keep their order.
//
// It runs in "SORT", which comes before "GET": it reorders the query's ids
// themselves (reading events where the field needs them), so "GET" pages
// through the sorted list (events::0-9 are the first ten by that field).
// QuerySort adds it to the query.
//
// On the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class SortMeta : public Module {
 public:
  using Module::Module;
  void runModule() override;
};
