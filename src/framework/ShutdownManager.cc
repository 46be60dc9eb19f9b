#include "framework/ShutdownManager.h"

#include <algorithm>

#include "util/EventLoop.h"
#include "util/InThreadActor.h"
#include "util/Logger.h"

static Logger gLogger("ShutdownHandler");

using Lock = std::lock_guard<std::recursive_mutex>;

// The current level's time-out on the event loop.
// A timer may not add itself while it runs: a level launched from its run
// is armed through reschedule_ms instead (at least 1 ms, as 0 ends it).
class ShutdownManager::LevelTimer : public Timeout {
 public:
  explicit LevelTimer(ShutdownManager& m) : _m(m) {}
  void when_expired(unsigned long long& reschedule_ms) override {
    Lock l(_m._mutex);
    _m._timerFiring = true;
    _m._rearmMs = -1;
    _m.shutdown_state_machine(true);
    _m._timerFiring = false;
    reschedule_ms = _m._rearmMs < 0 ? 0 : static_cast<unsigned long long>(std::max(1L, _m._rearmMs));
  }

 private:
  ShutdownManager& _m;
};

// One hand-over of "advance the machine" to the loop's thread; deletes
// itself after running.
class ShutdownManager::AdvanceActor : public InThreadActor {
 public:
  explicit AdvanceActor(ShutdownManager& m) : _m(m) {}
  void run() override {
    _m.shutdown_state_machine(false);
    delete this;
  }

 private:
  ShutdownManager& _m;
};

ShutdownManager::LevelSpecs ShutdownManager::serviceLevels() {
  return {{"APIs", 15000},    {"Input", 5000},  {"Analysis", 2000},  {"Database1", 0},
          {"Database2", 5000}, {"Output", 10000}, {"Pipelines", 4000}, {"Queue", 5000}};
}

ShutdownManager::ShutdownManager() : ShutdownManager(serviceLevels()) {}

ShutdownManager::ShutdownManager(const LevelSpecs& levels) : _timer(std::make_unique<LevelTimer>(*this)) {
  for (const auto& [name, ms] : levels) _levels.push_back(std::make_unique<ShutdownLevel>(*this, name, ms));
}

ShutdownManager::~ShutdownManager() { disarmTimer(); }

ShutdownManager& ShutdownManager::instance() {
  static ShutdownManager* manager = new ShutdownManager();  // lives until exit
  return *manager;
}

ShutdownLevel* ShutdownManager::findLevel(const Str& name) {
  for (auto& l : _levels) {
    if (l->getName() == name) return l.get();
  }
  return nullptr;
}

void ShutdownManager::setEventLoop(EventLoop* loop) {
  Lock l(_mutex);
  disarmTimer();
  _loop = loop;
}

void ShutdownManager::setCompletionCallback(std::function<void()> callback) {
  Lock l(_mutex);
  _onComplete = std::move(callback);
}

bool ShutdownManager::handleShutdown() {
  {
    Lock l(_mutex);
    if (_started) {
      gLogger.info("got handleShutdown request while shutdown is in progress, ignoring");
      return false;
    }
    _started = true;
  }
  // The audit trail and the cluster's failure detector would hear of the
  // shutdown here; neither exists in this service yet.
  wake();
  return true;
}

bool ShutdownManager::isInProgress() {
  Lock l(_mutex);
  return _started && !_finished;
}

bool ShutdownManager::isFinished() {
  Lock l(_mutex);
  return _finished;
}

long ShutdownManager::currentLevel() {
  Lock l(_mutex);
  return _current;
}

long ShutdownManager::shutdown_state_machine(bool timedOut) {
  std::function<void()> done;
  {
    Lock l(_mutex);
    if (!_started || _finished || _inMachine) return -1;
    _inMachine = true;
    Timeval now = Timeval::now();
    if (_current >= 0) {
      ShutdownLevel& cur = *_levels[_current];
      if (timedOut) {
        cur.timeOut();
      } else if (cur.hasPending()) {
        gLogger.info("still shutting down level \"%s\"", cur.getName().c_str());
        _inMachine = false;
        return -1;
      }
      disarmTimer();
      gLogger.info("shutdown level \"%s\" finished in %s", cur.getName().c_str(),
                   Timeval::describeDifference(now, cur.launchedAt()).c_str());
    } else {
      gLogger.info("Shutting down velmord");
      _shutdownStarted = now;
    }
    for (++_current; _current < long(_levels.size()); ++_current) {
      ShutdownLevel& next = *_levels[_current];
      long wait = next.launch();
      if (wait != -1) {
        armTimer(wait);
        _inMachine = false;
        return wait;
      }
      gLogger.info("shutdown level \"%s\" finished in %s", next.getName().c_str(),
                   Timeval::describeDifference(Timeval::now(), next.launchedAt()).c_str());
    }
    _finished = true;
    _inMachine = false;
    done = _onComplete;
  }
  if (done) done();
  return -1;
}

void ShutdownManager::Locked_levelDrained(ShutdownLevel* level) {
  if (!_started || _finished || _inMachine) return;
  if (_current < 0 || _levels[_current].get() != level) return;
  wake();
}

void ShutdownManager::wake() {
  EventLoop* loop;
  {
    Lock l(_mutex);
    loop = _loop;
  }
  if (loop) {
    auto* actor = new AdvanceActor(*this);
    if (loop->runInThreadOrFail(actor, false) != 0) return;
    delete actor;  // the loop is not running: advance right here
  }
  shutdown_state_machine(false);
}

void ShutdownManager::armTimer(long ms) {
  if (!_loop) return;
  if (_timerFiring) {
    _rearmMs = ms;
    return;
  }
  disarmTimer();
  _loop->add(_timer.get(), static_cast<unsigned long long>(ms));
}

void ShutdownManager::disarmTimer() {
  if (_loop && _timer && _timer->isActive()) _loop->remove(_timer.get());
}

ShutdownLevel& shutdownAPIs() { return ShutdownManager::instance().level(0); }
ShutdownLevel& shutdownInput() { return ShutdownManager::instance().level(1); }
ShutdownLevel& shutdownAnalysis() { return ShutdownManager::instance().level(2); }
ShutdownLevel& shutdownDatabaseLevel1() { return ShutdownManager::instance().level(3); }
ShutdownLevel& shutdownDatabaseLevel2() { return ShutdownManager::instance().level(4); }
ShutdownLevel& shutdownOutput() { return ShutdownManager::instance().level(5); }
ShutdownLevel& shutdownPipelines() { return ShutdownManager::instance().level(6); }
ShutdownLevel& shutdownQueue() { return ShutdownManager::instance().level(7); }
