// HTTPHeaderAuthenticationImpl: a session key in the header
// "Authorization: Velmor <key>". See HTTPAuthManagerBase for the answers.
#pragma once

#include "framework/rest/HTTPAuthManagerBase.h"

class HTTPHeaderAuthenticationImpl : public HTTPAuthManagerBase {
 public:
  using HTTPAuthManagerBase::HTTPAuthManagerBase;
  EAuthState authenticate(const HTTPRequest* req, Str& user, Str& reason, HTTPReply*& reply) override;
};
