// ConditionBaseClass: pthread condition calls; failures throw PthreadException.
#include "util/ConditionBaseClass.h"

#include <cassert>
#include <cerrno>
#include <cmath>
#include <ctime>

#include "util/Exceptions.h"
#include "util/Logger.h"
#include "util/Mutex.h"

namespace {
[[noreturn]] void failed(const char* where, const char* call, int rc) {
  static Logger gLogger("ConditionBaseClass");
  errno = rc;
  gLogger.error("%s: about to throw a PthreadException: %s: %m", where, call);
  errno = rc;
  throw PthreadException(formatExceptionMessage("%s: %s: %m", where, call));
}
}  // namespace

ConditionBaseClass::ConditionBaseClass() {
  int rc = pthread_cond_init(&_cond, nullptr);
  if (rc != 0) failed("ConditionBaseClass::ConditionBaseClass", "pthread_cond_init", rc);
}

ConditionBaseClass::~ConditionBaseClass() {
  int rc = pthread_cond_destroy(&_cond);
  assert(rc == 0);
  (void)rc;
}

void ConditionBaseClass::wait(Mutex& m) {
  int rc = pthread_cond_wait(&_cond, m.native());
  if (rc != 0) failed("ConditionBaseClass::wait", "pthread_cond_wait", rc);
}

bool ConditionBaseClass::wait(Mutex& m, double seconds) {
  struct timespec deadline;
  clock_gettime(CLOCK_REALTIME, &deadline);
  if (seconds < 0) seconds = 0;
  double whole = std::floor(seconds);
  // Clamp absurd waits to about a century rather than overflow time_t.
  if (whole > 3.2e9) whole = 3.2e9;
  deadline.tv_sec += static_cast<time_t>(whole);
  deadline.tv_nsec += static_cast<long>((seconds - std::floor(seconds)) * 1e9);
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000L;
  }
  int rc = pthread_cond_timedwait(&_cond, m.native(), &deadline);
  if (rc == 0) return true;
  if (rc == ETIMEDOUT) return false;
  failed("ConditionBaseClass::wait", "pthread_cond_timedwait", rc);
}

void ConditionBaseClass::internal_wake_one() { pthread_cond_signal(&_cond); }

void ConditionBaseClass::internal_wake_all() { pthread_cond_broadcast(&_cond); }
