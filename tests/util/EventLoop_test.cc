// The event loop: timer heap order and batching, clock jumps, descriptor
// walk, actors from other threads, deferred descriptor changes, throttling.
#include "util/EventLoop.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "util/EventLoopThread.h"
#include "util/InThreadActor.h"
#include "util/MainThread.h"
#include "util/PolledFd.h"
#include "util/PolledFdManager.h"
#include "util/ThrottleGroup.h"

namespace {

class FakeClock : public EventLoopClock {
 public:
  Timeval now() override { return t; }
  Timeval t{1000000, 0};
};

struct Fired {
  std::vector<int> ids;
  std::vector<Timeval> at;
};

class RecordingTimeout : public Timeout {
 public:
  RecordingTimeout(int id, Fired* log, FakeClock* c) : _id(id), _log(log), _c(c) {}
  void when_expired(unsigned long long& reschedule) override {
    _log->ids.push_back(_id);
    _log->at.push_back(_c->t);
    reschedule = repeat;
  }
  unsigned long long repeat = 0;

 private:
  int _id;
  Fired* _log;
  FakeClock* _c;
};

// Timers come out in expiry order, never before expiry minus the batching
// window, removed ones never; exercised over a heap big enough that
// removals from the middle relink deep nodes.
TEST(EventLoopTimeouts, HeapOrderWithRandomAddsAndRemoves) {
  FakeClock clock;
  EventLoop loop(&clock);
  Fired log;
  std::mt19937 rng(7);
  std::vector<std::unique_ptr<RecordingTimeout>> ts;
  std::vector<unsigned long long> delay;
  for (int i = 0; i < 2000; ++i) {
    ts.push_back(std::make_unique<RecordingTimeout>(i, &log, &clock));
    delay.push_back(rng() % 100000);
    loop.add(ts.back().get(), delay.back());
  }
  std::vector<bool> removed(ts.size(), false);
  for (int i = 0; i < 700; ++i) {
    size_t k = rng() % ts.size();
    loop.remove(ts[k].get());  // twice is harmless
    removed[k] = true;
  }
  size_t live = std::count(removed.begin(), removed.end(), false);
  EXPECT_EQ(loop.timeoutCount(), live);
  const Timeval start = clock.t;
  while (loop.timeoutCount() > 0) {
    clock.t.addMsec(37);
    loop.runExpiredTimeouts(clock.t);
  }
  ASSERT_EQ(log.ids.size(), live);
  for (size_t i = 0; i < log.ids.size(); ++i) {
    int id = log.ids[i];
    EXPECT_FALSE(removed[id]);
    Timeval due = start;
    due.addMsec(static_cast<int64_t>(delay[id]));
    Timeval earliest = log.at[i];
    earliest.addMsec(EventLoop::kBatchMs);
    EXPECT_LE(due, earliest) << "timer " << id << " fired early";
    if (i > 0) {
      EXPECT_LE(delay[log.ids[i - 1]], delay[id]);
    }
  }
}

TEST(EventLoopTimeouts, BatchingWindowAndNextDelay) {
  FakeClock clock;
  EventLoop loop(&clock);
  Fired log;
  RecordingTimeout near(1, &log, &clock), far(2, &log, &clock);
  EXPECT_EQ(loop.msecUntilNextTimeout(clock.t), -1);
  loop.add(&near, 100);
  loop.add(&far, 171);
  EXPECT_EQ(loop.msecUntilNextTimeout(clock.t), 100);
  loop.runExpiredTimeouts(clock.t);  // 100 ms ahead: inside the window
  EXPECT_EQ(log.ids, std::vector<int>({1}));
  EXPECT_EQ(loop.msecUntilNextTimeout(clock.t), 171);
  loop.remove(&far);
}

// A periodic timer's next run counts from when it ran; a zero reschedule
// ends it; removing it inside its own handler also ends it.
TEST(EventLoopTimeouts, RescheduleCountsFromRunTime) {
  FakeClock clock;
  EventLoop loop(&clock);
  Fired log;
  RecordingTimeout p(1, &log, &clock);
  p.repeat = 1000;
  loop.add(&p, 1000);
  clock.t.addMsec(5000);  // late by 4 s
  loop.runExpiredTimeouts(clock.t);
  ASSERT_EQ(log.ids.size(), 1u);
  EXPECT_EQ(loop.msecUntilNextTimeout(clock.t), 1000);
  p.repeat = 0;
  clock.t.addMsec(1000);
  loop.runExpiredTimeouts(clock.t);
  EXPECT_EQ(log.ids.size(), 2u);
  EXPECT_FALSE(p.isActive());

  struct SelfRemover : public Timeout {
    EventLoop* l = nullptr;
    int runs = 0;
    void when_expired(unsigned long long&) override {
      ++runs;
      l->remove(this);
    }
  } s;
  s.l = &loop;
  loop.add(&s, 10);
  loop.runExpiredTimeouts(clock.t);
  loop.runExpiredTimeouts(clock.t);
  EXPECT_EQ(s.runs, 1);
  EXPECT_FALSE(s.isActive());
}

// A handler that removes a timer already taken out for this pass stops it
// from running; one that deletes itself with no reschedule is fine.
TEST(EventLoopTimeouts, RemovalOfExpiredPeerAndSelfDelete) {
  FakeClock clock;
  EventLoop loop(&clock);
  struct Killer : public OneShotTimeout {
    EventLoop* l;
    Timeout* victim;
    void when_expired() override { l->remove(victim); }
  };
  struct Victim : public OneShotTimeout {
    bool ran = false;
    void when_expired() override { ran = true; }
  };
  struct Suicide : public OneShotTimeout {
    bool* flag;
    void when_expired() override {
      *flag = true;
      delete this;
    }
  };
  Victim v;
  Killer k;
  k.l = &loop;
  k.victim = &v;
  loop.add(&k, 10);
  loop.add(&v, 20);
  bool died = false;
  auto* s = new Suicide;
  s->flag = &died;
  loop.add(s, 5);
  loop.runExpiredTimeouts(clock.t);
  EXPECT_FALSE(v.ran);
  EXPECT_TRUE(died);
  EXPECT_EQ(loop.timeoutCount(), 0u);
}

TEST(EventLoopTimeoutsDeathTest, ReAddFromOwnHandlerAsserts) {
#ifdef NDEBUG
  GTEST_SKIP() << "assertions are compiled out";
#endif
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  struct ReAdder : public OneShotTimeout {
    EventLoop* l;
    void when_expired() override { l->add(this, 10); }
  };
  EXPECT_DEATH(
      {
        FakeClock clock;
        EventLoop loop(&clock);
        ReAdder r;
        r.l = &loop;
        loop.add(&r, 0);
        loop.runExpiredTimeouts(clock.t);
      },
      "_currently_running_timeout");
}

// Clock back one hour: timers fire after their intervals, not an hour late.
// Clock forward one hour: nothing fires early. Small steps are left alone.
TEST(EventLoopTimeouts, ClockSkew) {
  FakeClock clock;
  EventLoop loop(&clock);
  Fired log;
  RecordingTimeout a(1, &log, &clock), b(2, &log, &clock);
  loop.add(&a, 2000);
  loop.add(&b, 60000);
  const Timeval before = clock.t;

  clock.t.addSec(-3600);
  loop.checkClockSkew(before, clock.t, 100);
  EXPECT_EQ(loop.msecUntilNextTimeout(clock.t), 2000);
  loop.runExpiredTimeouts(clock.t);
  EXPECT_TRUE(log.ids.empty());
  clock.t.addMsec(2000);
  loop.runExpiredTimeouts(clock.t);
  EXPECT_EQ(log.ids, std::vector<int>({1}));

  const Timeval before2 = clock.t;
  const int left = loop.msecUntilNextTimeout(clock.t);
  clock.t.addSec(3600);
  loop.checkClockSkew(before2, clock.t, 100);
  EXPECT_EQ(loop.msecUntilNextTimeout(clock.t), left - 100);
  loop.runExpiredTimeouts(clock.t);
  EXPECT_EQ(log.ids.size(), 1u);

  const Timeval before3 = clock.t;
  clock.t.addMsec(3000);  // within delay + 5 s: normal scheduling
  loop.checkClockSkew(before3, clock.t, 100);
  EXPECT_EQ(loop.msecUntilNextTimeout(clock.t), left - 100 - 3000);
  loop.remove(&b);
}

MainThread* ensureMainThread() {
  if (MainThread::instance() == nullptr) new MainThread();
  return MainThread::instance();
}

class PipeFd : public PolledFd {
 public:
  PipeFd(std::vector<int>* order, int id, bool finish) : _order(order), _id(id), _finish(finish) {
    int p[2];
    EXPECT_EQ(::pipe(p), 0);
    r = p[0];
    w = p[1];
  }
  ~PipeFd() override {
    ::close(r);
    ::close(w);
  }
  bool when_events(PollableDescriptor fd) override {
    char buf[16];
    EXPECT_GT(::read(fd.get(), buf, sizeof buf), 0);
    _order->push_back(_id);
    return _finish;
  }
  void after_eof() override { eofs++; }
  int r, w, eofs = 0;

 private:
  std::vector<int>* _order;
  int _id;
  bool _finish;
};

class Terminator : public OneShotTimeout {
 public:
  explicit Terminator(EventLoop* l) : _l(l) {}
  void when_expired() override { _l->terminate(3); }

 private:
  EventLoop* _l;
};

// A handler that finishes its descriptor (returns true) does not make the
// walk skip any other ready descriptor, nor run one twice.
TEST(EventLoopDescriptors, FinishedHandlerSkipsNobody) {
  EventLoop loop;
  std::vector<int> order;
  std::vector<std::unique_ptr<PipeFd>> fds;
  for (int i = 0; i < 40; ++i) {  // past the first growth of the arrays
    fds.push_back(std::make_unique<PipeFd>(&order, i, i % 3 == 1));
    loop.add(fds.back().get(), PollableDescriptor(fds.back()->r));
    ASSERT_EQ(::write(fds.back()->w, "x", 1), 1);
  }
  Terminator t(&loop);
  loop.add(&t, 300);
  EXPECT_EQ(loop.run(), 3);
  std::sort(order.begin(), order.end());
  ASSERT_EQ(order.size(), 40u);
  for (int i = 0; i < 40; ++i) {
    EXPECT_EQ(order[i], i);
    EXPECT_EQ(fds[i]->eofs, i % 3 == 1 ? 1 : 0);
    EXPECT_EQ(fds[i]->isActive(), i % 3 != 1);
  }
  for (auto& f : fds)
    if (f->isActive()) loop.removeActivePolledFd(f.get());
}

// terminate() from a handler on the loop's own thread only sets the flag;
// zero-length timeouts queued at that moment still run before run() returns.
TEST(EventLoopDescriptors, TerminateFromHandlerAndZeroLengthAtExit) {
  EventLoop loop;
  struct Zero : public OneShotTimeout {
    int runs = 0;
    void when_expired() override { ++runs; }
  } zero;
  struct Stopper : public PolledFd {
    EventLoop* l;
    Zero* z;
    int r, w;
    bool when_events(PollableDescriptor) override {
      l->add(z, 0);
      l->terminate(9);
      return true;
    }
  } s;
  int p[2];
  ASSERT_EQ(::pipe(p), 0);
  s.l = &loop;
  s.z = &zero;
  loop.add(&s, PollableDescriptor(p[0]));
  ASSERT_EQ(::write(p[1], "x", 1), 1);
  EXPECT_EQ(loop.run(), 9);
  EXPECT_EQ(zero.runs, 1);
  ::close(p[0]);
  ::close(p[1]);
}

// Actors posted from many threads all run on the loop's thread, each once;
// a waiting caller sees its actor's effect when it returns.
TEST(EventLoopActors, ManyThreadsRunOnTheLoop) {
  ensureMainThread();
  EventLoopThread elt("actors");
  struct Count : public InThreadActor {
    EventLoop* l;
    long* counter;
    void run() override {
      l->assertInThread();
      ++*counter;
    }
  };
  long counter = 0;  // touched only on the loop thread
  {
    struct NotRunning : public CallbackAfterEventService {
      void when_expired() override {}
    } cb;
    EXPECT_FALSE(elt.addFromAnywhere(&cb));
  }
  elt.start();
  std::vector<std::thread> ths;
  for (int t = 0; t < 8; ++t) {
    ths.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        Count c;
        c.l = &elt;
        c.counter = &counter;
        elt.internal_runInThread(&c, true);
      }
    });
  }
  for (auto& t : ths) t.join();
  struct Read : public InThreadActor {
    long* counter;
    long seen = 0;
    void run() override { seen = *counter; }
  } r;
  r.counter = &counter;
  EXPECT_EQ(elt.runInThreadOrFail(&r), 1);
  EXPECT_EQ(r.seen, 8 * 500);
  EXPECT_EQ(elt.stop(), 0);
  EXPECT_EQ(elt.runInThreadOrFail(&r), 0);
}

// A callback posted from another thread runs once on the loop even when
// posted repeatedly before it runs; removeFromAnywhere stops a timer.
TEST(EventLoopActors, CallbackFromAnywhereAndRemoveFromAnywhere) {
  ensureMainThread();
  EventLoopThread elt("callbacks");
  elt.start();
  struct Cb : public CallbackAfterEventService {
    std::atomic<int> runs{0};
    void when_expired() override { ++runs; }
  } cb;
  for (int i = 0; i < 1000; ++i) ASSERT_TRUE(elt.addFromAnywhere(&cb));
  struct Sync : public InThreadActor {
    void run() override {}
  } sync;
  while (cb.runs.load() == 0) elt.internal_runInThread(&sync, true);
  EXPECT_GE(cb.runs.load(), 1);

  struct Never : public OneShotTimeout {
    bool ran = false;
    void when_expired() override { ran = true; }
  } never;
  struct Adder : public InThreadActor {
    EventLoop* l;
    Timeout* t;
    void run() override { l->add(t, 3600 * 1000); }
  } adder;
  adder.l = &elt;
  adder.t = &never;
  elt.internal_runInThread(&adder, true);
  elt.removeFromAnywhere(&never);
  EXPECT_FALSE(never.isActive());
  elt.stop();
  EXPECT_FALSE(never.ran);
}

// The manager defers: a remove drops a pending add of the same object, a
// remove calls its callback after taking the descriptor out, and pending
// work still happens when the loop exits right after it was requested.
TEST(EventLoopDescriptors, PolledFdManagerDefersAndRunsAtExit) {
  EventLoop loop;
  PolledFdManager mgr(&loop);
  std::vector<int> order;
  PipeFd a(&order, 1, false), b(&order, 2, false);
  struct Cb : public PolledFdManagerRemoveCallback {
    std::vector<std::pair<PolledFd*, int>> seen;
    void after_remove(PolledFd* p, PollableDescriptor fd) override {
      EXPECT_FALSE(p->isActive());
      seen.emplace_back(p, fd.get());
    }
  } cb;
  loop.add(&a, PollableDescriptor(a.r));
  // Requests made from a timer that also ends the loop.
  struct Requester : public OneShotTimeout {
    EventLoop* l;
    PolledFdManager* m;
    PipeFd* a;
    PipeFd* b;
    Cb* cb;
    void when_expired() override {
      m->add(b, PollableDescriptor(b->r));
      m->remove(b, cb);  // cancels the add
      m->remove(a, cb);
      EXPECT_EQ(m->pendingAdds(), 0u);
      EXPECT_TRUE(a->isActive());
      l->terminate(0);
    }
  } req;
  req.l = &loop;
  req.m = &mgr;
  req.a = &a;
  req.b = &b;
  req.cb = &cb;
  loop.add(&req, 50);
  EXPECT_EQ(loop.run(), 0);
  EXPECT_FALSE(a.isActive());
  EXPECT_FALSE(b.isActive());
  ASSERT_EQ(cb.seen.size(), 2u);
  EXPECT_EQ(loop.polledFdCount(), 0u);
}

// A throttled read event is held back (the handler does not run) and comes
// back when the group's mask lifts.
TEST(EventLoopDescriptors, ThrottledEventsReturnWhenLifted) {
  ensureMainThread();
  ThrottleGroup group(PolledFd::kReadEvents);
  EventLoopThread elt("throttle");
  std::vector<int> order;
  PipeFd a(&order, 1, false);
  a.setThrottleGroup(&group);
  struct Adder : public InThreadActor {
    EventLoop* l;
    PipeFd* p;
    void run() override { l->add(p, PollableDescriptor(p->r)); }
  } adder;
  adder.l = &elt;
  adder.p = &a;
  elt.start();
  elt.internal_runInThread(&adder, true);
  ASSERT_EQ(::write(a.w, "x", 1), 1);
  struct Probe : public InThreadActor {
    PolledFd* p;
    short events = 0;
    size_t seen = 0;
    std::vector<int>* order;
    void run() override {
      events = p->ourEvents();
      seen = order->size();
    }
  } probe;
  probe.p = &a;
  probe.order = &order;
  // The loop drops the read bits from its poll mask on the first event.
  for (int i = 0; i < 1000 && (probe.events & PolledFd::kReadEvents) != 0; ++i) {
    elt.internal_runInThread(&probe, true);
    if ((probe.events & PolledFd::kReadEvents) != 0) usleep(1000);
  }
  EXPECT_EQ(probe.events & PolledFd::kReadEvents, 0);
  EXPECT_EQ(probe.seen, 0u);
  group.setMask(0);
  for (int i = 0; i < 5000 && probe.seen == 0; ++i) {
    elt.internal_runInThread(&probe, true);
    if (probe.seen == 0) usleep(1000);
  }
  EXPECT_EQ(probe.seen, 1u);
  struct Remover : public InThreadActor {
    EventLoop* l;
    PolledFd* p;
    void run() override { l->removeActivePolledFd(p); }
  } rem;
  rem.l = &elt;
  rem.p = &a;
  elt.internal_runInThread(&rem, true);
  elt.stop();
}

}  // namespace
