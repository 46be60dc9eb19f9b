// ReadWriteLock: the reader count under a mutex, writers wait for zero.
#include "util/ReadWriteLock.h"

#include <cassert>

ReadWriteLock::~ReadWriteLock() {
  _mutex.lock();
  assert(_readers == 0 && _waitingWriters == 0);
  _readers = kDestroyed;
  _mutex.unlock();
}

unsigned ReadWriteLock::readerCount() {
  ScopedLock l(_mutex);
  assert(_readers != kDestroyed);
  return _readers;
}

unsigned ReadWriteLock::waitingWriterCount() {
  ScopedLock l(_mutex);
  assert(_readers != kDestroyed);
  return _waitingWriters;
}

void ReadWriteLock::readLock() {
  // A destroyed lock must fail here, before its destroyed mutex is touched.
  assert(__atomic_load_n(&_readers, __ATOMIC_RELAXED) != kDestroyed);
  ScopedLock l(_mutex);
  assert(_readers != kDestroyed);
  while (_waitingWriters > 0) _cond.wait(_mutex);
  assert(_readers != kDestroyed);
  ++_readers;
}

void ReadWriteLock::readUnlock() {
  ScopedLock l(_mutex);
  assert(_readers != kDestroyed && _readers > 0);
  if (--_readers == 0) _cond.internal_wake_all();
}

void ReadWriteLock::writeLock() {
  assert(__atomic_load_n(&_readers, __ATOMIC_RELAXED) != kDestroyed);
  _mutex.lock();
  assert(_readers != kDestroyed);
  ++_waitingWriters;
  while (_readers > 0) _cond.wait(_mutex);
  --_waitingWriters;
}

void ReadWriteLock::writeUnlock() {
  assert(_readers == 0);
  // Readers held out by this writer's wait may go now.
  _cond.internal_wake_all();
  _mutex.unlock();
}

ScopedReader::~ScopedReader() {
  if (_lock != nullptr) _lock->readUnlock();
}

void ScopedReader::setup(ReadWriteLock& lock) {
  assert(_lock == nullptr);
  lock.readLock();
  _lock = &lock;
}

ScopedWriter::ScopedWriter(ReadWriteLock& lock) : _lock(lock) { _lock.writeLock(); }

ScopedWriter::~ScopedWriter() { _lock.writeUnlock(); }
