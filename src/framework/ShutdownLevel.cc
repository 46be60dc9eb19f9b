#include "framework/ShutdownLevel.h"

#include <algorithm>
#include <exception>
#include <stdexcept>

#include "framework/MShutdownHandler.h"
#include "framework/ShutdownManager.h"
#include "util/Logger.h"

static Logger gLogger("ShutdownHandler");

using Lock = std::lock_guard<std::recursive_mutex>;

ShutdownLevel::ShutdownLevel(ShutdownManager& owner, const Str& name, long timeoutMs)
    : _owner(owner), _name(name), _timeoutMs(timeoutMs) {}

bool ShutdownLevel::contains(const std::vector<Entry>& v, MShutdownHandler* h) {
  return std::any_of(v.begin(), v.end(), [h](const Entry& e) { return e.handler == h; });
}

void ShutdownLevel::registerHandler(MShutdownHandler* handler, const Str& name) {
  Lock l(_owner._mutex);
  for (Entry& e : _handlers) {
    if (e.handler == handler) {
      e.name = name;
      return;
    }
  }
  _handlers.push_back({handler, name});
}

void ShutdownLevel::unregisterHandler(MShutdownHandler* handler) {
  Lock l(_owner._mutex);
  _handlers.erase(std::remove_if(_handlers.begin(), _handlers.end(),
                                 [handler](const Entry& e) { return e.handler == handler; }),
                  _handlers.end());
  if (contains(_pending, handler)) {
    handler->setShutdownListener(nullptr);
    Locked_removePending(handler);
  }
}

long ShutdownLevel::launch() {
  Lock l(_owner._mutex);
  gLogger.info("shutting down level \"%s\"", _name.c_str());
  _launchedAt = Timeval::now();
  _launching = true;
  // A copy: handlers may unregister (from this level or another) while we
  // walk; those already gone are passed over.
  std::vector<Entry> walk = _handlers;
  for (const Entry& e : walk) {
    if (!contains(_handlers, e.handler)) continue;
    // Pending before the call, so that a completion reported from inside
    // signalShutdown() (or from another thread right after it) is not lost.
    _pending.push_back(e);
    e.handler->setShutdownListener(this);
    gLogger.info("Signal sent to '%s' to shutdown, awaiting response.", e.name.c_str());
    bool done = false;
    try {
      done = e.handler->signalShutdown();
    } catch (const std::runtime_error&) {
      gLogger.error("Runtime Exception thrown on signalShutdown of component '%s', continuing with other components.",
                    e.name.c_str());
      done = true;
    } catch (...) {
      gLogger.error("Exception thrown on signalShutdown of component '%s', continuing with other components.",
                    e.name.c_str());
      done = true;
    }
    if (done) {
      if (contains(_pending, e.handler)) {
        e.handler->setShutdownListener(nullptr);
        Locked_removePending(e.handler);
      }
      gLogger.info("Component '%s' completed shutdown immediately", e.name.c_str());
    }
  }
  _launching = false;
  return _pending.empty() ? -1 : _timeoutMs;
}

std::vector<Str> ShutdownLevel::timeOut() {
  Lock l(_owner._mutex);
  std::vector<Str> names;
  if (_pending.empty()) return names;
  gLogger.warn("shutting down level \"%s\" timed out!", _name.c_str());
  std::vector<Entry> left;
  left.swap(_pending);
  for (const Entry& e : left) {
    gLogger.warn("handler '%s' did not complete", e.name.c_str());
    e.handler->setShutdownListener(nullptr);
    names.push_back(e.name);
  }
  return names;
}

void ShutdownLevel::handlerCompleted(MShutdownHandler* handler) {
  Lock l(_owner._mutex);
  for (const Entry& e : _pending) {
    if (e.handler != handler) continue;
    gLogger.info("Received notification of successful shutdown from '%s', time taken: %s", e.name.c_str(),
                 Timeval::describeDifference(Timeval::now(), _launchedAt).c_str());
    handler->setShutdownListener(nullptr);
    Locked_removePending(handler);
    return;
  }
}

void ShutdownLevel::Locked_removePending(MShutdownHandler* handler) {
  bool had = !_pending.empty();
  _pending.erase(std::remove_if(_pending.begin(), _pending.end(),
                                [handler](const Entry& e) { return e.handler == handler; }),
                 _pending.end());
  if (had && _pending.empty() && !_launching) _owner.Locked_levelDrained(this);
}

bool ShutdownLevel::hasPending() const {
  Lock l(_owner._mutex);
  return !_pending.empty();
}

std::vector<Str> ShutdownLevel::pendingNames() const {
  Lock l(_owner._mutex);
  std::vector<Str> names;
  for (const Entry& e : _pending) names.push_back(e.name);
  return names;
}

std::vector<Str> ShutdownLevel::handlerNames() const {
  Lock l(_owner._mutex);
  std::vector<Str> names;
  for (const Entry& e : _handlers) names.push_back(e.name);
  return names;
}

Timeval ShutdownLevel::launchedAt() const {
  Lock l(_owner._mutex);
  return _launchedAt;
}
