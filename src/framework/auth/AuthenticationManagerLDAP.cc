#include "framework/auth/AuthenticationManagerLDAP.h"

#include <lber.h>
#include <ldap.h>

#include <algorithm>
#include <ctime>

#include "libbundle/PropertiesMap.h"
#include "util/Logger.h"

static Logger gLogger("AuthenticationManagerLDAP");

namespace {

const int kMaxPages = 100000;
// Users and groups are read again when the last reading is this old.
const time_t kResyncSeconds = 300;

std::vector<Str> splitList(const Str& s, char sep) {
  std::vector<Str> out;
  size_t start = 0;
  while (start <= s.size()) {
    size_t at = s.find(sep, start);
    if (at == Str::npos) at = s.size();
    Str part = Str(s.substr(start, at - start)).trim();
    if (!part.empty()) out.push_back(part);
    start = at + 1;
  }
  return out;
}

Str lower(const Str& s) {
  Str out(s);
  lowercaseInPlace(out);
  return out;
}

const std::vector<Str>* attrOf(const AuthenticationManagerLDAP::Entry& e, const Str& name) {
  auto it = e.attrs.find(lower(name));
  return it == e.attrs.end() ? nullptr : &it->second;
}

Str firstAttr(const AuthenticationManagerLDAP::Entry& e, const Str& name) {
  const std::vector<Str>* v = attrOf(e, name);
  return v && !v->empty() ? (*v)[0] : Str();
}

// "(a=*)" joined with an optional extra filter.
Str andFilter(const Str& first, const Str& extra) {
  if (extra.empty()) return first;
  Str e = extra.startswith('(') ? extra : "(" + extra + ")";
  return "(&" + first + e + ")";
}

struct Unbinder {
  LDAP* ld;
  ~Unbinder() {
    if (ld) ldap_unbind_ext_s(ld, nullptr, nullptr);
  }
};

}  // namespace

bool ldapConfig::fromStanza(const PropertiesMap& s, ldapConfig& out, Str& err) {
  out = ldapConfig();
  Str v;
  if (!s.get("host", out.host) || out.host.empty()) {
    err = "No LDAP host set";
    return false;
  }
  if (s.get("port", v)) out.port = static_cast<int>(v.toLong(out.port));
  if (s.get("SSLEnabled", v)) out.SSLEnabled = v.toBool(false, false);
  if (s.get("SSLEnabled", v) && !s.get("port", v) && out.SSLEnabled) out.port = 636;
  s.get("bindDN", out.bindDN);
  s.get("bindDNpassword", out.bindDNpassword);
  if (!out.bindDN.empty() && out.bindDNpassword.empty()) {
    err = "No bind password set";
    return false;
  }
  s.get("groupBaseDN", out.groupBaseDN);
  s.get("groupBaseFilter", out.groupBaseFilter);
  s.get("groupNameAttribute", out.groupNameAttribute);
  s.get("groupMemberAttribute", out.groupMemberAttribute);
  s.get("groupMappingAttribute", out.groupMappingAttribute);
  if (!s.get("userBaseDN", out.userBaseDN) || out.userBaseDN.empty()) {
    err = "No userBaseDN set";
    return false;
  }
  s.get("userBaseFilter", out.userBaseFilter);
  s.get("userNameAttribute", out.userNameAttribute);
  s.get("realNameAttribute", out.realNameAttribute);
  s.get("failsafeLogin", out.failsafeLogin);
  s.get("failsafePassword", out.failsafePassword);
  if (s.get("pageSize", v)) out.pageSize = std::max(1, static_cast<int>(v.toLong(out.pageSize)));
  if (s.get("timeout", v)) out.timeoutSeconds = std::max(1, static_cast<int>(v.toLong(out.timeoutSeconds)));
  return true;
}

AuthenticationManagerLDAP::RoleMap AuthenticationManagerLDAP::roleMapFromStanza(const PropertiesMap* stanza) {
  RoleMap out;
  if (stanza == nullptr) return out;
  for (const auto& [role, groups] : *stanza) {
    if (role.empty() || role == PropertiesMap::RAW_KEY) continue;
    out[role] = splitList(groups, ';');
  }
  return out;
}

AuthenticationManagerLDAP::AuthenticationManagerLDAP(const ldapConfig& cfg, const RoleMap& roleMap)
    : _cfg(cfg), _roleMap(roleMap) {}

Str AuthenticationManagerLDAP::escapeFilterValue(const Str& value) {
  Str out;
  for (char c : value) {
    if (c == '*' || c == '(' || c == ')' || c == '\\' || c == '\0')
      out.appendFormat("\\%02x", static_cast<unsigned char>(c));
    else
      out += c;
  }
  return out;
}

Str AuthenticationManagerLDAP::userFilter(const Str& name) const {
  return andFilter("(" + _cfg.userNameAttribute + "=" + (name.empty() ? Str("*") : escapeFilterValue(name)) + ")",
                   _cfg.userBaseFilter);
}

// --- the directory -------------------------------------------------------------

LDAP* AuthenticationManagerLDAP::bind(const Str& host, const Str& dn, const Str& password, int port, bool ssl,
                                      bool quiet) {
  if (password.empty()) return nullptr;
  Str uri = Str::fromFormat("%s://%s:%d", ssl ? "ldaps" : "ldap", host.c_str(), port);
  if (!quiet) gLogger.debug("Attempting LDAPv3 connection");
  LDAP* ld = nullptr;
  int rc = ldap_initialize(&ld, uri.c_str());
  if (rc != LDAP_SUCCESS || ld == nullptr) {
    gLogger.error("Could not create LDAP session handle for URI=%s, respCode: %d , reason %s", uri.c_str(), rc,
                  ldap_err2string(rc));
    return nullptr;
  }
  int version = LDAP_VERSION3;
  if (ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version) != LDAP_OPT_SUCCESS)
    gLogger.warn("Could not set LDAP_OPT_PROTOCOL_VERSION %d., if you want to page results this is a problem.",
                 version);
  struct timeval tv = {_cfg.timeoutSeconds, 0};
  ldap_set_option(ld, LDAP_OPT_NETWORK_TIMEOUT, &tv);
  ldap_set_option(ld, LDAP_OPT_TIMEOUT, &tv);
  ldap_set_option(ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
  berval cred;
  cred.bv_val = const_cast<char*>(password.data());
  cred.bv_len = password.size();
  rc = ldap_sasl_bind_s(ld, dn.c_str(), LDAP_SASL_SIMPLE, &cred, nullptr, nullptr, nullptr);
  if (rc != LDAP_SUCCESS) {
    if (!quiet) gLogger.warn("Bind failed '%d' '%s'", rc, ldap_err2string(rc));
    ldap_unbind_ext_s(ld, nullptr, nullptr);
    return nullptr;
  }
  if (!quiet) gLogger.debug("Binding sucessful, returning ld");
  return ld;
}

bool AuthenticationManagerLDAP::ldapSearch(LDAP* ld, const Str& base, const Str& filter,
                                           const std::vector<Str>& attrs, std::vector<Entry>& out) {
  std::vector<char*> attrList;
  for (const Str& a : attrs) attrList.push_back(const_cast<char*>(a.c_str()));
  attrList.push_back(nullptr);
  berval cookie{0, nullptr};
  bool ok = true;
  int pages = 0;
  struct timeval tv = {_cfg.timeoutSeconds, 0};
  for (; pages < kMaxPages; ++pages) {
    LDAPControl* pageCtrl = nullptr;
    int rc = ldap_create_page_control(ld, static_cast<ber_int_t>(_cfg.pageSize), cookie.bv_val ? &cookie : nullptr,
                                      1, &pageCtrl);
    if (rc != LDAP_SUCCESS) {
      gLogger.error("Error parsing the page control '%d'", rc);
      ok = false;
      break;
    }
    LDAPControl* serverCtrls[2] = {pageCtrl, nullptr};
    LDAPMessage* res = nullptr;
    rc = ldap_search_ext_s(ld, base.c_str(), LDAP_SCOPE_SUBTREE, filter.c_str(), attrList.data(), 0, serverCtrls,
                           nullptr, &tv, LDAP_NO_LIMIT, &res);
    ldap_control_free(pageCtrl);
    if (rc != LDAP_SUCCESS && rc != LDAP_PARTIAL_RESULTS) {
      gLogger.error("LDAP search under '%s' failed '%d' '%s'", base.c_str(), rc, ldap_err2string(rc));
      if (res) ldap_msgfree(res);
      ok = false;
      break;
    }
    for (LDAPMessage* e = ldap_first_entry(ld, res); e != nullptr; e = ldap_next_entry(ld, e)) {
      Entry entry;
      char* dn = ldap_get_dn(ld, e);
      if (dn) {
        entry.dn = dn;
        ldap_memfree(dn);
      }
      BerElement* ber = nullptr;
      for (char* a = ldap_first_attribute(ld, e, &ber); a != nullptr; a = ldap_next_attribute(ld, e, ber)) {
        berval** vals = ldap_get_values_len(ld, e, a);
        std::vector<Str>& dest = entry.attrs[lower(a)];
        for (int i = 0; vals && vals[i]; ++i) dest.emplace_back(std::string(vals[i]->bv_val, vals[i]->bv_len));
        if (vals) ldap_value_free_len(vals);
        ldap_memfree(a);
      }
      if (ber) ber_free(ber, 0);
      out.push_back(std::move(entry));
    }
    LDAPControl** returned = nullptr;
    int err = LDAP_SUCCESS;
    rc = ldap_parse_result(ld, res, &err, nullptr, nullptr, nullptr, &returned, 1);
    if (cookie.bv_val) {
      ber_memfree(cookie.bv_val);
      cookie = {0, nullptr};
    }
    if (rc != LDAP_SUCCESS) {
      gLogger.error("Error parsing the page control '%d'", rc);
      ok = false;
      break;
    }
    LDAPControl* pageResp = returned ? ldap_control_find(LDAP_CONTROL_PAGEDRESULTS, returned, nullptr) : nullptr;
    bool more = false;
    if (pageResp) {
      ber_int_t estimate = 0;
      if (ldap_parse_pageresponse_control(ld, pageResp, &estimate, &cookie) != LDAP_SUCCESS) {
        gLogger.error("Paged results response control could not be decoded.");
        ok = false;
      } else {
        more = cookie.bv_val != nullptr && cookie.bv_len > 0;
      }
    }
    if (returned) ldap_controls_free(returned);
    if (!ok || !more) {
      ++pages;
      break;
    }
    gLogger.debug("More results present, getting next page");
  }
  if (cookie.bv_val) ber_memfree(cookie.bv_val);
  _lastPages = pages;
  return ok;
}

// --- users and roles -------------------------------------------------------------

std::vector<Str> AuthenticationManagerLDAP::getRoles(const Str& user, const std::set<Str>& groupsOfUser) {
  std::vector<Str> roles;
  for (const auto& [role, groups] : _roleMap) {
    bool found = false;
    for (const Str& g : groups)
      if (groupsOfUser.count(lower(g))) found = true;
    if (found) {
      gLogger.debug("Found mapping for user '%s' with role '%s'", user.c_str(), role.c_str());
      roles.push_back(role);
    } else {
      gLogger.debug("Couldn't find mapping for user '%s' for role '%s'", user.c_str(), role.c_str());
    }
  }
  return roles;
}

void AuthenticationManagerLDAP::setUserRoleMap(std::map<Str, UserEntry>& users, const std::vector<Entry>& groups) {
  for (auto& [name, u] : users) {
    Str key = lower(u.mapValue);
    std::set<Str> mine;
    for (const Entry& g : groups) {
      const std::vector<Str>* members = attrOf(g, _cfg.groupMemberAttribute);
      if (members == nullptr) continue;
      for (const Str& m : *members)
        if (lower(m) == key) {
          if (const std::vector<Str>* names = attrOf(g, _cfg.groupNameAttribute))
            for (const Str& gn : *names) mine.insert(lower(gn));
          break;
        }
    }
    u.info.roles = getRoles(name, mine);
  }
}

bool AuthenticationManagerLDAP::syncWithLDAP() {
  LDAP* ld = bind(_cfg.host, _cfg.bindDN, _cfg.bindDNpassword, _cfg.port, _cfg.SSLEnabled, false);
  if (ld == nullptr) {
    gLogger.error("Unable to read users from LDAP: the bind as '%s' failed", _cfg.bindDN.c_str());
    return false;
  }
  Unbinder guard{ld};
  std::vector<Entry> userEntries, groupEntries;
  std::vector<Str> userAttrs{_cfg.userNameAttribute, _cfg.realNameAttribute};
  if (!(lower(_cfg.groupMappingAttribute) == "dn" || _cfg.groupMappingAttribute.empty()))
    userAttrs.push_back(_cfg.groupMappingAttribute);
  if (!ldapSearch(ld, _cfg.userBaseDN, userFilter(Str()), userAttrs, userEntries)) return false;
  if (!_cfg.groupBaseDN.empty() &&
      !ldapSearch(ld, _cfg.groupBaseDN, andFilter("(" + _cfg.groupNameAttribute + "=*)", _cfg.groupBaseFilter),
                  {_cfg.groupNameAttribute, _cfg.groupMemberAttribute}, groupEntries))
    return false;
  std::map<Str, UserEntry> users;
  bool byDn = lower(_cfg.groupMappingAttribute) == "dn" || _cfg.groupMappingAttribute.empty();
  for (const Entry& e : userEntries) {
    Str name = firstAttr(e, _cfg.userNameAttribute);
    if (name.empty()) continue;
    UserEntry u;
    u.dn = e.dn;
    u.mapValue = byDn ? e.dn : firstAttr(e, _cfg.groupMappingAttribute);
    u.info.userId = name;
    u.info.username = name;
    u.info.realname = firstAttr(e, _cfg.realNameAttribute);
    users[name] = u;
  }
  setUserRoleMap(users, groupEntries);
  ScopedLock l(_mutex);
  _users.swap(users);
  _syncedAt = time(nullptr);
  return true;
}

bool AuthenticationManagerLDAP::ensureSynced() {
  {
    ScopedLock l(_mutex);
    time_t now = time(nullptr);
    if (_syncedAt != 0 && now >= _syncedAt && now - _syncedAt < kResyncSeconds) return true;
  }
  return syncWithLDAP();
}

// --- the interface ------------------------------------------------------------------

int AuthenticationManagerLDAP::userLogin(const Str& user, const Str& password, Str& userId, Str& err) {
  if (user == "harriet") {
    err = "Login forbidden for harriet.";
    return 0;
  }
  if (!_cfg.failsafeLogin.empty() && user == _cfg.failsafeLogin) {
    if (_cfg.failsafePassword.empty()) {
      err = "No failsafe password set, empty passwords are not allowed.";
      gLogger.error("%s", err.c_str());
      return 0;
    }
    if (password != _cfg.failsafePassword) {
      err = "Failsafe user authentication failed.";
      gLogger.warn("%s", err.c_str());
      return 0;
    }
    userId = user;
    return 1;
  }
  if (password.empty()) {
    err = "Authentication Failed";
    return 0;
  }
  LDAP* ld = bind(_cfg.host, _cfg.bindDN, _cfg.bindDNpassword, _cfg.port, _cfg.SSLEnabled, false);
  if (ld == nullptr) {
    err = "Authentication Failed";
    return 0;
  }
  std::vector<Entry> found;
  bool ok;
  {
    Unbinder guard{ld};
    ok = ldapSearch(ld, _cfg.userBaseDN, userFilter(user), {_cfg.userNameAttribute}, found);
  }
  if (!ok || found.empty()) {
    err = "No such user";
    return 0;
  }
  if (found.size() > 1) {
    gLogger.warn("More than one LDAP entry for user '%s'; refusing", user.c_str());
    err = "Authentication Failed";
    return 0;
  }
  LDAP* asUser = bind(_cfg.host, found[0].dn, password, _cfg.port, _cfg.SSLEnabled, false);
  if (asUser == nullptr) {
    err = "Authentication Failed";
    return 0;
  }
  ldap_unbind_ext_s(asUser, nullptr, nullptr);
  bool known = false;
  if (ensureSynced()) {
    ScopedLock l(_mutex);
    known = _users.count(user) != 0;
  }
  if (!known) syncWithLDAP();  // a user new to the directory
  userId = user;
  return 1;
}

int AuthenticationManagerLDAP::getUserInfoByName(const Str& user, userInformation& out) {
  if (!_cfg.failsafeLogin.empty() && user == _cfg.failsafeLogin) {
    out = userInformation();
    out.userId = out.username = user;
    out.realname = "Failsafe user";
    out.roles = {"Admin"};
    return 1;
  }
  if (!ensureSynced()) return 0;
  ScopedLock l(_mutex);
  auto it = _users.find(user);
  if (it == _users.end()) return 0;
  out = it->second.info;
  return 1;
}

int AuthenticationManagerLDAP::getUserType(const Str& user, std::set<Str>& roles) {
  userInformation info;
  if (!getUserInfoByName(user, info)) return 0;
  roles.insert(info.roles.begin(), info.roles.end());
  return 1;
}

int AuthenticationManagerLDAP::getUsers(const Str& user, const Str& role, std::vector<userInformation>& out) {
  if (!ensureSynced()) return 0;
  ScopedLock l(_mutex);
  for (const auto& [name, u] : _users) {
    if (!user.empty() && name != user) continue;
    if (!role.empty() && std::find(u.info.roles.begin(), u.info.roles.end(), role) == u.info.roles.end()) continue;
    out.push_back(u.info);
  }
  return 1;
}

int AuthenticationManagerLDAP::getSearchFilter(const Str&, const Str&, std::set<Str>&) { return 1; }

int AuthenticationManagerLDAP::saveUser(const userInformation&, const Str&, Str& err) {
  err = "LDAP Authentication module does not support updates.";
  return 0;
}

int AuthenticationManagerLDAP::deleteUser(const Str&, const Str&, Str& err) {
  err = "LDAP Authentication module does not support updates.";
  return 0;
}
