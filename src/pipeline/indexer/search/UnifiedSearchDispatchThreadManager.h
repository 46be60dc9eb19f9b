// UnifiedSearchDispatchThreadManager: runs each distinct search once, in the
// background, and lets any number of readers page through its rows.
//
// DESIGN: getResults looks the key (search text, time range and user) up
// under the manager's mutex. On a miss it makes a
// UnifiedSearchDispatchThreadInfo, a results file
// "<home>/var/run/velmor/<id>/unified-search-<key digest>.csv" and starts a
// UnifiedSearchDispatchThread, which parses the text as a pipeline and runs
// it batch by batch, appending each batch to the file and waking the
// readers; it never holds more than twice the rows its readers asked for
// before it waits for them to ask for more (a `search x | head 10` reads a
// few batches, not `max_events` rows). A reader releases the manager's mutex before it waits on the
// info's condition until the thread has finished or holds start + count
// rows; rows are then read back from the file (the newest ones, not yet
// written, from memory). Lock order: manager mutex, then the key's
// ReadWriteLock, then the info's mutex. A finished search stays for `cache_ttl` seconds
// (stanza "search" of limits.conf, default 300): readers in that time start
// no thread. remove(key) takes the key's ReadWriteLock as writer, so it
// waits for running readers, then drops the info and its file.
//
// Expiry needs no event loop: a finished info records when it finished, and
// getResults and cleanup() remove those older than cache_ttl. While a key is
// being removed (its thread joined, its file deleted outside the manager's
// mutex), a new run of the same key waits, since it would use the same file.
// A thread that waits for a removal never holds a key's ReadWriteLock. A
// reader counts itself in on the key's lock while it still holds the
// manager's mutex, so remove(), which unlists the key under that mutex
// first, waits for every reader that found it.
//
// The key is makeKey(): the user (info.userContext), the time range
// (info.earliestTime, info.latestTime) and the search text. The file name
// holds keyDigest(key), the SHA-256 of the key in hex, since the key holds
// arbitrary text.
//
// Threads: any thread may call getResults, remove, cleanup and clear,
// including a dispatch thread (a subsearch of a running search).
#pragma once

#include <map>
#include <memory>
#include <set>

#include "util/ConditionBaseClass.h"
#include "util/Mutex.h"
#include "util/Str.h"
#include "util/Timeval.h"

class ReadWriteLock;
class SearchResults;
class SearchResultsInfo;
class UnifiedSearchDispatchThreadInfo;

class UnifiedSearchDispatchThreadManager {
 public:
  static UnifiedSearchDispatchThreadManager* instance();

  // Rows [start, start + count) of the search `search` (a whole pipeline
  // text, "newsearch ..." for the search command) into `out` (appended,
  // keys copied). `info` gives the user and time range of the key (and of a
  // new run). `id` names the run directory: a plain file name, else
  // SearchProcessorException "Invalid search id '<id>'". Waits while the search runs
  // and has fewer rows. Copies the search's real time bounds to
  // `earliest`/`latest` and its messages into `info`. Answers whether the
  // search has finished (all its rows exist).
  bool getResults(const Str& search, const Str& id, unsigned long start, unsigned long count, SearchResults& out,
                  Timeval& earliest, Timeval& latest, SearchResultsInfo& info);
  // Ends the search of that key: drops its state and its results file.
  void remove(const Str& key);
  // Removes the finished searches older than their cache_ttl.
  void cleanup();
  // Ends every search (tests, shutdown): cancels the running ones, joins
  // their threads and deletes their files.
  void clear();
  size_t size();

  // "user=<length of user>:<user>\nearliest=<s.us>\nlatest=<s.us>\nsearch=<search>",
  // the user and range taken from `info`.
  static Str makeKey(const Str& search, const SearchResultsInfo& info);
  // Lower-case hex SHA-256 of the key (64 characters).
  static Str keyDigest(const Str& key);

 private:
  UnifiedSearchDispatchThreadManager() = default;
  Mutex _mutex;
  std::map<Str, std::shared_ptr<UnifiedSearchDispatchThreadInfo>> _infos;
  std::map<Str, std::shared_ptr<ReadWriteLock>> _locks;
  std::set<Str> _removing;       // keys whose removal has not ended yet
  ConditionBaseClass _removed;   // signalled (all) when a removal ends
};
