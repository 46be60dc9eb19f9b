#include "pipeline/indexer/GetModule.h"

#include <algorithm>

#include "pipeline/indexer/IPartitionPolicy.h"
#include "pipeline/indexer/Query.h"
#include "util/Exceptions.h"
#include "util/Regex.h"

const Str GetModule::kCountKey = "count";
const Str GetModule::kCodeKey = "code";
const Str GetModule::kTotalKey = "total";

void GetModule::parseRange(const Str& value, const char* malformed, unsigned long& start, unsigned long& end) {
  static const Regex kRange("^(\\d+)-(\\d+)$");
  StrSegment text(value);
  RegexMatch m;
  if (!kRange.match(text, &m) || !Str(m.getGroup(1)).tryToUnsignedLong(start) ||
      !Str(m.getGroup(2)).tryToUnsignedLong(end) || start > end)
    throw QueryException(malformed);
}

IPartitionPolicy* GetModule::policyOf(Query& query) {
  if (query.policy()) return query.policy();
  IPartitionPolicy* p = query.stateMachine().getPolicy();
  if (!p) throw QueryException(Str("No domain ") + query.stateMachine().getDomain() + " could be found");
  return p;
}

std::vector<std::shared_ptr<PipelineData>> GetModule::listRows(const std::vector<WordPositionData>& rows,
                                                               unsigned long start, unsigned long end) {
  std::vector<std::shared_ptr<PipelineData>> out;
  auto total = std::make_shared<const Str>(ToString((unsigned long)rows.size()));
  for (unsigned long i = start; i <= end && i < rows.size(); ++i) {
    auto d = std::make_shared<PipelineData>();
    d->put(PipelineData::rawKey, rows[i].word);
    d->put(kCountKey, ToString((unsigned long long)rows[i].count));
    d->put(kCodeKey, ToString((long long)rows[i]._hashCode));
    d->put(kTotalKey, total);
    out.push_back(std::move(d));
  }
  return out;
}

void GetModule::sortForDisplay(std::vector<WordPositionData>& rows) {
  rows.erase(std::remove_if(rows.begin(), rows.end(), [](const WordPositionData& r) { return r.count == 0; }),
             rows.end());
  std::stable_sort(rows.begin(), rows.end(), [](const WordPositionData& a, const WordPositionData& b) {
    if (a.count != b.count) return a.count > b.count;
    return a.word < b.word;
  });
}
