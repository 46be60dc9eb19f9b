// StaticFileHandler: serves the files of one directory (the web page) for
// every request path outside "/services", and hands "/services" and the
// paths below it to the handler behind it (the REST dispatcher).
//
// GET and HEAD only (other methods: 405 with "Allow: GET, HEAD"). "/" and a
// directory give its index.html. A path that holds "..", a NUL, a backslash
// or a component that starts with "." is refused (404), and so is a file
// whose real path (symbolic links resolved) lies outside the real root.
// Each reply carries a Content-Type by extension, an ETag and Last-Modified;
// a request whose If-None-Match (or, without one, If-Modified-Since) still
// holds gets 304 with no body. Cache-Control: "no-cache" (revalidate every
// time) for HTML and for assets asked for without a version; a request with
// a "v" parameter names a versioned asset, kept for a year. In an HTML file
// the text "@ASSET_VERSION@" becomes a token made of the size and time of
// every file at the top of the root, so the page asks for new assets
// whenever one changes.
//
// Ownership: `next` is not owned and must outlive this object.
// Threads: handleRequest() from many request threads at once; the object
// holds no mutable state.
#pragma once

#include <ctime>

#include "framework/http/MHttpRequestHandler.h"
#include "util/Pathname.h"
#include "util/Str.h"

class StaticFileHandler : public MHttpRequestHandler {
 public:
  static const char* const kVersionMarker;  // "@ASSET_VERSION@"
  static const char* const kServicesPrefix;  // "/services"

  // `root`: the directory served; `next`: gets "/services" paths (may be
  // null: they get 404).
  StaticFileHandler(const Pathname& root, MHttpRequestHandler* next);

  // The directory web.conf names (`[settings] staticDir`, relative to
  // VELMOR_HOME unless absolute), else $VELMOR_HOME/share/web.
  static Pathname configuredRoot();

  HTTPReply* handleRequest(const FdConnectionData& conn, const HTTPRequest* req) override;
  // The reply for a path outside "/services" (never null; the caller deletes).
  HTTPReply* serve(const HTTPRequest& req) const;

  const Pathname& root() const { return _root; }

  // Whether the request path is "/services" or below it.
  static bool isServicesPath(const Str& path);
  // The file a URL path names, relative to the root ("" for the root
  // itself); false when the path is not acceptable.
  static bool relativePathFor(const Str& urlPath, Str& rel);
  // "text/html; charset=utf-8", "text/javascript; charset=utf-8", ... by
  // the name's extension; "application/octet-stream" when unknown.
  static const char* contentTypeFor(const Str& name);
  // RFC 7231 IMF-fixdate ("Sun, 06 Nov 1994 08:49:37 GMT") and back; the
  // reader also takes the obsolete RFC 850 and asctime forms.
  static Str httpDate(time_t t);
  static bool parseHttpDate(const Str& text, time_t& out);
  // Whether an If-None-Match value ("*", or a list of tags, weak or
  // strong) names `etag`.
  static bool etagMatches(const Str& ifNoneMatch, const Str& etag);

 private:
  Str assetVersion() const;

  Pathname _root;
  Pathname _realRoot;  // resolved once; "" when the root does not exist
  MHttpRequestHandler* _next;
};
