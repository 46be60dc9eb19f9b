// UnifiedSearchDispatchThreadInfo: the shared state of one background run of
// a search: what readers of that search wait on and page through.
//
// DESIGN. One UnifiedSearchDispatchThread fills the state, any number of
// reader threads read it. Everything below "guarded" is guarded by _mutex;
// _cond is signalled (to all) whenever rows arrive or the run finishes.
// Rows reach readers in two steps: publish() moves a batch into memory
// (_unwritten) and counts it in _total, so waiting readers can take it at
// once; the thread then appends those rows to the results file outside the
// lock and markWritten() advances _written and drops them from memory. So
// rows [0, _written) are in the file, rows [_written, _total) in memory.
// Only the dispatch thread changes _unwritten, and only under the lock; it
// reads it without the lock while writing the file, as readers only read it.
// The pipeline and its SearchResultsInfo belong to the dispatch thread;
// readers get copies of the time bounds and messages taken under the lock.
//
// Ownership: the manager owns infos (shared with readers in flight); an info
// owns its thread and joins it on destruction. The results file is removed
// by removeFiles(), called by the manager once the thread is joined.
#pragma once

#include <map>
#include <memory>
#include <vector>

#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/ConditionBaseClass.h"
#include "util/Mutex.h"
#include "util/Pathname.h"
#include "util/Str.h"
#include "util/Timeval.h"

class SearchProcessor;
class UnifiedSearchDispatchThread;

class UnifiedSearchDispatchThreadInfo {
 public:
  // `seed` gives the time range, user and roles the run searches with.
  UnifiedSearchDispatchThreadInfo(const Str& key, const Str& search, const Pathname& resultsFile,
                                  const SearchResultsInfo& seed);
  // Cancels and joins the thread if it still runs.
  ~UnifiedSearchDispatchThreadInfo();
  UnifiedSearchDispatchThreadInfo(const UnifiedSearchDispatchThreadInfo&) = delete;
  UnifiedSearchDispatchThreadInfo& operator=(const UnifiedSearchDispatchThreadInfo&) = delete;

  const Str& key() const { return _key; }
  const Str& search() const { return _search; }
  const Pathname& resultsFile() const { return _resultsFile; }
  // The SearchCancel id of the run.
  const Str& cancelId() const { return _cancelId; }

  // --- manager side ------------------------------------------------------------
  // Creates the thread and lets it run. REQUIRES: called once, with
  // SearchCancel already started for cancelId(). Throws when no thread can
  // be made.
  void startThread();
  // Waits for the thread to end. REQUIRES: the run was cancelled or ends by
  // itself; not called by the dispatch thread.
  void joinThread();
  // Deletes the results file (and its directory when empty).
  // REQUIRES: the thread is joined.
  void removeFiles();
  // Finished at least `ttlSeconds` (of the run's cache_ttl) before `now`.
  bool isExpired(const Timeval& now);
  bool isFinished();
  unsigned long rowCount();
  // Cancels the run (SearchCancel) and wakes the thread if it waits for
  // readers.
  void cancel();

  // --- reader side ---------------------------------------------------------------
  // Waits until the run has finished or holds start + count rows, then
  // appends rows [start, start + count) that exist to `out`, sets the run's
  // time bounds and adds its messages to `info` (each text once). Answers
  // whether the run has finished. REQUIRES: the caller holds the key's
  // ReadWriteLock as reader, so the file stays.
  bool read(unsigned long start, unsigned long count, SearchResults& out, Timeval& earliest, Timeval& latest,
            SearchResultsInfo& info);

  // --- dispatch thread side ------------------------------------------------------
  // The pipeline's own info: only the dispatch thread touches it.
  SearchResultsInfo& runInfo() { return _runInfo; }
  // Moves the rows of `batch` into memory, takes the time bounds and
  // messages of runInfo() and wakes the readers. `batch` is left empty.
  void publish(SearchResults& batch);
  // The rows published and not yet written. Only the dispatch thread may
  // call, between publish() and markWritten().
  const SearchResults& unwritten() const { return _unwritten; }
  // The rows of unwritten() are in the file now: drops them from memory.
  void markWritten();
  // The thread runs ahead of its readers by at most as many rows again as
  // the most any reader asked for: before each batch after the first it
  // waits here while it holds that many. False when the run was cancelled.
  bool waitForDemand();
  // Adds an error message for the readers.
  void addError(const Str& text);
  // Ends the run: takes the messages of runInfo(), records the finish time
  // and `ttlSeconds` and wakes every reader.
  void finish(unsigned long ttlSeconds);

 private:
  // REQUIRES: _mutex held.
  void takeRunInfoLocked();

  const Str _key;
  const Str _search;
  const Pathname _resultsFile;
  const Str _cancelId;
  SearchResultsInfo _runInfo;
  std::unique_ptr<UnifiedSearchDispatchThread> _thread;

  Mutex _mutex;
  ConditionBaseClass _cond;
  // guarded by _mutex:
  unsigned long _total = 0;
  unsigned long _written = 0;
  bool _finished = false;
  bool _cancelled = false;
  unsigned long _wanted = 0;  // the most rows any reader asked for
  SearchResults _unwritten;
  Timeval _earliest;
  Timeval _latest;
  std::map<Str, std::vector<Str>> _messages;
  Timeval _finishTime;
  unsigned long _ttlSeconds = 0;
};
