#include "pipeline/indexer/MShutdownHandler.h"

#include <chrono>

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

void MShutdownHandler::signalShutdownComplete() {
  ScopedLock l(_doneMutex);
  _done = true;
  _doneCond.internal_wake_all();
}
