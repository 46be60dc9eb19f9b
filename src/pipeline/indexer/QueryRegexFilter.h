// QueryRegexFilter ("regexFilter"): "grep::<regex>" keeps only the events
// whose raw text the regular expression matches; the state machine applies
// it to the ids it found. A bad pattern is QueryParseException "Unable to
// parse <value> as a regular expression ".
//
// Runs in "SEARCH", on the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class QueryRegexFilter : public Module {
 public:
  using Module::Module;
  void runModule() override;
};
