// HTTPPostAuthenticationImpl: a session key as the header "authtoken" or as
// the parameter "authtoken" (body or query). See HTTPAuthManagerBase.
#pragma once

#include "framework/rest/HTTPAuthManagerBase.h"

class HTTPPostAuthenticationImpl : public HTTPAuthManagerBase {
 public:
  using HTTPAuthManagerBase::HTTPAuthManagerBase;
  EAuthState authenticate(const HTTPRequest* req, Str& user, Str& reason, HTTPReply*& reply) override;
};
