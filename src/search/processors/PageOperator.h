// PageOperator: `page <start> <end> [maxresults=<n>] [<subsearch>]`.
// Keeps the rows at positions start .. end-1 (counted from 0 over all spill
// files), at most `maxresults` of them, and, when a bracketed subsearch is
// given, runs it over just those rows, so that costly commands work on one
// page only. The subsearch is not run up front like other subsearches:
// evalArgs takes it out of the arguments first.
// Failures through the PAGE_* texts of the message catalogue. Not
// streamable. One thread at a time.
#pragma once

#include <memory>

#include "search/SearchProcessor.h"

class PageOperator : public SearchProcessor {
 public:
  explicit PageOperator(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new PageOperator(name); }

  bool isStreamable() const override { return false; }
  void evalArgs(SearchResultsInfo& info) override;
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

 private:
  unsigned long _start = 0;
  unsigned long _end = 0;
  unsigned long _maxResults = 0;  // 0: no cap
  bool _misplacedSub = false;     // a subsearch that was not the last argument
  std::unique_ptr<SearchProcessor> _sub;
};
