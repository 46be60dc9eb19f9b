// Descriptor classes on the event loop: message streams split across reads
// (SocketCommandConsumer), read-only sockets ending on hang-up
// (PolledSocket), objects polled through a proxy (ProxyPolledFd), the
// self pipe on its read-pipe base.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "util/EventLoop.h"
#include "util/PolledSocket.h"
#include "util/ProxyPolledFd.h"
#include "util/SelfPipe.h"
#include "util/SocketCommandConsumer.h"
#include "util/Timeout.h"

namespace {

// Messages are one length byte and that many bytes.
class LengthPrefixed : public SocketCommandConsumer {
 public:
  size_t consumeData(const Str& data) override {
    ++calls;
    const size_t len = static_cast<unsigned char>(data[0]);
    if (data.size() < 1 + len) return 0;
    messages.push_back(data.substr(1, len));
    return 1 + len;
  }
  void after_eof() override {
    ended = true;
    if (stopLoop) eventLoop()->terminate(0);
  }
  std::vector<std::string> messages;
  int calls = 0;
  bool ended = false;
  bool stopLoop = false;
};

struct Pair {
  Pair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fd), 0); }
  ~Pair() {
    for (int f : fd)
      if (f >= 0) close(f);
  }
  void send(const std::string& s) { ASSERT_EQ(write(fd[1], s.data(), s.size()), static_cast<ssize_t>(s.size())); }
  void closeWriter() {
    close(fd[1]);
    fd[1] = -1;
  }
  int fd[2];
};

std::string msg(const std::string& body) { return std::string(1, static_cast<char>(body.size())) + body; }

// Whatever the cut of the stream into reads, complete messages come out
// whole and in order, and an incomplete one waits.
TEST(SocketCommandConsumer, MessagesSplitAcrossReads) {
  struct Row {
    std::vector<std::string> chunks;
    std::vector<std::string> expect;
    size_t buffered;
  };
  const std::string a = msg("alpha"), b = msg("be"), e = msg("");
  const Row rows[] = {
      {{a + b}, {"alpha", "be"}, 0},
      {{a.substr(0, 1), a.substr(1, 3), a.substr(4) + b}, {"alpha", "be"}, 0},
      {{a + b.substr(0, 2)}, {"alpha"}, 2},
      {{e + e + a}, {"", "", "alpha"}, 0},
      {{b.substr(0, 1)}, {}, 1},
      {{std::string(1, '\x03'), "x", "y", "z"}, {"xyz"}, 0},
  };
  for (const Row& r : rows) {
    Pair p;
    LengthPrefixed c;
    for (const std::string& chunk : r.chunks) {
      p.send(chunk);
      EXPECT_FALSE(c.when_readable(PollableDescriptor(p.fd[0])));
    }
    EXPECT_EQ(c.messages, r.expect) << r.chunks[0];
    EXPECT_EQ(c.buffered(), r.buffered) << r.chunks[0];
  }
}

// Through a running loop: a partial message waits for its rest; the
// writer's close ends the descriptor, after what was sent was consumed;
// bytes of an unfinished message at end of file are dropped.
TEST(SocketCommandConsumer, OnTheLoopUntilEndOfFile) {
  EventLoop loop;
  Pair p;
  LengthPrefixed c;
  c.stopLoop = true;
  loop.add(&c, PollableDescriptor(p.fd[0]));
  p.send(msg("one") + msg("two").substr(0, 2));
  p.send(msg("two").substr(2) + msg("three").substr(0, 4));
  p.closeWriter();
  EXPECT_EQ(loop.run(), 0);
  EXPECT_TRUE(c.ended);
  EXPECT_FALSE(c.isActive());
  EXPECT_EQ(c.messages, (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(loop.polledFdCount(), 0u);
}

// A hang-up with nothing to read ends a PolledSocket; data sent before
// the hang-up is still read first.
class CountingSocket : public PolledSocket {
 public:
  bool when_readable(PollableDescriptor fd) override {
    char buf[16];
    ssize_t n = read(fd.get(), buf, sizeof buf);
    if (n > 0) got.append(buf, static_cast<size_t>(n));
    return n <= 0;
  }
  void after_eof() override { eventLoop()->terminate(7); }
  std::string got;
};

TEST(PolledSocket, ReadsWhatCameBeforeTheHangUp) {
  EventLoop loop;
  Pair p;
  CountingSocket s;
  EXPECT_EQ(s.defaultEvents() & PolledFd::kWriteEvents, 0);
  loop.add(&s, PollableDescriptor(p.fd[0]));
  p.send("last words");
  p.closeWriter();
  EXPECT_EQ(loop.run(), 7);
  EXPECT_EQ(s.got, "last words");
}

// A class with a base of its own is polled through the proxy: events reach
// it, a true result removes the proxy and calls the outer after_eof.
class Base {
 public:
  virtual ~Base() = default;
  int baseValue = 42;
};

class Outer : public Base, public ProxyPolledFd {
 public:
  bool when_events(PollableDescriptor fd) override {
    char c;
    ssize_t n = read(fd.get(), &c, 1);
    if (n == 1) seen += c;
    return n == 1 && c == '.';
  }
  void after_eof() override {
    ended = true;
    polledFd()->eventLoop()->terminate(baseValue);
  }
  std::string seen;
  bool ended = false;
};

TEST(ProxyPolledFd, ForwardsEventsAndEndToItsOuterObject) {
  EventLoop loop;
  Pair p;
  Outer o;
  o.remove_from_eventloop(&loop);  // not on the loop: nothing happens
  o.add_to(&loop, PollableDescriptor(p.fd[0]));
  EXPECT_TRUE(o.isActive());
  p.send("ab.");
  EXPECT_EQ(loop.run(), 42);
  EXPECT_TRUE(o.ended);
  EXPECT_EQ(o.seen, "ab.");
  EXPECT_FALSE(o.isActive());

  // Taken off by its owner instead: no after_eof.
  Outer o2;
  o2.add_to(&loop, PollableDescriptor(p.fd[0]));
  o2.remove_from_eventloop(&loop);
  EXPECT_FALSE(o2.isActive());
  EXPECT_FALSE(o2.ended);
  EXPECT_EQ(loop.polledFdCount(), 0u);
}

// Many triggers before the loop looks give one when_triggered; the pipe
// is drained so the loop does not spin; closing the write side ends it.
class CountingPipe : public SelfPipe {
 public:
  void when_triggered() override {
    if (++triggered == 1) loop->add(&stop, 0);  // ends the loop on the next pass
  }
  struct Stop : public OneShotTimeout {
    EventLoop* loop = nullptr;
    void when_expired() override { loop->terminate(0); }
  } stop;
  EventLoop* loop = nullptr;
  int triggered = 0;
};

TEST(SelfPipe, ManyTriggersWakeOnce) {
  EventLoop loop;
  CountingPipe p;
  p.loop = p.stop.loop = &loop;
  EXPECT_EQ(p.defaultEvents() & PolledFd::kWriteEvents, 0);
  for (int i = 0; i < 100000; ++i) p.trigger();  // fills the pipe: EAGAIN is fine
  p.add_to(&loop);
  EXPECT_EQ(loop.run(), 0);
  EXPECT_EQ(p.triggered, 1);
  p.remove_from_eventloop(&loop);
}

}  // namespace
