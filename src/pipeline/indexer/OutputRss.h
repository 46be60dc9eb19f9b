// OutputRss: the "OUTPUT" module that writes the results as an RSS feed ("rssOut"). It has
// no implementation yet: running it only logs that (Module::runModule).
// Threads: the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class OutputRss : public Module {
 public:
  using Module::Module;
};
