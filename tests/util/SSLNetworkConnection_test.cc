// TLS sessions driven by the timed PollableDescriptor calls: a client and a
// server over a socket pair, a transfer larger than the socket buffers in
// both directions, a read that times out, a peer that does not speak TLS.
// The certificate is made here with the openssl command (skipped without).
#include "util/SSLNetworkConnection.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>

#include "util/SSLContext.h"

namespace {

class SSLNetworkConnectionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/velmor_sslnc_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = tmpl;
    std::string cmd = "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj /CN=localhost "
                      "-days 2 -keyout " + dir + "/key.pem -out " + dir + "/cert.pem >/dev/null 2>&1";
    if (system(cmd.c_str()) != 0) GTEST_SKIP() << "the openssl command is not available";
    Str err;
    ASSERT_TRUE(server.loadServer(Str(dir + "/cert.pem"), Str(dir + "/key.pem"), err)) << err;
    ASSERT_TRUE(client.loadClient(err)) << err;
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    a = PollableDescriptor(fds[0]);
    b = PollableDescriptor(fds[1]);
    ASSERT_TRUE(a.setNonblock());
    ASSERT_TRUE(b.setNonblock());
  }
  void TearDown() override {
    a.close();
    b.close();
    if (!dir.empty() && system(("rm -rf " + dir).c_str()) != 0) ADD_FAILURE() << "cleanup";
  }

  std::string dir;
  SSLContext server, client;
  int fds[2] = {-1, -1};
  PollableDescriptor a, b;
};

// Reads exactly n bytes, or fewer when the stream ends or fails.
std::string readN(PollableDescriptor fd, SSLNetworkConnection* c, size_t n) {
  std::string got;
  char buf[8192];
  while (got.size() < n) {
    ssize_t r = fd.readWithTimeout(c, buf, std::min(sizeof buf, n - got.size()), 10000);
    if (r <= 0) break;
    got.append(buf, static_cast<size_t>(r));
  }
  return got;
}

TEST_F(SSLNetworkConnectionTest, EchoLargerThanTheSocketBuffers) {
  const std::string payload(1 << 20, 'q');
  std::thread echo([&] {
    SSLNetworkConnection s;
    Str err;
    ASSERT_TRUE(s.setup(&server, b, false, err)) << err;
    ASSERT_TRUE(s.handshake(10000, err)) << err;
    std::string got = readN(b, &s, payload.size());
    EXPECT_TRUE(b.writeBlocking(&s, got.data(), got.size()));
    s.shutdown();
  });
  SSLNetworkConnection c;
  Str err;
  ASSERT_TRUE(c.setup(&client, a, true, err)) << err;
  // Connected already: only the handshake is left.
  ASSERT_EQ(a.select_for_connect(&c, 10000), 0);
  EXPECT_TRUE(c.handshakeDone());
  // Writing all before reading needs the peer to read while we write.
  ASSERT_TRUE(a.writeBlocking(&c, payload.data(), payload.size()));
  EXPECT_EQ(readN(a, &c, payload.size()), payload);
  // The peer's close alert reads as end of file.
  char x;
  EXPECT_EQ(a.readWithTimeout(&c, &x, 1, 10000), 0);
  echo.join();
}

// Bytes already decrypted make select_for ready without the descriptor;
// a read with nothing coming times out with ETIMEDOUT.
TEST_F(SSLNetworkConnectionTest, PendingBytesAndReadTimeOut) {
  std::thread peer([&] {
    SSLNetworkConnection s;
    Str err;
    ASSERT_TRUE(s.setup(&server, b, false, err)) << err;
    ASSERT_TRUE(s.handshake(10000, err)) << err;
    EXPECT_TRUE(b.writeBlocking(&s, "0123456789", 10));
    char buf[4];
    EXPECT_EQ(b.readWithTimeout(&s, buf, 4, 10000), 4);  // "done": the client has checked
  });
  SSLNetworkConnection c;
  Str err;
  ASSERT_TRUE(c.setup(&client, a, true, err)) << err;
  ASSERT_TRUE(c.handshake(10000, err)) << err;
  char buf[4];
  ASSERT_EQ(readN(a, &c, 4), "0123");  // one record of 10: 6 stay decrypted
  EXPECT_TRUE(c.pending());
  EXPECT_EQ(a.select_for(&c, false, 0), 1);
  EXPECT_EQ(readN(a, &c, 6), "456789");
  EXPECT_FALSE(c.pending());
  errno = 0;
  EXPECT_EQ(a.readWithTimeout(&c, buf, sizeof buf, 50), -1);
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_TRUE(a.writeBlocking(&c, "done", 4));
  peer.join();
}

// A peer that answers the hello with plain text fails the handshake with
// a message; one that says nothing makes it time out.
TEST_F(SSLNetworkConnectionTest, HandshakeFailures) {
  {
    std::thread peer([&] {
      char buf[512];
      b.readWithTimeout(buf, sizeof buf, 10000);
      b.writeBlocking("HTTP/1.0 400 Bad Request\r\n\r\n", 28);
    });
    SSLNetworkConnection c;
    Str err;
    ASSERT_TRUE(c.setup(&client, a, true, err)) << err;
    EXPECT_FALSE(c.handshake(10000, err));
    EXPECT_NE(err.find("TLS handshake failed"), std::string::npos) << err;
    peer.join();
  }
  int p[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, p), 0);
  PollableDescriptor silent(p[0]);
  silent.setNonblock();
  SSLNetworkConnection c;
  Str err;
  ASSERT_TRUE(c.setup(&client, silent, true, err)) << err;
  EXPECT_FALSE(c.handshake(50, err));
  EXPECT_EQ(err, "TLS handshake timed out");
  close(p[0]);
  close(p[1]);
}

}  // namespace
