// EndPointsOperator: cuts a time-ordered candidate at start and end events.
//
// An event that meets the start condition begins a new piece (unless the
// current piece is empty); an event that meets the end condition closes
// the piece it joined. Events before the first start event are kept as a
// piece of their own: nothing is dropped.
//
// A condition is either
//   - eval(<expression>): the `eval`/`where` expression language; the event
//     meets it when the value is neither null, empty nor "0"; or
//   - anything else: a search expression as after `search` (words match the
//     words of _raw ignoring case, "quoted phrases" match as phrases, and
//     field=value comparisons, OR, NOT and parentheses work as they do there).
//
// Owns its evaluators. prepare() binds them to the result set whose rows
// are grouped; the rows must stay in it while the operator runs.
// One thread at a time.
#pragma once

#include <memory>

#include "search/processors/CandidateOperator.h"
#include "util/Str.h"

class Evaluation;
class SearchEvaluator;
class SearchResults;

class EndPointsOperator : public CandidateOperator {
 public:
  // Empty texts mean no condition. Throws std::exception subclasses with the
  // evaluator's text for a condition that does not parse.
  EndPointsOperator(const Str& startswith, const Str& endswith);
  ~EndPointsOperator() override;

  // REQUIRES: before the first isCompatible/endsAfter.
  void prepare(SearchResults& results);

  bool isCompatible(const CandidateEvent& e, const Candidate& c) override;
  bool endsAfter(const CandidateEvent& e, const Candidate& c) override;

  // One condition; public for the tests of the condition forms.
  class Condition {
   public:
    explicit Condition(const Str& text);
    ~Condition();
    void prepare(SearchResults& results);
    bool matches(const SearchResult* row);

   private:
    std::unique_ptr<SearchEvaluator> _search;
    std::unique_ptr<Evaluation> _eval;
    Str _out;
  };

 private:
  std::unique_ptr<Condition> _start;
  std::unique_ptr<Condition> _end;
};
