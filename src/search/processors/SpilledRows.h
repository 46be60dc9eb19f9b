// SpilledRows: helpers for commands that need every row at once (the ones
// that answer false to isStreamable and so meet the spill files themselves).
// Stateless; call on the thread that owns the SearchResults.
#pragma once

class SearchResults;

class SpilledRows {
 public:
  // Reads every spill file of `rs` into memory (rows appended in file
  // order), deletes the files and empties the list. No-op without files.
  static void loadAll(SearchResults& rs);
};
