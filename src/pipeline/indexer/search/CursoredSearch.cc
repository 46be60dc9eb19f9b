#include "pipeline/indexer/search/CursoredSearch.h"

#include <algorithm>
#include <iterator>
#include <set>

#include "search/SearchResults.h"
#include "search/processors/SearchEvaluator.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("CursoredSearch");

namespace {
// Above this many values per bucket a batch is refused: one second of one
// index would hold more events than a search reads at once.
constexpr unsigned long kMaxCount = 1000000;

int32_t toInt32(int64_t v) { return int32_t(std::clamp<int64_t>(v, INT32_MIN, INT32_MAX)); }
}  // namespace

CursoredSearch::CursoredSearch(SearchEvaluator* evaluator, IPartitionPolicy* policy, const Timeval& earliest,
                               const Timeval& latest, bool rawOnly)
    : _evaluator(evaluator), _policy(policy), _rawOnly(rawOnly) {
  // Index times are whole seconds: the earliest bound rounds down, the
  // (exclusive) latest bound up.
  Timeval start(earliest.sec(), 0);
  int64_t endSec = latest.sec() == 0 || latest.sec() >= INT32_MAX ? INT32_MAX : latest.sec() + (latest.usec() > 0);
  Timeval end(endSec, 0);
  std::set<Str> andTerms, notTerms, orTerms;
  _exact = _evaluator->getQuery(andTerms, notTerms, orTerms, start, end);
  _and.assign(andTerms.begin(), andTerms.end());
  _not.assign(notTerms.begin(), notTerms.end());
  _or.assign(orTerms.begin(), orTerms.end());
  _earliest = toInt32(start.sec());
  _latest = toInt32(end.sec());
  _cursor = _latest;
  _done = _latest <= _earliest;
  if (_done) _cursor = _earliest;
  // The filter of an inexact answer may compare key=value fields, so they
  // are extracted then even for raw-only rows.
  _writer = std::make_unique<EventRowWriter>(_policy->getName(), !_rawOnly || !_exact);
}

CursoredSearch::~CursoredSearch() = default;

Timeval CursoredSearch::getEarliestTime() const { return Timeval(_earliest, 0); }
Timeval CursoredSearch::getLatestTime() const { return Timeval(_latest, 0); }
Timeval CursoredSearch::getCursorTime() const { return Timeval(_cursor, 0); }

void CursoredSearch::listBuckets() {
  std::vector<IPartitionPolicy::BucketSpan> spans;
  _policy->getBucketSpans(_earliest, _latest - 1, spans);
  _buckets.clear();
  for (const auto& s : spans) _buckets.push_back(BucketCursor{s.id, _latest, s.earliest, s.latest});
  std::sort(_buckets.begin(), _buckets.end(), [](const BucketCursor& a, const BucketCursor& b) {
    return a.latest != b.latest ? a.latest > b.latest : a.id > b.id;
  });
  _sorted = true;
}

CursoredSearch::Pass CursoredSearch::fetchPass(std::vector<ValueWrapper>& ids, unsigned long count, int32_t& low) {
  low = _earliest;
  const int32_t high = _cursor - 1;
  ids.clear();
  _queriedLow.assign(_buckets.size(), INT32_MAX);
  bool found = false, grow = false;
  for (size_t i = 0; i < _buckets.size(); ++i) {
    const BucketCursor& b = _buckets[i];
    // Sorted by newest event: this and every later bucket lie below low.
    if (b.latest < low) break;
    // Entirely newer than what is left, or read down to low already.
    if (b.earliest > high || b.cursorTime <= low) continue;
    const int32_t top = std::min(high, b.cursorTime - 1);
    size_t answered = 0;
    if (!_policy->queryBucket(b.id, _and, _or, _not, low, top, count, _bucketIds, &answered))
      throw DatabasePartitionPolicyException("Unable to query bucket %u of index %s", unsigned(b.id),
                                             _policy->getName().c_str());
    if (_bucketIds.empty()) {
      if (answered < count)
        _queriedLow[i] = low;  // no match in [low, top]
      else
        grow = true;  // a full answer of deleted events only tells no cut
      continue;
    }
    found = true;
    if (answered >= count) {
      // The bucket may hold more events of its oldest second: hand out
      // only the seconds after it, from every bucket alike.
      int32_t oldest = _bucketIds.back().time;
      for (const ValueWrapper& v : _bucketIds) oldest = std::min(oldest, v.time);
      if (oldest + 1 > low) {
        low = oldest + 1;
        ids.erase(std::remove_if(ids.begin(), ids.end(), [low](const ValueWrapper& v) { return v.time < low; }),
                  ids.end());
      }
    }
    for (const ValueWrapper& v : _bucketIds)
      if (v.time >= low) ids.push_back(v);
  }
  if (grow || (found && ids.empty())) return Pass::kGrow;
  if (!found) return Pass::kEnd;
  std::sort(ids.begin(), ids.end());
  return Pass::kBatch;
}

bool CursoredSearch::fetchIds(std::vector<ValueWrapper>& ids, unsigned long count, int32_t& low) {
  ids.clear();
  if (_done) return false;
  if (!_sorted) listBuckets();
  const unsigned long want = count;
  Pass pass;
  while ((pass = fetchPass(ids, count, low)) == Pass::kGrow) {
    if (count > kMaxCount / 10)
      throw SearchProcessorException("More than %lu events of index %s share one second below %d",
                                     kMaxCount, _policy->getName().c_str(), int(_cursor));
    count *= 10;
    gLogger.debug("One second holds too many events, retrying with %lu per bucket", count);
  }
  if (pass == Pass::kEnd) {
    _cursor = _earliest;
    _done = true;
    return false;
  }
  // Several buckets (or a grown count) may give more than asked: keep the
  // newest `want`, cut at a whole second (a second larger than `want` is
  // kept whole). Every matching event at or after the cut is in `ids`.
  if (ids.size() > want) {
    const int32_t t = ids[want].time;
    low = ids.front().time > t ? t + 1 : t;
    auto cut = std::partition_point(ids.begin(), ids.end(), [low](const ValueWrapper& v) { return v.time >= low; });
    ids.erase(cut, ids.end());
  }
  for (size_t i = 0; i < _buckets.size(); ++i)
    _buckets[i].cursorTime = std::min({_buckets[i].cursorTime, low, _queriedLow[i]});
  _cursor = low;
  if (_cursor <= _earliest) {
    _cursor = _earliest;
    _done = true;
  }
  return true;
}

void CursoredSearch::readRows(const std::vector<ValueWrapper>& ids, SearchResults& out) {
  const auto before = out.empty() ? out.end() : std::prev(out.end());
  auto firstNew = [&] { return before == out.end() ? out.begin() : std::next(before); };
  // Events of one batch often lie in many raw files (sources added one
  // after another interleave in time); two readers inflate two files at once.
  _policy->read(ids, _data, _ok, ids.size() >= 64 ? 2 : 1);
  _writer->bind(out);
  uint64_t serial = _serial;
  size_t added = 0;
  for (size_t i = 0; i < ids.size(); ++i) {
    if (!_ok[i]) continue;
    _writer->append(out, _data[i], serial++);
    ++added;
  }
  _evaluator->initKeys(out);
  if (!_exact && added > 0) {
    size_t kept = 0;
    for (auto it = firstNew(); it != out.end();) {
      if (_evaluator->isMatch(*it)) {
        ++it;
        ++kept;
      } else {
        delete *it;
        it = out.erase(it);
      }
    }
    if (kept != added) {
      sr_index_t key = out.keyIndex(Str("_serial"));
      serial = _serial;
      char buf[24];
      for (auto it = firstNew(); it != out.end(); ++it)
        (*it)->setValue(key, buf, size_t(snprintf(buf, sizeof buf, "%llu", (unsigned long long)serial++)));
    }
  }
  _serial = serial;
}

bool CursoredSearch::fetchResults(SearchResults& out, unsigned long count) {
  int32_t low = 0;
  if (!fetchIds(_ids, std::max(count, 1UL), low)) return false;
  readRows(_ids, out);
  return true;
}

bool CursoredSearch::fetchValues(std::vector<ValueWrapper>& out, unsigned long count) {
  int32_t low = 0;
  if (!fetchIds(out, std::max(count, 1UL), low)) return false;
  _serial += out.size();
  return true;
}
