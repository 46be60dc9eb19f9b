#include "framework/MShutdownHandler.h"

#include <chrono>

#include "framework/ShutdownLevel.h"

void MShutdownHandler::signalShutdownComplete() {
  ShutdownLevel* listener;
  {
    ScopedLock l(_doneMutex);
    _done = true;
    listener = _listener;
    _doneCond.internal_wake_all();
  }
  // Outside our mutex: the level takes the shutdown machine's lock, which it
  // may already hold while it calls into us.
  if (listener) listener->handlerCompleted(this);
}

bool MShutdownHandler::waitForShutdownComplete(double seconds) {
  ScopedLock l(_doneMutex);
  auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!_done) {
    double left = std::chrono::duration<double>(deadline - std::chrono::steady_clock::now()).count();
    if (left <= 0) break;
    _doneCond.wait(_doneMutex, left);
  }
  return _done;
}

bool MShutdownHandler::isShutdownComplete() {
  ScopedLock l(_doneMutex);
  return _done;
}

void MShutdownHandler::setShutdownListener(ShutdownLevel* level) {
  ScopedLock l(_doneMutex);
  _listener = level;
}
