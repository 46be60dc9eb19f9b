// IQueryRunner: how the rest of the system runs queries over the indexes of
// this process: the inner query text ("SEARCH ... GET ... OUTPUT ...") with
// its result document, or its fetched events, and a search of the piped
// language's terms into result rows. IndexProcessor implements it.
//
// Threads: any thread may call; each call runs on the caller's thread.
#pragma once

#include <memory>
#include <unordered_map>
#include <vector>

#include "util/Str.h"

class SearchResults;
class SearchResultsInfo;

class IQueryRunner {
 public:
  virtual ~IQueryRunner() = default;
  // The result document (the bytes of "<VELMOR_DB>/searches/<queryId>.xml").
  virtual void runQuery(const char* query, const char* user, const char* queryId, Str& results) = 0;
  // The raw texts of the fetched events, by kind ("events" and the like).
  virtual void runQuery(const char* query, const char* user, const char* queryId,
                        std::unordered_map<Str, std::vector<std::shared_ptr<Str>>>& results) = 0;
  // A bare term expression under the calling thread's user and its search
  // filters, into rows.
  virtual void runSearch(const char* search, SearchResults& results, SearchResultsInfo& info) = 0;
};
