#include "framework/rest/HTTPOldSchoolAuthenticationImpl.h"

#include "framework/http/HTTPRequest.h"
#include "framework/rest/HTTPAuthManager.h"
#include "util/Logger.h"

static Logger gLogger("HTTPAuthManager");

EAuthState HTTPOldSchoolAuthenticationImpl::authenticate(const HTTPRequest* req, Str& user, Str& reason,
                                                         HTTPReply*& /*reply*/) {
  const Str* userId = req->param("userId");
  const Str* username = req->param("username");
  const Str* token = req->param("authToken");
  if (req->param("oldschoolauth") == nullptr && userId == nullptr && token == nullptr) return AUTH_NOT_APPLICABLE;
  if (userId == nullptr || username == nullptr || token == nullptr || token->empty()) {
    reason = "missing get and post data - cannot authenticate using old school (requires userId, username, authTone)";
    gLogger.warn("%s", reason.c_str());
    return AUTH_REFUSED;
  }
  AuthInfo info;
  if (!_mgr.isUserSessionValid(*token, &info) || info.user != *username || info.userId != *userId) {
    reason = "Auth tokens don't match. Session Invalid";
    gLogger.warn("%s", reason.c_str());
    return AUTH_REFUSED;
  }
  user = info.user;
  return AUTH_DECIDED;
}
