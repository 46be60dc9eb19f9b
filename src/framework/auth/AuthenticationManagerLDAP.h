// AuthenticationManagerLDAP: a back end that asks an LDAP directory.
//
// A login first tries the failsafe user (a local name and password that work
// without the directory), then binds with the search identity (bindDN),
// finds the user's entry by userNameAttribute under userBaseDN and binds as
// that entry with the typed password. Users and groups are read with paged
// searches (pageSize entries a page). A group gives roles through the
// stanza "roleMap" ("Admin = admins;ops": members of either group are
// Admins); members are told by groupMemberAttribute, holding the user's DN
// or, when groupMappingAttribute names a user attribute (e.g. "uid"), that
// attribute's value. syncWithLDAP() rebuilds the user map; it runs at the
// first question, when the map is five minutes old, and when a user who
// logs in is not in it yet. Updates are refused.
//
// Threads: any thread; the user map has a mutex, never held over a
// directory call. Each call opens its own connection.
#pragma once

#include <ctime>
#include <map>

#include "framework/auth/MAuthenticationManager.h"
#include "util/Mutex.h"

class PropertiesMap;
typedef struct ldap LDAP;

struct ldapConfig {
  Str host = "localhost";
  int port = 389;
  bool SSLEnabled = false;
  Str bindDN;
  Str bindDNpassword;
  Str groupBaseDN;
  Str groupBaseFilter;
  Str groupNameAttribute = "cn";
  Str groupMemberAttribute = "member";
  Str groupMappingAttribute = "dn";
  Str userBaseDN;
  Str userBaseFilter;
  Str userNameAttribute = "uid";
  Str realNameAttribute = "cn";
  Str failsafeLogin;
  Str failsafePassword;
  int pageSize = 1000;
  int timeoutSeconds = 10;

  // Reads the back end's stanza; false with `err` when a required key is
  // missing.
  static bool fromStanza(const PropertiesMap& settings, ldapConfig& out, Str& err);
};

class AuthenticationManagerLDAP : public MAuthenticationManager {
 public:
  struct Entry {
    Str dn;
    std::map<Str, std::vector<Str>> attrs;  // attribute names in lower case
  };
  // role -> the groups that give it
  using RoleMap = std::map<Str, std::vector<Str>>;

  AuthenticationManagerLDAP(const ldapConfig& cfg, const RoleMap& roleMap);
  // Reads a "roleMap" stanza ("role = group;group").
  static RoleMap roleMapFromStanza(const PropertiesMap* stanza);

  int userLogin(const Str& user, const Str& password, Str& userId, Str& err) override;
  int getUserInfoByName(const Str& user, userInformation& out) override;
  int getUserType(const Str& user, std::set<Str>& roles) override;
  int getUsers(const Str& user, const Str& role, std::vector<userInformation>& out) override;
  int getSearchFilter(const Str& user, const Str& role, std::set<Str>& out) override;
  int saveUser(const userInformation& info, const Str& password, Str& err) override;
  int deleteUser(const Str& user, const Str& by, Str& err) override;
  Str getAuthSystem() const override { return "LDAP"; }

  // A connection bound as `dn` (null on failure; the caller unbinds it with
  // ldap_unbind_ext_s). An empty password is refused before the server
  // sees it (it would be an anonymous bind).
  LDAP* bind(const Str& host, const Str& dn, const Str& password, int port, bool ssl, bool quiet);
  // Every entry under `base` matching `filter`, page by page. False on error.
  bool ldapSearch(LDAP* ld, const Str& base, const Str& filter, const std::vector<Str>& attrs,
                  std::vector<Entry>& out);
  // Reads users and groups and rebuilds the user map. False on error.
  bool syncWithLDAP();
  // The number of pages the last search read (for tests).
  int lastPageCount() const { return _lastPages; }

  // `value` escaped for a search filter.
  static Str escapeFilterValue(const Str& value);

 private:
  struct UserEntry {
    Str dn;
    Str mapValue;  // what group members name this user by
    userInformation info;
  };
  bool ensureSynced();
  void setUserRoleMap(std::map<Str, UserEntry>& users, const std::vector<Entry>& groups);
  // The roles `groupsOfUser` give by the role map.
  std::vector<Str> getRoles(const Str& user, const std::set<Str>& groupsOfUser);
  Str userFilter(const Str& name) const;

  ldapConfig _cfg;
  RoleMap _roleMap;
  Mutex _mutex;
  time_t _syncedAt = 0;  // 0: never
  std::map<Str, UserEntry> _users;
  int _lastPages = 0;
};
