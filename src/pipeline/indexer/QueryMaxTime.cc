#include "pipeline/indexer/QueryMaxTime.h"

#include "pipeline/indexer/Query.h"
#include "pipeline/indexer/QueryValue.h"
#include "util/Exceptions.h"

void QueryMaxTime::runModule() {
  const Str value = getArg("maxtime");
  long n;
  if (!QueryValue::parseLong(value, n)) throw QueryParseException(value + " is not a valid value for maxtime");
  _query->stateMachine().setTimeLimit(n);
}
