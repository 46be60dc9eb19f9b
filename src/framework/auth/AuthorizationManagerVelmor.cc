#include "framework/auth/AuthorizationManagerVelmor.h"

#include <string.h>
#include <strings.h>

#include "framework/auth/MAuthenticationManager.h"
#include "libbundle/PropertyPages.h"
#include "util/Logger.h"
#include "util/WildcardMatcher.h"

static Logger gLogger("AuthorizationManager");

const char* const AuthorizationManagerVelmor::kEverybody = "everybody";

namespace {
constexpr const char* kRolePrefix = "role_";
// How often a check looks whether authorize.conf changed on disk.
constexpr time_t kConfigCheckSeconds = 2;
// A chain of imports deeper than this is cut (a guard; cycles stop earlier).
constexpr size_t kMaxImportDepth = 64;

// "a; b,c" -> "a", "b", "c" (lower-cased when `lower`).
std::vector<Str> splitList(const Str& text, bool lower) {
  std::vector<Str> out;
  Str cur;
  auto flush = [&] {
    cur.trimInPlace();
    if (!cur.empty()) out.push_back(lower ? lowercase(cur) : cur);
    cur.clear();
  };
  for (char c : text) {
    if (c == ';' || c == ',')
      flush();
    else
      cur += c;
  }
  flush();
  return out;
}

bool defaultRoleSource(const Str& user, std::set<Str>& roles) {
  return UserManager::instance().getUserType(user, roles) == 1;
}
}  // namespace

AuthorizationManagerVelmor::AuthorizationManagerVelmor(RoleSource source, PropertyPages* pages)
    : _source(source ? std::move(source) : RoleSource(defaultRoleSource)),
      _pages(pages ? pages : &PropertyPages::instance("authorize")) {}

std::shared_ptr<AuthorizationManagerVelmor> AuthorizationManagerVelmor::install(RoleSource source) {
  auto m = std::make_shared<AuthorizationManagerVelmor>(std::move(source));
  m->initialize();
  UserManager::setPermissions(m);
  return m;
}

void AuthorizationManagerVelmor::initialize() {
  for (PropertiesMapConfig* c : _pages->getConfigs()) c->reloadIfChanged();
  ScopedLock l(_mutex);
  Locked_load();
  _lastConfigCheck = time(nullptr);
}

void AuthorizationManagerVelmor::Locked_load() {
  std::set<Str> names;
  _pages->keys(names);
  std::map<Str, roleDetails> roles;
  for (const Str& stanza : names) {
    if (!stanza.startswith(kRolePrefix)) continue;
    roleDetails d;
    const size_t prefixLen = strlen(kRolePrefix);
    d.name = lowercase(StrSegment(stanza.c_str() + prefixLen, stanza.size() - prefixLen));
    if (d.name.empty()) continue;
    PropertiesMap props;
    _pages->fillLayers(props, stanza, false);
    for (const auto& [key, value] : props) {
      if (key.startswith('_')) continue;
      if (key == "importRoles") {
        d.importRoles = splitList(value, true);
      } else if (key == "srchFilter") {
        d.srchFilter = value.trim();
      } else if (key == "srchIndexesAllowed") {
        d.srchIndexesAllowed = splitList(value, false);
      } else {
        Str v = value.trim();
        if (strcasecmp(v.c_str(), "enabled") == 0)
          d.capabilities[key] = true;
        else if (strcasecmp(v.c_str(), "disabled") == 0)
          d.capabilities[key] = false;
        else
          gLogger.warn("Role '%s': '%s = %s' is neither enabled nor disabled; ignored", d.name.c_str(), key.c_str(),
                       v.c_str());
      }
    }
    roles[d.name] = std::move(d);
  }
  if (roles.find(kEverybody) == roles.end()) roles[kEverybody].name = kEverybody;
  _roles.swap(roles);
  _flatCache.clear();
  _userRoles.clear();
  _warned.clear();
  gLogger.info("Loaded %zu roles", _roles.size());
}

void AuthorizationManagerVelmor::maybeReload() {
  time_t now = time(nullptr);
  {
    ScopedLock l(_mutex);
    if (now - _lastConfigCheck < kConfigCheckSeconds && now >= _lastConfigCheck) return;
    _lastConfigCheck = now;
  }
  reloadIfChanged();
}

bool AuthorizationManagerVelmor::reloadIfChanged() {
  bool changed = false;
  for (PropertiesMapConfig* c : _pages->getConfigs())
    if (c->reloadIfChanged()) changed = true;
  if (!changed) return false;
  gLogger.info("authorize.conf changed; reading the roles again");
  ScopedLock l(_mutex);
  Locked_load();
  return true;
}

void AuthorizationManagerVelmor::registerCapability(const Str& component, const Str& capability) {
  if (capability.empty()) return;
  {
    ScopedLock l(_mutex);
    if (!_capabilityOwners.emplace(capability, component).second) return;
  }
  UserManager::registerCapability(component, capability);
}

// --- flattening ------------------------------------------------------------------------

void AuthorizationManagerVelmor::Locked_flatten(const Str& role, std::set<Str>& path, Flat& out,
                                                std::map<Str, Flat>& memo) {
  auto done = memo.find(role);
  if (done != memo.end()) {
    out = done->second;
    return;
  }
  auto it = _roles.find(role);
  if (it == _roles.end()) {
    if (_warned.insert("unknown " + role).second) gLogger.warn("Unknown group '%s'", role.c_str());
    return;
  }
  const roleDetails& d = it->second;
  path.insert(role);
  Flat imported;
  for (const Str& imp : d.importRoles) {
    if (path.count(imp)) {
      if (_warned.insert("cycle " + role + " " + imp).second)
        gLogger.warn("Role '%s' imports '%s', which leads back to it; that import is ignored", role.c_str(),
                     imp.c_str());
      continue;
    }
    if (path.size() >= kMaxImportDepth) {
      gLogger.warn("Role '%s': imports deeper than %zu roles are ignored", role.c_str(), kMaxImportDepth);
      break;
    }
    Flat sub;
    Locked_flatten(imp, path, sub, memo);
    for (const auto& [cap, on] : sub) imported[cap] = imported[cap] || on;
  }
  path.erase(role);
  // The role's own keys decide over what its imports say.
  for (const auto& [cap, on] : d.capabilities) imported[cap] = on;
  memo[role] = imported;
  out.swap(imported);
}

void AuthorizationManagerVelmor::Locked_indexes(const Str& role, std::vector<Str>& out) {
  std::set<Str> seen{role};
  std::vector<Str> todo{role};
  while (!todo.empty()) {
    Str r = todo.back();
    todo.pop_back();
    auto it = _roles.find(r);
    if (it == _roles.end()) continue;
    out.insert(out.end(), it->second.srchIndexesAllowed.begin(), it->second.srchIndexesAllowed.end());
    for (const Str& imp : it->second.importRoles)
      if (seen.insert(imp).second) todo.push_back(imp);
  }
}

const AuthorizationManagerVelmor::Flat& AuthorizationManagerVelmor::Locked_flat(const Str& role) {
  auto it = _flatCache.find(role);
  if (it != _flatCache.end() && _cacheFlat) return it->second;
  Flat f;
  std::set<Str> path;
  std::map<Str, Flat> memo;
  Locked_flatten(role, path, f, memo);
  Flat& slot = _flatCache[role];
  slot.swap(f);
  return slot;
}

void AuthorizationManagerVelmor::flattenCapabilities(const Str& role, std::set<Str>& seen, std::set<Str>& out) {
  ScopedLock l(_mutex);
  std::set<Str> path;
  for (const Str& s : seen) path.insert(lowercase(s));
  Flat f;
  std::map<Str, Flat> memo;
  Locked_flatten(lowercase(role), path, f, memo);
  seen.insert(lowercase(role));
  for (const auto& [cap, on] : f)
    if (on) out.insert(cap);
}

// --- questions ---------------------------------------------------------------------------

int AuthorizationManagerVelmor::checkPermissions(const Str& capability, const Str& target,
                                                 const std::set<Str>& roles) {
  if (!UserManager::isCapabilityKnown(capability)) {
    gLogger.warn("Request refused: capability '%s' is unknown to system", capability.c_str());
    return 0;
  }
  bool granted = false;
  {
    ScopedLock l(_mutex);
    std::set<Str> all;
    for (const Str& r : roles) all.insert(lowercase(r));
    all.insert(kEverybody);
    for (const Str& r : all) {
      if (r == "admin" && _roles.find(r) == _roles.end()) {
        granted = true;  // no configured admin role: the built-in one has everything
        break;
      }
      const Flat& f = Locked_flat(r);
      auto it = f.find(capability);
      if (it != f.end() && it->second) {
        granted = true;
        break;
      }
    }
  }
  gLogger.debug("Capability '%s' %s for '%s'", capability.c_str(), granted ? "granted" : "denied", target.c_str());
  return granted ? 1 : 0;
}

std::set<Str> AuthorizationManagerVelmor::rolesOf(const Str& user) {
  time_t now = time(nullptr);
  {
    ScopedLock l(_mutex);
    auto it = _userRoles.find(user);
    if (it != _userRoles.end() && now < it->second.expires) return it->second.roles;
  }
  std::set<Str> fromSource, roles;
  if (!user.empty() && _source(user, fromSource))
    for (const Str& r : fromSource) roles.insert(lowercase(r));
  roles.insert(kEverybody);
  ScopedLock l(_mutex);
  if (_roleCacheSeconds > 0) _userRoles[user] = CachedRoles{roles, now + _roleCacheSeconds};
  return roles;
}

void AuthorizationManagerVelmor::forgetUser(const Str& user) {
  ScopedLock l(_mutex);
  _userRoles.erase(user);
}

int AuthorizationManagerVelmor::checkUserPerms(const Str& capability, const Str& user) {
  maybeReload();
  return checkPermissions(capability, user, rolesOf(user));
}

int AuthorizationManagerVelmor::getSearchFilters(const Str& user, const Str& role, std::set<Str>& out) {
  std::set<Str> roles;
  if (!role.empty()) {
    roles.insert(lowercase(role));
  } else if (user.empty()) {
    gLogger.error("No context set. Unable to get user information");
    return 0;
  } else {
    roles = rolesOf(user);
  }
  ScopedLock l(_mutex);
  for (const Str& r : roles) {
    auto it = _roles.find(r);
    if (it == _roles.end()) {
      gLogger.warn("Filter requested for nonexistent role '%s'", r.c_str());
      continue;
    }
    unsigned long n = it->second.srchFilter.empty() ? 0 : 1;
    gLogger.debug("Returning filters for role '%s', number of filters '%lu'", r.c_str(), n);
    if (n) out.insert(it->second.srchFilter);
  }
  return 1;
}

std::vector<Str> AuthorizationManagerVelmor::getSearchFilters(const Str& user) {
  if (user.empty()) return {};
  maybeReload();
  std::set<Str> filters;
  getSearchFilters(user, Str(), filters);
  return std::vector<Str>(filters.begin(), filters.end());
}

bool AuthorizationManagerVelmor::isIndexAllowed(const Str& user, const Str& index) {
  std::set<Str> roles = rolesOf(user);
  std::vector<Str> patterns;
  {
    ScopedLock l(_mutex);
    for (const Str& r : roles) Locked_indexes(r, patterns);
  }
  if (patterns.empty()) return true;
  for (const Str& p : patterns)
    if (WildcardMatcher(StrSegment(p)).isMatch(index.c_str())) return true;
  return false;
}

int AuthorizationManagerVelmor::checkIndexAccess(const Str& user, const Str& index) {
  maybeReload();
  return isIndexAllowed(user, index) ? 1 : 0;
}

// --- roles and lists ---------------------------------------------------------------------

bool AuthorizationManagerVelmor::getRole(const Str& name, roleDetails& out) {
  ScopedLock l(_mutex);
  auto it = _roles.find(lowercase(name));
  if (it == _roles.end()) return false;
  out = it->second;
  return true;
}

void AuthorizationManagerVelmor::getRoles(std::set<Str>& out) {
  ScopedLock l(_mutex);
  for (const auto& kv : _roles) out.insert(kv.first);
}

bool AuthorizationManagerVelmor::roleExists(const Str& name) {
  ScopedLock l(_mutex);
  return _roles.count(lowercase(name)) != 0;
}

void AuthorizationManagerVelmor::getRoleMembers(std::map<Str, std::set<Str>>& out) {
  std::shared_ptr<MAuthenticationManager> auth = UserManager::getAuthManager();
  std::vector<userInformation> users;
  if (auth) auth->getUsers(Str(), Str(), users);
  for (const userInformation& u : users) {
    out[kEverybody].insert(u.username);
    for (const Str& r : u.roles) out[lowercase(r)].insert(u.username);
  }
}

void AuthorizationManagerVelmor::addUpdateRole(const Str& name, roleDetails& details) {
  ScopedLock l(_mutex);
  details.name = lowercase(name);
  for (Str& imp : details.importRoles) imp = lowercase(imp);
  _roles[details.name] = details;
  _flatCache.clear();
}

void AuthorizationManagerVelmor::getCapabilities(std::vector<Str>& out) {
  std::set<Str> known = UserManager::getAllCapabilities();
  out.assign(known.begin(), known.end());
}

void AuthorizationManagerVelmor::getAllCapabilities(std::set<Str>& out) {
  out = UserManager::getAllCapabilities();
  ScopedLock l(_mutex);
  for (const auto& kv : _roles)
    for (const auto& cap : kv.second.capabilities) out.insert(cap.first);
}

void AuthorizationManagerVelmor::logBundle() {
  std::map<Str, std::set<Str>> members;
  getRoleMembers(members);
  ScopedLock l(_mutex);
  gLogger.info("Start System roles");
  for (const auto& [name, d] : _roles) {
    Str caps, imports;
    for (const auto& [cap, on] : d.capabilities) caps += " " + cap + (on ? "" : "(disabled)");
    for (const Str& i : d.importRoles) imports += " " + i;
    gLogger.info("role '%s': imports:%s capabilities:%s", name.c_str(), imports.c_str(), caps.c_str());
  }
  gLogger.info("End System roles");
  gLogger.info("Start search filters");
  for (const auto& [name, d] : _roles)
    if (!d.srchFilter.empty()) gLogger.info("role '%s': filter '%s'", name.c_str(), d.srchFilter.c_str());
  gLogger.info("Stop search filters");
  gLogger.info("Start Groups");
  for (const auto& [role, users] : members) {
    Str list;
    for (const Str& u : users) list += " " + u;
    gLogger.info("role '%s':%s", role.c_str(), list.c_str());
  }
  gLogger.info("Stop Groups");
}

void AuthorizationManagerVelmor::setRoleCacheSeconds(int seconds) {
  ScopedLock l(_mutex);
  _roleCacheSeconds = seconds;
  _userRoles.clear();
}

void AuthorizationManagerVelmor::setFlattenCaching(bool on) {
  ScopedLock l(_mutex);
  _cacheFlat = on;
  _flatCache.clear();
}
