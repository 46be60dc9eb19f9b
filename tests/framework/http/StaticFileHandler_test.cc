// The web page's file server: which URL paths map to which files (and which
// are refused, by their text or because a link leads out of the root),
// content types, dates, entity tags, conditional requests, cache policy,
// the asset version written into HTML, and the hand-off of /services paths.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "../../libbundle/ConfTestUtil.h"
#include "framework/http/FdConnectionData.h"
#include "framework/http/HTTPReply.h"
#include "framework/http/HTTPRequest.h"
#include "framework/http/StaticFileHandler.h"
#include "libbundle/PropertyPages.h"

namespace {

TEST(StaticFileHandlerTest, RelativePaths) {
  struct Case {
    Str url;
    bool ok;
    Str rel;
  } cases[] = {
      {"/", true, ""},
      {"/index.html", true, "index.html"},
      {"/a/b.js", true, "a/b.js"},
      {"//a///b.js/", true, "a/b.js"},
      {"/..", false, ""},
      {"/a/../../etc/passwd", false, ""},
      {"/a/..", false, ""},
      {"/./index.html", false, ""},
      {"/.git/config", false, ""},
      {"/a/.hidden", false, ""},
      {"/a..b/c", true, "a..b/c"},
      {"/a\\..\\b", false, ""},
      {Str("/index.html\0.js", 15), false, ""},
      {"index.html", false, ""},
      {"", false, ""},
  };
  for (const Case& c : cases) {
    Str rel = "junk";
    EXPECT_EQ(StaticFileHandler::relativePathFor(c.url, rel), c.ok) << c.url;
    if (c.ok) {
      EXPECT_EQ(rel, c.rel) << c.url;
    }
  }
}

TEST(StaticFileHandlerTest, ContentTypesAndServicesPaths) {
  struct {
    const char* name;
    const char* type;
  } types[] = {
      {"index.html", "text/html; charset=utf-8"}, {"APP.JS", "text/javascript; charset=utf-8"},
      {"m.mjs", "text/javascript; charset=utf-8"}, {"style.css", "text/css; charset=utf-8"},
      {"logo.svg", "image/svg+xml"},               {"a.json", "application/json; charset=utf-8"},
      {"favicon.ico", "image/x-icon"},            {"data.bin", "application/octet-stream"},
      {"noext", "application/octet-stream"},      {"js", "application/octet-stream"},
  };
  for (const auto& t : types) EXPECT_STREQ(StaticFileHandler::contentTypeFor(t.name), t.type) << t.name;

  struct {
    const char* path;
    bool services;
  } paths[] = {{"/services", true},  {"/services/", true},      {"/services/search/jobs", true},
               {"/servicesx", false}, {"/service", false},      {"/", false},
               {"/app.js", false},   {"/x/services/a", false}};
  for (const auto& p : paths) EXPECT_EQ(StaticFileHandler::isServicesPath(p.path), p.services) << p.path;
}

TEST(StaticFileHandlerTest, HttpDates) {
  EXPECT_EQ(StaticFileHandler::httpDate(784111777), "Sun, 06 Nov 1994 08:49:37 GMT");
  EXPECT_EQ(StaticFileHandler::httpDate(0), "Thu, 01 Jan 1970 00:00:00 GMT");
  struct {
    const char* text;
    bool ok;
    time_t t;
  } cases[] = {
      {"Sun, 06 Nov 1994 08:49:37 GMT", true, 784111777},
      {"  Sun, 06 Nov 1994 08:49:37 GMT ", true, 784111777},
      {"Sunday, 06-Nov-94 08:49:37 GMT", true, 784111777},
      {"Sun Nov  6 08:49:37 1994", true, 784111777},
      {"Sun, 06 Nov 1994 08:49:37", false, 0},
      {"yesterday", false, 0},
      {"", false, 0},
  };
  for (const auto& c : cases) {
    time_t t = -1;
    EXPECT_EQ(StaticFileHandler::parseHttpDate(c.text, t), c.ok) << c.text;
    if (c.ok) {
      EXPECT_EQ(t, c.t) << c.text;
    }
  }
}

TEST(StaticFileHandlerTest, EntityTags) {
  struct {
    const char* header;
    const char* etag;
    bool match;
  } cases[] = {
      {"\"abc\"", "\"abc\"", true},      {"W/\"abc\"", "\"abc\"", true},
      {"\"x\", \"abc\"", "\"abc\"", true}, {"\"x\",\"y\"", "\"abc\"", false},
      {"*", "\"abc\"", true},            {"", "\"abc\"", false},
      {"abc", "\"abc\"", false},         {"\"abc\"", "W/\"abc\"", true},
      {"\"ab\"", "\"abc\"", false},
  };
  for (const auto& c : cases)
    EXPECT_EQ(StaticFileHandler::etagMatches(c.header, c.etag), c.match) << c.header << " vs " << c.etag;
}

// A scratch web root: index.html (with the asset marker), app.js, a
// directory with its own index, a hidden file, a link that stays inside and
// links that lead out (to a file and to a directory).
class StaticRoot : public ::testing::Test {
 protected:
  void SetUp() override {
    conftest::writeFile(_dir / "web/index.html", "<script src=\"app.js?v=@ASSET_VERSION@\"></script>");
    conftest::writeFile(_dir / "web/app.js", "console.log(1);\n");
    conftest::writeFile(_dir / "web/docs/index.html", "docs");
    conftest::writeFile(_dir / "web/.secret", "hidden");
    conftest::writeFile(_dir / "outside.txt", "private");
    conftest::writeFile(_dir / "outdir/x.txt", "private too");
    ASSERT_EQ(0, symlink("app.js", (_dir / "web/alias.js").c_str()));
    ASSERT_EQ(0, symlink((_dir / "outside.txt").c_str(), (_dir / "web/escape.txt").c_str()));
    ASSERT_EQ(0, symlink("../outdir", (_dir / "web/linkdir").c_str()));
    _handler = std::make_unique<StaticFileHandler>(Pathname(_dir / "web"), nullptr);
  }

  struct Got {
    int status;
    Str body;
    Str type;
    Str header(const char* name) const {
      for (const auto& h : headers)
        if (h.first == name) return h.second;
      return Str();
    }
    std::vector<std::pair<Str, Str>> headers;
  };

  Got get(const Str& method, const Str& target, const Str& extraHeaders = "") {
    HTTPRequest req;
    Str err;
    EXPECT_TRUE(req.parse(method + " " + target + " HTTP/1.1\r\nHost: x\r\n" + extraHeaders + "\r\n", "", err)) << err;
    std::unique_ptr<HTTPReply> r(_handler->serve(req));
    return Got{r->status(), r->body(), r->contentType(), r->extraHeaders()};
  }

  conftest::TempDir _dir;
  std::unique_ptr<StaticFileHandler> _handler;
};

TEST_F(StaticRoot, WhatEachPathGives) {
  struct {
    const char* method;
    const char* target;
    int status;
    const char* body;  // null: not checked
    const char* type;  // null: not checked
  } cases[] = {
      {"GET", "/app.js", 200, "console.log(1);\n", "text/javascript; charset=utf-8"},
      {"GET", "/app.js?v=123", 200, "console.log(1);\n", nullptr},
      {"GET", "/alias.js", 200, "console.log(1);\n", nullptr},
      {"GET", "/docs/", 200, "docs", "text/html; charset=utf-8"},
      {"GET", "/docs", 200, "docs", nullptr},
      {"HEAD", "/app.js", 200, "", "text/javascript; charset=utf-8"},
      {"GET", "/missing.js", 404, nullptr, nullptr},
      {"GET", "/.secret", 404, nullptr, nullptr},
      {"GET", "/escape.txt", 404, nullptr, nullptr},
      {"GET", "/linkdir/x.txt", 404, nullptr, nullptr},
      {"GET", "/%2e%2e/outside.txt", 404, nullptr, nullptr},
      {"GET", "/app.js%00.html", 404, nullptr, nullptr},
      {"GET", "/docs/../../outside.txt", 404, nullptr, nullptr},
      {"POST", "/app.js", 405, nullptr, nullptr},
      {"DELETE", "/", 405, nullptr, nullptr},
  };
  for (const auto& c : cases) {
    Got g = get(c.method, c.target);
    EXPECT_EQ(g.status, c.status) << c.method << " " << c.target;
    if (c.body) {
      EXPECT_EQ(g.body, c.body) << c.target;
    }
    if (c.type) {
      EXPECT_EQ(g.type, c.type) << c.target;
    }
    if (g.status == 404) {
      EXPECT_EQ(g.body.find("private"), Str::npos) << c.target;
    }
  }
  EXPECT_EQ(get("PUT", "/x").header("Allow"), "GET, HEAD");
}

TEST_F(StaticRoot, PageNamesTheCurrentAssetVersion) {
  Got first = get("GET", "/");
  ASSERT_EQ(first.status, 200);
  EXPECT_EQ(first.body.find("@ASSET_VERSION@"), Str::npos);
  EXPECT_NE(first.body.find("app.js?v="), Str::npos);
  EXPECT_EQ(first.header("Cache-Control"), "no-cache");
  EXPECT_NE(first.header("Content-Security-Policy").find("default-src 'self'"), Str::npos);
  EXPECT_EQ(get("GET", "/index.html").body, first.body);

  // A changed asset changes the version, the page and so its tag.
  conftest::writeFile(_dir / "web/app.js", "console.log(22);\n");
  Got second = get("GET", "/");
  EXPECT_NE(second.body, first.body);
  EXPECT_NE(second.header("ETag"), first.header("ETag"));
  EXPECT_EQ(get("GET", "/", "If-None-Match: " + first.header("ETag") + "\r\n").status, 200);
  EXPECT_EQ(get("GET", "/", "If-None-Match: " + second.header("ETag") + "\r\n").status, 304);
}

TEST_F(StaticRoot, ConditionalRequestsAndCachePolicy) {
  Got plain = get("GET", "/app.js");
  const Str etag = plain.header("ETag");
  const Str lastModified = plain.header("Last-Modified");
  ASSERT_FALSE(etag.empty());
  time_t mtime;
  ASSERT_TRUE(StaticFileHandler::parseHttpDate(lastModified, mtime));
  EXPECT_EQ(plain.header("Cache-Control"), "no-cache");
  EXPECT_EQ(get("GET", "/app.js?v=abc").header("Cache-Control"), "public, max-age=31536000, immutable");
  EXPECT_EQ(plain.header("X-Content-Type-Options"), "nosniff");

  struct {
    Str headers;
    int status;
  } cases[] = {
      {"If-None-Match: " + etag + "\r\n", 304},
      {"If-None-Match: \"other\", " + etag + "\r\n", 304},
      {"If-None-Match: \"other\"\r\n", 200},
      {"If-Modified-Since: " + lastModified + "\r\n", 304},
      {"If-Modified-Since: " + StaticFileHandler::httpDate(mtime + 3600) + "\r\n", 304},
      {"If-Modified-Since: " + StaticFileHandler::httpDate(mtime - 1) + "\r\n", 200},
      {"If-Modified-Since: not a date\r\n", 200},
      // A tag that does not match wins over a date that would.
      {"If-None-Match: \"other\"\r\nIf-Modified-Since: " + lastModified + "\r\n", 200},
  };
  for (const auto& c : cases) {
    Got g = get("GET", "/app.js", c.headers);
    EXPECT_EQ(g.status, c.status) << c.headers;
    if (g.status == 304) {
      EXPECT_EQ(g.body, "") << c.headers;
      EXPECT_EQ(g.header("ETag"), etag);
    }
  }

  // Rewriting the file (another size) makes the old tag stale.
  conftest::writeFile(_dir / "web/app.js", "console.log('changed');\n");
  EXPECT_EQ(get("GET", "/app.js", "If-None-Match: " + etag + "\r\n").status, 200);
}

TEST_F(StaticRoot, MissingRootIsNotFound) {
  StaticFileHandler none(Pathname(_dir / "no-such-dir"), nullptr);
  HTTPRequest req;
  Str err;
  ASSERT_TRUE(req.parse("GET / HTTP/1.1\r\n\r\n", "", err));
  std::unique_ptr<HTTPReply> r(none.serve(req));
  EXPECT_EQ(r->status(), 404);
}

// Records what reaches the handler behind the file server.
class Recorder : public MHttpRequestHandler {
 public:
  HTTPReply* handleRequest(const FdConnectionData&, const HTTPRequest* req) override {
    seen.push_back(req->path());
    return HTTPReply::createReply(200, "rest", "text/plain", false);
  }
  std::vector<Str> seen;
};

TEST_F(StaticRoot, ServicesPathsGoToTheNextHandler) {
  Recorder rest;
  StaticFileHandler h(Pathname(_dir / "web"), &rest);
  struct {
    const char* path;
    const char* body;
  } cases[] = {{"/services/auth/login", "rest"}, {"/services", "rest"}, {"/app.js", "console.log(1);\n"}};
  for (const auto& c : cases) {
    HTTPRequest req;
    Str err;
    ASSERT_TRUE(req.parse(Str("GET ") + c.path + " HTTP/1.1\r\n\r\n", "", err));
    FdConnectionData conn;
    conn._pRequest = &req;
    std::unique_ptr<HTTPReply> r(h.handleRequest(conn, &req));
    EXPECT_EQ(r->body(), c.body) << c.path;
  }
  EXPECT_EQ(rest.seen, (std::vector<Str>{"/services/auth/login", "/services"}));

  StaticFileHandler alone(Pathname(_dir / "web"), nullptr);
  HTTPRequest req;
  Str err;
  ASSERT_TRUE(req.parse("GET /services/x HTTP/1.1\r\n\r\n", "", err));
  FdConnectionData conn;
  std::unique_ptr<HTTPReply> r(alone.handleRequest(conn, &req));
  EXPECT_EQ(r->status(), 404);
}

TEST(StaticFileHandlerConfTest, RootFromWebConf) {
  struct {
    const char* local;  // the local bundle's web.conf ("" none)
    const char* rel;    // expected, relative to the home; absolute when it starts with '/'
  } cases[] = {
      {"", "share/web"},
      {"[settings]\nstaticDir = custom/page\n", "custom/page"},
      {"[settings]\nstaticDir = /srv/page\n", "/srv/page"},
      {"[settings]\nstaticDir =\n", "share/web"},
  };
  for (const auto& c : cases) {
    conftest::TempHome home;
    home.write("default", "web.conf", conftest::readFile(VELMOR_SOURCE_DIR "/etc/bundles/default/web.conf"));
    if (*c.local) home.write("local", "web.conf", c.local);
    PropertyPages::instance("web").updateConfigs();
    const Str want = c.rel[0] == '/' ? Str(c.rel) : Str(home.path()) + "/" + c.rel;
    EXPECT_EQ(StaticFileHandler::configuredRoot(), want) << c.local;
  }
}

}  // namespace
