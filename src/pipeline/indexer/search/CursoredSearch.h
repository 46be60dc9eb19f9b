// CursoredSearch: reads the events that a search expression selects from one
// index, newest first, in batches, so that a streaming search can stop as
// soon as it has enough.
//
// It asks the evaluator once for the index terms (SearchEvaluator::getQuery)
// and, at the first batch, lists the buckets of the index that overlap the
// time range (IPartitionPolicy::getBucketSpans), keeping per bucket its id,
// its oldest and newest event time and a cursor time: every matching event
// of the bucket at or after it has been handed out.
//
// A batch covers the seconds [low, cursor). low starts at the earliest
// bound; each bucket that can still hold events in that slice is asked for
// at most `count` values (queryBucket). A bucket that answers with exactly
// `count` may hold more events of its OLDEST second, so low is raised to
// that second + 1 and everything below it is dropped, from this bucket's
// answer and from those merged before. What remains holds every matching
// event in [low, cursor) of every bucket: merged newest first and cut to
// `count` at a whole second, it is the batch, and the cursor moves down to
// the cut. Joined, the batches are the full list, newest first, without
// duplicates. A second holding more than `count` events of one bucket
// leaves nothing to hand out: the pass is repeated with ten times the
// count (refused with SearchProcessorException beyond 1000000), and that
// second then makes a batch of its own, larger than `count`.
//
// Rows get _raw, _time, _cd, _serial, host, source, sourcetype, index and
// the key=value fields of the raw text (EventRowWriter), and are then cut
// by the evaluator (isMatch) when the index answer was not exact; _serial
// numbers the rows handed out, from 0. Raw-only rows skip the key=value
// fields, except when the filter needs them (an inexact answer).
//
// Times are whole seconds: the earliest bound is inclusive, the latest
// exclusive (as the evaluator's "_time<" gives it).
//
// Ownership: the evaluator and the policy are borrowed and must outlive the
// cursor. One search thread uses a cursor; it only moves back in time.
// Events written after the first batch may or may not be seen.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "pipeline/indexer/IPartitionPolicy.h"
#include "pipeline/indexer/search/EventRowWriter.h"
#include "util/Str.h"
#include "util/Timeval.h"

class SearchEvaluator;
class SearchResults;

class CursoredSearch {
 public:
  // `earliest` (inclusive) and `latest` (exclusive) bound the search (0 sec:
  // unbounded; a fraction of latest includes its second); the evaluator's
  // _time comparisons narrow them further. `rawOnly`: rows carry the stored
  // fields only, no key=value extraction.
  // Throws SearchParsingException when the time range is empty by the
  // evaluator's own bounds ("empty search: start=%d > end=%d").
  CursoredSearch(SearchEvaluator* evaluator, IPartitionPolicy* policy, const Timeval& earliest,
                 const Timeval& latest, bool rawOnly);
  ~CursoredSearch();
  CursoredSearch(const CursoredSearch&) = delete;
  CursoredSearch& operator=(const CursoredSearch&) = delete;

  // Appends the next batch (at most `count` matching events, fewer after
  // the filter; more only when one second alone holds more) to `out`; rows
  // already in `out` are left alone. True when a batch was read (possibly
  // emptied by the filter: call again); false when the range is used up.
  // Throws DatabasePartitionPolicyException when a bucket cannot be queried.
  bool fetchResults(SearchResults& out, unsigned long count);
  // The same batch as names of events only (no raw text read, no row
  // made), for counting; `out` is replaced. Only for an exact cursor: the
  // evaluator's filter is not applied.
  // REQUIRES: isExact().
  bool fetchValues(std::vector<ValueWrapper>& out, unsigned long count);

  // The real bounds of the search: the constructor's, narrowed by the
  // expression's _time comparisons (whole seconds).
  Timeval getEarliestTime() const;
  Timeval getLatestTime() const;
  // Where the next batch starts: every event at or after this second has
  // been handed out. Equals the earliest bound once the range is used up.
  Timeval getCursorTime() const;
  // True when the index answers exactly what the expression selects.
  bool isExact() const { return _exact; }
  // Events handed out so far (the next _serial).
  uint64_t handedOut() const { return _serial; }

 private:
  struct BucketCursor {
    uint32_t id;
    int32_t cursorTime;  // events at or after this second have been read
    int32_t earliest;    // oldest event time of the bucket
    int32_t latest;      // newest event time of the bucket when listed
  };
  // The ids of the next batch, newest first, and `low`, the second they
  // reach down to (every matching event in [low, cursor) is among them).
  // False when the range is used up.
  bool fetchIds(std::vector<ValueWrapper>& ids, unsigned long count, int32_t& low);
  // One pass over the buckets with at most `count` values per bucket.
  enum class Pass {
    kBatch,  // `ids` holds every matching event in [low, cursor)
    kEnd,    // no bucket has a matching event below the cursor
    kGrow,   // events were found, but none can be handed out: retry with more
  };
  Pass fetchPass(std::vector<ValueWrapper>& ids, unsigned long count, int32_t& low);
  void listBuckets();
  void readRows(const std::vector<ValueWrapper>& ids, SearchResults& out);

  SearchEvaluator* _evaluator;
  IPartitionPolicy* _policy;
  std::vector<Str> _and, _or, _not;
  bool _exact = true;
  bool _rawOnly = false;
  bool _sorted = false;
  int32_t _earliest = 0;
  int32_t _latest = 0;  // exclusive
  int32_t _cursor = 0;  // next batch: times below this
  bool _done = false;
  uint64_t _serial = 0;
  std::vector<BucketCursor> _buckets;
  std::unique_ptr<EventRowWriter> _writer;
  // Scratch reused across batches.
  std::vector<int32_t> _queriedLow;  // per bucket: the low it was asked with
  std::vector<ValueWrapper> _ids, _bucketIds;
  std::vector<DataWrapper> _data;
  std::vector<bool> _ok;
};
