#include "search/processors/FillNullProcessor.h"

#include <set>

#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "util/Logger.h"

namespace {
Logger gLogger("fillnull");
}

void FillNullProcessor::processArguments() {
  getOption("value", _value);
  getNextArgs(_fields, false);
  refuseLeftovers();
  std::set<Str> seen;
  for (const Str& f : _fields) {
    if (f.empty()) throw searchError(this, gLogger, "Field name cannot be empty strings");
    if (!seen.insert(f).second) throw searchError(this, gLogger, "Field '%s' specified multiple times", f.c_str());
  }
}

void FillNullProcessor::fill(SearchResults& results, const std::vector<Str>& fields) {
  std::vector<sr_index_t> inds;
  inds.reserve(fields.size());
  for (const Str& f : fields) inds.push_back(results.keyIndex(f, true));
  for (SearchResult* r : results)
    for (sr_index_t i : inds)
      if (!r->hasValue(i)) r->setValue(i, _value);
}

void FillNullProcessor::execute(SearchResults& results, SearchResultsInfo&) {
  if (!_fields.empty()) {
    fill(results, _fields);
    return;
  }
  if (!results.hasFiles()) {
    std::vector<Str> keys;
    results.getColumnOrder(keys);
    fill(results, keys);
    return;
  }
  // Every file's header first, for the union of the keys, in order.
  std::vector<Str> all;
  std::set<Str> seen;
  results.firstFile();
  do {
    if (!results.readFile(true)) {
      throw searchError(this, gLogger, "Could not read file: '%s'",
                        results.getFiles().empty() ? "" : results.getFiles().front().c_str());
    }
    std::vector<Str> keys;
    results.getColumnOrder(keys);
    for (const Str& k : keys)
      if (seen.insert(k).second) all.push_back(k);
  } while (results.nextFile());
  results.firstFile();
  while (results.readFile()) {
    fill(results, all);
    results.writeFile();
    if (!results.nextFile()) break;
  }
  results.firstFile();
  results.readFile();
}
