// QueryReadLimit ("readlimit"): "readlimit::<start>-<end>", the range of
// the bucket read; a single number N reads 0-N. Else QueryParseException
// "readlimit malformed. Must be readlimit::start-end".
//
// Runs in "SEARCH", on the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class QueryReadLimit : public Module {
 public:
  using Module::Module;
  void runModule() override;
};
