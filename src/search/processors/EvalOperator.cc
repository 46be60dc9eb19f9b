#include "search/processors/EvalOperator.h"

#include <cctype>

#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/processors/WhereOperator.h"
#include "util/Logger.h"

namespace {
Logger gLogger("eval");
const char* kUsage = "eval usage: eval dest_key = expression";
}

Str EvalOperator::cleanFieldName(const Str& raw) {
  Str name = raw.trim();
  if (name.size() >= 2 && name.front() == '"' && name.back() == '"') name = name.substr(1, name.size() - 2);
  Str out;
  for (char c : name) {
    if (c == '"' || c == '\'') continue;
    out += isprint(static_cast<unsigned char>(c)) ? c : '_';
  }
  return out;
}

void EvalOperator::processArguments() {
  Str text = WhereOperator::wholeText(*this, args).trim();
  if (text.empty()) throw searchError(this, gLogger, "Eval arguments missing. %s", kUsage);
  size_t eq = text.find('=');
  if (eq == Str::npos || eq + 1 >= text.size() || text[eq + 1] == '=')
    throw searchError(this, gLogger, "Failed to parse arguments. %s", kUsage);
  _dest = cleanFieldName(text.substr(0, eq));
  Str expr = Str(text.substr(eq + 1)).trim();
  if (_dest.empty()) {
    gLogger.warn("empty destination field - check your expression. Ignoring....");
    return;
  }
  try {
    _eval = std::make_unique<Evaluation>(expr);
  } catch (const EvaluationException& e) {
    throw searchError(this, gLogger, "%s", e.what());
  }
}

void EvalOperator::execute(SearchResults& results, SearchResultsInfo&) {
  if (!_eval || results.empty()) return;
  try {
    _eval->prepare_statement(results);
  } catch (const EvaluationException& e) {
    throw searchError(this, gLogger, "%s", e.what());
  }
  sr_index_t dest = SearchResults::isInternalField(_dest) ? results.internalKeyIndex(_dest, true)
                                                          : results.keyIndex(_dest, true);
  Str out;
  for (SearchResult* r : results) {
    if (_eval->evaluate(r, out))
      r->setValue(dest, out);
    else
      r->removeValue(dest);
  }
}
