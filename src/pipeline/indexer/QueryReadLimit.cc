#include "pipeline/indexer/QueryReadLimit.h"

#include "pipeline/indexer/Query.h"
#include "pipeline/indexer/QueryValue.h"
#include "util/Exceptions.h"

void QueryReadLimit::runModule() {
  const Str value = getArg("readlimit");
  unsigned long start = 0, end;
  const size_t dash = value.find('-');
  bool ok;
  if (dash == Str::npos)
    ok = QueryValue::parseUnsigned(value, end);
  else
    ok = QueryValue::parseUnsigned(Str(value.substr(0, dash)), start) &&
         QueryValue::parseUnsigned(Str(value.substr(dash + 1)), end) && start <= end;
  if (!ok) throw QueryParseException("readlimit malformed. Must be readlimit::start-end");
  _query->stateMachine().setReadLimit(start, end);
}
