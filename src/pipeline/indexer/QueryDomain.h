// QueryDomain ("domainFinder"): sets the index ("index::<name>") that the
// query searches. The compiler puts it in front of every other "SEARCH"
// module, and adds one for the default index when the query names none, so
// the index is known before any term is fed. When an earlier QueryDomain
// already set the index, a further one only checks that its own index
// exists. Throws QueryException "No domain <name> could be found" and "No
// domain found !!" (no name).
//
// Runs in "SEARCH", on the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class QueryDomain : public Module {
 public:
  using Module::Module;
  void runModule() override;
};
