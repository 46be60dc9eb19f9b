// GetHostTags: the "GET" module "hosttags::start-end": host tags. The index
// keeps no such list yet, so the answer is an empty list (see
// GetEmptyList).
// Threads: the thread running the query.
#pragma once

#include "pipeline/indexer/GetEmptyList.h"

class GetHostTags : public GetEmptyList {
 public:
  GetHostTags(Query* query, std::shared_ptr<ModuleArgs> args, const Str& name)
      : GetEmptyList(query, std::move(args), name, "hosttags", "Host tags malformed. Must be hosttags::start-end") {}
};
