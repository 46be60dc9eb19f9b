#include "framework/UserManager.h"

#include <algorithm>

#include "util/Logger.h"
#include "util/Mutex.h"

static Logger gLogger("UserManager");

namespace {
// The stand-in until roles exist: what the admin role would allow.
class AdminStandIn : public IUserPermissions {
 public:
  int checkUserPerms(const Str&, const Str&) override { return 1; }
  std::vector<Str> getSearchFilters(const Str&) override { return {}; }
};

// The capabilities the system checks today, known before any registration.
const char* const kBuiltInCapabilities[] = {
    "search",          "search_history", "search_admin_index",    "delete_by_keyword",
    "edit_user",       "delete_user",    "request_auth_token",    "bounce_authentication",
};

struct State {
  Mutex mutex;
  std::shared_ptr<IUserPermissions> permissions;
  std::shared_ptr<MAuthenticationManager> auth;
  std::set<Str> capabilities{std::begin(kBuiltInCapabilities), std::end(kBuiltInCapabilities)};
};

State& state() {
  static State* s = new State();  // lives until exit
  return *s;
}

std::shared_ptr<IUserPermissions> answerer() {
  State& s = state();
  ScopedLock l(s.mutex);
  if (!s.permissions) s.permissions = std::make_shared<AdminStandIn>();
  return s.permissions;
}

const char* const kNoBackEnd = "No authentication system is configured";

thread_local const UserContext* tCurrent = nullptr;
}  // namespace

UserManager::UserManager() { gLogger.info("Initializing UserManager"); }

UserManager& UserManager::instance() {
  static UserManager* um = new UserManager();  // lives until exit
  return *um;
}

int UserManager::checkUserPerms(const Str& capability, const Str& user) {
  gLogger.debug("Checking capability '%s'", capability.c_str());
  if (!isCapabilityKnown(capability)) {
    gLogger.warn("Request refused: capability '%s' is unknown to system", capability.c_str());
    return 0;
  }
  int granted = answerer()->checkUserPerms(capability, user) == 1 ? 1 : 0;
  bool readOnly = capability.startswith("get_");
  const UserContext* ctx = UserContext::current();
  gLogger.log(readOnly ? Logger::DEBUG : Logger::INFO,
              "Permission %s for user '%s', capability '%s', type '%s', auditInfo='%s'",
              granted ? "granted" : "denied", user.c_str(), capability.c_str(), readOnly ? "read" : "write",
              ctx ? ctx->user.c_str() : "");
  if (!granted) gLogger.info("Permission failed for action '%s'", capability.c_str());
  return granted;
}

int UserManager::checkContextPerms(const Str& capability) {
  const UserContext* ctx = UserContext::current();
  if (ctx == nullptr || ctx->user.empty()) {
    gLogger.warn("No context set, Denying request due to lack of credentials.");
    return 0;
  }
  return checkUserPerms(capability, ctx->user);
}

std::vector<Str> UserManager::getSearchFilters(const Str& user) { return answerer()->getSearchFilters(user); }

int UserManager::checkIndexAccess(const Str& user, const Str& index) {
  int allowed = answerer()->checkIndexAccess(user, index) == 1 ? 1 : 0;
  if (!allowed) gLogger.info("Index '%s' refused to user '%s' by the roles' srchIndexesAllowed", index.c_str(), user.c_str());
  return allowed;
}

Str UserManager::indexRefusal(const Str& index) { return "Your roles do not allow searching the index " + index; }

std::shared_ptr<IUserPermissions> UserManager::setPermissions(std::shared_ptr<IUserPermissions> p) {
  State& s = state();
  ScopedLock l(s.mutex);
  std::shared_ptr<IUserPermissions> old = s.permissions;
  s.permissions = std::move(p);
  return old;
}

void UserManager::registerCapability(const Str& component, const Str& capability) {
  if (capability.empty()) return;
  State& s = state();
  ScopedLock l(s.mutex);
  if (s.capabilities.insert(capability).second)
    gLogger.debug("Component '%s', registering capability '%s'", component.c_str(), capability.c_str());
}

bool UserManager::isCapabilityKnown(const Str& capability) {
  State& s = state();
  ScopedLock l(s.mutex);
  return s.capabilities.count(capability) != 0;
}

std::set<Str> UserManager::getAllCapabilities() {
  State& s = state();
  ScopedLock l(s.mutex);
  return s.capabilities;
}

std::shared_ptr<MAuthenticationManager> UserManager::setAuthManager(std::shared_ptr<MAuthenticationManager> m) {
  State& s = state();
  ScopedLock l(s.mutex);
  std::shared_ptr<MAuthenticationManager> old = s.auth;
  s.auth = std::move(m);
  return old;
}

std::shared_ptr<MAuthenticationManager> UserManager::getAuthManager() {
  State& s = state();
  ScopedLock l(s.mutex);
  return s.auth;
}

int UserManager::getUserContextInfo(UserContext& out) {
  const UserContext* ctx = UserContext::current();
  if (ctx == nullptr) {
    gLogger.error("No context set. Unable to get user information");
    return 0;
  }
  out = *ctx;
  return 1;
}

int UserManager::userLogin(const Str& user, const Str& password, Str& userId, Str& err) {
  std::shared_ptr<MAuthenticationManager> auth = getAuthManager();
  if (!auth) {
    err = kNoBackEnd;
    return 0;
  }
  return auth->userLogin(user, password, userId, err);
}

int UserManager::getUserType(const Str& user, std::set<Str>& roles) {
  std::shared_ptr<MAuthenticationManager> auth = getAuthManager();
  return auth ? auth->getUserType(user, roles) : 0;
}

int UserManager::getUserSrchFilters(const Str& user, std::vector<Str>& out) {
  out = getSearchFilters(user);
  std::shared_ptr<MAuthenticationManager> auth = getAuthManager();
  if (!auth) return 1;
  std::set<Str> fromBackEnd;
  if (!auth->getSearchFilter(user, Str(), fromBackEnd)) return 0;
  for (const Str& f : fromBackEnd)
    if (std::find(out.begin(), out.end(), f) == out.end()) out.push_back(f);
  return 1;
}

int UserManager::saveUser(const userInformation& info, const Str& password, Str& err) {
  std::shared_ptr<MAuthenticationManager> auth = getAuthManager();
  if (!auth) {
    err = kNoBackEnd;
    return 0;
  }
  return auth->saveUser(info, password, err);
}

int UserManager::changeUserPassword(const Str& user, const Str& password, Str& err) {
  std::shared_ptr<MAuthenticationManager> auth = getAuthManager();
  if (!auth) {
    err = kNoBackEnd;
    return 0;
  }
  if (password.empty()) {
    err = "A password must not be empty";
    return 0;
  }
  userInformation info;
  if (!auth->getUserInfoByName(user, info)) {
    err = "No such user";
    return 0;
  }
  return auth->saveUser(info, password, err);
}

int UserManager::isUserSessionValid(const Str& user) {
  std::shared_ptr<MAuthenticationManager> auth = getAuthManager();
  return auth ? auth->checkSession(user) : 0;
}

Str UserManager::getAuthSystem() {
  std::shared_ptr<MAuthenticationManager> auth = getAuthManager();
  return auth ? auth->getAuthSystem() : Str();
}

const UserContext* UserContext::current() { return tCurrent; }

std::vector<Str> UserContext::combineFilters(const std::vector<Str>& own, const std::vector<Str>& forwarded) {
  if (forwarded.empty()) return own;
  if (own.empty()) return forwarded;
  std::vector<Str> out;
  for (const Str& o : own)
    for (const Str& f : forwarded) out.push_back("( " + o + " ) ( " + f + " )");
  return out;
}

UserContext::Scope::Scope(const UserContext& ctx) : _previous(tCurrent), _ctx(ctx) { tCurrent = &_ctx; }

UserContext::Scope::~Scope() { tCurrent = _previous; }
