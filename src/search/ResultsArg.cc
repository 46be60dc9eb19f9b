#include "search/ResultsArg.h"

#include "search/SearchResults.h"

ResultsArg::~ResultsArg() { delete results; }

Str ResultsArg::toString(unsigned int) const {
  if (!results) return Str("NULL");
  Str csv;
  results->toCSV(csv);
  return csv;
}
