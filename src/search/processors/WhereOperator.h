// WhereOperator: `where <expression>` keeps the rows for which the
// expression (evaluated by Evaluation) is neither NULL, empty nor "0".
// The argument text is taken whole, not cut into words.
// One thread at a time.
#pragma once

#include <memory>

#include "search/SearchProcessor.h"
#include "search/processors/Evaluation.h"

class WhereOperator : public SearchProcessor {
 public:
  explicit WhereOperator(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new WhereOperator(name); }

  void parseArguments() override {}
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

  // The whole argument text of a command that reads its arguments unparsed
  // (every string argument, consumed, joined by blanks).
  static Str wholeText(SearchProcessor& proc, const ArgList& args);

 private:
  std::unique_ptr<Evaluation> _eval;
};
