// GetTypes: the "GET" module "types::start-end": event types with their
// counts. The index keeps no such list yet, so the answer is an empty list
// (see GetEmptyList); its optional "samplesfortypes" (sample events per
// type) has nothing to sample from either. The factory name "searchGetter"
// makes this class too.
// Threads: the thread running the query.
#pragma once

#include "pipeline/indexer/GetEmptyList.h"

class GetTypes : public GetEmptyList {
 public:
  GetTypes(Query* query, std::shared_ptr<ModuleArgs> args, const Str& name)
      : GetEmptyList(query, std::move(args), name, "types", "types malformed must be types::start-end") {}
};
