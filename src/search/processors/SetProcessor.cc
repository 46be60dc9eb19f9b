#include "search/processors/SetProcessor.h"

#include <strings.h>

#include <unordered_set>

#include "libbundle/StringMgr.h"
#include "search/ResultsArg.h"
#include "search/SearchResults.h"
#include "util/Logger.h"

namespace {
Logger gLogger("set");
}

void SetProcessor::processArguments() {
  Str op;
  std::vector<SearchResults*> sets;
  size_t strings = 0;
  for (Arg* a : args) {
    if (a->type == Arg::RESULTS) {
      sets.push_back(static_cast<ResultsArg*>(a)->getResults());
      a->setConsumed();
    } else if (a->type == Arg::STRING) {
      if (strings++ == 0) op = static_cast<StringArg*>(a)->getText();
      a->setConsumed();
    }
  }
  if (strings != 1 || sets.size() != 2 || !sets[0] || !sets[1])
    throw searchError(this, gLogger, "%s", StringMgr::str("SET_USAGE_3").c_str());
  if (strcasecmp(op.c_str(), "union") == 0)
    _op = UNION;
  else if (strcasecmp(op.c_str(), "diff") == 0)
    _op = DIFF;
  else if (strcasecmp(op.c_str(), "intersect") == 0)
    _op = INTERSECT;
  else
    throw searchError(this, gLogger, "%s", StringMgr::str("SET_USAGE_OPERATOR").c_str());
  _first = sets[0];
  _second = sets[1];
}

Str SetProcessor::rowKey(const SearchResults& rs, const SearchResult& r) {
  Str key;
  for (const auto& kv : rs.getKeyMap()) {
    const Str* v = r.getValuePtr(kv.second);
    if (!v) continue;
    key += kv.first;
    key += '\0';
    key += *v;
    key += '\0';
  }
  return key;
}

void SetProcessor::execute_dispatch(SearchResults& results, SearchResultsInfo& info) {
  if (results.hasFiles()) results.clearFileList();
  results.free(false);
  execute(results, info);
}

void SetProcessor::execute(SearchResults& results, SearchResultsInfo&) {
  results.free(false);
  std::unordered_set<std::string> inSecond;
  for (const SearchResult* r : *_second) inSecond.insert(rowKey(*_second, *r));
  std::unordered_set<std::string> taken;  // every row key of the first set, and those added
  auto add = [&](const SearchResult* r) {
    SearchResult* n = results.addNewResult();
    results.copyResult(*r, *n);
  };
  for (const SearchResult* r : *_first) {
    Str k = rowKey(*_first, *r);
    bool both = inSecond.count(k) != 0;
    if (!taken.insert(k).second) continue;
    if (_op == UNION || (_op == DIFF && !both) || (_op == INTERSECT && both)) add(r);
  }
  if (_op == INTERSECT) return;
  for (const SearchResult* r : *_second) {
    Str k = rowKey(*_second, *r);
    if (!taken.insert(k).second) continue;
    add(r);
  }
}
