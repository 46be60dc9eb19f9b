// QueryUser ("historyuser"): "user::<name>" restricts a search of the
// history index to one user's searches: it feeds the term "user::<name>".
// On the index "history" the name "current_user" stands for the user who
// runs the query.
//
// Runs in "SEARCH", on the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class QueryUser : public Module {
 public:
  using Module::Module;
  void runModule() override;
};
