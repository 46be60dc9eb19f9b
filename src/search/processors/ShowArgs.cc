#include "search/processors/ShowArgs.h"

#include "search/SearchResults.h"

void ShowArgsProcessor::processArguments() {
  count = args.size();
  for (Arg* a : args) a->setConsumed();
}

void ShowArgsProcessor::execute(SearchResults& results, SearchResultsInfo&) {
  results.free(false);
  SearchResult* r = results.addNewResult();
  r->setValue(results.keyIndex("args", true), getSearchString());
  r->setValue(results.keyIndex("arg_count", true), ToString(static_cast<unsigned long>(count)));
}
