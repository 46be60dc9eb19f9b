// SearchPS: the `searchps` command. Replaces the rows with one row per
// running search pipeline of this process (SearchPIDs). Takes no arguments.
#pragma once

#include "search/SearchProcessor.h"

class SearchPS : public SearchProcessor {
 public:
  explicit SearchPS(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new SearchPS(name); }

  bool isStreamable() const override { return false; }
  void processArguments() override { refuseLeftovers(); }
  void execute(SearchResults& results, SearchResultsInfo& info) override;
};
