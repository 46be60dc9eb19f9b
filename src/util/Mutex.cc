// Mutex: pthread calls with logged, thrown failures.
#include "util/Mutex.h"

#include <cassert>
#include <cerrno>

#include "util/Exceptions.h"
#include "util/Logger.h"

namespace {
[[noreturn]] void failed(const char* where, const char* call, int rc) {
  // Function-local so that a static Mutex of another file may fail safely
  // before this file's statics are built.
  static Logger gLogger("Mutex");
  errno = rc;
  gLogger.error("%s: about to throw a PthreadException: %s: %m", where, call);
  errno = rc;
  throw PthreadException(formatExceptionMessage("%s: %s: %m", where, call));
}
}  // namespace

Mutex::Mutex() {
  int rc = pthread_mutex_init(&_mutex, nullptr);
  if (rc != 0) failed("Mutex::Mutex", "pthread_mutex_init", rc);
}

Mutex::~Mutex() {
  int rc = pthread_mutex_destroy(&_mutex);
  assert(rc == 0);
  (void)rc;
}

void Mutex::lock() {
  int rc = pthread_mutex_lock(&_mutex);
  if (rc != 0) failed("Mutex::lock", "pthread_mutex_lock", rc);
}

void Mutex::unlock() {
  int rc = pthread_mutex_unlock(&_mutex);
  if (rc != 0) failed("Mutex::unlock", "pthread_mutex_unlock", rc);
}

bool Mutex::tryLock() {
  int rc = pthread_mutex_trylock(&_mutex);
  if (rc == 0) return true;
  if (rc == EBUSY) return false;
  failed("Mutex::tryLock", "pthread_mutex_trylock", rc);
}

void Mutex::NOLOG_lock() {
  int rc = pthread_mutex_lock(&_mutex);
  assert(rc == 0);
  (void)rc;
}

void Mutex::NOLOG_unlock() {
  int rc = pthread_mutex_unlock(&_mutex);
  assert(rc == 0);
  (void)rc;
}
