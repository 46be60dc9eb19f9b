// ConditionBaseClass: a pthread condition variable used with a Mutex.
//
// The caller holds the Mutex around wait() and around the change of state it
// signals with internal_wake_one()/internal_wake_all(); wait() may return
// without a wake-up, so callers loop on their own predicate.
//
// Any thread may use it. REQUIRES: the Mutex passed to wait() is held by the
// caller; nobody waits when it is destroyed.
#pragma once

#include <pthread.h>

class Mutex;

class ConditionBaseClass {
 public:
  ConditionBaseClass();
  ~ConditionBaseClass();
  ConditionBaseClass(const ConditionBaseClass&) = delete;
  ConditionBaseClass& operator=(const ConditionBaseClass&) = delete;

  void wait(Mutex& m);
  // Waits at most `seconds` measured on the real-time clock. True when woken,
  // false on time-out.
  bool wait(Mutex& m, double seconds);

  void internal_wake_one();
  void internal_wake_all();

 private:
  pthread_cond_t _cond;
};
