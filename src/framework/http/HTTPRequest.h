// HTTPRequest: one request as the server read it: method, path, query
// parameters, headers, cookies and body. Parameters map to every value
// given, in order, since a key may repeat ("roles=a&roles=b").
//
// Built by the server's reader from the bytes of one request (parse()), then
// handed read-only to the handler thread. The user name is filled in by the
// authentication layer once the request is authenticated.
//
// Threads: built on the loop's thread; afterwards const and read by the one
// handler thread of the request.
#pragma once

#include <map>
#include <vector>

#include "util/Str.h"

struct HTTPRequestCookie {
  Str name;
  Str value;
};

class HTTPRequest {
 public:
  using Params = std::map<Str, std::vector<Str>>;

  HTTPRequest() = default;

  // Parses a request: `header` is everything up to and including the blank
  // line, `body` the Content-Length bytes after it. False with a reason in
  // `err` when the request line or a header line is malformed.
  bool parse(const Str& header, const Str& body, Str& err);

  const Str& method() const { return _method; }          // "GET", "POST", ...
  const Str& path() const { return _path; }              // URL-decoded, no query
  const Str& rawPath() const { return _rawPath; }        // as sent, with the query
  const Str& version() const { return _version; }        // "HTTP/1.1"
  const Str& body() const { return _body; }
  const Params& getParams() const { return _getParams; }    // from the query string
  const Params& postParams() const { return _postParams; }  // from a form body
  // The first value of a key from the body, else from the query; null if absent.
  const Str* param(const Str& key) const;
  // Header lookup, name matched without regard to case; null if absent.
  const Str* header(const Str& name) const;
  const std::map<Str, Str>& headers() const { return _headers; }  // names lower-cased

  // The path cut at "/" with empty components dropped.
  void getMethodComponents(std::vector<Str>& out) const;
  void getHeaderComponents(std::map<Str, Str>& out) const { out = _headers; }
  Str getHost() const;  // the Host header, else ""
  void getCookies(std::vector<HTTPRequestCookie>& out) const { out = _cookies; }
  void addCookies(const std::vector<HTTPRequestCookie>& c);

  // The user the request was authenticated as ("" before).
  const Str& user() const { return _user; }
  void setUser(const Str& u) const { _user = u; }

  // "a=1&b=x%20y&a=2" (also '+' as space) into `out`, appending values.
  static void parseEncodedString(const Str& s, Params& out);
  // Splits "/p/q?x=1" into the decoded path "/p/q" and its parameters.
  static void parseGetParams(const Str& url, Str& path, Params& out);
  // %XX and '+' decoding; a malformed escape is kept as it stands.
  static Str urlDecode(const Str& s, bool plusIsSpace);
  static Str urlEncode(const Str& s);

 private:
  Str _method, _path, _rawPath, _version, _body;
  Params _getParams, _postParams;
  std::map<Str, Str> _headers;
  std::vector<HTTPRequestCookie> _cookies;
  mutable Str _user;
};
