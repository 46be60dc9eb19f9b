#include "pipeline/indexer/QueryDomain.h"

#include "pipeline/indexer/DatabaseContainer.h"
#include "pipeline/indexer/Query.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("QueryDomain");

void QueryDomain::runModule() {
  QueryStateMachine& sm = _query->stateMachine();
  const Str name = getArg("index");
  if (name.empty()) throw QueryException("No domain found !!");
  DatabaseContainer* c = sm.getContainer();
  if (!c || !c->getPolicyByDomain(name)) throw QueryException("No domain " + name + " could be found");
  if (!sm.getDomain().empty()) {
    gLogger.debug("Domain of this search stays %s (%s verified)", sm.getDomain().c_str(), name.c_str());
    return;
  }
  sm.setDomain(name);
  gLogger.debug("Set domain for this search set to %s", name.c_str());
}
