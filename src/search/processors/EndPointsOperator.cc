#include "search/processors/EndPointsOperator.h"

#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/processors/Evaluation.h"
#include "search/processors/SearchEvaluator.h"

EndPointsOperator::Condition::Condition(const Str& text) {
  Str t = text.trim();
  if (t.size() > 6 && t.compare(0, 5, "eval(") == 0 && t.back() == ')') {
    _eval = std::make_unique<Evaluation>(Str(t.substr(5, t.size() - 6)));
  } else {
    _search = std::make_unique<SearchEvaluator>(StringPiece(t.data(), t.size()));
    _search->optimize();
  }
}

EndPointsOperator::Condition::~Condition() = default;

void EndPointsOperator::Condition::prepare(SearchResults& results) {
  if (_eval) _eval->prepare_statement(results);
  if (_search) _search->initKeys(results);
}

bool EndPointsOperator::Condition::matches(const SearchResult* row) {
  if (_eval) return _eval->evaluate(row, _out) && !_out.empty() && _out != "0";
  return _search->isMatch(const_cast<SearchResult*>(row));
}

EndPointsOperator::EndPointsOperator(const Str& startswith, const Str& endswith) {
  if (!startswith.empty()) _start = std::make_unique<Condition>(startswith);
  if (!endswith.empty()) _end = std::make_unique<Condition>(endswith);
}

EndPointsOperator::~EndPointsOperator() = default;

void EndPointsOperator::prepare(SearchResults& results) {
  if (_start) _start->prepare(results);
  if (_end) _end->prepare(results);
}

bool EndPointsOperator::isCompatible(const CandidateEvent& e, const Candidate& c) {
  return c.events.empty() || !_start || !_start->matches(e.row);
}

bool EndPointsOperator::endsAfter(const CandidateEvent& e, const Candidate& c) {
  (void)c;
  return _end && _end->matches(e.row);
}
