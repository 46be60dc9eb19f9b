#include "pipeline/indexer/QueryUser.h"

#include "pipeline/indexer/Query.h"

void QueryUser::runModule() {
  QueryStateMachine& sm = _query->stateMachine();
  Str user = getArg("user");
  if (sm.getDomain() == "history" && user == "current_user") user = _query->getUser();
  sm.accept("user::" + user);
}
