// GetSourceTypeTags: the "GET" module for the tags of source types. It has no
// implementation yet: running it only logs that (Module::runModule).
// Threads: the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class GetSourceTypeTags : public Module {
 public:
  using Module::Module;
};
