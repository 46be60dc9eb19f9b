#include "search/processors/CollapseOperator.h"

#include "search/SearchResults.h"
#include "util/Logger.h"

namespace {
Logger gLogger("collapse");
}

void CollapseOperator::processArguments() {
  getOption("chunksize", _chunkSize);
  getOption("offset", _offset);
  getOption("maxrows", _maxRows);
  refuseLeftovers();
}

void CollapseOperator::execute(SearchResults& results, SearchResultsInfo&) {
  try {
    results.collapse(Pathname(), _chunkSize, _offset, _maxRows ? _maxRows : SearchResults::kAllRows);
  } catch (const SearchResultsException& e) {
    throw searchError(this, gLogger, "%s", e.what());
  }
}
