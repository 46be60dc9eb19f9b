// GetHosts: the "GET" module "hosts::start-end": the index's hosts with
// their event counts (see GetWordTable).
// Threads: the thread running the query.
#pragma once

#include "pipeline/indexer/GetWordTable.h"

class GetHosts : public GetWordTable {
 public:
  GetHosts(Query* query, std::shared_ptr<ModuleArgs> args, const Str& name)
      : GetWordTable(query, std::move(args), name, kHosts, "hosts", "Hosts malformed. Must be hosts::start-end") {}
};
