// TLS on the event loop: a handshake against a self-signed certificate made
// here with the openssl command, an echo over it, and a client that does
// not speak TLS being dropped.
#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string>

#include "util/AcceptFd.h"
#include "util/EventLoopThread.h"
#include "util/InThreadActor.h"
#include "util/MainThread.h"
#include "util/SSLContext.h"
#include "util/SSLRawDataFd.h"
#include "util/TcpFdFactory.h"

namespace {

class EchoConn : public SSLRawDataFd {
 public:
  explicit EchoConn(SSLContext* ctx) : SSLRawDataFd(ctx, 4096, &_echo) { _echo.c = this; }

 private:
  struct Echo : public TcpRawDataFdCallback {
    EchoConn* c = nullptr;
    std::string out;
    long rawTcpDataAvailable(PollableDescriptor, char const* data, unsigned long size) override {
      out.assign(data, size);
      c->nonblockingWrite(out.data(), out.size());
      return static_cast<long>(size);
    }
  } _echo;
};

class Factory : public TcpFdFactory {
 public:
  explicit Factory(SSLContext* ctx) : _ctx(ctx) {}
  TcpPolledFd* create(void*, PollableDescriptor, SocketAddress const&) override { return new EchoConn(_ctx); }
  void fdClosing(void*, PollableDescriptor, TcpPolledFd*) override { ++closed; }
  std::atomic<int> closed{0};

 private:
  SSLContext* _ctx;
};

struct FnActor : public InThreadActor {
  explicit FnActor(std::function<void()> f) : f(std::move(f)) {}
  void run() override { f(); }
  std::function<void()> f;
};

class SslTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (MainThread::instance() == nullptr) new MainThread();
    char tmpl[] = "/tmp/velmor_ssl_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = tmpl;
    std::string cmd = "openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=localhost -days 2 -keyout " + dir +
                      "/key.pem -out " + dir + "/cert.pem >/dev/null 2>&1";
    if (system(cmd.c_str()) != 0) GTEST_SKIP() << "the openssl command is not available";
    Str err;
    ASSERT_TRUE(ctx.loadServer(Str(dir + "/cert.pem"), Str(dir + "/key.pem"), err)) << err;
    listenFd = PollableDescriptor::socketFor(SocketAddress::ipv4Loopback(0));
    ASSERT_TRUE(listenFd.bind(SocketAddress::ipv4Loopback(0)));
    ASSERT_TRUE(listenFd.listen());
    SocketAddress a;
    listenFd.localAddress(a);
    port = a.port();
    loop = std::make_unique<EventLoopThread>("ssl-test");
    loop->start();
    factory = std::make_unique<Factory>(&ctx);
    acceptor = new AcceptFd(nullptr, loop.get(), factory.get());
    onLoop([this] { acceptor->start(listenFd); });
  }
  void TearDown() override {
    if (loop) {
      onLoop([this] { delete acceptor; });
      loop->stop();
    }
    system(("rm -rf " + dir).c_str());
  }
  void onLoop(std::function<void()> f) {
    FnActor a(std::move(f));
    loop->internal_runInThread(&a, true);
  }
  PollableDescriptor connect() {
    PollableDescriptor c = PollableDescriptor::socketFor(SocketAddress::ipv4Loopback(port));
    EXPECT_EQ(c.connect(SocketAddress::ipv4Loopback(port)), 0);
    return c;
  }

  std::string dir;
  SSLContext ctx;
  PollableDescriptor listenFd;
  uint16_t port = 0;
  std::unique_ptr<EventLoopThread> loop;
  std::unique_ptr<Factory> factory;
  AcceptFd* acceptor = nullptr;
};

TEST_F(SslTest, HandshakeAndEcho) {
  PollableDescriptor c = connect();
  SSL_CTX* cctx = SSL_CTX_new(TLS_client_method());
  SSL* ssl = SSL_new(cctx);
  SSL_set_fd(ssl, c.get());
  ASSERT_EQ(SSL_connect(ssl), 1);
  const std::string msg(10000, 'x');  // more than one TLS record
  ASSERT_EQ(SSL_write(ssl, msg.data(), static_cast<int>(msg.size())), static_cast<int>(msg.size()));
  std::string got;
  char buf[4096];
  while (got.size() < msg.size()) {
    int n = SSL_read(ssl, buf, sizeof buf);
    if (n <= 0) break;
    got.append(buf, static_cast<size_t>(n));
  }
  EXPECT_EQ(got, msg);
  SSL_shutdown(ssl);
  SSL_free(ssl);
  SSL_CTX_free(cctx);
  c.close();
  for (int i = 0; i < 1000 && factory->closed.load() != 1; ++i) usleep(5000);
  EXPECT_EQ(factory->closed.load(), 1);
}

TEST_F(SslTest, PlainTextClientIsDropped) {
  PollableDescriptor c = connect();
  const char junk[] = "GET / HTTP/1.0\r\n\r\n";
  ASSERT_TRUE(c.writeBlocking(junk, sizeof junk - 1));
  char buf[256];
  ssize_t n;
  do {
    n = c.readWithTimeout(buf, sizeof buf, 10000);
  } while (n > 0);  // a TLS alert may come first
  // Closed: end of file, or a reset since our bytes were left unread.
  EXPECT_TRUE(n == 0 || errno == ECONNRESET) << strerror(errno);
  c.close();
  for (int i = 0; i < 1000 && factory->closed.load() != 1; ++i) usleep(5000);
  EXPECT_EQ(factory->closed.load(), 1);
}

}  // namespace
