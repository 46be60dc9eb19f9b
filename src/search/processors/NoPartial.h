// NoPartial: the `nopartial` command. Passes the rows through untouched and
// tells the dispatcher that its pipeline must not be previewed on partial
// results. Takes no arguments.
#pragma once

#include "search/SearchProcessor.h"

class NoPartial : public SearchProcessor {
 public:
  explicit NoPartial(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new NoPartial(name); }

  bool acceptsPartialResults() const override { return false; }
  void processArguments() override { refuseLeftovers(); }
  void execute(SearchResults&, SearchResultsInfo&) override {}
};
