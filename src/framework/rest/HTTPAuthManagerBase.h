// HTTPAuthManagerBase: one way a request may carry its credentials (a
// header token, a posted token, the old user/token triple, an HTTP digest).
// HTTPAuthManager asks each in turn; each answers with an EAuthState:
//   AUTH_NOT_APPLICABLE (0): the request does not use this form; try the next.
//   AUTH_DECIDED        (1): decided; `reply` is null on success (and `user`
//                            is set), else the reply to send as it is.
//   AUTH_REFUSED        (2): the credentials are wrong; `reason` says why and
//                            the caller sends a 401.
//   AUTH_END            (3): stop asking; the request is refused as one
//                            without credentials (a stale digest nonce).
//
// Ownership: owned by the HTTPAuthManager it refers to. Threads: any request
// thread, many at once; implementations keep no per-request state.
#pragma once

#include "util/Str.h"

class HTTPAuthManager;
class HTTPReply;
class HTTPRequest;

enum EAuthState { AUTH_NOT_APPLICABLE = 0, AUTH_DECIDED = 1, AUTH_REFUSED = 2, AUTH_END = 3 };

class HTTPAuthManagerBase {
 public:
  explicit HTTPAuthManagerBase(HTTPAuthManager& mgr) : _mgr(mgr) {}
  virtual ~HTTPAuthManagerBase() = default;
  HTTPAuthManagerBase(const HTTPAuthManagerBase&) = delete;
  HTTPAuthManagerBase& operator=(const HTTPAuthManagerBase&) = delete;

  virtual EAuthState authenticate(const HTTPRequest* req, Str& user, Str& reason, HTTPReply*& reply) = 0;

 protected:
  HTTPAuthManager& _mgr;
};
