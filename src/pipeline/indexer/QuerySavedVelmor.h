// QuerySavedVelmor ("savedVelmorLoader"): "savedsearch::<name>" (or
// "savedvelmor::<name>") that reached a module: the compiler normally
// expands saved searches in the text before it looks at tokens, and this
// module serves queries compiled without that pass. It feeds "(" + the
// saved search's tokens + ")" to the state machine (module keywords in the
// saved text are then plain terms). An unknown name adds "Unable to find
// savedvelmor <name>" to the INFO messages and feeds nothing.
//
// Runs in "SEARCH", on the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class QuerySavedVelmor : public Module {
 public:
  using Module::Module;
  void runModule() override;
};
