#include "search/processors/FolderizeOperator.h"

#include <map>

#include "search/SearchResults.h"
#include "search/processors/SpilledRows.h"
#include "util/Logger.h"

namespace {
Logger gLogger("folderize");

// The first `depth` parts of `value` (the whole value if it has no more).
Str prefix(const Str& value, const Str& sep, size_t depth, bool& whole) {
  size_t pos = 0;
  for (size_t d = 0; d < depth; ++d) {
    size_t next = value.find(sep, pos);
    if (next == Str::npos) {
      whole = true;
      return value;
    }
    pos = next + sep.size();
  }
  whole = false;
  return value.substr(0, pos - sep.size());
}

struct Folder {
  double size = 0;
  size_t members = 0;
  bool whole = true;  // stands for one full value only
};
}  // namespace

void FolderizeOperator::processArguments() {
  if (!getOption("attr", _attr) || _attr.empty())
    throw searchError(this, gLogger, "usage: folderize attr=<field> [sep=<text>] [size=<field>] "
                                     "[minfolders=<n>] [maxfolders=<n>]");
  if (getOption("sep", _sep) && _sep.empty()) throw searchError(this, gLogger, "The separator must not be empty");
  getOption("size", _size);
  getOption("minfolders", _minFolders);
  if (getOption("maxfolders", _maxFolders) && _maxFolders == 0)
    throw searchError(this, gLogger, "maxfolders must be positive");
  refuseLeftovers();
}

void FolderizeOperator::execute(SearchResults& results, SearchResultsInfo&) {
  SpilledRows::loadAll(results);
  std::map<Str, double> values;  // distinct value -> size
  sr_index_t ka = results.keyIndex(_attr), ks = results.keyIndex(_size);
  size_t maxDepth = 1;
  for (const SearchResult* r : results) {
    const Str* v = r->getValuePtr(ka);
    if (!v) continue;
    const Str* s = r->getValuePtr(ks);
    double n;
    values[*v] += (s && s->tryToDouble(n)) ? n : 1.0;
    size_t parts = 1;
    for (size_t p = v->find(_sep); p != Str::npos; p = v->find(_sep, p + _sep.size())) ++parts;
    if (parts > maxDepth) maxDepth = parts;
  }
  std::map<Str, Folder> chosen;
  for (size_t depth = 1; depth <= maxDepth; ++depth) {
    std::map<Str, Folder> groups;
    for (const auto& kv : values) {
      bool whole;
      Folder& f = groups[prefix(kv.first, _sep, depth, whole)];
      f.size += kv.second;
      ++f.members;
      f.whole = f.whole && whole;
    }
    if (depth > 1 && groups.size() > _maxFolders) break;
    chosen.swap(groups);
    if (chosen.size() >= _minFolders) break;
  }
  results.free(false);
  sr_index_t oa = results.keyIndex(_attr, true);
  sr_index_t os = results.keyIndex("size", true);
  sr_index_t om = results.keyIndex("memberCount", true);
  for (const auto& kv : chosen) {
    SearchResult* r = results.addNewResult();
    r->setValue(oa, kv.second.whole ? kv.first : kv.first + _sep + "*");
    r->setValue(os, Str::fromFormat("%.15g", kv.second.size));
    r->setValue(om, ToString(static_cast<unsigned long>(kv.second.members)));
  }
}
