// ReadWriteLock: many readers or one writer, with ScopedReader/ScopedWriter.
//
// DESIGN. A reader count, a condition and a mutex. A ScopedReader takes the
// mutex, counts itself in and lets the mutex go; it holds nothing while it
// reads. A ScopedWriter takes the mutex, waits on the condition until the
// count is 0 and keeps the mutex until its destructor, so no reader can
// count itself in while a writer holds the lock. While a writer waits for
// the readers to drain, new readers are held out too (they wait on the same
// condition); there is no fairness beyond that. The last reader out, and
// every writer leaving, wakes all waiters.
//
// A destroyed lock has its count set to 0xF00BA511; every later use asserts
// against that value.
//
// REQUIRES: a thread holding a ScopedReader does not take a ScopedWriter (or
// a second ScopedReader while a writer may be waiting) on the same lock: it
// would wait for itself. Guards are used on the thread that made them.
#pragma once

#include "util/ConditionBaseClass.h"
#include "util/Mutex.h"

class ReadWriteLock {
 public:
  static constexpr unsigned kDestroyed = 0xF00BA511u;

  ReadWriteLock() = default;
  ~ReadWriteLock();
  ReadWriteLock(const ReadWriteLock&) = delete;
  ReadWriteLock& operator=(const ReadWriteLock&) = delete;

  // Readers counted in now (for diagnostics and tests). REQUIRES, for both:
  // the caller holds no ScopedWriter on this lock.
  unsigned readerCount();
  // Writers waiting for readers to drain (for diagnostics and tests).
  unsigned waitingWriterCount();

 private:
  friend class ScopedReader;
  friend class ScopedWriter;

  void readLock();
  void readUnlock();
  void writeLock();
  void writeUnlock();

  Mutex _mutex;
  ConditionBaseClass _cond;
  unsigned _readers = 0;
  unsigned _waitingWriters = 0;
};

// Holds a read lock for its lifetime. The default-constructed form holds
// nothing until setup() names the lock.
class ScopedReader {
 public:
  ScopedReader() = default;
  explicit ScopedReader(ReadWriteLock& lock) { setup(lock); }
  ~ScopedReader();
  ScopedReader(const ScopedReader&) = delete;
  ScopedReader& operator=(const ScopedReader&) = delete;

  // REQUIRES: no lock set up yet.
  void setup(ReadWriteLock& lock);
  bool isSetUp() const { return _lock != nullptr; }

 private:
  ReadWriteLock* _lock = nullptr;
};

// Holds the write lock for its lifetime.
class ScopedWriter {
 public:
  explicit ScopedWriter(ReadWriteLock& lock);
  ~ScopedWriter();
  ScopedWriter(const ScopedWriter&) = delete;
  ScopedWriter& operator=(const ScopedWriter&) = delete;

 private:
  ReadWriteLock& _lock;
};
