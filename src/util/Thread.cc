// Thread and Thread::JoinHelper.
//
// DESIGN. One static mutex (gStartMutex) guards the _started, _released,
// _joined and _joinStarted flags of every Thread, and its condition
// (gStartCond) is the gate a new system thread waits on until go() or a
// release. The system thread registers itself with ActiveThreads before the
// constructor returns (the constructor counts it), so the thread-specific
// key exists while any Thread runs.
#include "util/Thread.h"

#include <cassert>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <exception>

#include "util/ActiveThreads.h"
#include "util/Exceptions.h"
#include "util/Logger.h"
#include "util/MainThread.h"

namespace {
Logger& threadLogger() {
  static Logger gLogger("Thread");
  return gLogger;
}

pthread_mutex_t gStartMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t gStartCond = PTHREAD_COND_INITIALIZER;

bool gMainThreadDying = false;

[[noreturn]] void failed(const char* where, const char* call, int rc) {
  errno = rc;
  threadLogger().error("%s: about to throw a PthreadException: %s: %m", where, call);
  errno = rc;
  throw PthreadException(formatExceptionMessage("%s: %s: %m", where, call));
}
}  // namespace

Thread::Thread(const char* nameFormat, ...) {
  char buf[256];
  va_list ap;
  va_start(ap, nameFormat);
  int n = vsnprintf(buf, sizeof(buf), nameFormat, ap);
  va_end(ap);
  if (n < 0) {
    _name = "UNKNOWN-THREAD";
  } else if (static_cast<size_t>(n) < sizeof(buf)) {
    _name.assign(buf, n);
  } else {
    _name.resize(static_cast<size_t>(n));
    va_start(ap, nameFormat);
    vsnprintf(_name.data(), _name.size() + 1, nameFormat, ap);
    va_end(ap);
  }

  if (MainThread::instance() == nullptr) throw PthreadException("Thread created before main thread!");

  ActiveThreads::add();
  int rc = pthread_create(&_tid, MainThread::threadAttributes(), &Thread::trampoline, this);
  if (rc != 0) {
    ActiveThreads::remove();
    failed("Thread::Thread", "pthread_create", rc);
  }
}

Thread::Thread(AdoptCallingThread, const char* name) : _name(name), _adopted(true) {
  _tid = pthread_self();
  _started = true;
}

Thread::~Thread() {
  if (!_adopted) joinEvenIfUnstarted();
}

void* Thread::trampoline(void* arg) {
  Thread* self = static_cast<Thread*>(arg);
  ActiveThreads::setCurrent(self);
  pthread_mutex_lock(&gStartMutex);
  while (!self->_started && !self->_released) pthread_cond_wait(&gStartCond, &gStartMutex);
  bool run = self->_started;
  pthread_mutex_unlock(&gStartMutex);
  if (run) {
    try {
      self->main();
    } catch (const std::exception& e) {
      threadLogger().crit("Thread \"%s\" ended by an uncaught exception: %s", self->getName(), e.what());
    } catch (...) {
      threadLogger().crit("Thread \"%s\" ended by an uncaught exception", self->getName());
    }
  }
  // The object may be gone once a joiner returns, so touch it no more.
  ActiveThreads::setCurrent(nullptr);
  ActiveThreads::remove();
  return nullptr;
}

void Thread::go() {
  pthread_mutex_lock(&gStartMutex);
  assert(!_started && !_released && !_adopted);
  _started = true;
  pthread_cond_broadcast(&gStartCond);
  pthread_mutex_unlock(&gStartMutex);
}

void Thread::join() {
  pthread_mutex_lock(&gStartMutex);
  assert(_started && !_adopted);
  assert(!_joined && !_joinStarted);
  _joinStarted = true;
  pthread_mutex_unlock(&gStartMutex);
  assert(!isCurrent());
  int rc = pthread_join(_tid, nullptr);
  pthread_mutex_lock(&gStartMutex);
  _joined = true;
  pthread_mutex_unlock(&gStartMutex);
  if (rc != 0) failed("Thread::join", "pthread_join", rc);
}

void Thread::joinEvenIfUnstarted() {
  if (_adopted) return;
  pthread_mutex_lock(&gStartMutex);
  if (_joined || _joinStarted) {
    pthread_mutex_unlock(&gStartMutex);
    return;
  }
  if (!_started) {
    _released = true;
    pthread_cond_broadcast(&gStartCond);
  }
  _joinStarted = true;
  pthread_mutex_unlock(&gStartMutex);
  int rc = pthread_join(_tid, nullptr);
  pthread_mutex_lock(&gStartMutex);
  _joined = true;
  pthread_mutex_unlock(&gStartMutex);
  if (rc != 0) {
    errno = rc;
    threadLogger().error("Thread::joinEvenIfUnstarted: pthread_join: %m");
  }
}

bool Thread::isCurrent() const { return pthread_equal(_tid, pthread_self()) != 0; }

bool Thread::isStarted() const {
  pthread_mutex_lock(&gStartMutex);
  bool s = _started;
  pthread_mutex_unlock(&gStartMutex);
  return s;
}

Thread* Thread::current() { return ActiveThreads::getCurrent(); }

const char* Thread::currentName() {
  Thread* t = current();
  return t ? t->getName() : "UNKNOWN-THREAD";
}

void Thread::mainThreadDying() { __atomic_store_n(&gMainThreadDying, true, __ATOMIC_RELEASE); }

bool Thread::mainThreadIsDying() { return __atomic_load_n(&gMainThreadDying, __ATOMIC_ACQUIRE); }

Thread::JoinHelper::~JoinHelper() {
  if (_thread != nullptr) run();
}

void Thread::JoinHelper::run() {
  Thread* t = _thread;
  _thread = nullptr;
  if (t == nullptr) return;
  assert(!t->isCurrent());
  t->joinEvenIfUnstarted();
  delete t;
}
