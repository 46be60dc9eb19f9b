#include "search/processors/FileDeleteProcessor.h"

#include "search/SearchResultsInfo.h"
#include "util/Logger.h"

namespace {
Logger gLogger("delete");
}

void FileDeleteProcessor::execute(SearchResults&, SearchResultsInfo& info) {
  if (info.userContext.empty())
    throw searchError(this, gLogger, "Permission denied: deleting events needs a user with the delete right.");
  throw searchError(this, gLogger,
                    "Events cannot be deleted: no index store is available to this search, nothing was deleted.");
}
