#include "search/processors/ReplaceProcessor.h"

#include <strings.h>

#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "util/Logger.h"

namespace {
Logger gLogger("replace");
const char* kUsage = "Usage: replace <value> WITH <new> [, <value> WITH <new>]... [IN <field>...]";
}

void ReplaceProcessor::processArguments() {
  std::vector<Str> w;
  getNextArgs(w, false);
  refuseLeftovers();
  size_t i = 0;
  while (i < w.size() && strcasecmp(w[i].c_str(), "in") != 0) {
    if (i + 2 >= w.size()) throw searchError(this, gLogger, "%s", kUsage);
    if (strcasecmp(w[i + 1].c_str(), "with") != 0) throw searchError(this, gLogger, "%s", kUsage);
    FieldPattern from(w[i]), to(w[i + 2]);
    for (const Str* s : {&w[i], &w[i + 2]})
      if (s->find("**") != Str::npos) throw searchError(this, gLogger, "Wildcards may not have consequtive *'s");
    if (to.starCount() != 0 && to.starCount() != from.starCount())
      throw searchError(this, gLogger, "Wildcards and their replacements must have matching number of *'s");
    _pairs.emplace_back(from, to);
    i += 3;
  }
  if (_pairs.empty()) throw searchError(this, gLogger, "%s", kUsage);
  if (i < w.size()) {
    _fields.assign(w.begin() + static_cast<long>(i) + 1, w.end());
    if (_fields.empty()) throw searchError(this, gLogger, "%s", kUsage);
  }
}

void ReplaceProcessor::execute(SearchResults& results, SearchResultsInfo&) {
  std::vector<sr_index_t> inds;
  if (_fields.empty()) {
    for (auto& kv : results.getKeyMap()) inds.push_back(kv.second);
  } else {
    for (const Str& f : _fields) inds.push_back(results.keyIndex(f));
  }
  for (SearchResult* r : results) {
    for (sr_index_t k : inds) {
      const Str* v = r->getValuePtr(k);
      if (v == nullptr) continue;
      for (auto& [from, to] : _pairs) {
        if (!from.match(*v, &_stars)) continue;
        r->setValue(k, to.fill(_stars));
        break;
      }
    }
  }
}
