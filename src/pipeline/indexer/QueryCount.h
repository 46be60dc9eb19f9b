// QueryCount ("countSetter"): the result limit of the query, from
// "maxresults::" (or "maxevents::" when that is empty): a whole number of at
// least 1, else QueryParseException "<value> is not a valid value for
// maxresults". The index's maxResults setting caps it, with an INFO message
// saying so.
//
// Runs in "SEARCH" (after the index is set), on the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class QueryCount : public Module {
 public:
  using Module::Module;
  void runModule() override;
};
