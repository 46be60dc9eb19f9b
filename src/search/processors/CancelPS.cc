#include "search/processors/CancelPS.h"

#include "search/SearchCancel.h"

void CancelPS::processArguments() {
  getNextArgs(ids, true);
  if (ids.empty()) throw SearchProcessorException("usage: cancelps <cancel_id>+");
}

void CancelPS::execute(SearchResults&, SearchResultsInfo&) {
  for (const Str& id : ids) {
    if (id == "*")
      SearchCancel::instance()->stopAll();
    else
      SearchCancel::instance()->stop(id);
  }
}
