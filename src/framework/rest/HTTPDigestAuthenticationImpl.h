// HTTPDigestAuthenticationImpl: HTTP Digest authentication with MD5 and qop
// "auth", realm "/velmor". The server hands out nonces in its challenge
// (HTTPAuthManager::newDigestChallenge) and remembers the last request count
// ("nc") used with each; a request must use the count one above it, so a
// replayed or skipped count is refused. The expected response is computed
// from the user's password as the back end gives it back
// (getCleartextPassword); a back end that cannot give it refuses every digest.
// See HTTPAuthManagerBase for the answers.
#pragma once

#include <map>

#include "framework/rest/HTTPAuthManagerBase.h"

class HTTPDigestAuthenticationImpl : public HTTPAuthManagerBase {
 public:
  using HTTPAuthManagerBase::HTTPAuthManagerBase;
  EAuthState authenticate(const HTTPRequest* req, Str& user, Str& reason, HTTPReply*& reply) override;

  // The parameters of a "Digest k=v, k="v", ..." header value (the scheme
  // word first); false when `value` is not of the Digest scheme.
  static bool parseHeader(const Str& value, std::map<Str, Str>& out);
  // The request-digest of qop "auth": MD5(HA1:nonce:nc:cnonce:qop:HA2) with
  // HA1 = MD5(user:realm:password), HA2 = MD5(method:uri), lower-case hex.
  static Str computeResponse(const Str& user, const Str& realm, const Str& password, const Str& method,
                             const Str& uri, const Str& nonce, const Str& nc, const Str& cnonce, const Str& qop);
  static Str md5Hex(const Str& text);
};
