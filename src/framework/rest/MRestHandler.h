// MRestHandler: a handler of one type of restmap.conf stanzas ("search" for
// "[search:jobs]"), registered with the dispatcher under that type.
//
// The dispatcher has already authenticated the request, checked the
// capability and the parameter specification of the stanza when it calls
// handleRequest; the calling thread's UserContext is the request's user.
//
// Ownership: the registrant owns the handler and keeps it alive while the
// dispatcher may call it. Threads: handleRequest is called on the request's
// own thread, many at once; init on the thread that loads the configuration.
#pragma once

#include <map>

#include "util/Str.h"

class HTTPReply;
class HTTPRequest;
class RestMapData;
struct FdConnectionData;

class MRestHandler {
 public:
  virtual ~MRestHandler() = default;
  // The stanzas of this handler's type, by stanza name, each time the
  // configuration is (re)loaded. The pointers stay valid until the next call.
  virtual void init(std::map<Str, RestMapData*>& /*stanzas*/) {}
  // `path` is the request path behind "/services" ("/search/jobs/12").
  // Returns a reply made with new, never null.
  virtual HTTPReply* handleRequest(const FdConnectionData& conn, const HTTPRequest* req, const Str& path,
                                   const RestMapData& stanza) = 0;
};
