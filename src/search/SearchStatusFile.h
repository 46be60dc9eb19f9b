// SearchStatusFile: the "status.csv" of a dispatched search job, a CSV of one
// row whose columns are all text:
//   user, start, count, cursor, keywords, ttl, done, search, streaming,
//   error, setStart, setEnd, startTime, endTime
// Written atomically with SearchResults::toCSV(Pathname) so that a polling
// reader never sees half a file. A plain value; one thread at a time.
#pragma once

#include <cstdint>

#include "util/Pathname.h"
#include "util/Str.h"

class SearchResults;

class SearchStatusFile {
 public:
  Str user;
  int64_t start = 0;       // start time
  uint64_t count = 0;      // rows so far
  int64_t cursor = 0;      // current time position of the stream
  Str keywords;
  uint64_t ttl = 0;        // seconds the job directory is kept
  bool done = false;       // "1" finished, "0" running
  Str search;
  bool streaming = false;  // "1" when the job has no spilled parts
  Str error;
  int64_t setStart = 0, setEnd = 0;      // bounds of the result set
  int64_t startTime = 0, endTime = 0;    // bounds asked for

  // The one-row result set of this status.
  void toResults(SearchResults& out) const;
  // Fills from the first row; false when there is none. Unparsable numbers
  // read as 0.
  bool fromResults(const SearchResults& in);
  // Bytes written, 0 on failure (logged by the writer).
  size_t write(const Pathname& path) const;
  // False when the file is missing or has no row.
  bool read(const Pathname& path);
};
