#include "search/processors/RexCommand.h"

#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/processors/WhereOperator.h"
#include "util/Logger.h"

namespace {
Logger gLogger("rex");
const char kUsage[] = "usage: regex [field=<field>] <regex>";
}  // namespace

void RexCommand::processArguments() {
  Str text = WhereOperator::wholeText(*this, args).trim();
  std::vector<Str> tokens;
  std::vector<bool> quoted;
  tokenizeString(text, tokens, quoted, " ");
  size_t k = 0;
  if (k < tokens.size() && !quoted[k] && lowercase(StrSegment(tokens[k])).startswith("field=")) {
    _field = tokens[k].substr(6);
    if (_field.empty()) throw searchError(this, gLogger, kUsage);
    // The pattern is what follows the option in the text.
    size_t at = text.find(' ');
    text = at == Str::npos ? Str() : Str(text.substr(at + 1)).trim();
    ++k;
  }
  if (k >= tokens.size()) throw searchError(this, gLogger, kUsage);
  Str pattern;
  if (tokens.size() - k == 1) {
    pattern = tokens[k];
  } else if (quoted[k]) {
    throw searchError(this, gLogger, "Invalid argument: '%s'", tokens[k + 1].c_str());
  } else {
    pattern = text;  // an unquoted pattern with blanks in it
  }
  try {
    _re.init(pattern, true);
  } catch (const std::exception& e) {
    throw searchError(this, gLogger, "%s", e.what());
  }
  if (_re.getNameMap().empty())
    throw searchError(this, gLogger,
                      "The regex '%s' will not extract anything.  It should specify at least one named group, "
                      "format: (?<name>...).",
                      pattern.c_str());
}

void RexCommand::execute(SearchResults& results, SearchResultsInfo&) {
  const sr_index_t field = results.keyIndex(_field);
  if (field == 0) return;
  _groups.clear();
  bool writesSource = false;
  for (const auto& [name, group] : _re.getNameMap()) {
    sr_index_t key = results.keyIndex(name, true);
    _groups.emplace_back(group, key);
    writesSource = writesSource || key == field;
  }
  for (SearchResult* row : results) {
    const Str* value = row->getValuePtr(field);
    if (!value) continue;
    if (writesSource) {
      // A group sets the field it is read from: match a copy.
      _copy = *value;
      value = &_copy;
    }
    StrSegment text(*value);
    if (!_re.match(text, &_match)) continue;
    for (const auto& [group, key] : _groups) {
      const StrSegment& g = _match.getGroup(group);
      if (g.data() != nullptr) row->setValue(key, g.data(), g.size());
    }
  }
}
