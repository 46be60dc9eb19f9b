#include "pipeline/indexer/QueryReadTimeOut.h"

#include "pipeline/indexer/Query.h"
#include "pipeline/indexer/QueryValue.h"
#include "util/Exceptions.h"

void QueryReadTimeOut::runModule() {
  const Str value = getArg("readtimeout");
  long n;
  if (!QueryValue::parseLong(value, n)) throw QueryParseException(value + " is not a valid value for readtimeout");
  _query->stateMachine().setReadTimeout(n);
}
