#include "framework/rest/HTTPPostAuthenticationImpl.h"

#include "framework/http/HTTPRequest.h"
#include "framework/rest/HTTPAuthManager.h"
#include "util/Logger.h"

static Logger gLogger("HTTPAuthManager");

EAuthState HTTPPostAuthenticationImpl::authenticate(const HTTPRequest* req, Str& user, Str& reason,
                                                    HTTPReply*& /*reply*/) {
  gLogger.debug("trying POST authentication");
  const Str* token = req->header("authtoken");
  if (token == nullptr) token = req->param("authtoken");
  if (token == nullptr) return AUTH_NOT_APPLICABLE;
  AuthInfo info;
  if (!token->empty() && _mgr.isUserSessionValid(*token, &info)) {
    gLogger.debug("POST / GET authentication sucessful");
    user = info.user;
    return AUTH_DECIDED;
  }
  reason = "POST and GET authentication falied - invalid session";
  gLogger.warn("%s", reason.c_str());
  return AUTH_REFUSED;
}
