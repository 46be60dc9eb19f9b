// ShutdownLevel: one step of the service's shutdown, with its name, its
// time-out and the handlers registered with it in order. launch() signals
// every handler and keeps those that did not finish at once as pending; a
// pending handler leaves the set when it reports completion, unregisters,
// or the level times out (timeOut()). When the set runs empty the owning
// ShutdownManager is told so that it moves on to the next level.
//
// Ownership: levels are made and owned by a ShutdownManager; handlers are
// only pointed at and must unregister before they go. A handler waits on one
// level at a time.
//
// Threads: any thread may register, unregister or report completion. All
// state is under the owning manager's (recursive) lock, so a handler may
// report completion, or unregister, from inside its own signalShutdown().
#pragma once

#include <vector>

#include "util/Str.h"
#include "util/Timeval.h"

class MShutdownHandler;
class ShutdownManager;

class ShutdownLevel {
 public:
  ShutdownLevel(ShutdownManager& owner, const Str& name, long timeoutMs);
  ShutdownLevel(const ShutdownLevel&) = delete;
  ShutdownLevel& operator=(const ShutdownLevel&) = delete;

  const Str& getName() const { return _name; }
  long getTimeoutMs() const { return _timeoutMs; }

  // Adds the handler under `name` (for the log); a second registration of
  // the same handler only renames it.
  void registerHandler(MShutdownHandler* handler, const Str& name);
  // Removes the handler (also from the pending set); unknown ones are
  // ignored.
  void unregisterHandler(MShutdownHandler* handler);

  // Logs "shutting down level", then calls signalShutdown() on each handler
  // in registration order. Returns -1 when no handler is left pending, else
  // this level's time-out in milliseconds.
  long launch();
  // The level's time-out ran out: logs each pending handler as not
  // completed, forgets them and returns their names.
  std::vector<Str> timeOut();

  bool hasPending() const;
  std::vector<Str> pendingNames() const;
  std::vector<Str> handlerNames() const;
  // When launch() last started.
  Timeval launchedAt() const;

 private:
  friend class MShutdownHandler;
  struct Entry {
    MShutdownHandler* handler;
    Str name;
  };

  // From MShutdownHandler::signalShutdownComplete.
  void handlerCompleted(MShutdownHandler* handler);
  // Drops the handler from the pending set; tells the manager when the set
  // runs empty outside launch(). REQUIRES: the manager's lock.
  void Locked_removePending(MShutdownHandler* handler);
  static bool contains(const std::vector<Entry>& v, MShutdownHandler* h);

  ShutdownManager& _owner;
  Str _name;
  long _timeoutMs;
  std::vector<Entry> _handlers;
  std::vector<Entry> _pending;
  bool _launching = false;
  Timeval _launchedAt;
};
