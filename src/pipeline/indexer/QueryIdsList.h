// QueryIdsList ("idsList"): a module the language names but that does
// nothing of its own yet: it runs the base runModule, which logs that it is
// not implemented. (Lists of ids reach the state machine as "idlist::"
// terms.)
//
// Runs in "SEARCH", on the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class QueryIdsList : public Module {
 public:
  using Module::Module;
};
