#include "search/processors/SavedVelmorProcessor.h"

void SavedVelmorProcessor::processArguments() {
  Str savedName;
  if (getNextNonOpt(savedName, true) == getArguments().size())
    throw SearchProcessorException("usage: %s <name> [options]", getName().c_str());
  // No store is available: no name can be found.
  throw SearchProcessorException("Unable to find saved velmor with name = %s", savedName.c_str());
}

void SavedVelmorProcessor::execute(SearchResults&, SearchResultsInfo&) {}
