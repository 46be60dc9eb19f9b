#include "framework/rest/HTTPHeaderAuthenticationImpl.h"

#include "framework/http/HTTPRequest.h"
#include "framework/rest/HTTPAuthManager.h"
#include "util/Logger.h"

static Logger gLogger("HTTPAuthManager");

EAuthState HTTPHeaderAuthenticationImpl::authenticate(const HTTPRequest* req, Str& user, Str& reason,
                                                      HTTPReply*& /*reply*/) {
  const Str* h = req->header("Authorization");
  if (h == nullptr) {
    gLogger.debug("Authorization header not found, continuing...");
    return AUTH_NOT_APPLICABLE;
  }
  static const Str kScheme = "Velmor";
  if (h->compare(0, kScheme.size(), kScheme) != 0 || (h->size() > kScheme.size() && (*h)[kScheme.size()] != ' ')) {
    gLogger.debug("Not Velmor header authentication, continuing...");
    return AUTH_NOT_APPLICABLE;
  }
  Str token = h->size() > kScheme.size() ? h->substr(kScheme.size() + 1) : Str();
  while (!token.empty() && token.front() == ' ') token.erase(0, 1);
  while (!token.empty() && token.back() == ' ') token.pop_back();
  if (token.empty()) {
    reason = "Token not specified in Authorization: Velmor <token> header";
    gLogger.warn("%s", reason.c_str());
    return AUTH_REFUSED;
  }
  AuthInfo info;
  if (!_mgr.isUserSessionValid(token, &info)) {
    reason = "Auth token provided is not valid. Refusing request";
    gLogger.warn("%s", reason.c_str());
    return AUTH_REFUSED;
  }
  user = info.user;
  return AUTH_DECIDED;
}
