// GetEmptyList: a "GET" module for a list that has no store in the index
// yet (event types, their tags, host tags, punctuation formats). It checks
// its range like any list and puts an empty list into
// Query::resultMap()[keyword], so that a query asking for it gets an empty
// answer rather than an error.
//
// GetTypes, GetEventTags, GetHostTags and GetFormats are this class with
// their keyword and malformed-range text.
//
// Threads: the thread running the query.
#pragma once

#include "pipeline/indexer/GetModule.h"

class GetEmptyList : public GetModule {
 public:
  GetEmptyList(Query* query, std::shared_ptr<ModuleArgs> args, const Str& name, const char* keyword,
               const char* malformed)
      : GetModule(query, std::move(args), name), _keyword(keyword), _malformed(malformed) {}

  void runModule() override;

 private:
  const char* _keyword;
  const char* _malformed;
};
