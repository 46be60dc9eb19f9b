// GetTimeBuckets: the "GET" module for event counts by time bucket. It has no
// implementation yet: running it only logs that (Module::runModule).
// Threads: the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class GetTimeBuckets : public Module {
 public:
  using Module::Module;
};
