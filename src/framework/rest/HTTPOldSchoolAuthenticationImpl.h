// HTTPOldSchoolAuthenticationImpl: the triple "userId", "username",
// "authToken" as query or body parameters (callers mark it with the
// parameter "oldschoolauth"). The token is a session key, and the user and
// id must be those the session was opened for. See HTTPAuthManagerBase.
#pragma once

#include "framework/rest/HTTPAuthManagerBase.h"

class HTTPOldSchoolAuthenticationImpl : public HTTPAuthManagerBase {
 public:
  using HTTPAuthManagerBase::HTTPAuthManagerBase;
  EAuthState authenticate(const HTTPRequest* req, Str& user, Str& reason, HTTPReply*& reply) override;
};
