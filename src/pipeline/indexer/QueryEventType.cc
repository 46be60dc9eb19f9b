#include "pipeline/indexer/QueryEventType.h"

#include "pipeline/indexer/ITagResolver.h"
#include "pipeline/indexer/Query.h"
#include "pipeline/indexer/QueryTerm.h"
#include "util/Exceptions.h"

namespace {

// Feeds the resolved terms, or, when resolution failed, notes `unknown` and
// feeds the literal token.
void feed(Query& q, bool resolved, const std::vector<Str>& terms, const Str& unknown, const Str& literal) {
  QueryStateMachine& sm = q.stateMachine();
  if (resolved && !terms.empty()) {
    QueryTerm::feedAlternatives(sm, terms);
    return;
  }
  if (!resolved) q.addMessage("INFO", unknown);
  sm.accept(literal);
}

}  // namespace

void QueryEventType::runModule() {
  std::shared_ptr<ITagResolver> resolver = ITagResolver::installed();
  const Str& user = _query->getUser();
  std::vector<Str> terms;

  if (hasArg("eventtype")) {
    const Str name = getArg("eventtype");
    bool ok = resolver && resolver->resolveEventType(name, user, terms);
    feed(*_query, ok, terms, "Unable to find eventtype " + name, "eventtype::" + name);
  }
  for (const char* keyword : {"eventtypetag", "typetag"}) {
    if (!hasArg(keyword)) continue;
    const Str tag = getArg(keyword);
    if (tag.endswith('*')) throw QueryParseException("Prefix searching on event tags is unsupported.");
    terms.clear();
    bool ok = resolver && resolver->resolveEventTypeTag(tag, user, terms);
    feed(*_query, ok, terms, "Unable to find tag " + tag + " on eventtype", Str(keyword) + "::" + tag);
  }
  if (hasArg("tag")) {
    const Str value = getArg("tag");
    const size_t sep = value.find("::");
    if (sep == Str::npos || sep == 0 || sep + 2 == value.size())
      throw QueryParseException("Tag request malformed. Must be tag::<metadata>::<tag>");
    const Str field = value.substr(0, sep);
    const Str tag = value.substr(sep + 2);
    if (field != "host" && field != "source" && field != "sourcetype" && field != "savedsearch" &&
        field != "eventtype")
      throw QueryParseException("In query, tags are only allowed for host, source, sourctype, savedsearch and eventtype.");
    if (tag.endswith('*')) {
      if (field == "host") throw QueryParseException("Prefix searching on host tags is unsupported.");
      if (field == "eventtype") throw QueryParseException("Prefix searching on event tags is unsupported.");
    }
    terms.clear();
    bool ok = resolver && resolver->resolveTag(field, tag, user, terms);
    feed(*_query, ok, terms, "Unable to find tag " + tag + " on " + field, "tag::" + value);
  }
}
