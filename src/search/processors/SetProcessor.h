// SetProcessor: `set (union|diff|intersect) [<subsearch>] [<subsearch>]`.
// The two subsearches arrive as ResultsArgs (handlesSearchResultsArguments
// is true); the command's input rows are replaced by
//   union      the distinct rows of either, first's order then second's;
//   diff       the distinct rows that are in exactly one of the two;
//   intersect  the distinct rows of the first that are also in the second.
// Two rows are the same when they have the same fields (internal "__" ones
// aside) with the same values. It answers true to isStreamable, as it
// reads none of its input, and meets spill files by dropping them: its rows
// are made once per run. One thread at a time.
#pragma once

#include "search/SearchProcessor.h"

class SearchResult;
class SearchResults;

class SetProcessor : public SearchProcessor {
 public:
  enum Op { UNION, DIFF, INTERSECT };

  explicit SetProcessor(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new SetProcessor(name); }

  bool handlesSearchResultsArguments() const override { return true; }
  void processArguments() override;
  // Drops the input (files included), then one execute().
  void execute_dispatch(SearchResults& results, SearchResultsInfo& info) override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

  // The identity of a row: its field names and values, in name order.
  static Str rowKey(const SearchResults& rs, const SearchResult& r);

 private:
  Op _op = UNION;
  SearchResults* _first = nullptr;   // owned by the ResultsArgs
  SearchResults* _second = nullptr;
};
