// DedupeMeta ("deduper"): keeps, of the ids the search found, the first per
// value of one field ("lastby::<field>", keys as MetaComparator computes
// them); ids without the field all stay. With the default order (newest
// first) that is the last event of each value.
//
// It runs in "SORT", before "GET", on the query's ids themselves, so "GET"
// pages through the deduplicated list. QueryDedupe adds it to the query.
//
// On the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class DedupeMeta : public Module {
 public:
  using Module::Module;
  void runModule() override;
};
