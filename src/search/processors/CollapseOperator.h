// CollapseOperator: the internal `collapse [chunksize=<n>] [offset=<n>]
// [maxrows=<n>]`. Rewrites spilled rows into files of `chunksize` rows
// (0, the default: the `maxresultrows` limit) through
// SearchResults::collapse, skipping `offset` rows and keeping at most
// `maxrows` (0, the default: all); when everything fits in one chunk the
// rows end up in memory. Not streamable. One thread at a time.
#pragma once

#include "search/SearchProcessor.h"

class CollapseOperator : public SearchProcessor {
 public:
  explicit CollapseOperator(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new CollapseOperator(name); }

  bool isStreamable() const override { return false; }
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

 private:
  unsigned long _chunkSize = 0;
  unsigned long _offset = 0;
  unsigned long _maxRows = 0;
};
