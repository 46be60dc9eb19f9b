// TimelineProcessor: `timeline`, the event counts over time for the job view.
//
//   timeline [maxbuckets=<n>] [top=<n>] [subhistograms=<bool>]
//
// maxbuckets (default 300, at least 1), top (default 10, at least 1),
// subhistograms (default false).
//
// The covered range runs from the earliest to the latest `_time` of the rows,
// widened to the search's time bounds in the info when those are set
// (earliest inclusive, latest exclusive). The bucket size is the first rung
// of "1s" "10s" "1min" "10min" "1h" "1day" "1month" for which at most
// `maxbuckets` buckets cover the range; past the ladder the last rung
// stands. Buckets are aligned in the user's time zone as `bin` aligns them
// (SLUtil.h): days start at local midnight, months on the first, so a month
// bucket has its calendar length.
//
// Each row with a readable `_time` (within +-1e11 s) counts in its bucket;
// other rows are ignored. With subhistograms every field whose name does not
// start with "_" (and is not "count") has its values counted per bucket and
// the `top` most frequent are kept (TimeBucket.h gives the text).
//
// Output: the rows are replaced by one row per bucket, oldest first, empty
// buckets included: `_time`, `_span`, `count` and the field columns. When a
// job directory was set (setJobDir) the same rows are written to
// "timeline.csv" there; the search context carries no job directory, so the
// dispatcher that owns the job sets it.
//
// Faults: "Unable to snap to bucket: %ld" when an event's time lies in no
// bucket, "Unable to advance bucket: %ld" when the next bucket cannot be
// computed from the one starting at the given time.
// Owner: the pipeline; one thread. Reads every spilled file twice.
#pragma once

#include <cstdint>
#include <vector>

#include "search/SLUtil.h"
#include "search/SearchProcessor.h"
#include "search/processors/TimeBucket.h"
#include "util/Pathname.h"

class TimelineProcessor : public SearchProcessor {
 public:
  explicit TimelineProcessor(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new TimelineProcessor(name); }

  bool isStreamable() const override { return false; }
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

  // Where "timeline.csv" is written; empty (the default) writes nothing.
  void setJobDir(const Pathname& dir) { _jobDir = dir; }
  // The bucket size chosen by the last execute ("1min", ...), empty before.
  const Str& bucketSpan() const { return _bucketSpan; }
  const std::vector<TimeBucket>& buckets() const { return _buckets; }

  // Fills `out` with the buckets, one rung of the ladder, from the bucket
  // holding `earliest` to the one holding `latest`; gives up (false) once
  // more than `limit` buckets would be needed. Throws "Unable to advance
  // bucket: %ld" when stepping fails.
  bool makeBuckets(int64_t earliest, int64_t latest, long count, tl_unit_t unit, size_t limit,
                   std::vector<TimeBucket>& out) const;

 private:
  void scanTimes(SearchResults& results, bool& any, int64_t& lo, int64_t& hi) const;
  void snapRows(SearchResults& results);

  unsigned long _maxBuckets = 300;
  unsigned long _top = 10;
  bool _subhistograms = false;
  Pathname _jobDir;
  Str _bucketSpan;
  std::vector<TimeBucket> _buckets;
  std::vector<int64_t> _starts;
};
