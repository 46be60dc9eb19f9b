// ActiveThreads: counted creation and destruction of the thread-specific key.
#include "util/ActiveThreads.h"

#include <cassert>

namespace {
pthread_mutex_t gActiveMutex = PTHREAD_MUTEX_INITIALIZER;
ActiveThreads* gActive = nullptr;
}  // namespace

ActiveThreads::ActiveThreads() {
  int rc = pthread_key_create(&_key, nullptr);
  assert(rc == 0);
  (void)rc;
}

ActiveThreads::~ActiveThreads() { pthread_key_delete(_key); }

void ActiveThreads::add() {
  pthread_mutex_lock(&gActiveMutex);
  if (gActive == nullptr) {
    gActive = new ActiveThreads();
  }
  ++gActive->_count;
  pthread_mutex_unlock(&gActiveMutex);
}

void ActiveThreads::remove() {
  pthread_mutex_lock(&gActiveMutex);
  assert(gActive != nullptr && gActive->_count > 0);
  if (--gActive->_count == 0) {
    delete gActive;
    gActive = nullptr;
  }
  pthread_mutex_unlock(&gActiveMutex);
}

unsigned ActiveThreads::count() {
  pthread_mutex_lock(&gActiveMutex);
  unsigned n = gActive ? gActive->_count : 0;
  pthread_mutex_unlock(&gActiveMutex);
  return n;
}

void ActiveThreads::setCurrent(Thread* t) {
  pthread_mutex_lock(&gActiveMutex);
  if (gActive != nullptr) pthread_setspecific(gActive->_key, t);
  pthread_mutex_unlock(&gActiveMutex);
}

Thread* ActiveThreads::getCurrent() {
  // The mutex keeps the key from being deleted under us by the last thread.
  pthread_mutex_lock(&gActiveMutex);
  Thread* t = gActive ? static_cast<Thread*>(pthread_getspecific(gActive->_key)) : nullptr;
  pthread_mutex_unlock(&gActiveMutex);
  return t;
}
