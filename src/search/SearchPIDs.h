// SearchPIDs: the process-wide table of running search pipelines, for the
// `searchps` command and for monitoring.
//
// A pipeline takes a pid from IdProvider, calls init() when it starts,
// update() before each command and finalize() when it ends (the entry is
// then removed). Any thread may call; one mutex guards the table.
#pragma once

#include <map>

#include "util/Mutex.h"
#include "util/Str.h"
#include "util/Timeval.h"

class SearchResults;

struct SearchPID {
  Timeval startTime;
  Timeval lastUpdate;
  Str cancelId;
  Str search;
  Str currentProcessor;
  size_t currentResultCount = 0;
};

class SearchPIDs {
 public:
  static SearchPIDs* instance();

  void init(const Str& pid, const Str& cancelId, const Str& search);
  // Unknown pids log "unable to find pid: %s".
  void update(const Str& pid, const Str& processorName, size_t rowCount);
  void finalize(const Str& pid);
  // Appends one row per entry: _time, cancel_id, search, current_processor,
  // current_result_count, total_time, current_processor_time (seconds).
  void asResults(SearchResults& out);
  size_t size();

 private:
  SearchPIDs() = default;
  Mutex _mutex;
  std::map<Str, SearchPID> _pids;
};
