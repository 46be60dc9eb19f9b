// ResultsArg: the rows of a finished subsearch, given whole to a command
// that handles result arguments. Owns the SearchResults it holds.
#pragma once

#include "search/Arg.h"

class SearchResults;

class ResultsArg : public Arg {
 public:
  explicit ResultsArg(SearchResults* r) : Arg(RESULTS), results(r) {}
  ~ResultsArg() override;

  // The rows as CSV, or "NULL".
  Str toString(unsigned int indent) const override;

  SearchResults* getResults() const { return results; }

 private:
  SearchResults* results;
};
