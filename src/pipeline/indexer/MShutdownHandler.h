// MShutdownHandler: something that the service stops by levels. The
// shutdown driver calls signalShutdown() and then waits, up to its level's
// time-out, with waitForShutdownComplete(); the handler finishes on its own
// thread and calls signalShutdownComplete() when it is done.
//
// Threads: signalShutdown and the waits from the driver's thread,
// signalShutdownComplete from the handler's; the completion flag is guarded.
#pragma once

#include "util/ConditionBaseClass.h"
#include "util/Mutex.h"

class MShutdownHandler {
 public:
  virtual ~MShutdownHandler() = default;
  virtual void signalShutdown() = 0;

  // True once signalShutdownComplete() ran; waits up to `seconds` for it.
  bool waitForShutdownComplete(double seconds);
  bool isShutdownComplete();

 protected:
  void signalShutdownComplete();

 private:
  Mutex _doneMutex;
  ConditionBaseClass _doneCond;
  bool _done = false;
};
