// SearchCancel: the process-wide set of running search ids.
//
// A search runs while its cancel id is in the set: start() puts it in,
// stop() takes it out (a cancel), and long-running code asks cont() between
// commands or chunks. An empty id can never be cancelled.
// Any thread may call; one mutex guards the set.
#pragma once

#include <set>

#include "util/Mutex.h"
#include "util/Str.h"

class SearchCancel {
 public:
  static SearchCancel* instance();

  // Inserts the id; an id already present logs an error and stays.
  void start(const Str& id);
  // True for an empty id, otherwise whether the id is in the set.
  bool cont(const Str& id);
  void stop(const Str& id);
  void stopAll();

 private:
  SearchCancel() = default;
  Mutex _mutex;
  std::set<Str> _ids;
};
