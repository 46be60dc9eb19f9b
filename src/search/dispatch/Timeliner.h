// Timeliner: the event side of a search job. For every chunk of events the
// job reads it keeps
//   - the chunk itself, as the event file "<n>.csv" of the job directory,
//     n being the number of events read before it ("0.csv", "250.csv", ...);
//   - the count of events per time bucket, rewritten after every chunk as
//     "timeline.csv" (et, lt, count, complete; oldest bucket first, empty
//     buckets included; complete is "1" once the reading, which runs from the
//     newest event backwards, has passed the bucket's start, or the search
//     ended);
//   - a summary per field, written as "summary.csv" (key, value, count, min,
//     max, sum, sumsq, dc): one row per field with an empty value (count =
//     events having the field; min/max/sum/sumsq over its numeric values,
//     empty when none was numeric; dc = distinct values seen), then its most
//     frequent values (up to 100) with their counts. Distinct values are
//     counted up to 10000; dc is exact below that. Fields whose name starts
//     with "_" (the raw text, the time) are not summarised.
// Bucket sizes are those of the `timeline` command: the first of "1s" "10s"
// "1min" "10min" "1h" "1day" "1month" for which at most `statusBuckets`
// buckets cover the events and the requested bounds, aligned in the user's
// time zone. Counts are kept per bucket only; when the range outgrows the
// size the counts move up to the next size, whose buckets are unions of the
// smaller ones.
//
// The static readers serve anyone who reads a job directory (the REST
// handlers): they take whole files only, and the writer replaces every file
// through a temporary name and rename(2).
//
// Owner: the job's thread; one thread uses an object. The readers may run
// on any thread.
#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include "util/Pathname.h"
#include "util/Str.h"

class SearchResults;

class Timeliner {
 public:
  // `setStart`/`setEnd` are the requested bounds (epoch seconds, 0: open);
  // they widen the covered range as the `timeline` command does.
  // REQUIRES: statusBuckets > 0.
  Timeliner(const Pathname& dir, size_t statusBuckets, int64_t setStart, int64_t setEnd);
  ~Timeliner();
  Timeliner(const Timeliner&) = delete;
  Timeliner& operator=(const Timeliner&) = delete;

  // Takes one chunk of events: event file, bucket counts, field summaries,
  // then rewrites "timeline.csv". False when a file could not be written.
  bool processResults(const SearchResults& chunk);
  // Writes "timeline.csv" and "summary.csv"; with `exhausted` (the search
  // read everything it selects) every bucket is complete. False when a file
  // could not be written.
  bool commit(bool exhausted);

  size_t eventCount() const { return _events; }
  // The bucket size in use ("1s" ... "1month").
  const char* bucketSpan() const;

  // Rows of the event files, in file order, whose `_time` lies in [et, lt)
  // (et <= 0 or lt <= 0: that side open; a row without a readable time is
  // left out once a side is set); the first `offset` such rows are skipped
  // and at most `count` given (0: all). `out` is replaced. Answers whether
  // any row was given.
  static bool readEvents(const Pathname& dir, double et, double lt, size_t offset, size_t count,
                         SearchResults& out);
  // The rows of "timeline.csv" / "summary.csv"; false when the file is not
  // there.
  static bool readTimeline(const Pathname& dir, SearchResults& out);
  static bool readSummary(const Pathname& dir, SearchResults& out);

 private:
  struct FieldSummary;

  int64_t bucketStart(int64_t t, size_t rung) const;
  // Climbs the ladder until the covered range needs at most _maxBuckets.
  void fitBuckets();
  bool coveredRange(int64_t& lo, int64_t& hi) const;
  bool writeTimeline(bool exhausted);
  bool writeSummary();

  Pathname _dir;
  size_t _maxBuckets;
  int64_t _setStart, _setEnd;
  size_t _rung = 0;
  std::map<int64_t, size_t> _counts;  // bucket start -> events
  bool _anyTime = false;
  int64_t _oldest = 0, _newest = 0;
  size_t _events = 0;
  std::map<Str, std::unique_ptr<FieldSummary>> _fields;
};
