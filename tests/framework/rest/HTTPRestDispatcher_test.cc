#include "framework/rest/HTTPRestDispatcher.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "RestTestSupport.h"
#include "framework/http/FdConnectionData.h"
#include "framework/rest/HTTPAuthManager.h"
#include "libbundle/PropertyPages.h"
#include "util/RE.h"

using namespace resttest;

namespace {

const char* kRestmap = R"([global]
allowGetAuth = false

[echo:a_special]
match = ^/open/special

[echo:b_open]
match = ^/open

[echo:items]
match = ^/items
requireAuthentication = true
capability = read_items
capability.post = edit_items
spec = required=name; int=count

[ghost:nothing]
match = ^/ghost

[nocolon]
match = ^/nocolon

[echo:nomatch]
requireAuthentication = true

[echo:badregex]
match = ^/bad(

[echo:badspec]
match = ^/badspec
spec = required=name; maybe=count

[echo:styled]
match = ^/styled
xsl = style.xsl

[echo:brokenstyle]
match = ^/brokenstyle
xsl = broken.xsl

[echo:nostyle]
match = ^/nostyle
xsl = absent.xsl

[script:run]
match = ^/run
script = echo.sh

[script:fail]
match = ^/fail
script = fail.sh

[script:missing]
match = ^/missing
script = ../bin/echo.sh

[script:slow]
match = ^/slow
script = slow.sh
scriptTimeout = 1
)";

const char* kStyle = R"(<xsl:stylesheet version="1.0" xmlns:xsl="http://www.w3.org/1999/XSL/Transform">
<xsl:output method="xml" omit-xml-declaration="yes"/>
<xsl:template match="/echo"><styled by="xsl"><xsl:value-of select="@stanza"/></styled></xsl:template>
</xsl:stylesheet>
)";

struct DispatcherFixture : ::testing::Test {
  TempRestHome tmp{kRestmap};
  const std::string& home = tmp.path();
  std::shared_ptr<FakeBackend> backend = std::make_shared<FakeBackend>();
  HTTPAuthManager auth{3600};
  HTTPRestDispatcher disp{auth};
  EchoHandler echo;
  std::unique_ptr<PropertyPages> pages;
  FdConnectionData conn;

  DispatcherFixture() {
    std::string def = tmp.bundle();
    writeFile(def + "/xsl/style.xsl", kStyle);
    writeFile(def + "/broken.xsl", "<xsl:stylesheet version=\"1.0\"");
    writeFile(def + "/bin/echo.sh", "#!/bin/sh\ncat\n", 0755);
    writeFile(def + "/bin/slow.sh", "#!/bin/sh\nexec sleep 30\n", 0755);
    writeFile(def + "/bin/fail.sh", "#!/bin/sh\necho first >&2\necho 'the last words' >&2\nexit 3\n", 0755);
    auth.setBackend(backend);
    disp.registerHandler("echo", &echo);
    load();
  }
  bool load() {
    pages = std::make_unique<PropertyPages>("restmap");
    pages->updateConfigs();
    return disp.loadConfig("restmap", pages.get());
  }
  std::unique_ptr<HTTPReply> call(const Str& method, const Str& target, const std::vector<Str>& headers = {},
                                  const Str& body = "") {
    auto req = makeRequest(method, target, headers, body);
    return std::unique_ptr<HTTPReply>(disp.handleRequest(conn, req.get()));
  }
  Str login() {
    auto r = call("POST", "/services/auth/login", {}, "username=alice&password=wonder+land");
    std::string key;
    EXPECT_TRUE(RE("<sessionKey>(\\w+)</sessionKey>").PartialMatch(r->body(), &key)) << r->body();
    return key;
  }
};

TEST(RootListTest, ExpressionMatchesOneWordWithLiteralDollarEndings) {
  struct {
    const char* path;
    bool match;
  } cases[] = {{"/services", true}, {"/foo", true},     {"/foo$", true},     {"/foo/$", true},  {"/foo/?$", true},
               {"/foo/", false},    {"/foo/bar", false}, {"/", false},        {"/foo?", false},  {"/fo-o", false}};
  for (const auto& c : cases) EXPECT_EQ(c.match, HTTPRestDispatcher::matchesRootList(c.path)) << c.path;
}

TEST_F(DispatcherFixture, PathsReachTheFirstMatchingStanzaOrNotFound) {
  struct {
    const char* target;
    int status;
    const char* stanza;  // "" for a reply that is not the echo
  } cases[] = {
      {"/services/open/special/1", 200, "a_special"},  // both match; the first by name wins
      {"/services/open/other", 200, "b_open"},
      {"/services/openly", 200, "b_open"},  // partial match
      {"/services/ghost", 404, ""},         // no handler registered for the type
      {"/services/nocolon", 404, ""},       // bad stanzas are left out
      {"/services/bad(", 404, ""},
      {"/services/badspec", 404, ""},
      {"/services/zzz", 404, ""},
      {"/foo/", 404, ""},
      {"/foo/bar", 404, ""},
  };
  for (const auto& c : cases) {
    auto r = call("GET", c.target);
    EXPECT_EQ(c.status, r->status()) << c.target;
    if (*c.stanza) {
      EXPECT_NE(Str::npos, r->body().find(Str("stanza=\"") + c.stanza + "\"")) << c.target << r->body();
    }
  }
  auto r = call("GET", "/services/open/special/1");
  EXPECT_NE(Str::npos, r->body().find("path=\"/open/special/1\" user=\"\" ctx=\"\"")) << r->body();
  // The handler saw its own stanzas, and only the good ones.
  EXPECT_EQ((std::vector<Str>{"echo:a_special", "echo:b_open", "echo:brokenstyle", "echo:items", "echo:nostyle",
                              "echo:styled"}),
            [&] {
              std::vector<Str> v;
              for (const auto& kv : echo.known) v.push_back(kv.first);
              return v;
            }());
}

TEST_F(DispatcherFixture, ListsOfServicesAreAtomAndNotCached) {
  for (const char* target : {"/services", "/services/", "/foo", "/foo/$", "/servicesx"}) {
    auto r = call("GET", target);
    EXPECT_EQ(200, r->status()) << target;
    EXPECT_EQ("application/atom+xml", r->contentType()) << target;
    EXPECT_EQ("no-cache", headerOf(*r, "Cache-Control")) << target;
    EXPECT_NE(Str::npos, r->body().find("/services/auth/login")) << target;
    EXPECT_NE(Str::npos, r->body().find("/services/open/special")) << target;
  }
}

TEST_F(DispatcherFixture, LoginOpensSessionsFromTheBodyAndTheQueryOnlyWhenAllowed) {
  auto ok = call("POST", "/services/auth/login", {}, "username=alice&password=wonder+land");
  EXPECT_EQ(200, ok->status());
  EXPECT_EQ("text/xml", ok->contentType());
  EXPECT_TRUE(RE("<response>\n<sessionKey>[0-9a-f]{32}</sessionKey>\n</response>").FullMatch(ok->body()))
      << ok->body();
  struct {
    const char* method;
    const char* target;
    const char* body;
    int withoutGetAuth, withGetAuth;
  } cases[] = {
      {"POST", "/services/auth/login", "username=alice", 400, 400},
      {"POST", "/services/auth/login", "password=wonder+land", 400, 400},
      {"GET", "/services/auth/login?username=alice&password=wonder+land", "", 400, 200},
      {"GET", "/services/auth/login?username=alice", "", 400, 400},
      {"POST", "/services/auth/login", "username=alice&password=wrong", 401, 401},
      {"POST", "/services/auth/login", "username=mallory&password=x", 401, 401},
  };
  for (int allowed = 0; allowed < 2; ++allowed) {
    if (allowed) {
      writeFile(home + "/etc/bundles/local/restmap.conf", "[global]\nallowGetAuth = true\n");
      ASSERT_TRUE(load());
      ASSERT_TRUE(disp.allowGetAuth());
    }
    for (const auto& c : cases) {
      auto r = call(c.method, c.target, {}, c.body);
      EXPECT_EQ(allowed ? c.withGetAuth : c.withoutGetAuth, r->status()) << c.target << " " << c.body;
      if (r->status() == 401) {
        EXPECT_NE(Str::npos, r->body().find("<msg type=\"WARN\">Login failed</msg>")) << r->body();
      }
    }
  }
}

TEST_F(DispatcherFixture, ProtectedStanzasCheckCredentialsCapabilitiesAndSpecs) {
  PermissionsGuard g;
  g.perms->denied = {"edit_items"};
  auto refused = call("GET", "/services/items");
  EXPECT_EQ(401, refused->status());
  EXPECT_NE(Str::npos, refused->body().find("No authentication provided for call. Refusing request"));
  EXPECT_EQ(0u, headerOf(*refused, "WWW-Authenticate").find("Digest realm=\"/velmor\""));

  Str key = login();
  const Str authz = "Authorization: Velmor " + key;
  auto got = call("GET", "/services/items/3", {authz});
  EXPECT_EQ(200, got->status());
  EXPECT_NE(Str::npos, got->body().find("user=\"alice\" ctx=\"alice\"")) << got->body();
  ASSERT_FALSE(g.perms->asked.empty());
  EXPECT_EQ("read_items", g.perms->asked.back().first);
  EXPECT_EQ("alice", g.perms->asked.back().second);

  auto denied = call("POST", "/services/items", {authz}, "name=x");
  EXPECT_EQ(401, denied->status());
  EXPECT_NE(Str::npos, denied->body().find("edit_items"));
  g.perms->denied.clear();

  struct {
    const char* method;
    const char* target;
    const char* body;
    int status;
    const char* text;
  } cases[] = {
      {"POST", "/services/items", "name=x&count=5", 200, "stanza=\"items\""},
      {"POST", "/services/items?count=-2", "name=x", 200, "stanza=\"items\""},
      {"POST", "/services/items", "count=5", 500, "Missing required parameter &apos;name&apos;"},
      {"POST", "/services/items", "name=&count=5", 500, "Missing required parameter &apos;name&apos;"},
      {"POST", "/services/items", "name=x&count=5x", 500, "must be an integer"},
      {"DELETE", "/services/items?count=1&count=z", "name=x", 500, "&apos;z&apos;"},
      {"GET", "/services/items?count=z", "", 200, "stanza=\"items\""},  // GET is not checked
  };
  for (const auto& c : cases) {
    auto r = call(c.method, c.target, {authz}, c.body);
    EXPECT_EQ(c.status, r->status()) << c.method << " " << c.target << " " << c.body;
    EXPECT_EQ("text/xml", r->contentType());
    EXPECT_NE(Str::npos, r->body().find(c.text)) << r->body();
  }
}

TEST_F(DispatcherFixture, StyleSheetsTransformTheReplyOrLeaveIt) {
  auto styled = call("GET", "/services/styled");
  EXPECT_EQ(200, styled->status());
  EXPECT_NE(Str::npos, styled->body().find("<styled by=\"xsl\">styled</styled>")) << styled->body();
  for (const char* target : {"/services/brokenstyle", "/services/nostyle"}) {
    auto r = call("GET", target);
    EXPECT_EQ(200, r->status());
    EXPECT_EQ(0u, r->body().find("<echo stanza=")) << target << r->body();
  }
}

TEST_F(DispatcherFixture, ScriptStanzasGetTheRequestDocumentAndReturnTheirOutput) {
  auto r = call("POST", "/services/run/x?q=a%26b", {}, "k=v1&k=v2");
  EXPECT_EQ(200, r->status()) << r->body();
  EXPECT_EQ("text/xml", r->contentType());
  for (const char* part : {"<method>POST</method>", "<path>/services/run/x</path>", "<param name=\"q\">a&amp;b</param>",
                           "<param name=\"k\">v1</param>", "<param name=\"k\">v2</param>", "<body>k=v1&amp;k=v2</body>"})
    EXPECT_NE(Str::npos, r->body().find(part)) << part << "\n" << r->body();

  struct {
    const char* target;
    const char* text;
  } failures[] = {
      {"/services/fail", ">the last words</msg>"},  // the last line of its standard error
      {"/services/missing", "Script not found: ../bin/echo.sh"},
      {"/services/slow", "did not finish within 1 seconds"},
  };
  for (const auto& f : failures) {
    auto r = call("GET", f.target);
    EXPECT_EQ(500, r->status()) << f.target;
    EXPECT_NE(Str::npos, r->body().find(f.text)) << r->body();
  }
}

TEST(DispatcherConfigTest, MissingRestmapLoadsNothing) {
  char tmpl[] = "/tmp/velmor-rest-empty-XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(tmpl));
  LoaderInfo::getInstance().setHomePath(tmpl);
  HTTPAuthManager auth(60);
  HTTPRestDispatcher disp(auth);
  PropertyPages pages("restmap");
  pages.updateConfigs();
  EXPECT_FALSE(disp.loadConfig("restmap", &pages));
  auto req = makeRequest("GET", "/services/search");
  std::unique_ptr<HTTPReply> r(disp.handleRequest(FdConnectionData(), req.get()));
  EXPECT_EQ(404, r->status());
  LoaderInfo::getInstance().setHomePath("");
  rmdir(tmpl);
}

}  // namespace

namespace {

TEST(DispatcherConfigTest, ShippedRestmapRoutesSearchJobsBehindAuthentication) {
  std::ifstream in(std::string(VELMOR_SOURCE_DIR) + "/etc/bundles/default/restmap.conf");
  std::string shipped((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  ASSERT_FALSE(shipped.empty());
  TempRestHome home(shipped);
  HTTPAuthManager auth(60);
  auth.setBackend(std::make_shared<FakeBackend>());
  HTTPRestDispatcher disp(auth);
  EchoHandler search;
  disp.registerHandler("search", &search);
  PropertyPages pages("restmap");
  pages.updateConfigs();
  ASSERT_TRUE(disp.loadConfig("restmap", &pages));
  EXPECT_FALSE(disp.allowGetAuth());
  EXPECT_EQ(1u, search.known.count("search:jobs"));
  auto req = makeRequest("GET", "/services/search/jobs");
  std::unique_ptr<HTTPReply> r(disp.handleRequest(FdConnectionData(), req.get()));
  EXPECT_EQ(401, r->status());
  Str key;
  ASSERT_TRUE(auth.login("alice", "wonder land", key));
  req = makeRequest("GET", "/services/search/jobs", {"Authorization: Velmor " + key});
  r.reset(disp.handleRequest(FdConnectionData(), req.get()));
  EXPECT_EQ(200, r->status());
  EXPECT_NE(Str::npos, r->body().find("stanza=\"jobs\" path=\"/search/jobs\" user=\"alice\"")) << r->body();
}

}  // namespace
