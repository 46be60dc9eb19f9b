// MainThread: the singleton, the thread attribute, and the reaping list.
#include "util/MainThread.h"

#include <cerrno>

#include "util/ActiveThreads.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

namespace {
pthread_mutex_t gMainMutex = PTHREAD_MUTEX_INITIALIZER;
MainThread* gMainThread = nullptr;
bool gMainThreadEverCreated = false;
pthread_attr_t gThreadAttr;

const size_t kThreadStackSize = 2 * 1024 * 1024;
}  // namespace


MainThread::MainThread() : Thread(AdoptCallingThread(), "Main Thread") {
  pthread_mutex_lock(&gMainMutex);
  if (gMainThreadEverCreated) {
    pthread_mutex_unlock(&gMainMutex);
    throw PthreadException("Main Thread created twice!");
  }
  gMainThreadEverCreated = true;
  pthread_attr_init(&gThreadAttr);
  pthread_mutex_unlock(&gMainMutex);
  int rc = pthread_attr_setstacksize(&gThreadAttr, kThreadStackSize);
  if (rc != 0) {
    errno = rc;
    static Logger gLogger("Thread");
    gLogger.warn("cannot override thread stack size: pthread_attr_setstacksize(): %m");
  }
  ActiveThreads::add();
  ActiveThreads::setCurrent(this);
  pthread_mutex_lock(&gMainMutex);
  gMainThread = this;
  pthread_mutex_unlock(&gMainMutex);
}

MainThread::~MainThread() {
  reapFinished();
  pthread_mutex_lock(&gMainMutex);
  gMainThread = nullptr;
  pthread_mutex_unlock(&gMainMutex);
  ActiveThreads::setCurrent(nullptr);
  ActiveThreads::remove();
}

MainThread* MainThread::instance() {
  pthread_mutex_lock(&gMainMutex);
  MainThread* m = gMainThread;
  pthread_mutex_unlock(&gMainMutex);
  return m;
}

const pthread_attr_t* MainThread::threadAttributes() { return &gThreadAttr; }

void MainThread::joinAndDeleteMe(Thread* t) {
  ScopedLock lock(_reapMutex);
  _toReap.push_back(t);
}

void MainThread::reapFinished() {
  std::vector<Thread*> batch;
  {
    ScopedLock lock(_reapMutex);
    batch.swap(_toReap);
  }
  for (Thread* t : batch) {
    Thread::JoinHelper helper(t);
    helper.run();
  }
}
