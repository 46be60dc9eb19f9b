// QueryReadTimeOut ("readtimeout"): "readtimeout::<n>", the read time-out of
// the query's index reads, a whole number (may be negative); else
// QueryParseException "<value> is not a valid value for readtimeout".
//
// Runs in "SEARCH", on the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class QueryReadTimeOut : public Module {
 public:
  using Module::Module;
  void runModule() override;
};
