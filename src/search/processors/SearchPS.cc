#include "search/processors/SearchPS.h"

#include "search/SearchPIDs.h"
#include "search/SearchResults.h"

void SearchPS::execute(SearchResults& results, SearchResultsInfo&) {
  results.free(false);
  SearchPIDs::instance()->asResults(results);
}
