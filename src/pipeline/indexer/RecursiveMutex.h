// RecursiveMutex: a mutex the holding thread may take again.
//
// It holds the real Mutex, a second small Mutex over its own fields, the
// owner's ThreadToken, a flag that an owner is set, and the owner count.
// The real mutex is let go only when the count falls back to zero.
// claim() is lock() by another name, used where a caller takes over the
// mutex for a longer stretch (a partition policy's writes and state).
//
// Any thread may use it. REQUIRES: unlock() only by the owner, as many
// times as it locked.
#pragma once

#include "util/Mutex.h"
#include "util/ThreadToken.h"

class RecursiveMutex {
 public:
  RecursiveMutex() = default;
  ~RecursiveMutex();
  RecursiveMutex(const RecursiveMutex&) = delete;
  RecursiveMutex& operator=(const RecursiveMutex&) = delete;

  void claim() { lock(); }
  void lock();
  // True if the caller now holds the mutex (taken anew or again).
  bool tryLock();
  void unlock();

  // True if the calling thread holds the mutex.
  bool isHeldByMe();
  // How many times the owner holds it (0 when free).
  unsigned ownerCount();

 private:
  Mutex _mutex;        // the mutex the owner holds
  Mutex _fieldsMutex;  // guards the fields below
  ThreadToken _owner;
  bool _hasOwner = false;
  unsigned _count = 0;
};

// Holds a RecursiveMutex for the lifetime of the guard.
class ScopedRecursiveLock {
 public:
  explicit ScopedRecursiveLock(RecursiveMutex& m) : _m(m) { _m.lock(); }
  ~ScopedRecursiveLock() { _m.unlock(); }
  ScopedRecursiveLock(const ScopedRecursiveLock&) = delete;
  ScopedRecursiveLock& operator=(const ScopedRecursiveLock&) = delete;

 private:
  RecursiveMutex& _m;
};
