// OutputEmail: the "OUTPUT" module that mails the results ("emailOut"). It has
// no implementation yet: running it only logs that (Module::runModule).
// Threads: the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class OutputEmail : public Module {
 public:
  using Module::Module;
};
