// Reply bytes on the wire, exactly: status line, the fixed headers, extra
// headers and cookies, the body; the standard error replies; Atom
// documents.
#include <gtest/gtest.h>

#include <memory>

#include "framework/http/AtomEntry.h"
#include "framework/http/AtomFeed.h"
#include "framework/http/HTTPReply.h"

namespace {

Str bytes(const HTTPReply& r) {
  Str out;
  r.toString(out);
  return out;
}

TEST(HTTPReplyTest, ExactBytes) {
  std::unique_ptr<HTTPReply> r(HTTPReply::createReply(200, "hello", "text/plain", false));
  r->addHeader("Cache-Control", "no-cache");
  HTTPReplyCookie c;
  c.name = "session";
  c.value = "abc";
  r->addCookie(c);
  HTTPReplyCookie d;
  d.name = "pref";
  d.value = "1";
  d.path = "/app";
  d.maxAgeSeconds = 60;
  d.httpOnly = false;
  d.secure = true;
  r->addCookie(d);
  EXPECT_EQ(bytes(*r),
            "HTTP/1.1 200 OK\r\n"
            "Content-Length: 5\r\n"
            "Content-Type: text/plain; charset=utf-8\r\n"
            "Connection: close\r\n"
            "Cache-Control: no-cache\r\n"
            "Set-Cookie: session=abc; Path=/; HttpOnly\r\n"
            "Set-Cookie: pref=1; Path=/app; Max-Age=60; Secure\r\n"
            "\r\n"
            "hello");

  std::unique_ptr<HTTPReply> file(HTTPReply::createReply(200, Str("\x89PNG\0", 5), "image/png", true));
  EXPECT_EQ(bytes(*file), "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nContent-Type: image/png\r\n"
                         "Connection: close\r\n\r\n" +
                             Str("\x89PNG\0", 5));

  std::unique_ptr<HTTPReply> none(HTTPReply::createReplyNoData());
  EXPECT_EQ(bytes(*none), "HTTP/1.1 204 No Content\r\nConnection: close\r\n\r\n");
}

TEST(HTTPReplyTest, ErrorReplies) {
  std::unique_ptr<HTTPReply> x(HTTPReply::createErrorXMLReply(400, "WARN", "a < b & \"c\" 'd'"));
  const Str body =
      "<response>\n<messages>\n<msg type=\"WARN\">a &lt; b &amp; &quot;c&quot; &apos;d&apos;</msg>\n"
      "</messages>\n</response>\n";
  EXPECT_EQ(x->body(), body);
  EXPECT_EQ(bytes(*x), Str::fromFormat("HTTP/1.1 400 Bad Request\r\nContent-Length: %zu\r\n"
                                       "Content-Type: text/xml; charset=utf-8\r\nConnection: close\r\n\r\n",
                                       body.size()) +
                           body);

  std::unique_ptr<HTTPReply> nf(HTTPReply::createNotFoundErrorReply());
  EXPECT_EQ(nf->status(), 404);
  EXPECT_NE(nf->body().find("Not Found"), Str::npos);

  std::unique_ptr<HTTPReply> t(HTTPReply::createErrorTextReply(503));
  EXPECT_EQ(t->body(), "Service Unavailable\n");
  EXPECT_EQ(t->contentType(), "text/plain");

  struct Case {
    int status;
    const char* text;
  };
  for (const Case& c : {Case{200, "OK"}, Case{401, "Unauthorized"}, Case{405, "Method Not Allowed"},
                        Case{413, "Payload Too Large"}, Case{431, "Request Header Fields Too Large"},
                        Case{500, "Internal Server Error"}, Case{299, "Unknown"}, Case{-1, "Unknown"}}) {
    Str s;
    HTTPReply::getErrorString(c.status, s);
    EXPECT_EQ(s, c.text) << c.status;
  }
}

TEST(HTTPReplyTest, AtomDocuments) {
  AtomEntry e;
  e.title = "job <1>";
  e.id = "urn:job:1";
  e.updated = "2026-01-02T03:04:05Z";
  e.author = "admin";
  e.links.push_back({"/jobs/1", "alternate", ""});
  e.content = "done & dusted";
  Str doc;
  e.toXML(doc, true);
  EXPECT_EQ(doc,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<entry xmlns=\"http://www.w3.org/2005/Atom\">\n"
            "<title>job &lt;1&gt;</title>\n<id>urn:job:1</id>\n<updated>2026-01-02T03:04:05Z</updated>\n"
            "<author><name>admin</name></author>\n<link href=\"/jobs/1\" rel=\"alternate\"/>\n"
            "<content type=\"text\">done &amp; dusted</content>\n</entry>\n");

  AtomFeed f;
  f.title = "jobs";
  f.id = "urn:jobs";
  f.updated = e.updated;
  f.entries = {e, e};
  std::unique_ptr<HTTPReply> r(HTTPReply::createAtomReply(f));
  EXPECT_EQ(r->contentType(), "application/atom+xml");
  const Str& b = r->body();
  EXPECT_EQ(b.find("<feed xmlns=\"http://www.w3.org/2005/Atom\">\n<title>jobs</title>"), 39u);
  size_t first = b.find("<entry>\n"), second = b.find("<entry>\n", first + 1);
  EXPECT_NE(second, Str::npos);
  EXPECT_EQ(b.find("<author>"), b.find("<author><name>admin"));  // the feed has none of its own
  EXPECT_TRUE(b.endswith("</entry>\n</feed>\n"));
}

}  // namespace
