// Threads that hand themselves to the main thread at the end of their
// main() are joined and deleted on its event loop, and kept for
// reapFinished() while the loop is not running.
#include "util/EventLoopMainThread.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>

namespace {

std::atomic<int> gDeleted{0};

class SelfReaping : public Thread {
 public:
  SelfReaping() : Thread("self-reaping") {}
  ~SelfReaping() override {
    joinEvenIfUnstarted();
    ++gDeleted;
  }
  void main() override { MainThread::instance()->joinAndDeleteMe(this); }
};

class StopWhen : public PeriodicTimeout {
 public:
  StopWhen(EventLoop* l, int n) : _l(l), _n(n) {}
  void when_expired() override {
    if (gDeleted.load() >= _n) _l->terminate(0);
  }

 private:
  EventLoop* _l;
  int _n;
};

// Starts threads from inside the running loop, so that they cannot finish
// before the loop is there to reap them.
class StartThreads : public OneShotTimeout {
 public:
  explicit StartThreads(int n) : _n(n) {}
  void when_expired() override {
    for (int i = 0; i < _n; ++i) (new SelfReaping())->go();
  }

 private:
  int _n;
};

TEST(EventLoopMainThread, ReapsOnTheLoopAndOffIt) {
  auto* m = new EventLoopMainThread();
  // Not running: kept on the list.
  auto* early = new SelfReaping();
  early->go();
  for (int i = 0; i < 1000 && gDeleted.load() == 0; ++i) {
    m->reapFinished();
    if (gDeleted.load() == 0) usleep(2000);
  }
  EXPECT_EQ(gDeleted.load(), 1);

  StartThreads start(10);
  StopWhen stop(&m->eventLoop(), 11);
  m->eventLoop().add(&start, 0);
  m->eventLoop().add(&stop, 10);
  EXPECT_EQ(m->eventLoop().run(), 0);
  m->eventLoop().remove(&stop);
  EXPECT_EQ(gDeleted.load(), 11);
  delete m;
}

}  // namespace
