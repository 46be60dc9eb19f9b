// FileDeleteProcessor: the `delete` command, which marks the events of its
// input rows as deleted in their index.
//
// This search library has no index to delete from and no authorization
// manager to ask for the delete right, so the command refuses to run: a
// search that has no user can never hold the right, and any other search
// fails because no index store is reachable from here. Both failures come
// before any row is touched. It takes no arguments. Not streamable.
// One thread at a time.
#pragma once

#include "search/SearchProcessor.h"

class FileDeleteProcessor : public SearchProcessor {
 public:
  explicit FileDeleteProcessor(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new FileDeleteProcessor(name); }

  bool isStreamable() const override { return false; }
  bool acceptsPartialResults() const override { return false; }
  void processArguments() override { refuseLeftovers(); }
  void execute(SearchResults& results, SearchResultsInfo& info) override;
};
