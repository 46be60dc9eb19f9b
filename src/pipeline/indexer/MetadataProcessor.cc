#include "pipeline/indexer/MetadataProcessor.h"

#include <algorithm>

#include "pipeline/indexer/DatabaseContainer.h"
#include "pipeline/indexer/IPartitionPolicy.h"
#include "pipeline/indexer/PersistentMapManager.h"
#include "search/SL.h"
#include "search/SearchFactory.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/Logger.h"

namespace {
Logger gLogger("metadata");

const struct {
  const char* type;
  const Str* field;
} kTypes[] = {{"hosts", &SL::Host}, {"sources", &SL::Source}, {"sourcetypes", &SL::SourceType}};

// Reads a number field of a row; false when absent or not a number.
bool numberOf(const SearchResult* r, sr_index_t i, long long& out) {
  const Str* v = i ? r->getValuePtr(i) : nullptr;
  return v && v->tryToLongLong(out);
}

}  // namespace

MetadataProcessor::MetadataProcessor(const Str& name) : SearchProcessor(name), _gather(name != "premetadata") {}

SearchProcessor* MetadataProcessor::create(const Str& name) { return new MetadataProcessor(name); }

void MetadataProcessor::registerCommands() {
  SearchFactory::registerProcessor("metadata", &MetadataProcessor::create, false);
  SearchFactory::registerProcessor("premetadata", &MetadataProcessor::create, true);
}

Str MetadataProcessor::getStreamingOp() const {
  if (!_gather) return Str();
  Str op = "premetadata type=" + _type;
  if (!_index.empty()) op += " index=" + _index;
  return op;
}

void MetadataProcessor::processArguments() {
  Str type;
  bool gather = true;
  if (getOption("gather", gather) && name == "metadata") _gather = gather;
  getOption("index", _index);
  if (!getOption("type", type)) {
    Str word;
    size_t at = getNextArg(word, false);
    if (at >= args.size() || args[at]->isOption())
      throw searchError(this, gLogger, "Must specify 'type' argument to 'metadata', as in 'type=hosts'.");
    getNextArg(word, true);
    type = word;
    _assumedType = word;
    gLogger.warn("Assuming '%s' is type argument.", word.c_str());
  }
  Str lower = lowercase(type);
  for (const auto& t : kTypes)
    if (lower == t.type) {
      _type = t.type;
      _field = *t.field;
    }
  if (_type.empty())
    throw searchError(this, gLogger, "Invalid 'type' argument '%s': use type=hosts, type=sources or type=sourcetypes.",
                      type.c_str());
  refuseLeftovers();
}

void MetadataProcessor::warnAssumedType(SearchResultsInfo& info) {
  if (_assumedType.empty()) return;
  info.addWarning("Assuming '" + _assumedType + "' is type argument.");
  _assumedType.clear();
}

std::vector<WordPositionData> MetadataProcessor::readIndex() {
  DatabaseContainer* c = DatabaseContainer::getProcessContainer();
  if (!c) throw searchError(this, gLogger, "No index is available to this search, so there is no metadata to read.");
  Str index = _index.empty() ? c->getDefaultDomain() : _index;
  IPartitionPolicy* policy = c->getPolicyByDomain(index);
  if (!policy) throw searchError(this, gLogger, "Unknown index '%s'.", index.c_str());
  if (_field == SL::Host) return policy->getHosts();
  if (_field == SL::Source) return policy->getSources();
  return policy->getSourceTypes();
}

void MetadataProcessor::merge(const Row& row) {
  auto [it, fresh] = _merged.try_emplace(lowercase(row.word), row);
  if (fresh) return;
  Row& m = it->second;
  m.count += row.count;
  m.firstTime = std::min(m.firstTime, row.firstTime);
  m.lastTime = std::max(m.lastTime, row.lastTime);
  m.recentTime = std::max(m.recentTime, row.recentTime);
}

Str MetadataProcessor::tagsOf(const Str& word) {
  PersistentMapManager* map = PersistentMapManager::globalTagMapInstance();
  std::vector<Str> all, some;
  map->getTags("tag::" + _field + "::" + word, all);
  map->getTags("tag::" + word, some);
  all.insert(all.end(), some.begin(), some.end());
  std::sort(all.begin(), all.end());
  all.erase(std::unique(all.begin(), all.end()), all.end());
  Str joined;
  for (const Str& t : all) {
    if (!joined.empty()) joined += ' ';
    joined += t;
  }
  return joined;
}

void MetadataProcessor::appendRow(SearchResults& results, const Row& row) {
  SearchResult* r = results.addNewResult();
  if (row.firstTime != WordPositionData::kNoTime) r->setValue("firstTime", ToString((long long)row.firstTime));
  r->setValue("lastTime", ToString((long long)row.lastTime));
  r->setValue("recentTime", ToString((long long)row.recentTime));
  r->setValue("totalCount", ToString((unsigned long long)row.count));
  r->setValue("type", _type);
  r->setValue(_field, row.word);
  r->setValue("tags", tagsOf(row.word));
}

void MetadataProcessor::execute(SearchResults& results, SearchResultsInfo& info) {
  warnAssumedType(info);
  if (_generated) return;
  _generated = true;
  for (const WordPositionData& w : readIndex())
    appendRow(results, Row{w.word, w.count, w.firstTime, w.lastTime, w.recentTime});
}

void MetadataProcessor::execute_input(SearchResults& results, SearchResultsInfo& info) {
  warnAssumedType(info);
  if (results.empty()) return;
  _sawInput = true;
  sr_index_t key = results.keyIndex(_field);
  sr_index_t count = results.keyIndex("totalCount"), first = results.keyIndex("firstTime"),
             last = results.keyIndex("lastTime"), recent = results.keyIndex("recentTime");
  Row row;
  long long n;
  for (const SearchResult* r : results) {
    const Str* word = key ? r->getValuePtr(key) : nullptr;
    if (!word)
      throw searchError(this, gLogger, "No '%s' key found in results.  Cannot merge metadata.", _field.c_str());
    row.word = *word;
    row.count = numberOf(r, count, n) && n > 0 ? uint64_t(n) : 0;
    row.firstTime = numberOf(r, first, n) ? n : WordPositionData::kNoTime;
    row.lastTime = numberOf(r, last, n) ? n : 0;
    row.recentTime = numberOf(r, recent, n) ? n : 0;
    merge(row);
  }
}

void MetadataProcessor::execute_output(SearchResults& results, SearchResultsInfo& info) {
  warnAssumedType(info);
  if (!_sawInput)
    for (const WordPositionData& w : readIndex()) merge(Row{w.word, w.count, w.firstTime, w.lastTime, w.recentTime});
  results.free(false);
  for (const auto& kv : _merged) appendRow(results, kv.second);
  _merged.clear();
  _sawInput = false;
}
