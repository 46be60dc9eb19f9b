// GetSourceTypes: the "GET" module "sourcetypes::start-end": the index's
// source types with their event counts (see GetWordTable).
// Threads: the thread running the query.
#pragma once

#include "pipeline/indexer/GetWordTable.h"

class GetSourceTypes : public GetWordTable {
 public:
  GetSourceTypes(Query* query, std::shared_ptr<ModuleArgs> args, const Str& name)
      : GetWordTable(query, std::move(args), name, kSourceTypes, "sourcetypes",
                     "Sourcetypes malformed. Must be sourcetypes::start-end") {}
};
