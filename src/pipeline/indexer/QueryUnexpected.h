// QueryUnexpected ("unexpectedRanger"): "unexpected::" selects events by
// their unexpectedness score, 0 to 9:
//   N     the term unexpected::N
//   N+    ( unexpected::N OR ... OR unexpected::9 )
//   A-B   ( unexpected::A OR ... OR unexpected::B ); A above B gives "( )"
//   N- or -N   from 0 to N
// Anything else is QueryParseException "<value> is not a valid value for
// unexpected"; no value: QueryException "No unexpected found !!".
//
// Runs in "SEARCH", on the thread running the query.
#pragma once

#include "pipeline/indexer/Module.h"

class QueryUnexpected : public Module {
 public:
  using Module::Module;
  void runModule() override;
};
