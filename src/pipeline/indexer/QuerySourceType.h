// QuerySourceType ("sourcetypeResolver"): "sourcetype::<name>". A source
// type is an indexed term of its own, so without a resolver (or when the
// resolver does not know the name) the token is fed as it is; an installed
// ITagResolver may widen it to the source types the name stands for, fed as
// "( sourcetype::a OR sourcetype::b )".
//
// Runs in "SEARCH", on the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class QuerySourceType : public Module {
 public:
  using Module::Module;
  void runModule() override;
};
