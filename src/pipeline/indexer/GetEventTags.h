// GetEventTags: the "GET" module "eventtags::start-end": the tags of event
// types. The index keeps no such list yet, so the answer is an empty list
// (see GetEmptyList).
// Threads: the thread running the query.
#pragma once

#include "pipeline/indexer/GetEmptyList.h"

class GetEventTags : public GetEmptyList {
 public:
  GetEventTags(Query* query, std::shared_ptr<ModuleArgs> args, const Str& name)
      : GetEmptyList(query, std::move(args), name, "eventtags", "Event tags malformed. must be eventtags::start-end") {}
};
