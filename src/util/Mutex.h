// Mutex: a default (non-recursive) pthread mutex, and ScopedLock, its guard.
//
// lock(), unlock() and tryLock() log and throw PthreadException when the
// pthread call fails. The logger itself takes its mutexes through
// NOLOG_lock()/NOLOG_unlock(), which never log (a failure there is an
// assertion), so that logging cannot recurse into itself.
//
// Any thread may use a Mutex. REQUIRES: unlock() only by the thread that
// holds it; the mutex is not held when it is destroyed.
#pragma once

#include <pthread.h>

class Mutex {
 public:
  Mutex();
  ~Mutex();
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock();
  void unlock();
  // True if the mutex was free and is now held by the caller.
  bool tryLock();

  // For use inside the log facility only: no logging on failure.
  void NOLOG_lock();
  void NOLOG_unlock();

  pthread_mutex_t* native() { return &_mutex; }

 private:
  pthread_mutex_t _mutex;
};

// Holds a Mutex for the lifetime of the guard.
class ScopedLock {
 public:
  explicit ScopedLock(Mutex& m) : _m(m) { _m.lock(); }
  ~ScopedLock() { _m.unlock(); }
  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;

 private:
  Mutex& _m;
};

// Releases a held Mutex for the lifetime of the guard and takes it back.
class ScopedUnlock {
 public:
  explicit ScopedUnlock(Mutex& m) : _m(m) { _m.unlock(); }
  ~ScopedUnlock() { _m.lock(); }
  ScopedUnlock(const ScopedUnlock&) = delete;
  ScopedUnlock& operator=(const ScopedUnlock&) = delete;

 private:
  Mutex& _m;
};

// The NOLOG form of ScopedLock, for the log facility.
class NOLOG_ScopedLock {
 public:
  explicit NOLOG_ScopedLock(Mutex& m) : _m(m) { _m.NOLOG_lock(); }
  ~NOLOG_ScopedLock() { _m.NOLOG_unlock(); }
  NOLOG_ScopedLock(const NOLOG_ScopedLock&) = delete;
  NOLOG_ScopedLock& operator=(const NOLOG_ScopedLock&) = delete;

 private:
  Mutex& _m;
};
