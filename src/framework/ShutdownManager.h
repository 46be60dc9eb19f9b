// ShutdownManager: the service's shutdown by levels, and the process-wide
// levels themselves, in the order they are shut down:
//
//   APIs (1000 ms), Input (5000), Analysis (2000), Database1 (0),
//   Database2 (5000), Output (10000), Pipelines (4000), Queue (5000)
//
// DESIGN. handleShutdown() starts the sequence once. The state machine
// (shutdown_state_machine) launches levels one after another: a level whose
// handlers all finish at once is passed at once; otherwise the machine
// waits, either for the last pending handler to report completion or for
// the level's time-out, after which the handlers left are logged and
// forgotten. When the last level is done the completion callback runs (the
// service stops its main event loop there).
//
// With an EventLoop attached the machine runs on the loop's thread: the
// time-out is a Timeout on the loop, and a completion reported from another
// thread is handed to the loop as an InThreadActor. Without a loop (or
// while it is not running) a completion that empties the level advances the
// machine right on the reporting thread, and a caller simulates a time-out
// by calling shutdown_state_machine(true) itself.
//
// All state of the manager and its levels is under one recursive mutex, so
// handlers may report completion or unregister from inside signalShutdown().
//
// Ownership: the manager owns its levels. instance() lives until exit.
// Threads: any thread; see above for where the machine runs.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "framework/ShutdownLevel.h"
#include "util/Str.h"
#include "util/Timeout.h"
#include "util/Timeval.h"

class EventLoop;

class ShutdownManager {
 public:
  using LevelSpecs = std::vector<std::pair<Str, long>>;

  // The service's eight levels (see above).
  ShutdownManager();
  // Levels of the given names and time-outs, in shutdown order.
  explicit ShutdownManager(const LevelSpecs& levels);
  ~ShutdownManager();
  ShutdownManager(const ShutdownManager&) = delete;
  ShutdownManager& operator=(const ShutdownManager&) = delete;

  // The process-wide manager with the service's levels.
  static ShutdownManager& instance();
  static LevelSpecs serviceLevels();

  size_t levelCount() const { return _levels.size(); }
  ShutdownLevel& level(size_t i) { return *_levels.at(i); }
  // The level of that name, or null.
  ShutdownLevel* findLevel(const Str& name);

  // REQUIRES: called before handleShutdown(), on the loop's thread or
  // before the loop runs; the loop outlives the manager's use of it.
  void setEventLoop(EventLoop* loop);
  // Runs once, when the last level is done (outside the manager's lock).
  void setCompletionCallback(std::function<void()> callback);

  // Starts the shutdown; false (and a log line) when it already started.
  bool handleShutdown();

  // Advances the machine; `timedOut` says the current level's time-out ran
  // out. Returns the milliseconds to wait for the level just launched, or -1
  // when there is nothing to arm (still waiting for handlers, or finished).
  long shutdown_state_machine(bool timedOut);

  bool isInProgress();
  bool isFinished();
  // The index of the level being shut down: -1 before the start,
  // levelCount() once finished.
  long currentLevel();

 private:
  friend class ShutdownLevel;
  class LevelTimer;
  class AdvanceActor;

  // A level's pending set ran empty outside its launch(). REQUIRES: lock.
  void Locked_levelDrained(ShutdownLevel* level);
  // Runs shutdown_state_machine(false) on the loop's thread, or here.
  void wake();
  void armTimer(long ms);
  void disarmTimer();

  std::recursive_mutex _mutex;
  std::vector<std::unique_ptr<ShutdownLevel>> _levels;
  EventLoop* _loop = nullptr;
  std::unique_ptr<LevelTimer> _timer;
  std::function<void()> _onComplete;
  bool _started = false;
  bool _finished = false;
  bool _inMachine = false;
  bool _timerFiring = false;  // inside LevelTimer::when_expired
  long _rearmMs = -1;         // the wait to arm when that returns
  long _current = -1;
  Timeval _shutdownStarted;
};

// The process-wide levels, in shutdown order.
ShutdownLevel& shutdownAPIs();
ShutdownLevel& shutdownInput();
ShutdownLevel& shutdownAnalysis();
ShutdownLevel& shutdownDatabaseLevel1();
ShutdownLevel& shutdownDatabaseLevel2();
ShutdownLevel& shutdownOutput();
ShutdownLevel& shutdownPipelines();
ShutdownLevel& shutdownQueue();
