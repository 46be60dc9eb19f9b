// QueryMaxTime ("maxtime"): "maxtime::<seconds>", the time the search may
// take; 0 or less is no limit. Else QueryParseException "<value> is not a
// valid value for maxtime".
//
// Runs in "SEARCH", on the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class QueryMaxTime : public Module {
 public:
  using Module::Module;
  void runModule() override;
};
