// MShutdownHandler: something the service stops by levels (see
// ShutdownManager). When its level is launched the shutdown machine calls
// signalShutdown(): true means the handler is done already; false means it
// finishes on its own thread and later calls signalShutdownComplete(), which
// tells the level waiting on it (and anyone in waitForShutdownComplete()).
//
// Ownership: the handler owns itself; a level only points at it. A handler
// must unregister from its levels before it goes.
//
// Threads: signalShutdown() from the shutdown machine's thread (the main
// event loop); signalShutdownComplete() and the waits from any thread. The
// completion flag and the link to the waiting level are under a mutex.
#pragma once

#include "util/ConditionBaseClass.h"
#include "util/Mutex.h"

class ShutdownLevel;

class MShutdownHandler {
 public:
  virtual ~MShutdownHandler() = default;

  // Starts this handler's shutdown; true when it completed at once.
  virtual bool signalShutdown() = 0;

  // Reports a shutdown finished after signalShutdown() returned false (also
  // harmless after true): wakes the waiters and tells the waiting level.
  void signalShutdownComplete();

  // True once signalShutdownComplete() ran; waits up to `seconds` for it.
  bool waitForShutdownComplete(double seconds);
  bool isShutdownComplete();

 private:
  friend class ShutdownLevel;
  // The level to tell on completion (null for none).
  void setShutdownListener(ShutdownLevel* level);

  Mutex _doneMutex;
  ConditionBaseClass _doneCond;
  bool _done = false;
  ShutdownLevel* _listener = nullptr;
};
