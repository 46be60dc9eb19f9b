#include "pipeline/indexer/QueryCount.h"

#include "pipeline/indexer/DatabaseContainer.h"
#include "pipeline/indexer/IPartitionPolicy.h"
#include "pipeline/indexer/PolicyParameters.h"
#include "pipeline/indexer/Query.h"
#include "pipeline/indexer/QueryValue.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("QueryCount");

void QueryCount::runModule() {
  Str value = getArg("maxresults");
  if (value.empty()) value = getArg("maxevents");
  unsigned long n;
  if (!QueryValue::parseUnsigned(value, n) || n < 1)
    throw QueryParseException(value + " is not a valid value for maxresults");
  gLogger.debug("Setting the ids count to %ld", (long)n);
  QueryStateMachine& sm = _query->stateMachine();
  DatabaseContainer* c = sm.getContainer();
  IPartitionPolicy* p = c ? c->getPolicyByDomain(sm.getDomain()) : nullptr;
  if (p) {
    const long max = p->getPolicyParameters().maxResults;
    if (max > 0 && n > static_cast<unsigned long>(max)) {
      n = static_cast<unsigned long>(max);
      _query->addMessage("INFO", "Your maximum number of results has been limited to " + ToString(max) +
                                     " because it exceeded the maxResults setting.");
    }
  }
  sm.setResultLimit(n);
}
