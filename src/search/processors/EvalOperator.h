// EvalOperator: `eval <dest> = <expression>` stores the value of the
// expression (evaluated by Evaluation) in the field <dest> of every row; a
// NULL value removes the field from that row.
// The argument text is taken whole, not cut into words.
// One thread at a time.
#pragma once

#include <memory>

#include "search/SearchProcessor.h"
#include "search/processors/Evaluation.h"

class EvalOperator : public SearchProcessor {
 public:
  explicit EvalOperator(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new EvalOperator(name); }

  void parseArguments() override {}
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

  // A destination name as usable as a field name: surrounding double quotes
  // dropped, other quote marks removed, unprintable bytes made "_".
  static Str cleanFieldName(const Str& raw);

 private:
  Str _dest;
  std::unique_ptr<Evaluation> _eval;
};
