// Request parsing: request lines and headers in, method, path, parameters,
// headers and cookies out (or the reason a request is refused); URL
// decoding with malformed escapes; form bodies with repeated keys.
#include <gtest/gtest.h>

#include "framework/http/HTTPRequest.h"

namespace {

std::string joinParams(const HTTPRequest::Params& p) {
  std::string out;
  for (const auto& [k, vs] : p)
    for (const Str& v : vs) out += (out.empty() ? "" : "&") + k + "=" + v;
  return out;
}

TEST(HTTPRequestTest, RequestLineTable) {
  struct Case {
    const char* header;
    bool ok;
    const char* method;
    const char* path;
    const char* params;
  };
  const Case cases[] = {
      {"GET / HTTP/1.1\r\n\r\n", true, "GET", "/", ""},
      {"GET /a/b%20c?x=1&y=two+words HTTP/1.1\r\n\r\n", true, "GET", "/a/b c", "x=1&y=two words"},
      {"DELETE /p?k HTTP/1.0\n\n", true, "DELETE", "/p", "k="},
      {"GET http://host:8089/abs/path?q=%41 HTTP/1.1\r\n\r\n", true, "GET", "/abs/path", "q=A"},
      {"GET /x?a=1#frag HTTP/1.1\r\n\r\n", true, "GET", "/x", "a=1"},
      {"GET /plus+sign HTTP/1.1\r\n\r\n", true, "GET", "/plus+sign", ""},
      {"OPTIONS * HTTP/1.1\r\n\r\n", true, "OPTIONS", "*", ""},
      {"GET /  HTTP/1.1\r\n\r\n", false, "", "", ""},
      {"GET / HTTP/1.1 extra\r\n\r\n", false, "", "", ""},
      {"GET /\r\n\r\n", false, "", "", ""},
      {"GET / FTP/1.0\r\n\r\n", false, "", "", ""},
      {"GET / HTTP/11\r\n\r\n", false, "", "", ""},
      {"G@T / HTTP/1.1\r\n\r\n", false, "", "", ""},
      {"GET noslash HTTP/1.1\r\n\r\n", false, "", "", ""},
      {"\r\n\r\n", false, "", "", ""},
      {"GET / HTTP/1.1\r\nNoColonHere\r\n\r\n", false, "", "", ""},
      {"GET / HTTP/1.1\r\nBad Name: v\r\n\r\n", false, "", "", ""},
      {"GET / HTTP/1.1\r\nA: b\r\n folded\r\n\r\n", false, "", "", ""},
  };
  for (const Case& c : cases) {
    HTTPRequest r;
    Str err;
    EXPECT_EQ(r.parse(c.header, "", err), c.ok) << c.header << " -> " << err;
    if (!c.ok) {
      EXPECT_FALSE(err.empty()) << c.header;
      continue;
    }
    EXPECT_EQ(r.method(), c.method) << c.header;
    EXPECT_EQ(r.path(), c.path) << c.header;
    EXPECT_EQ(joinParams(r.getParams()), c.params) << c.header;
  }
}

TEST(HTTPRequestTest, HeadersAreCaseBlindAndRepeatsCombine) {
  HTTPRequest r;
  Str err;
  ASSERT_TRUE(r.parse("GET /svc/a//b/ HTTP/1.1\r\nHost: example:8089\r\nX-Thing:  one \r\n"
                      "x-thing: two\r\nAccept:\r\n\r\n",
                      "", err))
      << err;
  ASSERT_NE(r.header("X-THING"), nullptr);
  EXPECT_EQ(*r.header("x-thing"), "one, two");
  ASSERT_NE(r.header("accept"), nullptr);
  EXPECT_EQ(*r.header("accept"), "");
  EXPECT_EQ(r.header("missing"), nullptr);
  EXPECT_EQ(r.getHost(), "example:8089");
  std::vector<Str> parts;
  r.getMethodComponents(parts);
  EXPECT_EQ(parts, (std::vector<Str>{"svc", "a", "b"}));
  EXPECT_EQ(r.rawPath(), "/svc/a//b/");
  EXPECT_EQ(r.version(), "HTTP/1.1");

  HTTPRequest noHost;
  ASSERT_TRUE(noHost.parse("GET / HTTP/1.0\r\n\r\n", "", err));
  EXPECT_EQ(noHost.getHost(), "");
}

TEST(HTTPRequestTest, FormBodyKeepsRepeatedKeysInOrder) {
  HTTPRequest r;
  Str err;
  const Str body = "roles=b&name=x%2By+z&roles=a&roles=&empty&=novalue&&roles=c";
  ASSERT_TRUE(r.parse("POST /u?roles=q&only=get HTTP/1.1\r\n"
                      "Content-Type: Application/X-WWW-Form-Urlencoded; charset=UTF-8\r\n\r\n",
                      body, err))
      << err;
  EXPECT_EQ(r.postParams().at("roles"), (std::vector<Str>{"b", "a", "", "c"}));
  EXPECT_EQ(r.postParams().at("name"), (std::vector<Str>{"x+y z"}));
  EXPECT_EQ(r.postParams().at("empty"), (std::vector<Str>{""}));
  EXPECT_EQ(r.postParams().count(""), 0u);
  EXPECT_EQ(r.body(), body);
  // The body wins over the query for param(); the query fills the rest.
  ASSERT_NE(r.param("roles"), nullptr);
  EXPECT_EQ(*r.param("roles"), "b");
  ASSERT_NE(r.param("only"), nullptr);
  EXPECT_EQ(*r.param("only"), "get");
  EXPECT_EQ(r.param("nothing"), nullptr);

  // Another content type leaves the body alone.
  HTTPRequest json;
  ASSERT_TRUE(json.parse("POST /u HTTP/1.1\r\nContent-Type: application/json\r\n\r\n", "a=1", err));
  EXPECT_TRUE(json.postParams().empty());
  EXPECT_EQ(json.body(), "a=1");
}

TEST(HTTPRequestTest, Cookies) {
  HTTPRequest r;
  Str err;
  ASSERT_TRUE(r.parse("GET / HTTP/1.1\r\nCookie: a=1; session=\"q r\" ;flag; =x\r\nCookie: b=2=3\r\n\r\n", "",
                      err));
  std::vector<HTTPRequestCookie> c;
  r.getCookies(c);
  ASSERT_EQ(c.size(), 4u);
  EXPECT_EQ(c[0].name, "a");
  EXPECT_EQ(c[0].value, "1");
  EXPECT_EQ(c[1].name, "session");
  EXPECT_EQ(c[1].value, "q r");
  EXPECT_EQ(c[2].name, "flag");
  EXPECT_EQ(c[2].value, "");
  EXPECT_EQ(c[3].name, "b");
  EXPECT_EQ(c[3].value, "2=3");
  r.addCookies({{"added", "v"}});
  r.getCookies(c);
  EXPECT_EQ(c.back().name, "added");
}

TEST(HTTPRequestTest, UrlDecodingAndEncoding) {
  struct Case {
    const char* in;
    bool plus;
    const char* out;
  };
  const Case cases[] = {
      {"a%20b", false, "a b"},   {"a+b", false, "a+b"},       {"a+b", true, "a b"},
      {"%41%42", true, "AB"},    {"%4a%4A", true, "JJ"},      {"100%", true, "100%"},
      {"%4", true, "%4"},        {"%zz%41", true, "%zzA"},    {"%%41", true, "%A"},
      {"%00x", true, "(a NUL, then x)"},                        {"%E2%82%AC", true, "\xE2\x82\xAC"},
  };
  for (const Case& c : cases) {
    std::string expected = c.out;
    if (std::string(c.in) == "%00x") expected = std::string("\0x", 2);
    EXPECT_EQ(HTTPRequest::urlDecode(c.in, c.plus), expected) << c.in;
  }
  const Str raw = std::string("a b&c=d/\xE2\x82\xAC~._-\0", 16);
  EXPECT_EQ(HTTPRequest::urlEncode(raw), "a%20b%26c%3Dd%2F%E2%82%AC~._-%00");
  EXPECT_EQ(HTTPRequest::urlDecode(HTTPRequest::urlEncode(raw), true), raw);
}

}  // namespace
