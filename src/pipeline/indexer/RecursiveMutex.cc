// RecursiveMutex: owner bookkeeping over a plain Mutex.
#include "pipeline/indexer/RecursiveMutex.h"

#include <cassert>

RecursiveMutex::~RecursiveMutex() { assert(!_hasOwner && _count == 0); }

void RecursiveMutex::lock() {
  ThreadToken me = ThreadToken::self();
  {
    ScopedLock l(_fieldsMutex);
    if (_hasOwner && _owner == me) {
      ++_count;
      return;
    }
  }
  // Another thread (or nobody) owns it: wait for the real mutex outside the
  // fields mutex, so the owner can still unlock.
  _mutex.lock();
  ScopedLock l(_fieldsMutex);
  assert(!_hasOwner && _count == 0);
  _owner = me;
  _hasOwner = true;
  _count = 1;
}

bool RecursiveMutex::tryLock() {
  ThreadToken me = ThreadToken::self();
  {
    ScopedLock l(_fieldsMutex);
    if (_hasOwner && _owner == me) {
      ++_count;
      return true;
    }
  }
  if (!_mutex.tryLock()) return false;
  ScopedLock l(_fieldsMutex);
  assert(!_hasOwner && _count == 0);
  _owner = me;
  _hasOwner = true;
  _count = 1;
  return true;
}

void RecursiveMutex::unlock() {
  bool release = false;
  {
    ScopedLock l(_fieldsMutex);
    assert(_hasOwner && _owner == ThreadToken::self() && _count > 0);
    if (--_count == 0) {
      _hasOwner = false;
      _owner.clear();
      release = true;
    }
  }
  if (release) _mutex.unlock();
}

bool RecursiveMutex::isHeldByMe() {
  ScopedLock l(_fieldsMutex);
  return _hasOwner && _owner == ThreadToken::self();
}

unsigned RecursiveMutex::ownerCount() {
  ScopedLock l(_fieldsMutex);
  return _count;
}
