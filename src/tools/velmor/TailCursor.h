// TailCursor: which events of a poll of the index are new to a live tail.
//
// The index gives no time of indexing, but every event has an address in
// its bucket ("_cd" = "<bucket id>:<address>"), and addresses grow as
// events are written to a bucket; a rolled bucket takes no more events and
// a new hot bucket has an id not seen before. So the cursor keeps, per
// bucket, the highest address seen; an event of a later poll is new when
// its bucket is unknown or its address is above that mark.
//
// Limits: a poll sees only what the search selects (its time window): an
// event indexed with a time older than the window is never shown. Buckets
// are remembered for the life of the cursor (a few bytes each).
//
// A plain value; one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

class SearchResult;
class SearchResults;

class TailCursor {
 public:
  // The rows of `rows` (a poll, newest first) not seen before, oldest
  // first; then marks every row of the poll as seen. Rows without a
  // readable _cd are counted in `unaddressed` and left out.
  std::vector<const SearchResult*> take(const SearchResults& rows, size_t& unaddressed);
  // Marks the rows as seen without answering them (the first poll).
  void mark(const SearchResults& rows);
  size_t buckets() const { return _high.size(); }

 private:
  std::map<uint32_t, uint32_t> _high;  // bucket id -> highest address seen
};
