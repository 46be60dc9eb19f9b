// SpilledCsvWriter: writes every row of a SearchResults, in memory or
// spilled into a chain of chunk files, to one CSV stream.
//
// The chunks of a spilled set may each have a dictionary of their own, so
// the header is the union of the chunk headers (read first, header only),
// and every chunk's rows are then appended under that header. Cells of a
// field that a chunk lacks stay empty (absent). The chunks are read into a
// scratch set, so the set's own rows and file cursor are left alone.
//
// One thread at a time (it walks the set's file cursor).
#pragma once

#include "util/FileStar.h"
#include "util/Str.h"

class SearchResults;

class SpilledCsvWriter {
 public:
  // Answers false when a chunk cannot be read (`error` is its path) or the
  // stream cannot be written (`error` empty); `bytes` counts what was
  // written (0 when there are no columns at all: nothing is written).
  static bool write(SearchResults& results, FileStar& f, bool withInternal, bool stripCR, size_t& bytes,
                    Str& error);
  // The number of rows over all chunks (unreadable chunks count none).
  static size_t countRows(SearchResults& results);
};
