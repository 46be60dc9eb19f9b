// ScopedQueryTimer: times one stage of an inner query and logs, when it goes
// out of scope, "Total time to get <what> for <query id>: <seconds>" at
// debug to the logger "QueryTimer". Cheap when debug is off (one clock read
// at each end).
//
// A plain stack object of the thread running the query.
#pragma once

#include <ctime>

#include "util/Logger.h"
#include "util/Str.h"

class ScopedQueryTimer {
 public:
  // REQUIRES: what and queryId outlive the timer.
  ScopedQueryTimer(const char* what, const Str& queryId) : _what(what), _queryId(queryId) {
    clock_gettime(CLOCK_MONOTONIC, &_start);
  }
  ~ScopedQueryTimer() {
    timespec end;
    clock_gettime(CLOCK_MONOTONIC, &end);
    double secs = double(end.tv_sec - _start.tv_sec) + double(end.tv_nsec - _start.tv_nsec) / 1e9;
    logger().debug("Total time to get %s for %s: %.6f seconds", _what, _queryId.c_str(), secs);
  }
  ScopedQueryTimer(const ScopedQueryTimer&) = delete;
  ScopedQueryTimer& operator=(const ScopedQueryTimer&) = delete;

 private:
  static Logger& logger() {
    static Logger l("QueryTimer");
    return l;
  }
  const char* _what;
  const Str& _queryId;
  timespec _start;
};
