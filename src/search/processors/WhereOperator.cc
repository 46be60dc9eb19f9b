#include "search/processors/WhereOperator.h"

#include <algorithm>
#include <cctype>

#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "util/Logger.h"

namespace {
Logger gLogger("where");

const char kOpen[] = "XxX";
const char kClose[] = "YyY";

bool isExprWordChar(char c) {
  return isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '.' || c == ':';
}

// End (one past the closing quote, or the text's end) of the quoted run
// that starts at `i`, with the quoting rules of Evaluation: "" and \" inside
// double quotes, '' inside single quotes. `closed` tells whether the
// closing quote was found.
size_t quotedEnd(const Str& t, size_t i, bool& closed) {
  closed = false;
  char q = t[i++];
  while (i < t.size()) {
    if (q == '"' && t[i] == '\\' && i + 1 < t.size() && (t[i + 1] == '"' || t[i + 1] == '\\')) {
      i += 2;
    } else if (t[i] == q) {
      if (i + 1 < t.size() && t[i + 1] == q) {
        i += 2;
      } else {
        closed = true;
        return i + 1;
      }
    } else {
      ++i;
    }
  }
  return i;
}
}  // namespace

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

Str WhereOperator::protectQuoted(const Str& text) {
  Str out;
  size_t i = 0;
  while (i < text.size()) {
    char c = text[i];
    if (c != '"' && c != '\'') {
      out += c;
      ++i;
      continue;
    }
    bool closed;
    size_t e = quotedEnd(text, i, closed);
    out += kOpen;
    out.append(text, i, e - i);
    // A quote that never closes runs to the end: no closing marker, which
    // would otherwise be read as part of it.
    if (closed) out += kClose;
    i = e;
  }
  return out;
}

Str WhereOperator::unprotectQuoted(const Str& text) {
  Str out;
  size_t i = 0;
  while (i < text.size()) {
    if (text.compare(i, 3, kOpen) == 0 && i + 3 < text.size() && (text[i + 3] == '"' || text[i + 3] == '\'')) {
      bool closed;
      size_t e = quotedEnd(text, i + 3, closed);
      out.append(text, i + 3, e - i - 3);
      i = e;
      if (text.compare(i, 3, kClose) == 0) i += 3;
      continue;
    }
    out += text[i++];
  }
  return out;
}

bool WhereOperator::rewriteFieldNames(Str& text, const std::vector<Str>& names) {
  bool changed = false;
  Str out;
  size_t i = 0;
  while (i < text.size()) {
    if (text.compare(i, 3, kOpen) == 0 && i + 3 < text.size() && (text[i + 3] == '"' || text[i + 3] == '\'')) {
      bool closed;
      size_t e = quotedEnd(text, i + 3, closed);
      if (text.compare(e, 3, kClose) == 0) e += 3;
      out.append(text, i, e - i);
      i = e;
      continue;
    }
    bool atStart = i == 0 || !isExprWordChar(text[i - 1]);
    size_t k = 0;
    for (; atStart && k < names.size(); ++k) {
      const Str& n = names[k];
      size_t e = i + n.size();
      if (text.compare(i, n.size(), n) == 0 && (e == text.size() || !isExprWordChar(text[e]))) break;
    }
    if (atStart && k < names.size()) {
      out.appendFormat("__where_f%zu", k);
      i += names[k].size();
      changed = true;
      continue;
    }
    out += text[i++];
  }
  if (changed) text = out;
  return changed;
}

void WhereOperator::processArguments() {
  _text = wholeText(*this, args);
  try {
    _eval = std::make_unique<Evaluation>(_text);
  } catch (const EvaluationException& e) {
    throw searchError(this, gLogger, "%s", e.what());
  }
}

Evaluation& WhereOperator::evaluationFor(SearchResults& results) {
  for (const auto& kv : results.getKeyMap()) {
    bool plain = true;
    for (char c : kv.first) plain = plain && isExprWordChar(c);
    if (!plain && _text.find(kv.first) != Str::npos &&
        std::find(_names.begin(), _names.end(), kv.first) == _names.end())
      _names.push_back(kv.first);
  }
  if (_names.empty()) return *_eval;
  std::vector<Str> names = _names;
  // Longer names first, so "a-b-c" is not taken for "a-b" followed by "-c".
  std::sort(names.begin(), names.end(), [](const Str& a, const Str& b) { return a.size() > b.size(); });
  Str text = protectQuoted(_text);
  if (!rewriteFieldNames(text, names)) return *_eval;
  text = unprotectQuoted(text);
  if (!_rewritten || text != _rewrittenText) {
    _rewritten = std::make_unique<Evaluation>(text);
    for (size_t k = 0; k < names.size(); ++k) _rewritten->setFieldAlias(Str::fromFormat("__where_f%zu", k), names[k]);
    _rewrittenText = text;
  }
  return *_rewritten;
}

void WhereOperator::execute(SearchResults& results, SearchResultsInfo&) {
  if (results.empty()) return;
  Evaluation* eval;
  try {
    eval = &evaluationFor(results);
    eval->prepare_statement(results);
  } catch (const EvaluationException& e) {
    throw searchError(this, gLogger, "%s", e.what());
  }
  Str out;
  for (auto it = results.begin(); it != results.end();) {
    bool keep = eval->evaluate(*it, out) && !out.empty() && out != "0";
    if (keep) {
      ++it;
    } else {
      delete *it;
      it = results.erase(it);
    }
  }
}
