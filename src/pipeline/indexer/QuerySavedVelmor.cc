#include "pipeline/indexer/QuerySavedVelmor.h"

#include "pipeline/indexer/ISavedSearchSource.h"
#include "pipeline/indexer/Query.h"
#include "pipeline/indexer/QueryLanguageParser.h"
#include "util/Exceptions.h"

void QuerySavedVelmor::runModule() {
  Str name = getArg("savedvelmor");
  if (name.empty()) name = getArg("savedsearch");
  std::shared_ptr<ISavedSearchSource> source = ISavedSearchSource::installed();
  Str text;
  if (!source || !source->lookup(name, _query->getUser(), text)) {
    _query->addMessage("INFO", "Unable to find savedvelmor " + name);
    return;
  }
  Str body = QueryLanguageParser::handleParensInQuery(
      QueryLanguageParser::indexify(QueryLanguageParser::savedSearchText(text)) + " ");
  std::vector<Str> tokens;
  if (char quote = QueryLanguageParser::tokenizeString(body, tokens))
    throw QueryParseException(Str(" unable to parse search string. Expected ") + quote + ", got end of input");
  QueryStateMachine& sm = _query->stateMachine();
  sm.accept("(");
  for (const Str& t : tokens) sm.accept(t);
  sm.accept(")");
}
