// Threads: main-thread ordering, the start gate, names, reaping.
#include "util/Thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "util/ActiveThreads.h"
#include "util/ConditionBaseClass.h"
#include "util/Exceptions.h"
#include "util/MainThread.h"
#include "util/Mutex.h"

namespace {

MainThread* ensureMainThread() {
  static MainThread* m = new MainThread();
  return m;
}

class CountingThread : public Thread {
 public:
  explicit CountingThread(std::atomic<int>& runs, const char* name = "counter") : Thread("%s", name), _runs(runs) {}
  ~CountingThread() override { joinEvenIfUnstarted(); }
  void main() override {
    seenName = Thread::currentName();
    seenCurrent = Thread::current();
    ++_runs;
  }
  std::string seenName;
  Thread* seenCurrent = nullptr;

 private:
  std::atomic<int>& _runs;
};

// Must run first in the process: no MainThread exists before it.
TEST(Thread, MainThreadMustComeFirstAndOnce) {
  if (MainThread::instance() == nullptr) {
    std::atomic<int> runs{0};
    try {
      CountingThread t(runs);
      FAIL() << "constructed without a main thread";
    } catch (const PthreadException& e) {
      EXPECT_STREQ(e.what(), "Thread created before main thread!");
    }
    EXPECT_EQ(runs, 0);
  }
  MainThread* m = ensureMainThread();
  EXPECT_EQ(MainThread::instance(), m);
  EXPECT_STREQ(m->getName(), "Main Thread");
  EXPECT_EQ(Thread::current(), m);
  EXPECT_STREQ(Thread::currentName(), "Main Thread");
  EXPECT_TRUE(m->isCurrent());
  try {
    MainThread second;
    FAIL() << "second main thread";
  } catch (const PthreadException& e) {
    EXPECT_STREQ(e.what(), "Main Thread created twice!");
  }
  EXPECT_EQ(MainThread::instance(), m);
}

TEST(Thread, NeverStartedNeverRuns) {
  ensureMainThread();
  std::atomic<int> runs{0};
  unsigned before = ActiveThreads::count();
  {
    CountingThread t(runs);
    EXPECT_FALSE(t.isStarted());
  }  // destructor releases and joins
  {
    CountingThread t(runs);
    t.joinEvenIfUnstarted();
    t.joinEvenIfUnstarted();  // a second call is harmless
  }
  EXPECT_EQ(runs, 0);
  EXPECT_EQ(ActiveThreads::count(), before);
}

TEST(Thread, GoRunsMainOnceWithItsName) {
  ensureMainThread();
  std::atomic<int> runs{0};
  CountingThread t(runs, "worker-7");
  EXPECT_STREQ(t.getName(), "worker-7");
  EXPECT_FALSE(t.isCurrent());
  t.go();
  t.join();
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(t.seenName, "worker-7");
  EXPECT_EQ(t.seenCurrent, &t);
  t.joinEvenIfUnstarted();  // after join: nothing more to do
  EXPECT_EQ(runs, 1);
}

class NamedThread : public Thread {
 public:
  NamedThread(const char* fmt, int a, const char* b) : Thread(fmt, a, b) {}
  ~NamedThread() override { joinEvenIfUnstarted(); }
  void main() override {}
};

TEST(Thread, NameIsFormatted) {
  ensureMainThread();
  NamedThread t("pipeline-%d-%s", 3, std::string(300, 'n').c_str());
  EXPECT_EQ(std::string(t.getName()), "pipeline-3-" + std::string(300, 'n'));
}

// A thread whose main() ends by handing itself to the main thread.
class SelfReaping : public Thread {
 public:
  SelfReaping(std::atomic<int>& deleted, Mutex& m, ConditionBaseClass& c, bool& handed)
      : Thread("reaper-test"), _deleted(deleted), _m(m), _c(c), _handed(handed) {}
  ~SelfReaping() override { ++_deleted; }
  void main() override {
    MainThread::instance()->joinAndDeleteMe(this);
    ScopedLock l(_m);
    _handed = true;
    _c.internal_wake_all();
  }

 private:
  std::atomic<int>& _deleted;
  Mutex& _m;
  ConditionBaseClass& _c;
  bool& _handed;
};

TEST(Thread, JoinAndDeleteMeReapsFromMainThread) {
  MainThread* m = ensureMainThread();
  std::atomic<int> deleted{0};
  Mutex mu;
  ConditionBaseClass cond;
  bool handed = false;
  (new SelfReaping(deleted, mu, cond, handed))->go();
  {
    ScopedLock l(mu);
    while (!handed) cond.wait(mu);
  }
  EXPECT_EQ(deleted, 0);
  m->reapFinished();
  EXPECT_EQ(deleted, 1);
  m->reapFinished();
  EXPECT_EQ(deleted, 1);
}

TEST(Thread, JoinHelperDeletesUnstartedThread) {
  ensureMainThread();
  std::atomic<int> runs{0};
  { Thread::JoinHelper h(new CountingThread(runs)); }
  EXPECT_EQ(runs, 0);
}

}  // namespace
