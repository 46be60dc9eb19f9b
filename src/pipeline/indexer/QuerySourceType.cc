#include "pipeline/indexer/QuerySourceType.h"

#include "pipeline/indexer/ITagResolver.h"
#include "pipeline/indexer/Query.h"
#include "pipeline/indexer/QueryTerm.h"

void QuerySourceType::runModule() {
  const Str name = getArg("sourcetype");
  QueryStateMachine& sm = _query->stateMachine();
  std::vector<Str> terms;
  std::shared_ptr<ITagResolver> resolver = ITagResolver::installed();
  if (resolver && resolver->resolveSourceType(name, _query->getUser(), terms) && !terms.empty())
    QueryTerm::feedAlternatives(sm, terms);
  else
    sm.accept("sourcetype::" + name);
}
