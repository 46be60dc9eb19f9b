// TCP on the event loop: many idle connections do not block a request,
// partial consumption, a callback that closes, and the acceptor's count of
// live connections.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "util/AcceptFd.h"
#include "util/EventLoopThread.h"
#include "util/InThreadActor.h"
#include "util/MainThread.h"
#include "util/TcpFdFactory.h"
#include "util/TcpRawDataFd.h"

namespace {

// Echoes complete lines; "quit" closes; consumes nothing of a partial line.
class LineEcho : public TcpRawDataFd, public TcpRawDataFdCallback {
 public:
  LineEcho() : TcpRawDataFd(64, this) {}
  long rawTcpDataAvailable(PollableDescriptor, char const* data, unsigned long size) override {
    std::string s(data, size);
    size_t nl = s.find('\n');
    if (nl == std::string::npos) {
      pending += s;
      return static_cast<long>(size);
    }
    std::string line = pending + s.substr(0, nl + 1);
    pending.clear();
    if (line == "quit\n") return -1;
    out = line;
    nonblockingWrite(out.data(), out.size());
    return static_cast<long>(nl + 1);
  }
  std::string pending, out;
};

class Factory : public TcpFdFactory {
 public:
  TcpPolledFd* create(void*, PollableDescriptor, SocketAddress const&) override {
    ++created;
    return new LineEcho;
  }
  void fdClosing(void*, PollableDescriptor, TcpPolledFd*) override { ++closed; }
  std::atomic<int> created{0}, closed{0};
};

struct MainThreadFirst {
  MainThreadFirst() {
    if (MainThread::instance() == nullptr) new MainThread();
  }
};

struct Server : private MainThreadFirst {
  Server() {
    listenFd = PollableDescriptor::socketFor(SocketAddress::ipv4Loopback(0));
    EXPECT_TRUE(listenFd.setReuseAddress());
    EXPECT_TRUE(listenFd.bind(SocketAddress::ipv4Loopback(0)));
    EXPECT_TRUE(listenFd.listen(512));
    SocketAddress a;
    EXPECT_TRUE(listenFd.localAddress(a));
    port = a.port();
    loop.start();
    acceptor = new AcceptFd(nullptr, &loop, &factory);
    onLoop([this] { acceptor->start(listenFd); });
  }
  ~Server() {
    onLoop([this] { delete acceptor; });
    loop.stop();
  }
  size_t live() {
    size_t n = 0;
    onLoop([&] { n = acceptor->connectionCount(); });
    return n;
  }
  struct FnActor : public InThreadActor {
    explicit FnActor(std::function<void()> f) : f(std::move(f)) {}
    void run() override { f(); }
    std::function<void()> f;
  };
  void onLoop(std::function<void()> f) {
    FnActor a(std::move(f));
    loop.internal_runInThread(&a, true);
  }
  PollableDescriptor connect() {
    PollableDescriptor c = PollableDescriptor::socketFor(SocketAddress::ipv4Loopback(port));
    EXPECT_EQ(c.connect(SocketAddress::ipv4Loopback(port)), 0);
    return c;
  }
  EventLoopThread loop{"tcp-test"};
  Factory factory;
  AcceptFd* acceptor = nullptr;
  PollableDescriptor listenFd;
  uint16_t port = 0;
};

std::string readLine(PollableDescriptor c) {
  std::string got;
  char buf[256];
  while (got.find('\n') == std::string::npos) {
    ssize_t n = c.readWithTimeout(buf, sizeof buf, 10000);
    if (n <= 0) break;
    got.append(buf, static_cast<size_t>(n));
  }
  return got;
}

TEST(Tcp, IdleConnectionsDoNotBlockARequest) {
  Server s;
  std::vector<PollableDescriptor> idle;
  for (int i = 0; i < 200; ++i) idle.push_back(s.connect());
  PollableDescriptor c = s.connect();
  // A request split over two writes, the first with no line end.
  ASSERT_TRUE(c.writeBlocking("hel", 3));
  ASSERT_TRUE(c.writeBlocking("lo\n", 3));
  EXPECT_EQ(readLine(c), "hello\n");
  EXPECT_EQ(s.live(), 201u);
  for (auto& i : idle) i.close();
  c.close();
  for (int i = 0; i < 1000 && s.live() != 0; ++i) usleep(5000);
  EXPECT_EQ(s.live(), 0u);
  EXPECT_EQ(s.factory.closed.load(), 201);
}

// A callback that returns a negative count closes the connection: the
// client reads end of file.
TEST(Tcp, NegativeConsumptionClosesTheConnection) {
  Server s;
  PollableDescriptor c = s.connect();
  ASSERT_TRUE(c.writeBlocking("quit\n", 5));
  char buf[8];
  EXPECT_EQ(c.readWithTimeout(buf, sizeof buf, 10000), 0);
  c.close();
  for (int i = 0; i < 1000 && s.factory.closed.load() != 1; ++i) usleep(5000);
  EXPECT_EQ(s.factory.closed.load(), 1);
}

}  // namespace
