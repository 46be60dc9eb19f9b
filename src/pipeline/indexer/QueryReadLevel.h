// QueryReadLevel ("readlevel"): "readlevel::<n>", the read level of the
// query, an unsigned number; else QueryParseException "<value> is not a
// valid value for readlevel".
//
// Runs in "SEARCH", on the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class QueryReadLevel : public Module {
 public:
  using Module::Module;
  void runModule() override;
};
