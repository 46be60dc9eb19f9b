// AuthorizationManagerVelmor: roles and capabilities. It answers
// UserManager's questions (IUserPermissions) once installed: whether a user
// has a capability, which search filters the user's roles impose, and which
// indexes the user's searches may read.
//
// Roles come from the layered configuration "authorize", one stanza
// "[role_<name>]" per role (names are compared without regard to case, so
// the back end's "Admin" is the stanza [role_admin]):
//   importRoles        = a;b        roles whose capabilities this one takes
//   srchFilter         = host=web1  search text ANDed to the user's searches
//   srchIndexesAllowed = main;web*  wildcards of the indexes it may search
//   <capability>       = enabled | disabled
// The role "Everybody" applies to every user, whatever the back end says.
//
// Rules:
// - Flattening: a role's capabilities are those of its imports (enabled when
//   any import enables them), overlaid by its own keys: a capability the role
//   itself disables stays disabled whatever an import says. An import cycle
//   is cut where it closes, an unknown import is skipped ("Unknown group
//   '%s'"); each problem is logged once per load of the configuration. Flattened roles are cached
//   until the configuration changes.
// - A user has a capability when any of the user's roles (flattened) enables
//   it; a capability that nobody registered is refused to everybody. When
//   the configuration has no role "admin", a built-in admin role grants every
//   registered capability (an installation without authorize.conf keeps
//   working for its administrators).
// - Search filters: the srchFilter of each of the user's roles, in order
//   (imports do not pass filters on); several are joined by " OR " by the
//   search side, so a role without a filter adds no alternative.
// - Index rights: the union of srchIndexesAllowed over the user's roles and
//   their imports; when it is empty every index is allowed (the rule for
//   indexes starting with "_", capability search_admin_index, applies apart).
// - A user's roles come from the role source (by default the installed
//   authentication back end through UserManager::getUserType) and are kept
//   for roleCacheSeconds (10 s); forgetUser() drops one at once (the users
//   REST handler calls it after a change). An unknown user has "Everybody"
//   only.
// - The configuration is looked at again at most every 2 s during checks;
//   when a bundle's authorize.conf changed on disk the roles are read again
//   and every cache is dropped.
//
// Ownership: the process holds the installed one by shared pointer
// (install()); tests build their own with their own PropertyPages and role
// source. Threads: every member may be called from any thread; the roles and
// caches are guarded by one mutex, which is not held while the role source
// (the back end) is asked.
#pragma once

#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "framework/UserManager.h"
#include "framework/auth/roleDetails.h"
#include "util/Mutex.h"
#include "util/Str.h"

class PropertyPages;

class AuthorizationManagerVelmor : public IUserPermissions {
 public:
  // Fills the roles the back end gives `user`; false when the user is unknown.
  using RoleSource = std::function<bool(const Str& user, std::set<Str>& roles)>;

  static const char* const kEverybody;  // "everybody"

  // `pages` null: PropertyPages::instance("authorize"). `source` empty: the
  // back end installed in UserManager.
  explicit AuthorizationManagerVelmor(RoleSource source = RoleSource(), PropertyPages* pages = nullptr);

  // Builds one, initializes it and installs it as UserManager's answerer.
  static std::shared_ptr<AuthorizationManagerVelmor> install(RoleSource source = RoleSource());

  // (Re)reads the roles; drops every cache. Bad keys are logged and skipped.
  void initialize();
  // Reads the roles again when a bundle's authorize.conf changed on disk
  // (what the checks do by themselves every few seconds). True when it did.
  bool reloadIfChanged();
  // A component declares a capability at start.
  void registerCapability(const Str& component, const Str& capability);

  // 1 when any role of `roles` (plus "Everybody") grants `capability`, else 0.
  // `target` is the user asking (for the log).
  int checkPermissions(const Str& capability, const Str& target, const std::set<Str>& roles);
  // The filters of `user`'s roles (only of `role` when not empty), into `out`.
  // 0 when `user` is empty and no role is given.
  int getSearchFilters(const Str& user, const Str& role, std::set<Str>& out);
  // The enabled capabilities of `role` and its imports. `seen` holds the
  // roles on the way to this one (a cycle stops there).
  void flattenCapabilities(const Str& role, std::set<Str>& seen, std::set<Str>& out);

  bool getRole(const Str& name, roleDetails& out);
  void getRoles(std::set<Str>& out);
  bool roleExists(const Str& name);
  // Role -> users that have it (asked of the back end's user list).
  void getRoleMembers(std::map<Str, std::set<Str>>& out);
  // Adds or replaces a role in memory (not written to disk).
  void addUpdateRole(const Str& name, roleDetails& details);
  // Registered capabilities, sorted.
  void getCapabilities(std::vector<Str>& out);
  // Registered capabilities and every capability a role names.
  void getAllCapabilities(std::set<Str>& out);
  // Logs the roles, the filters and the role members.
  void logBundle();

  // The user's roles, lower case, "everybody" included (cached).
  std::set<Str> rolesOf(const Str& user);
  void forgetUser(const Str& user);
  // Whether the user's roles let searches read `index`.
  bool isIndexAllowed(const Str& user, const Str& index);

  // IUserPermissions
  int checkUserPerms(const Str& capability, const Str& user) override;
  std::vector<Str> getSearchFilters(const Str& user) override;
  int checkIndexAccess(const Str& user, const Str& index) override;

  // Tuning (benches and tests): the life of cached user roles, and whether
  // flattened roles are cached at all.
  void setRoleCacheSeconds(int seconds);
  void setFlattenCaching(bool on);

 private:
  struct CachedRoles {
    std::set<Str> roles;
    time_t expires = 0;
  };
  using Flat = std::map<Str, bool>;

  void maybeReload();
  void Locked_load();
  const Flat& Locked_flat(const Str& role);
  // `path`: the roles on the way here (an import back to one is a cycle);
  // `memo`: roles already flattened during this flattening.
  void Locked_flatten(const Str& role, std::set<Str>& path, Flat& out, std::map<Str, Flat>& memo);
  // srchIndexesAllowed of `role` and every role it imports, into `out`.
  void Locked_indexes(const Str& role, std::vector<Str>& out);

  RoleSource _source;
  PropertyPages* _pages;
  Mutex _mutex;
  std::map<Str, roleDetails> _roles;
  std::map<Str, Flat> _flatCache;
  std::map<Str, Str> _capabilityOwners;
  std::map<Str, CachedRoles> _userRoles;
  std::set<Str> _warned;  // configuration problems already logged since the last load
  time_t _lastConfigCheck = 0;
  int _roleCacheSeconds = 10;
  bool _cacheFlat = true;
};
