// SavedSearchScheduler: runs the saved searches whose "enableSched" is true
// when their "schedule" (five cron fields) falls due, each as a search job
// owned by the search's owner, and keeps the directories of their last runs.
//
// A run is a job like one posted to /services/search/jobs, started through
// the same JobStarter, with the sid
//   scheduler__<owner>__<name>_<epoch seconds of the start>
// (owner "nobody" for a search without one; characters other than letters,
// digits, '.', '-' and '_' written as '_'). Its directory also holds the file
// "savedsearch" with the owner and the name on two lines, so that two names
// written alike are still told apart. Runs live `runTtl` seconds after their
// last activity (longer than an interactive job); of each search the newest
// `keepRuns` are kept and older ones removed (a still running one is
// cancelled through its "cancel" marker and reaped).
//
// When due: at every pass, a search is due when its next run (from the store,
// SavedVelmorManager::getNextRun) is not after now. The first time a search
// is seen (at start), its next run is the first one after its newest run on
// disk, so a run missed while the service was down runs once at the first
// pass, not once per missed minute; without any run on disk it is the first
// one after now. After a run (or a skipped one) the next is the first after
// now. A changed schedule counts from now. A search whose previous run still
// runs is not started again: that turn is skipped and logged.
//
// Settings, from [scheduler] of limits.conf: period (seconds between passes,
// 30), keep_runs (5), run_ttl (seconds, 604800).
//
// DESIGN: one thread that makes a pass (tick()) at once and then every
// `period` seconds, sleeping on a condition so that stop() or
// signalShutdown() (the service's "APIs" shutdown level, before the running
// jobs are stopped) ends it at once; both join the thread, then ask the runs
// this scheduler started and that still run to stop (SearchCancel), which
// makes them end and write their status. tick() may also be called from any
// thread (tests make passes on demand with an injected clock); passes are
// serialized by a mutex that also guards the per-search state.
//
// Ownership: the service owns the scheduler. REQUIRES: a MainThread exists
// before start().
#pragma once

#include <ctime>
#include <functional>
#include <map>
#include <vector>

#include "framework/MShutdownHandler.h"
#include "search/dispatch/DispatchSearch.h"
#include "util/ConditionBaseClass.h"
#include "util/Mutex.h"
#include "util/Pathname.h"
#include "util/Str.h"
#include "util/Thread.h"

struct SavedVelmor;

class SavedSearchScheduler : public Thread, public MShutdownHandler {
 public:
  struct Settings {
    long periodSeconds = 30;
    size_t keepRuns = 5;
    long runTtl = 604800;
    // [scheduler] of limits.conf over the defaults above.
    static Settings fromLimits();
  };
  using Clock = std::function<time_t()>;
  // The scheduled searches to look at (enableSched true, with a schedule).
  using Source = std::function<void(std::vector<SavedVelmor>& out)>;
  // Whether searches can run yet (in the service: once the indexes brought
  // the `search` command); a pass before that does nothing and the next
  // comes a second later.
  using Ready = std::function<bool()>;

  // One run of a saved search found on disk.
  struct Run {
    Str sid;
    time_t time = 0;
  };

  // Runs go below `root` and are started by `starter`. Null `clock`: the
  // wall clock; null `source`: every scheduled saved search of the store.
  // Null `ready`: always ready.
  SavedSearchScheduler(const Pathname& root, DispatchSearch::JobStarter starter, const Settings& settings,
                       Clock clock = nullptr, Source source = nullptr, Ready ready = nullptr);
  ~SavedSearchScheduler() override;

  // Starts the thread. REQUIRES: called once.
  void start() { go(); }
  // Ends the thread, joins it and asks the runs still running to stop;
  // harmless when not started or stopped.
  void stop();
  bool signalShutdown() override;

  // One pass at the clock's now; answers the sids started (none when not
  // ready).
  std::vector<Str> tick();

  // The sid of a run of `name` owned by `owner` started at `t`.
  static Str sidFor(const Str& owner, const Str& name, time_t t);
  // The runs of that search below `root`, newest first.
  static std::vector<Run> history(const Pathname& root, const Str& owner, const Str& name);
  // The job text of a stored query: as it stands when it begins with "|" or
  // a known command, else behind "search ".
  static Str jobText(const Str& query);

 protected:
  void main() override;

 private:
  struct Entry {
    Str schedule;
    time_t next = 0;
    Str runningSid;  // the last run this process started
    bool seen = false;
    bool known = false;  // next was set once
  };

  void Locked_consider(const SavedVelmor& s, time_t now, std::vector<Str>& started);
  bool Locked_startRun(const SavedVelmor& s, time_t now, Str& sid);
  void prune(const SavedVelmor& s);
  bool isRunning(const Str& sid) const;

  Pathname _root;
  DispatchSearch::JobStarter _starter;
  Settings _settings;
  Clock _clock;
  Source _source;
  Ready _ready;
  bool _waitingForReady = false;  // the last pass found searches unable to run

  Mutex _tickMutex;  // one pass at a time; guards _entries
  std::map<Str, Entry> _entries;  // by owner "\n" name

  Mutex _mutex;  // guards _stopping
  ConditionBaseClass _wake;
  bool _stopping = false;
};
