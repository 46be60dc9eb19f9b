// The server over loopback: curl and raw sockets against it; requests that
// are malformed, too big, too slow or cut short; many clients at once; a
// full house of handler threads; SSL with a self-signed certificate (and
// what happens with a bad one); the bind address from the environment;
// passwords kept out of the log.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <thread>
#include <vector>

#include "HttpTestRig.h"

using namespace httptest;

namespace {

std::string statusLine(const std::string& reply) { return reply.substr(0, reply.find("\r\n")); }

std::string bodyOf(const std::string& reply) {
  size_t p = reply.find("\r\n\r\n");
  return p == std::string::npos ? std::string() : reply.substr(p + 4);
}

TEST(HTTPServerTest, CurlGetPostAndHead) {
  Rig rig;
  ASSERT_TRUE(rig.start());
  const std::string base = "http://127.0.0.1:" + std::to_string(rig.port());
  EXPECT_EQ(run("curl -s --max-time 10 '" + base + "/echo/a%20b?x=1&x=2&x=0'"),
            "GET /echo/a b\nget:x=1\nget:x=2\nget:x=0\nbody=");
  EXPECT_EQ(run("curl -s --max-time 10 --data-binary 'k=v&k=w%26' " + base + "/form"),
            "POST /form\npost:k=v\npost:k=w&\nbody=k=v&k=w%26");

  // A binary body bigger than one read, NUL bytes included, comes back whole.
  ScratchDir dir;
  std::string blob;
  for (int i = 0; i < 300000; ++i) blob += static_cast<char>((i * 7) % 256);
  std::ofstream(dir.path + "/blob", std::ios::binary) << blob;
  std::string out = run("curl -s --max-time 10 -H 'Content-Type: application/octet-stream' --data-binary @" +
                        dir.path + "/blob " + base + "/up");
  EXPECT_EQ(out.size(), std::string("POST /up\nbody=").size() + blob.size());
  EXPECT_TRUE(out == "POST /up\nbody=" + blob);

  std::string head = run("curl -s -I --max-time 10 " + base + "/h");
  EXPECT_TRUE(contains(head, "HTTP/1.1 200 OK\r\n")) << head;
  EXPECT_TRUE(contains(head, "Content-Length: 13\r\n")) << head;  // "HEAD /h\n" + "body="
  EXPECT_TRUE(contains(head, "Connection: close\r\n")) << head;
}

TEST(HTTPServerTest, RawRequestTable) {
  Rig rig;
  ASSERT_TRUE(rig.start());
  struct Case {
    std::string request;
    const char* status;
    const char* bodyHas;
  };
  const Case cases[] = {
      {"GET /ok HTTP/1.1\r\nHost: h\r\n\r\n", "HTTP/1.1 200 OK", "GET /ok\n"},
      {"GET /lf HTTP/1.0\n\n", "HTTP/1.1 200 OK", "GET /lf\n"},
      {"POST /b HTTP/1.1\r\nContent-Length: 3\r\n\r\nxyz", "HTTP/1.1 200 OK", "body=xyz"},
      {std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03\r\n\r\n", 15), "HTTP/1.1 400 Bad Request", ""},
      {"garbage\r\n\r\n", "HTTP/1.1 400 Bad Request", "<msg type=\"ERROR\">Bad Request</msg>"},
      {"BREW /pot HTTP/1.1\r\n\r\n", "HTTP/1.1 405 Method Not Allowed", ""},
      {"G(T / HTTP/1.1\r\n\r\n", "HTTP/1.1 400 Bad Request", ""},
      {"GET / HTTP/1.1\r\nContent-Length: x\r\n\r\n", "HTTP/1.1 400 Bad Request", ""},
      {"GET / HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\nab", "HTTP/1.1 400 Bad Request", ""},
      {"POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", "HTTP/1.1 411 Length Required", ""},
      {"GET /x HTTP/1.1\r\nbad header\r\n\r\n", "HTTP/1.1 400 Bad Request", ""},
      {"GET /x HTTP/9\r\n\r\n", "HTTP/1.1 400 Bad Request", ""},
      {"GET /throw HTTP/1.1\r\n\r\n", "HTTP/1.1 500 Internal Server Error", ""},
      {"GET /urlbase HTTP/1.1\r\nHost: example:1234\r\n\r\n", "HTTP/1.1 200 OK", "http://example:1234"},
  };
  for (const Case& c : cases) {
    std::string reply = exchange(rig.port(), c.request);
    EXPECT_EQ(statusLine(reply), c.status) << c.request;
    EXPECT_TRUE(contains(bodyOf(reply), c.bodyHas)) << c.request << "\n" << reply;
  }
  // HEAD: the header only, with the length a GET would have.
  std::string head = exchange(rig.port(), "HEAD /hd HTTP/1.1\r\n\r\n");
  EXPECT_EQ(statusLine(head), "HTTP/1.1 200 OK");
  EXPECT_TRUE(contains(head, "Content-Length: 14\r\n")) << head;
  EXPECT_EQ(bodyOf(head), "");
  // The bad requests never reached the handler: 4 good ones, HEAD and /throw.
  EXPECT_EQ(rig.handler.calls.load(), 6);
}

TEST(HTTPServerTest, ShortBodyWaitsAndClosedConnectionDropsIt) {
  Rig rig;
  ASSERT_TRUE(rig.start());
  const std::string header = "POST /p HTTP/1.1\r\nContent-Length: 10\r\n\r\n";

  int fd = connectLoopback(rig.port());
  ASSERT_GE(fd, 0);
  std::string first = header + "12345";
  ASSERT_GT(::send(fd, first.data(), first.size(), MSG_NOSIGNAL), 0);
  bool eof = false;
  EXPECT_EQ(readAll(fd, 300, &eof), "");  // still waiting for the body
  EXPECT_FALSE(eof);
  ::shutdown(fd, SHUT_WR);
  EXPECT_EQ(readAll(fd, 10000, &eof), "");
  EXPECT_TRUE(eof);
  ::close(fd);
  EXPECT_EQ(rig.handler.calls.load(), 0);

  // The same body in two parts is served once it is whole.
  fd = connectLoopback(rig.port());
  ASSERT_GE(fd, 0);
  ASSERT_GT(::send(fd, first.data(), first.size(), MSG_NOSIGNAL), 0);
  EXPECT_EQ(readAll(fd, 100), "");
  ASSERT_GT(::send(fd, "67890", 5, MSG_NOSIGNAL), 0);
  std::string reply = readAll(fd, 10000);
  ::close(fd);
  EXPECT_TRUE(contains(reply, "body=1234567890")) << reply;
}

TEST(HTTPServerTest, ExpectContinueGetsLeaveToSendTheBody) {
  Rig rig;
  ASSERT_TRUE(rig.start());
  int fd = connectLoopback(rig.port());
  ASSERT_GE(fd, 0);
  std::string header = "POST /e HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 4\r\n\r\n";
  ASSERT_GT(::send(fd, header.data(), header.size(), MSG_NOSIGNAL), 0);
  std::string got;
  for (int i = 0; i < 100 && got.size() < 25; ++i) got += readAll(fd, 100);
  EXPECT_EQ(got, "HTTP/1.1 100 Continue\r\n\r\n");
  ASSERT_GT(::send(fd, "data", 4, MSG_NOSIGNAL), 0);
  std::string reply = readAll(fd, 10000);
  ::close(fd);
  EXPECT_EQ(statusLine(reply), "HTTP/1.1 200 OK");
  EXPECT_TRUE(contains(reply, "body=data")) << reply;
}

TEST(HTTPServerTest, LimitsOnHeaderAndBody) {
  Rig rig;
  HTTPServerConfig cfg;
  cfg.maxHeaderBytes = 1024;
  cfg.maxContentLength = 100;
  ASSERT_TRUE(rig.start(cfg));

  // A header that never ends, and one that ends past the limit.
  std::string endless = "GET / HTTP/1.1\r\nX-Big: " + std::string(4000, 'a');
  EXPECT_EQ(statusLine(exchange(rig.port(), endless)), "HTTP/1.1 431 Request Header Fields Too Large");
  std::string big = "GET / HTTP/1.1\r\nX-Big: " + std::string(1100, 'a') + "\r\n\r\n";
  EXPECT_EQ(statusLine(exchange(rig.port(), big)), "HTTP/1.1 431 Request Header Fields Too Large");
  // The next client is served.
  EXPECT_EQ(statusLine(exchange(rig.port(), "GET /next HTTP/1.1\r\n\r\n")), "HTTP/1.1 200 OK");

  EXPECT_EQ(statusLine(exchange(rig.port(), "POST / HTTP/1.1\r\nContent-Length: 101\r\n\r\n")),
            "HTTP/1.1 413 Payload Too Large");
  std::string atLimit = "POST /l HTTP/1.1\r\nContent-Length: 100\r\n\r\n" + std::string(100, 'b');
  std::string reply = exchange(rig.port(), atLimit);
  EXPECT_EQ(statusLine(reply), "HTTP/1.1 200 OK");
  EXPECT_TRUE(contains(reply, "body=" + std::string(100, 'b')));
}

TEST(HTTPServerTest, SlowClientIsDropped) {
  Rig rig;
  HTTPServerConfig cfg;
  cfg.requestTimeout = 1;
  ASSERT_TRUE(rig.start(cfg));
  int fd = connectLoopback(rig.port());
  ASSERT_GE(fd, 0);
  ASSERT_GT(::send(fd, "GET / HTTP/1.1\r\nHost: x\r\n", 25, MSG_NOSIGNAL), 0);
  bool eof = false;
  EXPECT_EQ(readAll(fd, 15000, &eof), "");
  EXPECT_TRUE(eof);
  ::close(fd);
  EXPECT_EQ(rig.handler.calls.load(), 0);
  EXPECT_EQ(statusLine(exchange(rig.port(), "GET / HTTP/1.1\r\n\r\n")), "HTTP/1.1 200 OK");
}

TEST(HTTPServerTest, TwoHundredClientsAtOnceAreAllAnswered) {
  Rig rig;
  ASSERT_TRUE(rig.start());
  constexpr int kClients = 200;
  std::vector<std::string> replies(kClients);
  std::vector<std::thread> clients;
  for (int i = 0; i < kClients; ++i)
    clients.emplace_back([&, i] {
      replies[i] = exchange(rig.port(), "GET /n?i=" + std::to_string(i) + " HTTP/1.1\r\n\r\n");
    });
  for (std::thread& t : clients) t.join();
  int good = 0;
  for (int i = 0; i < kClients; ++i)
    if (contains(replies[i], "get:i=" + std::to_string(i) + "\n")) ++good;
  EXPECT_EQ(good, kClients);
}

TEST(HTTPServerTest, FullHouseOfThreadsGetsServerBusy) {
  Rig rig;
  HTTPServerConfig cfg;
  cfg.maxThreads = 1;
  ASSERT_TRUE(rig.start(cfg));
  std::string blocked;
  std::thread first([&] { blocked = exchange(rig.port(), "GET /block HTTP/1.1\r\n\r\n"); });
  ASSERT_TRUE(rig.handler.waitBlocked(1));
  std::string busy = exchange(rig.port(), "GET /other HTTP/1.1\r\n\r\n");
  rig.handler.release();
  first.join();
  EXPECT_EQ(statusLine(busy), "HTTP/1.1 503 Service Unavailable");
  EXPECT_TRUE(contains(busy, "Server busy")) << busy;
  EXPECT_EQ(statusLine(blocked), "HTTP/1.1 200 OK");
}

TEST(HTTPServerTest, PasswordsStayOutOfTheLog) {
  Rig rig;
  ASSERT_TRUE(rig.start());
  testing::internal::CaptureStderr();
  std::string r1 = exchange(rig.port(),
                            "POST /auth/login HTTP/1.1\r\nContent-Type: application/x-www-form-urlencoded\r\n"
                            "Content-Length: 31\r\n\r\nusername=admin&password=hunter2");
  std::string r2 = exchange(rig.port(), "GET /plain?x=visible HTTP/1.1\r\n\r\n");
  std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(statusLine(r1), "HTTP/1.1 200 OK");
  EXPECT_EQ(statusLine(r2), "HTTP/1.1 200 OK");
  EXPECT_TRUE(contains(log, "request appears to include a password - will not log.")) << log;
  EXPECT_FALSE(contains(log, "hunter2")) << log;
  EXPECT_TRUE(contains(log, "HEADER = GET /plain?x=visible HTTP/1.1")) << log;
  EXPECT_TRUE(contains(log, "BODY length=31")) << log;
  EXPECT_TRUE(contains(log, "METHOD = POST")) << log;
}

TEST(HTTPServerTest, SSLWithSelfSignedCertificate) {
  ScratchDir dir;
  if (!dir.makeCertificate("s3cret")) GTEST_SKIP() << "the openssl command failed";
  Rig rig;
  HTTPServerConfig cfg;
  cfg.ports = {{0, false}, {0, true}};
  cfg.certFile = dir.path + "/cert.pem";
  cfg.keyFile = dir.path + "/key.pem";
  cfg.password = "s3cret";
  cfg.cipherList = "HIGH:!aNULL:!MD5";
  ASSERT_TRUE(rig.start(cfg));
  ASSERT_TRUE(rig.server->sslEnabled());
  EXPECT_FALSE(rig.server->portIsSSL(0));
  EXPECT_TRUE(rig.server->portIsSSL(1));
  const std::string sslPort = std::to_string(rig.port(1));

  EXPECT_EQ(run("curl -s -k --max-time 10 'https://127.0.0.1:" + sslPort + "/x?a=1'"), "GET /x ssl\nget:a=1\nbody=");
  EXPECT_EQ(run("curl -s -k --max-time 10 --data-binary 'p=q' https://127.0.0.1:" + sslPort + "/y"),
            "POST /y ssl\npost:p=q\nbody=p=q");
  EXPECT_EQ(run("curl -s --max-time 10 http://127.0.0.1:" + std::to_string(rig.port(0)) + "/plain"),
            "GET /plain\nbody=");
  EXPECT_EQ(run("curl -s -k --max-time 10 https://127.0.0.1:" + sslPort + "/urlbase"), "https://127.0.0.1:" + sslPort);
  // Without -k curl refuses the self-signed certificate.
  int st = 0;
  run("curl -s --max-time 10 https://127.0.0.1:" + sslPort + "/x", &st);
  EXPECT_NE(st, 0);

  std::string sc = run("printf 'GET /sc HTTP/1.0\\r\\n\\r\\n' | timeout 10 openssl s_client -connect 127.0.0.1:" +
                       sslPort + " -quiet 2>/dev/null");
  EXPECT_TRUE(contains(sc, "HTTP/1.1 200 OK\r\n")) << sc;
  EXPECT_TRUE(contains(sc, "GET /sc ssl\n")) << sc;

  // Plain HTTP to the SSL port costs only that connection.
  exchange(rig.port(1), "GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(run("curl -s -k --max-time 10 https://127.0.0.1:" + sslPort + "/after"), "GET /after ssl\nbody=");
}

TEST(HTTPServerTest, BadCertificateOrPasswordServesPlainHTTP) {
  ScratchDir dir;
  if (!dir.makeCertificate("right")) GTEST_SKIP() << "the openssl command failed";
  std::ofstream(dir.path + "/garbage.pem") << "-----BEGIN CERTIFICATE-----\nnot base64\n";
  struct Case {
    std::string cert, key, password;
  };
  const Case cases[] = {
      {dir.path + "/cert.pem", dir.path + "/key.pem", "wrong"},
      {dir.path + "/cert.pem", dir.path + "/key.pem", ""},
      {dir.path + "/garbage.pem", dir.path + "/key.pem", "right"},
      {dir.path + "/missing.pem", "", ""},
  };
  for (const Case& c : cases) {
    Rig rig;
    HTTPServerConfig cfg;
    cfg.ports = {{0, true}};
    cfg.certFile = c.cert;
    cfg.keyFile = c.key;
    cfg.password = c.password;
    testing::internal::CaptureStderr();
    bool started = rig.start(cfg);
    std::string log = testing::internal::GetCapturedStderr();
    ASSERT_TRUE(started) << c.cert;
    EXPECT_FALSE(rig.server->sslEnabled());
    EXPECT_TRUE(contains(log, "SSL context could not be created - error in cert or password is wrong")) << log;
    EXPECT_TRUE(contains(log, "SSL will not be enabled")) << log;
    EXPECT_FALSE(contains(log, "right")) << log;
    EXPECT_EQ(run("curl -s --max-time 10 http://127.0.0.1:" + std::to_string(rig.port()) + "/p"), "GET /p\nbody=");
  }
}

TEST(HTTPServerTest, StartFailures) {
  ensureMainThread();
  {
    Rig rig;
    setenv("VELMOR_BINDIP", "no-such-host.invalid", 1);
    testing::internal::CaptureStderr();
    bool ok = rig.start();
    bool accepting = rig.server->go(&rig.loop);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_FALSE(ok);
    EXPECT_FALSE(accepting);
    EXPECT_TRUE(contains(log, "Couldn't resolve name error - ")) << log;
    EXPECT_TRUE(contains(log, "Possible invalid VELMOR_BINDIP environment variable")) << log;
    EXPECT_TRUE(contains(log, "Cannot set up accepts without binding ports first")) << log;
  }
  {
    Rig rig;  // sets VELMOR_BINDIP back to 127.0.0.1
    int holder = ::socket(AF_INET, SOCK_STREAM, 0);
    SocketAddress a = SocketAddress::ipv4Loopback(0);
    ASSERT_EQ(::bind(holder, a.get(), a.length()), 0);
    ASSERT_EQ(::listen(holder, 1), 0);
    PollableDescriptor(holder).localAddress(a);
    HTTPServerConfig cfg;
    cfg.ports = {{0, false}, {a.port(), false}};
    testing::internal::CaptureStderr();
    bool ok = rig.start(cfg);
    std::string log = testing::internal::GetCapturedStderr();
    ::close(holder);
    EXPECT_FALSE(ok);
    EXPECT_TRUE(contains(log, "Could not bind to port " + std::to_string(a.port()))) << log;
    EXPECT_EQ(rig.server->boundPort(0), 0);
  }
}

}  // namespace
