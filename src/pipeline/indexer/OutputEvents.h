// OutputEvents: the "OUTPUT" module "events" ("raweventsOut"): the fetched
// events stay in Query::resultMap() for the caller (IndexProcessor::runQuery
// hands their raw texts on by kind); nothing is written to the document.
// Threads: the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class OutputEvents : public Module {
 public:
  using Module::Module;
  void runModule() override {}
};
