#include "search/processors/RegexOperator.h"

#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/processors/WhereOperator.h"
#include "util/Logger.h"

namespace {
Logger gLogger("regex");

Str unquote(const Str& s) {
  Str t = s.trim();
  if (t.size() >= 2 && t.front() == '"' && t.back() == '"') return t.substr(1, t.size() - 2);
  return t;
}

bool isFieldName(const Str& s) {
  if (s.empty()) return false;
  for (char c : s)
    if (c == ' ' || c == '\t' || c == '"' || c == '(' || c == '[' || c == '\\' || c == '^' || c == '$') return false;
  return true;
}
}  // namespace

void RegexOperator::processArguments() {
  Str text = WhereOperator::wholeText(*this, args).trim();
  Str pattern;
  if (text.startswith("field=")) {
    size_t sp = text.find(' ');
    if (sp == Str::npos) throw searchError(this, gLogger, "usage: regex [field=<field>] <regex>");
    _field = unquote(text.substr(6, sp - 6));
    pattern = unquote(text.substr(sp + 1));
  } else {
    size_t eq = text.find('=');
    Str lhs = eq == Str::npos ? Str() : Str(text.substr(0, eq)).trim();
    bool neg = lhs.endswith('!');
    if (neg) lhs = Str(lhs.substr(0, lhs.size() - 1)).trim();
    if (eq != Str::npos && isFieldName(lhs)) {
      _field = lhs;
      _negate = neg;
      pattern = unquote(text.substr(eq + 1));
      if (pattern.empty()) throw searchError(this, gLogger, "usage: regex <field> (=|!=) <regex>");
    } else {
      pattern = unquote(text);
    }
  }
  if (pattern.empty() || _field.empty()) throw searchError(this, gLogger, "usage: regex [field=<field>] <regex>");
  try {
    _re = std::make_unique<Regex>(pattern);
  } catch (const std::runtime_error& e) {
    throw searchError(this, gLogger, "Invalid regex '%s': %s", pattern.c_str(), e.what());
  }
}

void RegexOperator::execute(SearchResults& results, SearchResultsInfo&) {
  sr_index_t idx = results.keyIndex(_field);
  for (auto it = results.begin(); it != results.end();) {
    const Str* v = (*it)->getValuePtr(idx);
    bool matched = v != nullptr && _re->matches(*v);
    if (matched != _negate) {
      ++it;
    } else {
      delete *it;
      it = results.erase(it);
    }
  }
}
