// MHttpRequestHandler: what the server calls with each complete request
// that no stream handler takes. The REST dispatcher is the one the service
// installs; tests install their own.
//
// Threads: called on the request's own handler thread, many at once; an
// implementation must be thread-safe.
#pragma once

class HTTPReply;
class HTTPRequest;
struct FdConnectionData;

class MHttpRequestHandler {
 public:
  virtual ~MHttpRequestHandler() = default;
  // Returns a reply made with new (the caller deletes it), never null.
  virtual HTTPReply* handleRequest(const FdConnectionData& conn, const HTTPRequest* req) = 0;
};
