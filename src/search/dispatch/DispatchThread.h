// DispatchThread: one search job. It runs a search to its end on a thread of
// its own and keeps the job directory up to date, so that anyone may read or
// steer the job through the files alone (see DispatchDirs for the place):
//   status.csv    one row: user, start, count, cursor, keywords, ttl, done,
//                 search, streaming, error, setStart, setEnd, startTime,
//                 endTime; rewritten after every chunk and at the end
//                 ("done" 1 also after an error, with its text)
//   results.csv   the final rows, written once when the search ended
//   <n>.csv, timeline.csv, summary.csv
//                 the events and their timeline and field summaries, only
//                 with status buckets (Timeliner)
//   pause, finalize, cancel
//                 markers read between chunks: while "pause" exists the job
//                 waits (a second at a time); "finalize" ends the reading and
//                 the job finishes with what it read; "cancel" stops it at
//                 once and nothing more is written.
//
// DESIGN: evaluate() runs on the caller's thread (a request handler), so that
// argument faults answer the request; it parses the search with internal
// commands refused and splits it (StreamingSearch, PipelineSplit). start()
// hands the job to its own thread, which runs the search chunk by chunk; the
// chunk hook of StreamingSearch feeds the Timeliner, writes the status,
// reads the markers and watches the maximum time. The search's cancel id is
// the sid (SearchCancel), its entry in SearchPIDs the sid too. The thread
// works for the job's user (UserContext::Scope), whose search filters apply.
// Every started job is in a process-wide list, so that stopAll() can cancel
// and wait for them at shutdown; the thread leaves the list and hands itself
// to MainThread::joinAndDeleteMe() at the end.
//
// The search reads the indexes through whatever `search` command the
// process registered (the index reader of IndexProcessor in the service and
// in the search tool).
//
// Ownership: after start() the object belongs to its thread and deletes
// itself; before, to its creator (delete it if start() is never called).
// REQUIRES: a MainThread exists.
#pragma once

#include <functional>
#include <memory>

#include "search/SearchResultsInfo.h"
#include "search/dispatch/StreamingSearch.h"
#include "util/Pathname.h"
#include "util/Str.h"
#include "util/Thread.h"

class SearchProcessor;
class SearchResults;
class Timeliner;

struct DispatchOptions {
  Str user;
  long statusBuckets = 0;  // > 0: event files, timeline and summary
  long ttl = 600;          // seconds the directory outlives the last activity
  long maxCount = 0;       // events a search for events keeps; 0: limits default
  long maxTime = 0;        // seconds of reading; 0: no limit
  Str setStart, setEnd;    // "" or epoch seconds / time words
  bool eventTyping = false;
};

class DispatchThread : public Thread {
 public:
  // `dir` must exist (the caller makes it).
  DispatchThread(const Pathname& dir, const Str& sid, const Str& search, const DispatchOptions& o);
  ~DispatchThread() override;

  // Parses and splits the search; false with error() set on a fault of the
  // search or of its arguments. Idempotent.
  bool evaluate();
  const Str& error() const { return _error; }

  // Writes the first status (so that the job is known at once) and runs
  // the job on its own thread; the object deletes itself at the end.
  // REQUIRES: called once.
  void start();
  // The job on the calling thread, to its end (what the thread runs); the
  // object stays the caller's. For tools and tests.
  void run();

  // The status row of a job directory; false when there is none.
  static bool readStatus(const Pathname& dir, SearchResults& out);
  // Cancels every job started in this process and waits up to `waitSeconds`
  // for their threads to end.
  static void stopAll(double waitSeconds);

  // Test seams: what a paused job does between looks at "pause" (default:
  // sleep one second), and the clock of the maximum time (default: now).
  void setPauseWait(std::function<void()> wait) { _pauseWait = std::move(wait); }
  // The job's start time is taken again from the new clock.
  void setClock(std::function<double()> clock) {
    _clock = std::move(clock);
    _startTime = _clock();
  }

  // The search's messages (e.g. the maximum time reached) after run().
  const SearchResultsInfo& info() const { return _info; }

 protected:
  void main() override;

 private:
  enum class Stop { None, Finalize, Cancel };

  void runJob();
  bool obtainUserContext();
  Stop lookAtMarkers();
  StreamingSearch::ChunkAction onChunk(SearchResults& chunk);
  void noteTimes(const SearchResults& chunk);
  bool writeStatus(bool done);
  bool parseBound(const Str& text, const char* what, int64_t& out);

  Pathname _dir;
  Str _sid, _search;
  DispatchOptions _opts;
  SearchResultsInfo _info;
  std::unique_ptr<StreamingSearch> _run;
  std::unique_ptr<Timeliner> _timeliner;
  std::unique_ptr<SearchProcessor> _typer;  // event typing of every chunk
  SearchResultsInfo _typerInfo;
  bool _evaluated = false;
  bool _registered = false;     // in the list of started jobs
  bool _cancelStarted = false;  // the sid is in SearchCancel
  bool _cancelled = false;      // the "cancel" marker was seen
  bool _finalized = false;      // "finalize" seen or the maximum time reached
  Str _error;
  Str _keywords, _streaming;
  int64_t _boundStart = 0, _boundEnd = 0;  // parsed setStart/setEnd, 0: open
  double _startTime = 0;
  size_t _count = 0;
  bool _anyTime = false;
  double _oldest = 0, _newest = 0;
  std::function<void()> _pauseWait;
  std::function<double()> _clock;
};
