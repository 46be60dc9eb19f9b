#include "pipeline/indexer/QueryTerm.h"

#include <cassert>

#include "pipeline/indexer/Query.h"

void QueryTerm::runModule() { _query->stateMachine().accept(getArg("_term")); }

void QueryTerm::feedAlternatives(QueryStateMachine& sm, const std::vector<Str>& terms) {
  assert(!terms.empty());
  if (terms.size() == 1) {
    sm.accept(terms.front());
    return;
  }
  sm.accept("(");
  for (size_t i = 0; i < terms.size(); ++i) {
    if (i) sm.accept("OR");
    sm.accept(terms[i]);
  }
  sm.accept(")");
}
