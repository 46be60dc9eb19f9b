// QueryTerm ("_term"): feeds one token of the "SEARCH" section (a term, an
// operator, a parenthesis) into the query's state machine. The compiler
// makes one per token, so terms and operators keep their order.
//
// feedAlternatives is the shared way of the resolver modules to feed a list
// of terms as one group: "( a OR b OR c )" (a single term goes alone).
//
// Runs in "SEARCH", on the thread running the query.
#pragma once

#include <vector>

#include "pipeline/indexer/Module.h"

class QueryStateMachine;

class QueryTerm : public Module {
 public:
  using Module::Module;
  void runModule() override;

  // REQUIRES: terms is not empty.
  static void feedAlternatives(QueryStateMachine& sm, const std::vector<Str>& terms);
};
