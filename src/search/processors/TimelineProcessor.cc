#include "search/processors/TimelineProcessor.h"

#include <algorithm>
#include <climits>
#include <cmath>

#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/Logger.h"

namespace {

Logger gLogger("timeline");

const char* const kSteps[] = {"1s", "10s", "1min", "10min", "1h", "1day", "1month"};
const double kMaxTime = 1e11;

bool readTime(const SearchResult& row, sr_index_t k, int64_t& t) {
  const Str* v = row.getValuePtr(k);
  double d;
  if (v == nullptr || !v->tryToDouble(d) || !std::isfinite(d) || std::fabs(d) > kMaxTime) return false;
  t = static_cast<int64_t>(std::floor(d));
  return true;
}

}  // namespace

void TimelineProcessor::processArguments() {
  Str v;
  const char* names[2] = {"maxbuckets", "top"};
  unsigned long* outs[2] = {&_maxBuckets, &_top};
  for (int i = 0; i < 2; ++i) {
    if (!getOption(names[i], v)) continue;
    unsigned long n = 0;
    if (v.startswith('-') || !v.tryToUnsignedLong(n) || n < 1)
      throw searchError(this, gLogger, "Invalid value for option %s '%s'", names[i], v.c_str());
    *outs[i] = n;
  }
  getOption("subhistograms", _subhistograms);
  refuseLeftovers();
}

bool TimelineProcessor::makeBuckets(int64_t earliest, int64_t latest, long count, tl_unit_t unit, size_t limit,
                                    std::vector<TimeBucket>& out) const {
  const Timezone& zone = SLUtil::userTimezone();
  out.clear();
  int64_t start;
  if (!SLUtil::timeBinStart(earliest, count, unit, zone, start))
    throw searchError(this, gLogger, "Unable to snap to bucket: %ld", static_cast<long>(earliest));
  while (start <= latest) {
    if (out.size() >= limit) return false;
    int64_t next;
    if (!SLUtil::timeBinNext(start, count, unit, zone, next))
      throw searchError(this, gLogger, "Unable to advance bucket: %ld", static_cast<long>(start));
    out.emplace_back(start, next);
    start = next;
  }
  return true;
}

void TimelineProcessor::scanTimes(SearchResults& results, bool& any, int64_t& lo, int64_t& hi) const {
  sr_index_t k = results.keyIndex("_time");
  if (k == SearchResults::nkeyindex) return;
  for (SearchResult* r : results) {
    int64_t t;
    if (!readTime(*r, k, t)) continue;
    if (!any || t < lo) lo = t;
    if (!any || t > hi) hi = t;
    any = true;
  }
}

void TimelineProcessor::snapRows(SearchResults& results) {
  sr_index_t k = results.keyIndex("_time");
  if (k == SearchResults::nkeyindex) return;
  std::vector<std::pair<Str, sr_index_t>> fields;
  if (_subhistograms)
    for (const auto& kv : results.getKeyMap())
      if (!kv.first.startswith('_') && kv.first != "count") fields.emplace_back(kv.first, kv.second);
  sr_index_t durPublic = results.keyIndex("duration"), durKey = results.keyIndex("_duration");
  for (SearchResult* r : results) {
    int64_t t;
    if (!readTime(*r, k, t)) continue;
    auto it = std::upper_bound(_starts.begin(), _starts.end(), t);
    if (it == _starts.begin()) throw searchError(this, gLogger, "Unable to snap to bucket: %ld", static_cast<long>(t));
    TimeBucket& b = _buckets[(it - _starts.begin()) - 1];
    if (!b.contains(t)) throw searchError(this, gLogger, "Unable to snap to bucket: %ld", static_cast<long>(t));
    b.addEvent();
    if (_subhistograms) b.addResult(*r, fields);
    if (r->hasValue(durPublic) && !r->hasValue(durKey)) gLogger.debug("missing duration field");
  }
}

void TimelineProcessor::execute(SearchResults& results, SearchResultsInfo& info) {
  _buckets.clear();
  _starts.clear();
  _bucketSpan.clear();
  bool any = false;
  int64_t lo = 0, hi = 0;
  if (results.hasFiles()) {
    results.firstFile();
    while (results.readFile()) {
      scanTimes(results, any, lo, hi);
      if (!results.nextFile()) break;
    }
  } else {
    scanTimes(results, any, lo, hi);
  }
  int64_t e = info.earliestTime.sec(), l = info.latestTime.sec();
  if (e != 0 && std::fabs(static_cast<double>(e)) <= kMaxTime) {
    if (!any || e < lo) lo = e;
    if (!any) hi = e;
    any = true;
  }
  if (l != 0 && std::fabs(static_cast<double>(l)) <= kMaxTime && (any ? l - 1 >= lo : true)) {
    if (!any) lo = l - 1;
    if (l - 1 > hi) hi = l - 1;
    any = true;
  }

  if (any) {
    for (size_t i = 0; i < sizeof(kSteps) / sizeof(kSteps[0]); ++i) {
      long secs, count;
      tl_unit_t unit;
      SLUtil::decompTimeSpanStr(kSteps[i], secs, count, unit);
      bool last = i + 1 == sizeof(kSteps) / sizeof(kSteps[0]);
      if (!last && static_cast<double>(hi - lo) / static_cast<double>(secs) > static_cast<double>(_maxBuckets) + 1)
        continue;  // clearly too many; skip the walk
      if (makeBuckets(lo, hi, count, unit, last ? SIZE_MAX : _maxBuckets, _buckets)) {
        _bucketSpan = kSteps[i];
        break;
      }
    }
    for (const TimeBucket& b : _buckets) _starts.push_back(b.start());
    if (results.hasFiles()) {
      results.firstFile();
      while (results.readFile()) {
        snapRows(results);
        if (!results.nextFile()) break;
      }
    } else {
      snapRows(results);
    }
  }

  results.clearFileList();
  results.free(false);
  for (const TimeBucket& b : _buckets) {
    SearchResult* row = results.addNewResult();
    b.asResult(*row, results, _top, _subhistograms);
  }
  if (!_jobDir.empty() && !results.empty()) {
    Pathname path = _jobDir / "timeline.csv";
    if (results.toCSV(path) == 0) gLogger.warn("Could not write %s", path.c_str());
  }
}
