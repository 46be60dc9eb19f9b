#include "pipeline/indexer/QueryReadLevel.h"

#include <climits>

#include "pipeline/indexer/Query.h"
#include "pipeline/indexer/QueryValue.h"
#include "util/Exceptions.h"

void QueryReadLevel::runModule() {
  const Str value = getArg("readlevel");
  unsigned long n;
  if (!QueryValue::parseUnsigned(value, n) || n > UINT_MAX)
    throw QueryParseException(value + " is not a valid value for readlevel");
  _query->stateMachine().setReadLevel(static_cast<unsigned>(n));
}
