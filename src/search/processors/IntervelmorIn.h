// IntervelmorIn: `load [fd=<n>]` replaces the rows with CSV rows read from
// a descriptor (default 0, standard input) until its end: the reading half
// of a search that runs as a script inside another search. The descriptor
// is read through a duplicate, so it stays open. Lines with the wrong
// number of cells are dropped and counted in one warning.
//
// Not streamable: it makes the rows. One thread at a time.
#pragma once

#include "search/SearchProcessor.h"

class IntervelmorIn : public SearchProcessor {
 public:
  explicit IntervelmorIn(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new IntervelmorIn(name); }

  bool isStreamable() const override { return false; }
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

 private:
  long _fd = 0;
};
