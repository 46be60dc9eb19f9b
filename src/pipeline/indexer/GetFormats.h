// GetFormats: the "GET" module "formats::start-end": the punctuation
// formats of events. The index keeps no such list yet, so the answer is an
// empty list (see GetEmptyList). Its malformed-range text names
// "eventtags"; callers match the text as it stands, so it stays.
// Threads: the thread running the query.
#pragma once

#include "pipeline/indexer/GetEmptyList.h"

class GetFormats : public GetEmptyList {
 public:
  GetFormats(Query* query, std::shared_ptr<ModuleArgs> args, const Str& name)
      : GetEmptyList(query, std::move(args), name, "formats",
                     "Event tags formatted incorrectly. Must be eventtags::start-end") {}
};
