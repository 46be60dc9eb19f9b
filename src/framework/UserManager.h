// UserManager: the capabilities of users, as the rest of the system asks for
// them: checkUserPerms(capability, user). Who has what is answered by an
// IUserPermissions: the service and the search tool install the
// authorization manager (roles of authorize.conf); until one is installed
// the answerer is the stand-in that gives every user what the admin role
// has: every capability, every index, and no search filter. Tests install
// their own.
//
// UserContext: the user a thread works for (its name and the search filters
// of its roles), set by whoever starts work on a user's behalf (a search
// tool, a request handler) with UserContext::Scope.
//
// Capabilities are known by registration: registerCapability(component,
// capability) at start; those used by the system itself are registered
// before the first check. A capability nobody registered is refused to every
// user, whatever the answerer says ("Request refused: capability '%s' is
// unknown to system").
//
// Who a user is comes from the installed authentication back end
// (setAuthManager; the service installs the proxy of the configured back
// end). The user calls below forward to it; without one they fail.
//
// Threads: any thread may call; the answerer, the back end and the
// capability set are guarded by one mutex, and the answerer and back end
// must themselves be thread-safe. The user context is per thread.
#pragma once

#include <memory>
#include <set>
#include <vector>

#include "framework/auth/MAuthenticationManager.h"
#include "util/Str.h"

struct UserContext;

class IUserPermissions {
 public:
  virtual ~IUserPermissions() = default;
  // 1 when the user has the capability, 0 when not.
  virtual int checkUserPerms(const Str& capability, const Str& user) = 0;
  // The search filters of the user's roles (empty: unrestricted).
  virtual std::vector<Str> getSearchFilters(const Str& user) = 0;
  // 1 when the user's roles let searches read `index` (the rule for
  // indexes starting with "_" is apart: capability search_admin_index).
  virtual int checkIndexAccess(const Str& /*user*/, const Str& /*index*/) { return 1; }
};

class UserManager {
 public:
  static int checkUserPerms(const Str& capability, const Str& user);
  // checkUserPerms for the user of the calling thread's context; refused
  // when no context is set.
  static int checkContextPerms(const Str& capability);
  static std::vector<Str> getSearchFilters(const Str& user);
  // 1 when `user` may search `index`; the text of a refusal is
  // indexRefusal(index).
  static int checkIndexAccess(const Str& user, const Str& index);
  static Str indexRefusal(const Str& index);
  // Installs an answerer (null: the admin stand-in again). Returns the one
  // it replaced.
  static std::shared_ptr<IUserPermissions> setPermissions(std::shared_ptr<IUserPermissions> p);

  // The singleton ("Initializing UserManager" at its making).
  static UserManager& instance();

  // Capabilities. `component` names who registered it (for the log).
  static void registerCapability(const Str& component, const Str& capability);
  static bool isCapabilityKnown(const Str& capability);
  static std::set<Str> getAllCapabilities();

  // The authentication back end (null: none). Returns the one it replaced.
  static std::shared_ptr<MAuthenticationManager> setAuthManager(std::shared_ptr<MAuthenticationManager> m);
  static std::shared_ptr<MAuthenticationManager> getAuthManager();

  // 1 and the calling thread's context in `out`, or 0 when none is set.
  int getUserContextInfo(UserContext& out);
  // The back end's answers; 0 with a reason in `err` when there is no back end.
  int userLogin(const Str& user, const Str& password, Str& userId, Str& err);
  int getUserType(const Str& user, std::set<Str>& roles);
  // The filters of the user's roles and those the back end attaches.
  int getUserSrchFilters(const Str& user, std::vector<Str>& out);
  int saveUser(const userInformation& info, const Str& password, Str& err);
  int changeUserPassword(const Str& user, const Str& password, Str& err);
  int isUserSessionValid(const Str& user);
  // "Velmor", "LDAP", "Scripted", or "" without a back end.
  Str getAuthSystem();

 private:
  UserManager();
};

struct UserContext {
  Str user;
  std::vector<Str> searchFilters;

  // The context of the calling thread, or null when none was set.
  static const UserContext* current();
  // The filters of a user whose server also got `forwarded` filters from a
  // head server (the role filters of the user there): each alternative must
  // hold both, so the result is every "( own ) ( forwarded )" pair; either
  // list empty gives the other.
  static std::vector<Str> combineFilters(const std::vector<Str>& own, const std::vector<Str>& forwarded);

  class Scope;
};

// Sets the calling thread's user context for the scope's lifetime.
class UserContext::Scope {
 public:
  explicit Scope(const UserContext& ctx);
  ~Scope();
  Scope(const Scope&) = delete;
  Scope& operator=(const Scope&) = delete;

 private:
  const UserContext* _previous;
  UserContext _ctx;
};
