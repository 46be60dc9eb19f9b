// Signals routed to the event loop reach every registered handler, in
// order, on the loop's thread and outside signal context.
#include "util/SignalHandler.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <vector>

#include "util/EventLoop.h"
#include "util/MSignalHandler.h"
#include "util/ThreadToken.h"

namespace {

struct Recorder : public MSignalHandler {
  Recorder(int id, std::vector<int>* log, EventLoop* loop) : id(id), log(log), loop(loop) {}
  void handleSignal(int sig) const override {
    log->push_back(id * 100 + sig);
    if (id == 2) loop->terminate(sig);  // the last one ends the loop
  }
  int id;
  std::vector<int>* log;
  EventLoop* loop;
};

class Raiser : public OneShotTimeout {
 public:
  void when_expired() override { ::raise(SIGUSR1); }
};

TEST(SignalHandler, RoutedToTheLoopInRegistrationOrder) {
  EventLoop loop;
  std::vector<int> log;
  Recorder a(1, &log, &loop), b(2, &log, &loop), other(3, &log, &loop);
  SignalHandler& sh = SignalHandler::instance();
  sh.registerSignalHandler(&a, SIGUSR1);
  sh.registerSignalHandler(&b, SIGUSR1);
  sh.registerSignalHandler(&other, SIGUSR2);
  sh.routeToEventLoop(&loop, SIGUSR1);
  Raiser r;
  loop.add(&r, 10);
  EXPECT_EQ(loop.run(), SIGUSR1);
  EXPECT_EQ(log, std::vector<int>({100 + SIGUSR1, 200 + SIGUSR1}));
  sh.unrouteAll();
  sh.unregisterSignalHandler(&a, SIGUSR1);
  sh.unregisterSignalHandler(&b, SIGUSR1);
  sh.unregisterSignalHandler(&other, SIGUSR2);
  log.clear();
  sh.handleSignal(SIGUSR1);
  EXPECT_TRUE(log.empty());
}

}  // namespace
