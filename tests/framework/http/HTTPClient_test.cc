// The client side: URLs, building requests and parsing replies (lengths,
// chunks, replies that run to the close, truncation), HTTPClient and
// HTTPStream against the server over loopback (plain and TLS, with and
// without certificate checks), and a stream handler that writes a chunked
// reply piece by piece.
#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "HttpTestRig.h"
#include "framework/http/HTTPClient.h"
#include "framework/http/HTTPRequestReply.h"
#include "framework/http/HTTPStream.h"
#include "framework/http/MHTTPStreamHandler.h"
#include "util/Exceptions.h"

using namespace httptest;

namespace {

HTTPClient::Timeouts shortTimeouts() {
  HTTPClient::Timeouts t;
  t.connectMs = 5000;
  t.readMs = 10000;
  t.writeMs = 10000;
  return t;
}

TEST(HTTPClientTest, UrlTable) {
  struct Case {
    const char* url;
    bool ok;
    const char* scheme;
    const char* host;
    int port;
    const char* path;
    const char* hostHeader;
  };
  const Case cases[] = {
      {"http://h/", true, "http", "h", 80, "/", "h"},
      {"HTTPS://peer:8089/services/x?a=b", true, "https", "peer", 8089, "/services/x?a=b", "peer:8089"},
      {"https://peer", true, "https", "peer", 443, "/", "peer"},
      {"http://u:p@h:81?q", true, "http", "h", 81, "/?q", "h:81"},
      {"http://[::1]:8000/x", true, "http", "::1", 8000, "/x", "[::1]:8000"},
      {"ftp://h/", false, "", "", 0, "", ""},
      {"h:80/x", false, "", "", 0, "", ""},
      {"http://:80/", false, "", "", 0, "", ""},
      {"http://h:0/", false, "", "", 0, "", ""},
      {"http://h:x/", false, "", "", 0, "", ""},
      {"http://[::1/", false, "", "", 0, "", ""},
  };
  for (const Case& c : cases) {
    HTTPClient::URL u;
    Str err;
    EXPECT_EQ(u.parse(c.url, err), c.ok) << c.url << " " << err;
    if (!c.ok) continue;
    EXPECT_EQ(u.scheme, c.scheme) << c.url;
    EXPECT_EQ(u.host, c.host) << c.url;
    EXPECT_EQ(u.port, c.port) << c.url;
    EXPECT_EQ(u.pathAndQuery, c.path) << c.url;
    EXPECT_EQ(u.hostHeader(), c.hostHeader) << c.url;
  }
}

TEST(HTTPClientTest, BuildRequestBytes) {
  HTTPRequestReply r;
  r.putRequest("POST", "/a?b=c", "peer:8089");
  r.putHeader("Authorization", "Velmor abc");
  r.putHTTPBody("x=1", "application/x-www-form-urlencoded");
  EXPECT_EQ(r.getFullRequestReply(),
            "POST /a?b=c HTTP/1.1\r\nHost: peer:8089\r\nAuthorization: Velmor abc\r\n"
            "Content-Type: application/x-www-form-urlencoded\r\nContent-Length: 3\r\nConnection: close\r\n\r\nx=1");
  HTTPRequestReply g;
  g.putRequest("GET", "", "h");
  EXPECT_EQ(g.getFullRequestReply(), "GET / HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n");
}

TEST(HTTPClientTest, ParseTable) {
  using P = HTTPRequestReply::Parse;
  struct Case {
    std::string data;
    bool eof;
    P result;
    int status;
    std::string body;
  };
  const std::string h200 = "HTTP/1.1 200 OK\r\n";
  const Case cases[] = {
      {h200 + "Content-Length: 5\r\n\r\nhello", false, P::kComplete, 200, "hello"},
      {h200 + "Content-Length: 5\r\n\r\nhel", false, P::kIncomplete, 0, ""},
      {h200 + "Content-Length: 5\r\n\r\nhel", true, P::kMalformed, 0, ""},
      {h200 + "Content-Length: five\r\n\r\n", false, P::kMalformed, 0, ""},
      {h200 + "Content-Length: 2\r\n\r\nabEXTRA", false, P::kComplete, 200, "ab"},
      {h200 + "Transfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n1;ext=1\r\n!\r\n0\r\nTrailer: t\r\n\r\n", false,
       P::kComplete, 200, "hello!"},
      {h200 + "Transfer-Encoding: Chunked\n\na\nline1\nline\n0\n\n", false, P::kComplete, 200, "line1\nline"},
      {h200 + "Transfer-Encoding: chunked\r\n\r\n5\r\nhel", false, P::kIncomplete, 0, ""},
      {h200 + "Transfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n", false, P::kIncomplete, 0, ""},
      {h200 + "Transfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n", true, P::kMalformed, 0, ""},
      {h200 + "Transfer-Encoding: chunked\r\n\r\nzz\r\n", false, P::kMalformed, 0, ""},
      {h200 + "Transfer-Encoding: chunked\r\n\r\n2\r\nabc\r\n0\r\n\r\n", false, P::kMalformed, 0, ""},
      {h200 + "\r\nto the close", false, P::kIncomplete, 0, ""},
      {h200 + "\r\nto the close", true, P::kComplete, 200, "to the close"},
      {"HTTP/1.1 204 No Content\r\n\r\n", false, P::kComplete, 204, ""},
      {"HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n", false, P::kComplete, 404, ""},
      {"HTTP/1.1 200 OK\r\nContent-", true, P::kMalformed, 0, ""},
      {"HTTP/1.1 2x0 OK\r\n\r\n", false, P::kMalformed, 0, ""},
      {"GET / HTTP/1.1\r\nHost: h\r\n\r\n", false, P::kComplete, 0, ""},
  };
  for (const Case& c : cases) {
    HTTPRequestReply r;
    Str err;
    P got = r.parseFull(c.data, c.eof, err);
    EXPECT_EQ(got, c.result) << c.data;
    if (got == P::kMalformed) {
      EXPECT_FALSE(err.empty()) << c.data;
    }
    if (c.result != P::kComplete) continue;
    EXPECT_EQ(r.status(), c.status) << c.data;
    EXPECT_EQ(r.body(), c.body) << c.data;
  }
  HTTPRequestReply r;
  Str err;
  ASSERT_EQ(r.parseFull("HTTP/1.0 301 Moved Permanently\r\nLocation: /x\r\nX-A: 1\r\nx-a: 2\r\n\r\n", true, err),
            P::kComplete);
  EXPECT_EQ(r.version(), "HTTP/1.0");
  EXPECT_EQ(r.reason(), "Moved Permanently");
  ASSERT_NE(r.header("LOCATION"), nullptr);
  EXPECT_EQ(*r.header("location"), "/x");
  EXPECT_EQ(*r.header("x-a"), "1, 2");
}

// Writes a chunked reply from a thread of its own, in pieces: the body is
// "line1\nline2\nlast", then the zero chunk unless `truncate`.
class ChunkedStreamHandler : public MHTTPStreamHandler {
 public:
  ~ChunkedStreamHandler() override { joinAll(); }
  void joinAll() {
    std::lock_guard<std::mutex> l(_m);
    for (std::thread& t : _threads)
      if (t.joinable()) t.join();
  }
  void handleStream(HTTPServer* server, TcpPolledFd* fd, const FdConnectionData& conn) override {
    const bool truncate = conn._pRequest->path() == "/stream/cut";
    std::lock_guard<std::mutex> l(_m);
    _threads.emplace_back([server, fd, truncate] {
      const char* parts[] = {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nConnection: close\r\n\r\n",
                             "8\r\nline1\nli\r\n", "4\r\nne2\n\r\n", "4\r\nlast\r\n", "0\r\n\r\n"};
      const int n = truncate ? 3 : 5;
      for (int i = 0; i < n; ++i) server->writeToStream(fd, parts[i], std::strlen(parts[i]));
      server->releaseStream(fd);
    });
  }

 private:
  std::mutex _m;
  std::vector<std::thread> _threads;
};

TEST(HTTPClientTest, ClientAndStreamAgainstTheServer) {
  Rig rig;
  ASSERT_TRUE(rig.start());
  ChunkedStreamHandler streams;
  rig.server->registerStreamHandler("/stream/", &streams);
  const std::string base = "http://127.0.0.1:" + std::to_string(rig.port());

  HTTPClient c;
  HTTPRequestReply reply;
  Str err;
  ASSERT_TRUE(c.executeHTTPGet(base + "/g?a=1&a=2", shortTimeouts(), reply, err)) << err;
  EXPECT_EQ(reply.status(), 200);
  EXPECT_EQ(reply.body(), "GET /g\nget:a=1\nget:a=2\nbody=");
  ASSERT_TRUE(c.executeHTTPPost(base + "/p", "k=v&k=w", shortTimeouts(), reply, err)) << err;
  EXPECT_EQ(reply.body(), "POST /p\npost:k=v\npost:k=w\nbody=k=v&k=w");
  std::string big(500000, 'z');
  ASSERT_TRUE(c.execute("PUT", base + "/big", big, "application/octet-stream", shortTimeouts(), reply, err)) << err;
  EXPECT_TRUE(reply.body() == "PUT /big\nbody=" + big);
  ASSERT_TRUE(c.execute("BREW", base + "/pot", "", "", shortTimeouts(), reply, err)) << err;
  EXPECT_EQ(reply.status(), 405);

  // The chunked stream, line by line, with a piece given back.
  HTTPStream s(base + "/stream/lines", shortTimeouts(), "");
  Str version, reason, line;
  int status = 0;
  std::map<Str, Str> headers;
  s.readHeaders(version, status, reason, headers);
  EXPECT_EQ(status, 200);
  EXPECT_EQ(headers["transfer-encoding"], "chunked");
  ASSERT_TRUE(s.readLine(line));
  EXPECT_EQ(line, "line1");
  s.unread("again\n");
  ASSERT_TRUE(s.readLine(line));
  EXPECT_EQ(line, "again");
  ASSERT_TRUE(s.readLine(line));
  EXPECT_EQ(line, "line2");
  ASSERT_TRUE(s.readLine(line));
  EXPECT_EQ(line, "last");
  EXPECT_FALSE(s.readLine(line));
  EXPECT_FALSE(s.read(line));

  // A Content-Length reply through read(), and a POST.
  HTTPStream post(base + "/sp", shortTimeouts(), "q=1");
  Str all, piece;
  while (post.read(piece)) all += piece;
  EXPECT_EQ(all, "POST /sp\npost:q=1\nbody=q=1");

  // A stream cut inside its chunks, and a server that is not there.
  HTTPStream cut(base + "/stream/cut", shortTimeouts(), "");
  EXPECT_THROW(
      {
        while (cut.readLine(line)) {
        }
      },
      HTTPStreamException);
  int closedPort;
  {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    SocketAddress a = SocketAddress::ipv4Loopback(0);
    ::bind(fd, a.get(), a.length());
    PollableDescriptor(fd).localAddress(a);
    closedPort = a.port();
    ::close(fd);
  }
  EXPECT_THROW(HTTPStream("http://127.0.0.1:" + std::to_string(closedPort) + "/", shortTimeouts(), ""),
               HTTPStreamException);
  EXPECT_FALSE(c.executeHTTPGet("http://127.0.0.1:" + std::to_string(closedPort) + "/", shortTimeouts(), reply, err));
  EXPECT_FALSE(err.empty());
  streams.joinAll();
}

TEST(HTTPClientTest, TLSPeersWithAndWithoutVerification) {
  ScratchDir dir;
  if (!dir.makeCertificate()) GTEST_SKIP() << "the openssl command failed";
  Rig rig;
  HTTPServerConfig cfg;
  cfg.ports = {{0, true}};
  cfg.certFile = dir.path + "/cert.pem";
  cfg.keyFile = dir.path + "/key.pem";
  ASSERT_TRUE(rig.start(cfg));
  const std::string port = std::to_string(rig.port());
  HTTPRequestReply reply;
  Str err;

  HTTPClient verifying;  // the self-signed certificate is not trusted
  EXPECT_FALSE(verifying.executeHTTPGet("https://127.0.0.1:" + port + "/v", shortTimeouts(), reply, err));
  EXPECT_TRUE(contains(err, "certificate verification failed")) << err;

  HTTPClient trusting;  // trusts it, and the name matches
  trusting.setCAFile(dir.path + "/cert.pem");
  ASSERT_TRUE(trusting.executeHTTPGet("https://localhost:" + port + "/t", shortTimeouts(), reply, err)) << err;
  EXPECT_EQ(reply.body(), "GET /t ssl\nbody=");
  // ... but not under another name.
  EXPECT_FALSE(trusting.executeHTTPGet("https://127.0.0.1:" + port + "/t", shortTimeouts(), reply, err));

  HTTPClient insecure;
  insecure.setVerifyPeer(false);
  ASSERT_TRUE(insecure.executeHTTPPost("https://127.0.0.1:" + port + "/i", "a=b", shortTimeouts(), reply, err))
      << err;
  EXPECT_EQ(reply.body(), "POST /i ssl\npost:a=b\nbody=a=b");

  HTTPClient streamClient;
  streamClient.setVerifyPeer(false);
  HTTPStream s(streamClient, "https://127.0.0.1:" + port + "/s", shortTimeouts(), "");
  Str line;
  ASSERT_TRUE(s.readLine(line));
  EXPECT_EQ(line, "GET /s ssl");
  ASSERT_TRUE(s.readLine(line));
  EXPECT_EQ(line, "body=");
  EXPECT_FALSE(s.readLine(line));
}

}  // namespace
