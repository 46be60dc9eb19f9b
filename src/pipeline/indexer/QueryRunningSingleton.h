// QueryRunningSingleton: the ids of the inner queries running in this
// process, at most `maxQueryIds` of them at once (0: no bound). A query id
// is taken for the length of one run: start() also opens the id in
// SearchCancel, so that "cancelQuery" (SearchCancel::stop) ends it at its
// next block; finish() closes it and says whether it was cancelled.
//
// Threads: any thread; one mutex guards the set.
#pragma once

#include <set>

#include "util/Mutex.h"
#include "util/Str.h"

class QueryRunningSingleton {
 public:
  static QueryRunningSingleton* instance();

  void setMaxQueryIds(unsigned long n);
  unsigned long getMaxQueryIds();
  // False when the id already runs or the set is full (nothing taken).
  bool start(const Str& queryId);
  // Releases the id; true when it had been cancelled while it ran.
  bool finish(const Str& queryId);
  // Cancels a running query; false when the id does not run.
  bool cancel(const Str& queryId);
  size_t running();

 private:
  QueryRunningSingleton() = default;
  Mutex _mutex;
  std::set<Str> _ids;
  std::set<Str> _cancelled;
  unsigned long _max = 0;
};
