// HTTPReply: the reply to one request: status, headers, cookies and body,
// and the factories that give the system's standard replies. toString()
// gives the bytes that go on the wire; the server closes the connection
// after each reply ("Connection: close").
//
// Ownership: a handler returns a reply it made with new; the server (or the
// dispatcher that replaces it) deletes it. Threads: one thread at a time.
#pragma once

#include <vector>
#include <utility>

#include "util/Str.h"

struct HTTPReplyCookie {
  Str name;
  Str value;
  Str path = "/";
  long maxAgeSeconds = -1;  // -1: a session cookie
  bool httpOnly = true;
  bool secure = false;
};

class AtomFeed;
class AtomEntry;

class HTTPReply {
 public:
  HTTPReply() = default;

  int status() const { return _status; }
  void setStatus(int s) { _status = s; }
  const Str& body() const { return _body; }
  void setBody(const Str& b) { _body = b; }
  const Str& contentType() const { return _contentType; }
  void setContentType(const Str& t) { _contentType = t; }
  // Extra headers, in order, beyond the status line, Content-Length,
  // Content-Type and Connection.
  void addHeader(const Str& name, const Str& value);
  const std::vector<std::pair<Str, Str>>& extraHeaders() const { return _headers; }
  void addCookie(const HTTPReplyCookie& c) { _cookies.push_back(c); }
  const std::vector<HTTPReplyCookie>& cookies() const { return _cookies; }
  // A reply with no data (createReplyNoData) writes no Content-Type.
  bool hasData() const { return _hasData; }
  // False: Content-Type is written as given, without "; charset=utf-8".
  void setCharset(bool on) { _charset = on; }

  // The status line, "Content-Length: %lu", "Content-Type: <type>;
  // charset=utf-8", "Connection: close", the extra headers and cookies, a
  // blank line and the body.
  void toString(Str& out) const;

  // `isFile` true leaves the type as given (no charset) for binary files.
  static HTTPReply* createReply(int status, const Str& body, char const* contentType, bool isFile);
  static HTTPReply* createReplyNoData();  // 204
  static HTTPReply* createErrorTextReply(int status);  // text/plain, the status text
  // text/xml: <response><messages><msg type="TYPE">TEXT</msg></messages></response>
  static HTTPReply* createErrorXMLReply(int status, const Str& type, const Str& text);
  static HTTPReply* createNotFoundErrorReply();  // 404
  static HTTPReply* createAtomReply(const AtomFeed& feed);
  static HTTPReply* createAtomReply(const AtomEntry& entry);

  // "OK", "Not Found", ... for a status; "Unknown" for one not known.
  static void getErrorString(int status, Str& out);
  // Escapes & < > " ' for XML text and attributes.
  static Str xmlEscape(const Str& s);

 private:
  int _status = 200;
  Str _body;
  Str _contentType = "text/plain";
  bool _hasData = true;
  bool _charset = true;  // false for files: the type is written as given
  std::vector<std::pair<Str, Str>> _headers;
  std::vector<HTTPReplyCookie> _cookies;
};
