#include "search/processors/RenameOperator.h"

#include <strings.h>

#include "search/SearchResults.h"
#include "util/Logger.h"

namespace {
Logger gLogger("rename");
const char* kUsage = "USAGE: rename [old_name AS/TO/-> new_name]+";
}

void RenameOperator::processArguments() {
  std::vector<Str> w;
  getNextArgs(w, false);
  refuseLeftovers();
  if (w.empty() || w.size() % 3 != 0) throw searchError(this, gLogger, "%s", kUsage);
  for (size_t i = 0; i < w.size(); i += 3) {
    const Str& op = w[i + 1];
    if (strcasecmp(op.c_str(), "as") != 0 && strcasecmp(op.c_str(), "to") != 0 && op != "->")
      throw searchError(this, gLogger, "%s", kUsage);
    for (const Str* n : {&w[i], &w[i + 2]})
      if (n->empty()) throw searchError(this, gLogger, "Invalid field name '%s'", n->c_str());
    FieldPattern from(w[i]), to(w[i + 2]);
    if (from.starCount() != to.starCount())
      throw searchError(this, gLogger, "Wildcard mismatch: '%s' as '%s'", w[i].c_str(), w[i + 2].c_str());
    _renames.emplace_back(from, to);
  }
}

void RenameOperator::execute(SearchResults& results, SearchResultsInfo&) {
  for (auto& [from, to] : _renames) {
    if (!from.hasWildcard()) {
      results.renameKey(from.text(), to.text());
      continue;
    }
    std::vector<Str> keys;
    results.getColumnOrder(keys);
    std::vector<Str> stars;
    for (const Str& k : keys)
      if (from.match(k, &stars)) results.renameKey(k, to.fill(stars));
  }
}
