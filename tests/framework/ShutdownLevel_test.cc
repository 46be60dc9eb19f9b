// Shutdown by levels: levels run in order, each handler is signalled once in
// registration order, a level waits for handlers that finish later, gives
// up on those that never do when its time-out runs out, and a second
// request is ignored. Driven both by hand and by a real event loop.
#include "framework/ShutdownManager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "framework/MShutdownHandler.h"
#include "util/EventLoop.h"

namespace {

// How a test handler answers signalShutdown().
enum class Mode { kAtOnce, kLater, kNever, kThrowRuntime, kThrowOther, kCompleteInside };

std::mutex gOrderMutex;
std::vector<std::string> gOrder;

void clearOrder() {
  std::lock_guard<std::mutex> l(gOrderMutex);
  gOrder.clear();
}
std::vector<std::string> order() {
  std::lock_guard<std::mutex> l(gOrderMutex);
  return gOrder;
}

class Handler : public MShutdownHandler {
 public:
  Handler(std::string name, Mode mode) : name(std::move(name)), mode(mode) {}
  bool signalShutdown() override {
    {
      std::lock_guard<std::mutex> l(gOrderMutex);
      gOrder.push_back(name);
    }
    ++signals;
    switch (mode) {
      case Mode::kAtOnce: return true;
      case Mode::kThrowRuntime: throw std::runtime_error("cannot stop");
      case Mode::kThrowOther: throw 42;
      case Mode::kCompleteInside: signalShutdownComplete(); return false;
      default: return false;
    }
  }
  std::string name;
  Mode mode;
  std::atomic<int> signals{0};
};

struct Fixture {
  explicit Fixture(const ShutdownManager::LevelSpecs& specs) : manager(specs) {
    clearOrder();
    manager.setCompletionCallback([this] { ++completions; });
  }
  ShutdownManager manager;
  std::atomic<int> completions{0};
};

TEST(ShutdownLevel, ServiceLevelsInOrder) {
  struct Want {
    const char* name;
    long ms;
  } want[] = {{"APIs", 15000},    {"Input", 5000},   {"Analysis", 2000},  {"Database1", 0},
              {"Database2", 5000}, {"Output", 10000}, {"Pipelines", 4000}, {"Queue", 5000}};
  ShutdownManager& m = ShutdownManager::instance();
  ASSERT_EQ(m.levelCount(), 8u);
  for (size_t i = 0; i < 8; ++i) {
    EXPECT_EQ(m.level(i).getName(), want[i].name);
    EXPECT_EQ(m.level(i).getTimeoutMs(), want[i].ms);
  }
  EXPECT_EQ(&shutdownAPIs(), &m.level(0));
  EXPECT_EQ(&shutdownDatabaseLevel1(), &m.level(3));
  EXPECT_EQ(&shutdownPipelines(), &m.level(6));
  EXPECT_EQ(&shutdownQueue(), &m.level(7));
  EXPECT_EQ(m.findLevel("Output"), &m.level(5));
  EXPECT_EQ(m.findLevel("output"), nullptr);
}

// Every handler finishes at once, or gives up by throwing: the whole
// sequence runs in one call, in level order and registration order.
TEST(ShutdownLevel, ImmediateHandlersRunInOrder) {
  Fixture f({{"A", 1000}, {"B", 0}, {"C", 5000}});
  Handler a1("a1", Mode::kAtOnce), a2("a2", Mode::kThrowRuntime), b("b", Mode::kThrowOther),
      c1("c1", Mode::kCompleteInside), c2("c2", Mode::kAtOnce);
  f.manager.level(0).registerHandler(&a1, "a1");
  f.manager.level(0).registerHandler(&a2, "a2");
  f.manager.level(1).registerHandler(&b, "b");
  f.manager.level(2).registerHandler(&c1, "c1");
  f.manager.level(2).registerHandler(&c2, "c2");
  f.manager.level(2).registerHandler(&c1, "c1-renamed");  // no second entry

  EXPECT_EQ(f.manager.currentLevel(), -1);
  EXPECT_TRUE(f.manager.handleShutdown());
  EXPECT_EQ(order(), (std::vector<std::string>{"a1", "a2", "b", "c1", "c2"}));
  EXPECT_EQ(c1.signals.load(), 1);
  EXPECT_TRUE(f.manager.isFinished());
  EXPECT_FALSE(f.manager.isInProgress());
  EXPECT_EQ(f.manager.currentLevel(), 3);
  EXPECT_EQ(f.completions.load(), 1);
  EXPECT_EQ(f.manager.level(2).handlerNames(), (std::vector<Str>{"c1-renamed", "c2"}));

  // A second request changes nothing and calls nobody.
  EXPECT_FALSE(f.manager.handleShutdown());
  EXPECT_EQ(f.manager.shutdown_state_machine(true), -1);
  EXPECT_EQ(order().size(), 5u);
  EXPECT_EQ(f.completions.load(), 1);
}

TEST(ShutdownLevel, WaitsForALaterCompletionFromAnotherThread) {
  Fixture f({{"A", 1000}, {"B", 2000}});
  Handler later("later", Mode::kLater), quick("quick", Mode::kAtOnce), next("next", Mode::kAtOnce);
  f.manager.level(0).registerHandler(&later, "later");
  f.manager.level(0).registerHandler(&quick, "quick");
  f.manager.level(1).registerHandler(&next, "next");

  EXPECT_TRUE(f.manager.handleShutdown());
  EXPECT_EQ(f.manager.currentLevel(), 0);
  EXPECT_EQ(f.manager.level(0).pendingNames(), (std::vector<Str>{"later"}));
  EXPECT_EQ(order(), (std::vector<std::string>{"later", "quick"}));
  // Not timed out and still pending: the machine only waits.
  EXPECT_EQ(f.manager.shutdown_state_machine(false), -1);
  EXPECT_EQ(f.manager.currentLevel(), 0);
  EXPECT_EQ(next.signals.load(), 0);

  std::thread t([&] { later.signalShutdownComplete(); });
  t.join();
  EXPECT_TRUE(later.isShutdownComplete());
  EXPECT_EQ(next.signals.load(), 1);
  EXPECT_TRUE(f.manager.isFinished());
  EXPECT_EQ(f.completions.load(), 1);
  // A late second report of the same handler is harmless.
  later.signalShutdownComplete();
  EXPECT_EQ(f.completions.load(), 1);
}

TEST(ShutdownLevel, TimeOutForgetsHandlersThatNeverComplete) {
  Fixture f({{"A", 1000}, {"B", 0}, {"C", 3000}});
  Handler never("never", Mode::kNever), stuck("stuck", Mode::kNever), last("last", Mode::kLater);
  f.manager.level(0).registerHandler(&never, "never");
  f.manager.level(1).registerHandler(&stuck, "stuck");
  f.manager.level(2).registerHandler(&last, "last");

  struct Step {
    bool timedOut;
    long wantReturn;
    long wantLevel;
    std::vector<std::string> wantOrder;
  } steps[] = {
      {false, -1, 0, {"never"}},                   // still waiting at A
      {true, 0, 1, {"never", "stuck"}},            // A timed out; B armed with its 0 ms
      {true, 3000, 2, {"never", "stuck", "last"}}, // B timed out; C armed
  };
  EXPECT_TRUE(f.manager.handleShutdown());
  for (const Step& s : steps) {
    EXPECT_EQ(f.manager.shutdown_state_machine(s.timedOut), s.wantReturn);
    EXPECT_EQ(f.manager.currentLevel(), s.wantLevel);
    EXPECT_EQ(order(), s.wantOrder);
  }
  EXPECT_FALSE(f.manager.level(0).hasPending());
  // A handler forgotten after its time-out may still report: nothing moves.
  never.signalShutdownComplete();
  EXPECT_EQ(f.manager.currentLevel(), 2);
  last.signalShutdownComplete();
  EXPECT_TRUE(f.manager.isFinished());
  EXPECT_EQ(f.completions.load(), 1);
}

TEST(ShutdownLevel, UnregisteringAPendingHandlerReleasesTheLevel) {
  Fixture f({{"A", 1000}, {"B", 1000}});
  Handler gone("gone", Mode::kNever), next("next", Mode::kAtOnce), unused("unused", Mode::kAtOnce);
  f.manager.level(0).registerHandler(&gone, "gone");
  f.manager.level(1).registerHandler(&unused, "unused");
  f.manager.level(1).registerHandler(&next, "next");
  f.manager.level(1).unregisterHandler(&unused);
  f.manager.level(1).unregisterHandler(&unused);  // twice is harmless

  EXPECT_TRUE(f.manager.handleShutdown());
  EXPECT_EQ(f.manager.currentLevel(), 0);
  f.manager.level(0).unregisterHandler(&gone);
  EXPECT_TRUE(f.manager.isFinished());
  EXPECT_EQ(order(), (std::vector<std::string>{"gone", "next"}));
}

// Terminates the loop whatever happens, so that a broken machine cannot hang
// the test; the test then fails on its checks.
class Guard : public OneShotTimeout {
 public:
  explicit Guard(EventLoop& l) : _l(l) {}
  void when_expired() override {
    fired = true;
    _l.terminate(1);
  }
  bool fired = false;

 private:
  EventLoop& _l;
};

TEST(ShutdownLevel, RunsOnAnEventLoop) {
  EventLoop loop;
  Fixture f({{"A", 20}, {"B", 60000}, {"C", 1000}});
  f.manager.setEventLoop(&loop);
  f.manager.setCompletionCallback([&] {
    ++f.completions;
    loop.terminate(0);
  });
  Handler never("never", Mode::kNever), later("later", Mode::kLater), quick("quick", Mode::kAtOnce);
  f.manager.level(0).registerHandler(&never, "never");
  f.manager.level(1).registerHandler(&later, "later");
  f.manager.level(2).registerHandler(&quick, "quick");

  // A handler of B reports from its own thread once it has been signalled.
  std::atomic<bool> stopHelper{false};
  std::thread helper([&] {
    while (!stopHelper.load() && later.signals.load() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (later.signals.load() > 0) later.signalShutdownComplete();
  });
  Guard guard(loop);
  loop.add(&guard, 30000);
  EXPECT_TRUE(f.manager.handleShutdown());  // loop not running yet: A launches here, its timer is armed
  int rc = loop.run();
  stopHelper.store(true);
  helper.join();
  if (guard.isActive()) loop.remove(&guard);

  EXPECT_FALSE(guard.fired);
  EXPECT_EQ(rc, 0);
  EXPECT_TRUE(f.manager.isFinished());
  EXPECT_EQ(f.completions.load(), 1);
  EXPECT_EQ(order(), (std::vector<std::string>{"never", "later", "quick"}));
  EXPECT_FALSE(f.manager.handleShutdown());
  f.manager.setEventLoop(nullptr);
}

}  // namespace
