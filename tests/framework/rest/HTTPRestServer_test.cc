// The dispatcher behind the real HTTP server, driven by curl: a login, the
// session key in a header, and curl's own answer to the digest challenge.
#include <gtest/gtest.h>
#include <stdio.h>

#include "RestTestSupport.h"
#include "framework/http/HTTPServer.h"
#include "framework/rest/HTTPAuthManager.h"
#include "framework/rest/HTTPRestDispatcher.h"
#include "libbundle/PropertyPages.h"
#include "util/EventLoopThread.h"
#include "util/MainThread.h"
#include "util/RE.h"

using namespace resttest;

namespace {

// Runs a shell command (bounded by curl's own -m) and returns its output.
std::string run(const std::string& cmd) {
  std::string out;
  FILE* f = popen(cmd.c_str(), "r");
  if (f == nullptr) return out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
  pclose(f);
  return out;
}

// Stops the server and the loop however the test ends.
struct ServerGuard {
  EventLoopThread loop{"rest-test-loop"};
  HTTPServer server;
  ~ServerGuard() {
    server.handleShutdown();
    loop.stop();
  }
};

TEST(RestOverHttpTest, CurlLogsInUsesTheKeyAndAnswersTheDigestChallenge) {
  TempRestHome home("[echo:items]\nmatch = ^/items\nrequireAuthentication = true\n");
  if (MainThread::instance() == nullptr) new MainThread();  // lives until exit
  auto backend = std::make_shared<FakeBackend>();
  HTTPAuthManager auth(3600);
  auth.setBackend(backend);
  HTTPRestDispatcher disp(auth);
  EchoHandler echo;
  disp.registerHandler("echo", &echo);
  PropertyPages pages("restmap");
  pages.updateConfigs();
  ASSERT_TRUE(disp.loadConfig("restmap", &pages));

  ServerGuard g;
  g.loop.start();
  g.server.setRequestHandler(&disp);
  HTTPServerConfig cfg;
  cfg.ports.push_back(HTTPServerPort{0, false});
  ASSERT_TRUE(g.server.init(cfg));
  ASSERT_TRUE(g.server.go(&g.loop));
  const std::string base = "http://127.0.0.1:" + std::to_string(g.server.boundPort(0));
  const std::string curl = "curl -s -m 10 -w ' HTTP%{http_code}' ";

  std::string login = run(curl + "-d username=alice --data-urlencode 'password=wonder land' " + base +
                          "/services/auth/login");
  std::string key;
  ASSERT_TRUE(RE("<sessionKey>([0-9a-f]{32})</sessionKey>\n</response> HTTP200").PartialMatch(login, &key)) << login;
  std::string withKey = run(curl + "-H 'Authorization: Velmor " + key + "' " + base + "/services/items/1");
  EXPECT_NE(std::string::npos, withKey.find("user=\"alice\"")) << withKey;
  EXPECT_NE(std::string::npos, withKey.find("HTTP200")) << withKey;

  std::string digest = run(curl + "--digest -u 'alice:wonder land' '" + base + "/services/items/2?x=1'");
  EXPECT_NE(std::string::npos, digest.find("path=\"/items/2\" user=\"alice\"")) << digest;
  EXPECT_NE(std::string::npos, digest.find("HTTP200")) << digest;
  std::string wrong = run(curl + "--digest -u 'alice:nope' " + base + "/services/items/3");
  EXPECT_NE(std::string::npos, wrong.find("HTTP401")) << wrong;
  std::string none = run(curl + base + "/services/items/4");
  EXPECT_NE(std::string::npos, none.find("No authentication provided for call. Refusing request")) << none;
}

}  // namespace
