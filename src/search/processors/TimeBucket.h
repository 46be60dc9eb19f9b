// TimeBucket: one bucket of the timeline: its bounds [start, end) in UTC
// seconds, the number of events in it and, when asked, how often each value
// of each field occurs among them.
//
// Per-field counts keep at most kMaxValuesPerField distinct values per field;
// later new values are not counted (the event count stays exact).
// A plain value owned by TimelineProcessor; one thread.
#pragma once

#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "search/SearchResults.h"
#include "util/Str.h"

class SearchResult;

class TimeBucket {
 public:
  static const size_t kMaxValuesPerField = 1000;

  // REQUIRES: start < end.
  TimeBucket(int64_t start, int64_t end) : _start(start), _end(end) {}

  int64_t start() const { return _start; }
  int64_t end() const { return _end; }
  bool contains(int64_t t) const { return t >= _start && t < _end; }
  unsigned long count() const { return _count; }

  void addEvent() { ++_count; }
  // Counts the values the row has among `fields` (name, key index in the
  // row's SearchResults). Does not count the event itself.
  void addResult(const SearchResult& row, const std::vector<std::pair<Str, sr_index_t>>& fields);

  // The `top` most frequent values of a field, most frequent first, ties by
  // value; empty for a field never seen.
  std::vector<std::pair<Str, unsigned long>> topValues(const Str& field, size_t top) const;

  // Fills `row` (a row of `parent`): `_time` the start, `_span` the length in
  // seconds (a calendar month bucket has its month's length), `count`; with
  // `withFields` one column per counted field holding its top values as
  // "<value>:<count>" lines joined by "\n" (the count follows the last ':').
  void asResult(SearchResult& row, SearchResults& parent, size_t top, bool withFields) const;

 private:
  int64_t _start;
  int64_t _end;
  unsigned long _count = 0;
  std::map<Str, std::map<Str, unsigned long>> _fieldCounts;
};
