#include "pipeline/indexer/GetEvents.h"

#include <algorithm>
#include <map>

#include "pipeline/indexer/IPartitionPolicy.h"
#include "pipeline/indexer/Query.h"
#include "pipeline/indexer/ScopedQueryTimer.h"
#include "util/Logger.h"

static Logger gLogger("GetEvents");

namespace {

const char* const kMalformed = "Events malformed. Must be events::start-end";

// Rows for the words of one key over the events, with the codes the
// index's table gives them.
std::vector<WordPositionData> countWords(const std::vector<std::shared_ptr<PipelineData>>& events, const Str& key,
                                         const std::vector<WordPositionData>& table) {
  std::map<Str, size_t> byWord;  // lowercased word -> row
  std::vector<WordPositionData> rows;
  for (const auto& e : events) {
    if (!e->has(PipelineData::rawKey)) continue;
    const Str& word = e->getStr(key);
    Str lower = lowercase(StrSegment(word));
    auto it = byWord.find(lower);
    if (it == byWord.end()) {
      it = byWord.emplace(lower, rows.size()).first;
      WordPositionData row;
      row.word = word;
      row._hashCode = uint64_t(-1);
      rows.push_back(row);
    }
    rows[it->second].add(e->getStr(PipelineData::timeKey).toLong(0));
  }
  for (const WordPositionData& t : table) {
    auto it = byWord.find(lowercase(StrSegment(t.word)));
    if (it != byWord.end()) rows[it->second]._hashCode = t._hashCode;
  }
  return rows;
}

}  // namespace

void GetEvents::runModule() {
  ScopedQueryTimer timer("EVENTS", _query->getQueryId());
  unsigned long start, end;
  parseRange(getArg("events"), kMalformed, start, end);
  const std::vector<ValueWrapper>& ids = _query->results();
  std::vector<std::shared_ptr<PipelineData>>& events = _query->resultMap()["events"];
  events.clear();

  end = std::min(end, start + kMaxEvents - 1);
  const unsigned long asked = end - start + 1;
  if (start >= ids.size()) {
    gLogger.info("Couldn't return enough (matching) events");
    return;
  }
  end = std::min<unsigned long>(end, ids.size() - 1);
  IPartitionPolicy* policy = policyOf(*_query);

  // Read in address order per bucket; slot[k] is where sorted[k] belongs.
  const size_t n = end - start + 1;
  std::vector<size_t> order(n);
  for (size_t i = 0; i < n; ++i) order[i] = start + i;
  std::sort(order.begin(), order.end(), [&](size_t a, size_t b) {
    if (ids[a].bucketId != ids[b].bucketId) return ids[a].bucketId < ids[b].bucketId;
    return ids[a].address < ids[b].address;
  });
  std::vector<ValueWrapper> sorted(n);
  std::vector<size_t> slot(n);
  for (size_t k = 0; k < n; ++k) {
    sorted[k] = ids[order[k]];
    slot[order[k] - start] = k;
  }
  std::vector<DataWrapper> data;
  std::vector<bool> ok;
  size_t read = policy->read(sorted, data, ok);

  events.reserve(n);
  for (size_t i = 0; i < n; ++i) {
    const ValueWrapper& v = ids[start + i];
    auto e = std::make_shared<PipelineData>();
    e->put(PipelineData::cdKey, v.cd());
    e->put(PipelineData::timeKey, ToString(long(v.time)));
    size_t k = slot[i];
    if (ok[k]) {
      DataWrapper& d = data[k];
      e->put(PipelineData::rawKey, std::make_shared<const Str>(std::move(d.raw)));
      e->put(PipelineData::hostField, std::make_shared<const Str>(std::move(d.host)));
      e->put(PipelineData::sourceField, std::make_shared<const Str>(std::move(d.source)));
      e->put(PipelineData::sourceTypeField, std::make_shared<const Str>(std::move(d.sourceType)));
      e->put(PipelineData::metaKey, std::make_shared<const Str>(std::move(d.meta)));
      if (d.time != v.time) e->put(PipelineData::timeKey, ToString(long(d.time)));
    }
    events.push_back(std::move(e));
  }
  if (read < asked) gLogger.info("Couldn't return enough (matching) events");
  if (getArg("summarize") == "yes") summarize(*policy, events);
}

void GetEvents::summarize(IPartitionPolicy& policy, const std::vector<std::shared_ptr<PipelineData>>& events) {
  struct Kind {
    const char* list;
    const Str& key;
    std::vector<WordPositionData> (IPartitionPolicy::*table)();
  };
  const Kind kinds[] = {{"hosts", PipelineData::hostField, &IPartitionPolicy::getHosts},
                        {"sources", PipelineData::sourceField, &IPartitionPolicy::getSources},
                        {"sourcetypes", PipelineData::sourceTypeField, &IPartitionPolicy::getSourceTypes}};
  for (const Kind& k : kinds) {
    std::vector<WordPositionData> rows = countWords(events, k.key, (policy.*k.table)());
    sortForDisplay(rows);
    _query->resultMap()[k.list] = listRows(rows, 0, rows.empty() ? 0 : rows.size() - 1);
  }
}
