// MapOperator: `map search="<search with $field$ tokens>"` or
// `map <saved search name>`. For each input row the search text has every
// `$name$` replaced by the row's value of `name` and is run the way a
// subsearch is run (Subsearch::run: its own job directory, its own info,
// the same limits); the rows of all runs, concatenated in input order,
// replace the input. A row that lacks a named field is skipped with a
// warning (MAP_VALUE_NOT_FOUND__S). A text that starts with "|" is run
// without the bar, any other gets "search " in front.
// Saved searches are not stored anywhere yet, so a saved search name fails
// with MAP_NO_SAVED_VELMOR__S. Streamable: each chunk of rows is mapped on
// its own. One thread at a time.
#pragma once

#include "search/SearchProcessor.h"

class SearchResult;
class SearchResults;

class MapOperator : public SearchProcessor {
 public:
  explicit MapOperator(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new MapOperator(name); }

  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

  // Replaces each $name$ of `text` from the row; false (and `missing` set to
  // the first absent name) when the row lacks one. "$$" stands for "$".
  static bool substitute(const Str& text, const SearchResults& rs, const SearchResult& row, Str& out,
                         Str& missing);

 private:
  Str _search;
};
