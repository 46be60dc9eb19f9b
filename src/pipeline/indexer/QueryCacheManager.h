// QueryCacheManager: the compiled and run queries of the last few minutes,
// by query id, so that a caller who asks again with the same id (the next
// page of events, another output format) gets the ids found before without
// touching the index: executeQuery then reruns only "GET" and "OUTPUT".
//
// An entry lives while it is used: one whose last access is more than
// kMaxIdleSeconds old is removed by checkCacheClean, which does its work at
// most once every kCleanIntervalSeconds (lookups and stores call it, and
// cacheCleanService is the periodic callback for an event loop). A lookup
// never hands out an expired entry. An entry is only shared with the user
// who ran it; another user's lookup of the same id is a miss.
//
// Ownership: entries are shared with the callers that run them. Threads: a
// singleton (class mutex for getInstance); one mutex guards the map and the
// last access stamps of its queries, and is never held while a query runs.
#pragma once

#include <ctime>
#include <memory>
#include <unordered_map>

#include "util/Mutex.h"
#include "util/Str.h"

class Query;

class QueryCacheManager {
 public:
  static constexpr time_t kMaxIdleSeconds = 180;
  static constexpr time_t kCleanIntervalSeconds = 5;

  static QueryCacheManager& getInstance();

  // The cached query of that id run by `user`, with its last access stamped
  // now; null when there is none (or it expired, or it is another user's).
  std::shared_ptr<Query> getFromQueryCache(const Str& queryId, const Str& user);
  std::shared_ptr<Query> getFromQueryCache(const Str& queryId, const Str& user, time_t now);
  // Stores (or replaces) the entry of queryId, stamped now.
  void putInQueryCache(const std::shared_ptr<Query>& query, const Str& queryId);
  // Removes the entries idle for more than kMaxIdleSeconds, unless a check
  // ran less than kCleanIntervalSeconds before `now`.
  void checkCacheClean();
  void checkCacheClean(time_t now);
  // The periodic callback: checkCacheClean() on the singleton.
  static void cacheCleanService(void* unused);
  // Empties the cache ("clearcache").
  void clear();
  size_t size();

 private:
  QueryCacheManager() = default;
  void cleanLocked(time_t now);

  Mutex _mutex;
  std::unordered_map<Str, std::shared_ptr<Query>> _cache{100};
  time_t _lastClean = 0;
};
