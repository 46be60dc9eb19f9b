// IntervelmorOut: `save [fd=<n>] [internal=<bool>]` writes the rows as CSV
// (header and rows, spill chunks under one header) to a descriptor (default
// 1, standard output) and passes them on unchanged: the writing half of a
// search that runs as a script inside another search. The descriptor is
// written through a duplicate, so it stays open.
//
// Not streamable: one header for all rows. One thread at a time.
#pragma once

#include "search/SearchProcessor.h"

class IntervelmorOut : public SearchProcessor {
 public:
  explicit IntervelmorOut(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new IntervelmorOut(name); }

  bool isStreamable() const override { return false; }
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

 private:
  long _fd = 1;
  bool _internal = false;
};
