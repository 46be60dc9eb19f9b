// GetSources: the "GET" module "sources::start-end": the index's sources
// with their event counts (see GetWordTable).
// Threads: the thread running the query.
#pragma once

#include "pipeline/indexer/GetWordTable.h"

class GetSources : public GetWordTable {
 public:
  GetSources(Query* query, std::shared_ptr<ModuleArgs> args, const Str& name)
      : GetWordTable(query, std::move(args), name, kSources, "sources",
                     "sources malformed must be sources::start-end") {}
};
