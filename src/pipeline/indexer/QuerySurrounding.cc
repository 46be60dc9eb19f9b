#include "pipeline/indexer/QuerySurrounding.h"

#include "pipeline/indexer/Query.h"

void QuerySurrounding::runModule() {
  _query->stateMachine().accept("surrounding::" + getArg("surrounding") + "::" + getArg("maxtimebefore") + "::" +
                                getArg("maxtimeafter"));
}
