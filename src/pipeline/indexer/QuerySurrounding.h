// QuerySurrounding ("surrounding"): "surrounding::<key>" with
// "maxtimebefore::<s>" and "maxtimeafter::<s>" (all three required) feeds
// the one term "surrounding::<key>::<before>::<after>", which finds the
// events around the given one.
//
// Runs in "SEARCH", on the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class QuerySurrounding : public Module {
 public:
  using Module::Module;
  void runModule() override;
};
