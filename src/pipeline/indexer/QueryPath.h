// QueryPath ("path"): a module the language names but that does nothing of
// its own yet: it runs the base runModule, which logs that it is not
// implemented.
//
// Runs in "SEARCH", on the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class QueryPath : public Module {
 public:
  using Module::Module;
};
