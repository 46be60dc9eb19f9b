// HTTPSessionSweeper: the timer that drops idle sessions and digest nonces
// (HTTPAuthManager::removeTimedoutAuthInfo) at a fixed interval, on the
// event loop it is added to:
//   HTTPSessionSweeper sweeper(HTTPAuthManager::instance());
//   loop.add(&sweeper, HTTPSessionSweeper::kIntervalMs);
// It repeats with the interval it was added with until removed.
//
// Ownership: the caller owns it and removes it from the loop (or stops the
// loop) before deleting it. Threads: runs on the loop's thread only.
#pragma once

#include "util/Timeout.h"

class HTTPAuthManager;

class HTTPSessionSweeper : public Timeout {
 public:
  static const unsigned long long kIntervalMs = 60 * 1000;

  explicit HTTPSessionSweeper(HTTPAuthManager& auth) : _auth(auth) {}
  void when_expired(unsigned long long& reschedule_ms) override;

 private:
  HTTPAuthManager& _auth;
};
