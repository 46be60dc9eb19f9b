#include "framework/auth/ToolUser.h"

#include <stdlib.h>

#include <set>

#include "framework/auth/AuthenticationManagerProxy.h"
#include "framework/auth/AuthorizationManagerVelmor.h"

ToolUser::ToolUser() {
  const char* env = getenv("VELMOR_USER");
  UserContext ctx;
  AuthorizationManagerVelmor::RoleSource source;
  if (env && *env) {
    ctx.user = env;
    UserManager::setAuthManager(AuthenticationManagerProxy::instancePtr());
  } else {
    ctx.user = "admin";
    source = [](const Str&, std::set<Str>& roles) {
      roles.insert("admin");
      return true;
    };
  }
  _name = ctx.user;
  _authz = AuthorizationManagerVelmor::install(source);
  ctx.searchFilters = UserManager::getSearchFilters(ctx.user);
  _scope = std::make_unique<UserContext::Scope>(ctx);
}

ToolUser::~ToolUser() {
  _scope.reset();
  UserManager::setPermissions(nullptr);
  UserManager::setAuthManager(nullptr);
}
