#include "framework/rest/HTTPAuthManager.h"

#include <gtest/gtest.h>

#include "framework/rest/HTTPDigestAuthenticationImpl.h"
#include "RestTestSupport.h"
#include "util/RE.h"

using namespace resttest;

namespace {

struct AuthFixture : ::testing::Test {
  std::shared_ptr<FakeBackend> backend = std::make_shared<FakeBackend>();
  HTTPAuthManager mgr{60};
  time_t clock = 1000;
  AuthFixture() {
    mgr.setBackend(backend);
    mgr.setClock([this] { return clock; });
  }
  Str loginAs(const Str& user, const Str& password) {
    Str key;
    EXPECT_TRUE(mgr.login(user, password, key));
    return key;
  }
  // "" when accepted (the user in `user`), else the refusal's body.
  std::string run(const HTTPRequest& req, Str* user = nullptr, Str* challenge = nullptr) {
    Str who;
    HTTPReply* reply = nullptr;
    bool ok = mgr.authenticate(&req, who, reply);
    std::unique_ptr<HTTPReply> owned(reply);
    if (ok) {
      EXPECT_EQ(nullptr, reply);
      EXPECT_EQ(who, req.user());
      if (user) *user = who;
      return "";
    }
    EXPECT_NE(nullptr, reply);
    if (!reply) return "<no reply>";
    EXPECT_EQ(401, reply->status());
    if (challenge) *challenge = headerOf(*reply, "WWW-Authenticate");
    return reply->body();
  }
};

std::string warn(const Str& text) {
  return "<response>\n<messages>\n<msg type=\"WARN\">" + HTTPReply::xmlEscape(text) +
         "</msg>\n</messages>\n</response>\n";
}

TEST_F(AuthFixture, LoginGivesDistinctRandomKeysAndRefusesBadPasswords) {
  Str k1 = loginAs("alice", "wonder land"), k2 = loginAs("alice", "wonder land");
  EXPECT_TRUE(RE("[0-9a-f]{32}").FullMatch(k1)) << k1;
  EXPECT_NE(k1, k2);
  Str key;
  EXPECT_FALSE(mgr.login("alice", "wonder", key));
  EXPECT_FALSE(mgr.login("nobody", "wonder land", key));
  EXPECT_EQ(2u, mgr.sessionCount());
  AuthInfo info;
  ASSERT_TRUE(mgr.getAuthInfo(k1, info));
  EXPECT_EQ("alice", info.user);
  EXPECT_EQ("7", info.userId);

  HTTPAuthManager noBackend(60);
  EXPECT_FALSE(noBackend.login("alice", "wonder land", key));
}

TEST_F(AuthFixture, SessionsLiveWhileUsedAndDieWhenIdle) {
  Str used = loginAs("alice", "wonder land");
  Str idle = loginAs("bob", "builder");
  clock = 1050;
  EXPECT_TRUE(mgr.isUserSessionValid(used));
  clock = 1105;  // 55 s after its last use, 105 s after login
  EXPECT_TRUE(mgr.isUserSessionValid(used));
  EXPECT_EQ(1, mgr.removeTimedoutAuthInfo());  // only the idle one
  EXPECT_FALSE(mgr.isUserSessionValid(idle));
  clock = 1166;
  EXPECT_FALSE(mgr.isUserSessionValid(used));  // refused even before the sweep
  EXPECT_EQ(0u, mgr.sessionCount());

  Str again = loginAs("alice", "wonder land");
  backend->sessionsGood = false;  // the back end withdrew the user
  EXPECT_FALSE(mgr.isUserSessionValid(again));
  backend->sessionsGood = true;
  mgr.setBackend(backend);  // a (re)installed back end ends every session
  EXPECT_FALSE(mgr.isUserSessionValid(again));
}

TEST_F(AuthFixture, EachCredentialFormIsAcceptedOrRefusedWithItsText) {
  Str key = loginAs("alice", "wonder land");
  const Str none = "No authentication provided for call. Refusing request";
  struct Case {
    Str target;
    std::vector<Str> headers;
    Str body;
    Str expect;  // "" accepted as alice, else the refusal text
  } cases[] = {
      {"/s", {"Authorization: Velmor " + key}, "", ""},
      {"/s", {"Authorization: Velmor"}, "", "Token not specified in Authorization: Velmor <token> header"},
      {"/s", {"Authorization: Velmor nope"}, "", "Auth token provided is not valid. Refusing request"},
      {"/s", {"Authorization: Basic YWxpY2U6eA=="}, "", none},
      {"/s", {"authtoken: " + key}, "", ""},
      {"/s?authtoken=" + key, {}, "", ""},
      {"/s", {}, "authtoken=" + key, ""},
      {"/s?authtoken=nope", {}, "", "POST and GET authentication falied - invalid session"},
      {"/s?oldschoolauth=1&userId=7&username=alice&authToken=" + key, {}, "", ""},
      {"/s", {}, "userId=7&username=alice&authToken=" + key, ""},
      {"/s?oldschoolauth=1&userId=8&username=alice&authToken=" + key, {}, "",
       "Auth tokens don't match. Session Invalid"},
      {"/s?oldschoolauth=1&userId=7&username=bob&authToken=" + key, {}, "", "Auth tokens don't match. Session Invalid"},
      {"/s?oldschoolauth=1&username=alice&authToken=" + key, {}, "",
       "missing get and post data - cannot authenticate using old school (requires userId, username, authTone)"},
      {"/s", {}, "", none},
      {"/s?username=alice&password=wonder+land", {}, "", none},
  };
  for (const Case& c : cases) {
    auto req = makeRequest(c.body.empty() ? "GET" : "POST", c.target, c.headers, c.body);
    Str user, challenge;
    std::string got = run(*req, &user, &challenge);
    if (c.expect.empty()) {
      EXPECT_EQ("", got) << c.target;
      EXPECT_EQ("alice", user) << c.target;
    } else {
      EXPECT_EQ(warn(c.expect), got) << c.target;
      EXPECT_TRUE(RE("Digest realm=\"/velmor\", nonce=\"[0-9a-f]{32}\", opaque=\"[0-9a-f]{32}\", qop=\"auth\", "
                     "algorithm=\"MD5\",")
                      .FullMatch(challenge))
          << challenge;
    }
  }
}

TEST(DigestTest, ResponseMatchesTheWorkedExampleOfTheStandard) {
  EXPECT_EQ("6629fae49393a05397450978507c4ef1",
            HTTPDigestAuthenticationImpl::computeResponse("Mufasa", "testrealm@host.com", "Circle Of Life", "GET",
                                                          "/dir/index.html", "dcd98b7102dd2f0e8b11d0f600bfb0c093",
                                                          "00000001", "0a4f113b", "auth"));
  std::map<Str, Str> p;
  ASSERT_TRUE(HTTPDigestAuthenticationImpl::parseHeader(
      "Digest username=\"Mufasa\", realm=\"a, \\\"b\\\"\", nc=00000001,qop=auth", p));
  EXPECT_EQ("Mufasa", p["username"]);
  EXPECT_EQ("a, \"b\"", p["realm"]);
  EXPECT_EQ("00000001", p["nc"]);
  EXPECT_EQ("auth", p["qop"]);
  EXPECT_FALSE(HTTPDigestAuthenticationImpl::parseHeader("Digestive x=1", p));
}

TEST_F(AuthFixture, DigestAcceptsEachCountOnceAndInOrder) {
  Str challenge;
  run(*makeRequest("GET", "/s"), nullptr, &challenge);
  std::string nonce, opaque;
  ASSERT_TRUE(RE("nonce=\"(\\w+)\", opaque=\"(\\w+)\"").PartialMatch(challenge, &nonce, &opaque));

  auto digest = [&](const Str& nc, const Str& user, const Str& password, const Str& realm, const Str& n) {
    Str uri = "/s?x=1";
    Str resp = HTTPDigestAuthenticationImpl::computeResponse(user, realm, password, "GET", uri, n, nc, "c0ffee", "auth");
    return makeRequest("GET", uri,
                       {"Authorization: Digest username=\"" + user + "\", realm=\"" + realm + "\", nonce=\"" + n +
                        "\", uri=\"" + uri + "\", response=\"" + resp + "\", opaque=\"" + opaque +
                        "\", qop=auth, nc=" + nc + ", cnonce=\"c0ffee\""});
  };
  const Str none = "No authentication provided for call. Refusing request";
  const Str mismatch = "non matching response from the server and the client";
  struct Case {
    Str nc, user, password, realm, nonce, expect;
  } cases[] = {
      {"00000001", "alice", "wonder land", "/velmor", nonce, ""},
      {"00000001", "alice", "wonder land", "/velmor", nonce, "nc(1) != nc+1(2)"},  // replayed
      {"00000003", "alice", "wonder land", "/velmor", nonce, "nc(3) != nc+1(2)"},  // skipped
      {"00000002", "alice", "wrong", "/velmor", nonce, mismatch},
      {"00000002", "alice", "wonder land", "/other", nonce, mismatch},
      {"00000002", "carol", "x", "/velmor", nonce, mismatch},
      {"00000001", "alice", "wonder land", "/velmor", "feedface", none},  // never given out
      {"00000002", "alice", "wonder land", "/velmor", nonce, ""},  // failures did not move the count
      {"0000000a", "alice", "wonder land", "/velmor", nonce, "nc(10) != nc+1(3)"},
  };
  for (const Case& c : cases) {
    Str user;
    EXPECT_EQ(c.expect.empty() ? std::string() : warn(c.expect), run(*digest(c.nc, c.user, c.password, c.realm, c.nonce), &user))
        << c.nc << " " << c.user << " " << c.realm;
    if (c.expect.empty()) {
      EXPECT_EQ("alice", user);
    }
  }
  clock += 61;  // a nonce dies with the session timeout
  EXPECT_EQ(warn(none), run(*digest("00000003", "alice", "wonder land", "/velmor", nonce)));
}

TEST_F(AuthFixture, BounceNeedsItsCapabilityAndEndsEverySession) {
  Str key = loginAs("alice", "wonder land");
  PermissionsGuard g;
  g.perms->denied = {"bounce_authentication"};
  Str err;
  {
    UserContext ctx;
    ctx.user = "bob";
    UserContext::Scope scope(ctx);
    EXPECT_FALSE(mgr.bounce(err));
  }
  EXPECT_EQ("You do not have permission to bounce user sessions", err);
  ASSERT_EQ(1u, g.perms->askedBy.size());
  EXPECT_EQ("bob", g.perms->askedBy[0]);
  EXPECT_TRUE(mgr.isUserSessionValid(key));
  g.perms->denied.clear();
  EXPECT_TRUE(mgr.bounce(err));
  EXPECT_FALSE(mgr.isUserSessionValid(key));
}

}  // namespace
