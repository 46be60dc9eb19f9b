#include "pipeline/indexer/search/TyperOperator.h"

#include "framework/UserManager.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/processors/SearchEvaluator.h"
#include "util/Logger.h"
#include "util/Mutex.h"

static Logger gLogger("typer");

namespace {
Mutex gSourceMutex;
std::shared_ptr<TyperOperator::EventTypeSource>& sourceSlot() {
  static std::shared_ptr<TyperOperator::EventTypeSource> source;
  return source;
}
}  // namespace

std::shared_ptr<TyperOperator::EventTypeSource> TyperOperator::EventTypeSource::install(
    std::shared_ptr<EventTypeSource> source) {
  ScopedLock lock(gSourceMutex);
  std::shared_ptr<EventTypeSource> old = sourceSlot();
  sourceSlot() = std::move(source);
  return old;
}

std::shared_ptr<TyperOperator::EventTypeSource> TyperOperator::EventTypeSource::installed() {
  ScopedLock lock(gSourceMutex);
  return sourceSlot();
}

TyperOperator::TyperOperator(const Str& n) : SearchProcessor(n) {}
TyperOperator::~TyperOperator() = default;

void TyperOperator::loadTypes(SearchResultsInfo& info) {
  _loaded = true;
  std::shared_ptr<EventTypeSource> source = EventTypeSource::installed();
  if (!source) return;
  const UserContext* ctx = UserContext::current();
  std::vector<std::pair<Str, Str>> types;
  source->list(ctx ? ctx->user : info.userContext, types);
  for (auto& [typeName, text] : types) {
    try {
      auto eval = std::make_unique<SearchEvaluator>(text);
      if (!eval->optimize()) {
        info.addWarning("The eventtype '" + typeName + "' can match no event");
        continue;
      }
      _types.emplace_back(typeName, std::move(eval));
    } catch (const std::exception& e) {
      info.addWarning("The eventtype '" + typeName + "' has an invalid search: " + e.what());
    }
  }
}

void TyperOperator::execute(SearchResults& results, SearchResultsInfo& info) {
  if (!_loaded) loadTypes(info);
  if (_types.empty() || results.empty()) return;
  for (auto& t : _types) t.second->initKeys(results);
  const sr_index_t key = results.keyIndex("eventtype", true);
  const sr_index_t mvKey = results.internalKeyIndex("__mv_eventtype", true);
  std::vector<Str> names;
  Str joined, encoded;
  for (SearchResult* r : results) {
    names.clear();
    for (auto& t : _types)
      if (t.second->isMatch(r)) names.push_back(t.first);
    if (names.empty()) continue;
    joined.clear();
    for (const Str& n : names) {
      if (!joined.empty()) joined += ' ';
      joined += n;
    }
    r->setValue(key, joined);
    if (names.size() > 1) {
      encoded.clear();
      SearchResults::encodeMV(names, encoded);
      r->setValue(mvKey, encoded);
    } else {
      r->removeValue(mvKey);
    }
  }
}
