#include "framework/UserManager.h"

#include "util/Mutex.h"

namespace {
// The stand-in until roles exist: what the admin role would allow.
class AdminStandIn : public IUserPermissions {
 public:
  int checkUserPerms(const Str&, const Str&) override { return 1; }
  std::vector<Str> getSearchFilters(const Str&) override { return {}; }
};

Mutex gMutex;
std::shared_ptr<IUserPermissions> gPermissions;

std::shared_ptr<IUserPermissions> answerer() {
  ScopedLock l(gMutex);
  if (!gPermissions) gPermissions = std::make_shared<AdminStandIn>();
  return gPermissions;
}

thread_local const UserContext* tCurrent = nullptr;
}  // namespace

int UserManager::checkUserPerms(const Str& capability, const Str& user) {
  return answerer()->checkUserPerms(capability, user);
}

std::vector<Str> UserManager::getSearchFilters(const Str& user) { return answerer()->getSearchFilters(user); }

std::shared_ptr<IUserPermissions> UserManager::setPermissions(std::shared_ptr<IUserPermissions> p) {
  ScopedLock l(gMutex);
  std::shared_ptr<IUserPermissions> old = gPermissions;
  gPermissions = std::move(p);
  return old;
}

const UserContext* UserContext::current() { return tCurrent; }

UserContext::Scope::Scope(const UserContext& ctx) : _previous(tCurrent), _ctx(ctx) { tCurrent = &_ctx; }

UserContext::Scope::~Scope() { tCurrent = _previous; }
