#include "search/processors/WhereOperator.h"

#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "util/Logger.h"

namespace {
Logger gLogger("where");
}

Str WhereOperator::wholeText(SearchProcessor&, const ArgList& list) {
  Str text;
  for (Arg* a : list) {
    if (a->type != Arg::STRING || a->isConsumed()) continue;
    if (!text.empty()) text += ' ';
    text += static_cast<StringArg*>(a)->getText();
    a->setConsumed();
  }
  return text;
}

void WhereOperator::processArguments() {
  Str text = wholeText(*this, args);
  try {
    _eval = std::make_unique<Evaluation>(text);
  } catch (const EvaluationException& e) {
    throw searchError(this, gLogger, "%s", e.what());
  }
}

void WhereOperator::execute(SearchResults& results, SearchResultsInfo&) {
  if (results.empty()) return;
  try {
    _eval->prepare_statement(results);
  } catch (const EvaluationException& e) {
    throw searchError(this, gLogger, "%s", e.what());
  }
  Str out;
  for (auto it = results.begin(); it != results.end();) {
    bool keep = _eval->evaluate(*it, out) && !out.empty() && out != "0";
    if (keep) {
      ++it;
    } else {
      delete *it;
      it = results.erase(it);
    }
  }
}
