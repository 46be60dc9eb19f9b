// QueryQueryId ("queryid"): "queryid::<id>" names the query in its own text;
// it has no effect when the query runs.
//
// Runs in "SEARCH", on the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class QueryQueryId : public Module {
 public:
  using Module::Module;
  void runModule() override {}
};
