#include "search/processors/FormatResultsProcessor.h"

#include "search/SL.h"
#include "search/SearchResults.h"
#include "search/processors/SpilledRows.h"
#include "util/Logger.h"

namespace {
Logger gLogger("format");
}

void FormatResultsProcessor::processArguments() {
  std::vector<Str> parts;
  getNextArgs(parts, true);
  if (parts.empty()) return;
  if (parts.size() != 6)
    throw searchError(this, gLogger,
                      "Either no arguments or 6 arguments are required: <resultstart> <colstart> "
                      "<colseparator> <colend> <rowseparator> <resultend>.");
  _formatter = ResultsFormatter(parts[0], parts[1], parts[2], parts[3], parts[4], parts[5]);
}

void FormatResultsProcessor::execute(SearchResults& results, SearchResultsInfo&) {
  SpilledRows::loadAll(results);
  Str query = _formatter.format(results);
  results.free(false);
  SearchResult* r = results.addNewResult();
  r->setValue(results.keyIndex(SL::Query, true), query);
}
