#include "search/processors/DedupOperator.h"

#include <set>

#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/Logger.h"

namespace {
Logger gLogger("dedup");
}

DedupOperator::DedupOperator(const Str& n) : SearchProcessor(n), _streaming(n == "prededup") {}

Str DedupOperator::getStreamingOp() const {
  Str op;
  // The map half must see the rows in sort order before it drops any.
  if (_sortby) op = Str("presort ") + _sortby->getSpec().toString() + " | ";
  op += "prededup";
  for (const Str& f : _fields) op += " " + f;
  op.appendFormat(" limit=%lu", _limit);
  op += _keepEmpty ? " keepempty=true" : " keepempty=false";
  gLogger.debug("Streaming op: '%s'", op.c_str());
  return op;
}

void DedupOperator::processArguments() {
  unsigned long limit = 1;
  if (getOption("limit", limit) && limit < 1) throw searchError(this, gLogger, "Invalid limit option, must be >= 1");
  _limit = limit;
  getOption("keepempty", _keepEmpty);
  std::vector<Str> names;
  getNextArgs(names, false, "sortby", true);
  std::set<Str> seen;
  for (const Str& f : names) {
    if (f.empty()) throw searchError(this, gLogger, "Field names must not be empty strings");
    if (!seen.insert(f).second) throw searchError(this, gLogger, "Field '%s' specified multiple times", f.c_str());
    _fields.push_back(f);
  }
  if (_fields.empty()) throw searchError(this, gLogger, "At least one field must be given as an argument.");
  if (isNextKeyword("sortby")) {
    if (_streaming) {
      gLogger.error("sortby clause not for prededup");
      throw searchError(this, gLogger, "sortby clause not for prededup");
    }
    std::vector<Str> words;
    std::vector<bool> quoted;
    for (size_t i = 0; i < args.size(); ++i) {
      StringArg* a = unconsumedString(i);
      if (a == nullptr) continue;
      if (a->getText().empty()) throw searchError(this, gLogger, "Invalid empty sortby field name");
      words.push_back(a->getText());
      quoted.push_back(a->isQuoted());
      a->setConsumed();
    }
    _sortby = std::make_unique<SortProcessor>("dedup-sortby");
    _sortby->parseSpec(words, quoted);
  }
  refuseLeftovers();
}

void DedupOperator::dedupRows(SearchResults& results) {
  std::vector<sr_index_t> inds(_fields.size());
  for (size_t k = 0; k < inds.size(); ++k) inds[k] = results.keyIndex(_fields[k]);
  _key.resize(_fields.size());
  for (auto it = results.begin(); it != results.end();) {
    bool all = true;
    for (size_t k = 0; k < inds.size(); ++k) {
      const Str* v = (*it)->getValuePtr(inds[k]);
      if (v == nullptr) {
        all = false;
        break;
      }
      _key[k] = *v;
    }
    bool keep = all ? ++_counts[_key] <= _limit : _keepEmpty;
    if (keep) {
      ++it;
    } else {
      delete *it;
      it = results.erase(it);
    }
  }
}

void DedupOperator::execute(SearchResults& results, SearchResultsInfo& info) {
  if (_streaming) {
    dedupRows(results);
    return;
  }
  _counts.clear();
  if (_sortby) _sortby->execute(results, info);
  std::set<Str> missing(_fields.begin(), _fields.end());
  results.firstFile();
  bool loaded = !results.hasFiles() || (_sortby && true);
  // With files the sort leaves the first file loaded; otherwise load it.
  if (results.hasFiles() && !_sortby) loaded = results.readFile();
  while (loaded) {
    for (const Str& f : _fields)
      if (results.keyIndex(f) != SearchResults::nkeyindex) missing.erase(f);
    dedupRows(results);
    results.writeFile();
    if (!results.nextFile()) break;
    loaded = results.readFile();
  }
  if (!missing.empty()) info.warnMissingFields(gLogger, missing);
  results.firstFile();
  if (results.hasFiles()) results.readFile();
}
