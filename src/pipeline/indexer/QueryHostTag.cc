#include "pipeline/indexer/QueryHostTag.h"

#include "pipeline/indexer/ITagResolver.h"
#include "pipeline/indexer/Query.h"
#include "pipeline/indexer/QueryTerm.h"
#include "util/Exceptions.h"

void QueryHostTag::runModule() {
  const Str tag = getArg("hosttag");
  if (tag.endswith('*')) throw QueryParseException("Prefix searching on host tags is unsupported.");
  QueryStateMachine& sm = _query->stateMachine();
  std::vector<Str> terms;
  std::shared_ptr<ITagResolver> resolver = ITagResolver::installed();
  if (resolver && resolver->resolveHostTag(tag, _query->getUser(), terms)) {
    if (!terms.empty()) {
      QueryTerm::feedAlternatives(sm, terms);
      return;
    }
  } else {
    _query->addMessage("INFO", "'" + tag + "' is not a valid host tag");
  }
  sm.accept("hosttag::" + tag);
}
