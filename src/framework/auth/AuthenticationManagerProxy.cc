#include "framework/auth/AuthenticationManagerProxy.h"

#include "framework/auth/AuthenticationManagerLDAP.h"
#include "framework/auth/AuthenticationManagerScripted.h"
#include "framework/auth/AuthenticationManagerVelmor.h"
#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPages.h"
#include "util/Logger.h"

static Logger gLogger("AuthenticationManagerProxy");

namespace {
const char* const kConfName = "authentication";
}

std::shared_ptr<AuthenticationManagerProxy> AuthenticationManagerProxy::instancePtr() {
  // Held by a pointer never freed, so that it outlives every static holder.
  static auto* proxy = new std::shared_ptr<AuthenticationManagerProxy>(std::make_shared<AuthenticationManagerProxy>());
  return *proxy;
}

AuthenticationManagerProxy& AuthenticationManagerProxy::instance() { return *instancePtr(); }

AuthenticationManagerProxy::AuthenticationManagerProxy(const Pathname& configDir) : _configDir(configDir) {}

std::shared_ptr<MAuthenticationManager> AuthenticationManagerProxy::build(Str& err) {
  PropertyPages& pages = PropertyPages::instance(kConfName);
  pages.updateConfigs();
  std::unique_ptr<PropertiesMap> main = pages.get("authentication");
  Str type, settingsName;
  if (main) {
    main->get("authType", type);
    main->get("authSettings", settingsName);
  }
  if (type.empty()) {
    gLogger.info("No authentication system specified, defaulting to Velmor authentication.");
    type = "Velmor";
  }
  if (type == "Velmor") return std::make_shared<AuthenticationManagerVelmor>(_configDir);
  std::unique_ptr<PropertiesMap> settings = settingsName.empty() ? nullptr : pages.get(settingsName);
  if (type == "LDAP" || type == "Scripted") {
    if (!settings) {
      err = "authSettings does not name a stanza of authentication.conf";
    } else if (type == "LDAP") {
      ldapConfig cfg;
      if (ldapConfig::fromStanza(*settings, cfg, err)) {
        std::unique_ptr<PropertiesMap> roles = pages.get("roleMap");
        return std::make_shared<AuthenticationManagerLDAP>(cfg, AuthenticationManagerLDAP::roleMapFromStanza(roles.get()));
      }
    } else {
      scriptConfig cfg;
      std::unique_ptr<PropertiesMap> timing = pages.get("cacheTiming");
      if (scriptConfig::fromStanzas(*settings, timing.get(), cfg, err))
        return std::make_shared<AuthenticationManagerScripted>(cfg);
    }
  } else {
    err = "Unknown authType '" + type + "'";
  }
  gLogger.error("Authentication configuration refused (%s); using Velmor authentication", err.c_str());
  return std::make_shared<AuthenticationManagerVelmor>(_configDir);
}

bool AuthenticationManagerProxy::reload(Str& err) {
  err.clear();
  std::shared_ptr<MAuthenticationManager> impl = build(err);
  setImpl(impl);
  return err.empty();
}

std::shared_ptr<MAuthenticationManager> AuthenticationManagerProxy::getImpl() {
  {
    ScopedLock l(_mutex);
    if (_impl) return _impl;
  }
  Str err;
  std::shared_ptr<MAuthenticationManager> impl = build(err);
  ScopedLock l(_mutex);
  if (!_impl) {
    _impl = impl;
    ++_generation;
  }
  return _impl;
}

void AuthenticationManagerProxy::setImpl(std::shared_ptr<MAuthenticationManager> impl) {
  ScopedLock l(_mutex);
  _impl = std::move(impl);
  ++_generation;
}

uint64_t AuthenticationManagerProxy::generation() const {
  ScopedLock l(_mutex);
  return _generation;
}

bool AuthenticationManagerProxy::getBundleConfig(Str& authType, PropertiesMap& settings) {
  PropertyPages& pages = PropertyPages::instance(kConfName);
  std::unique_ptr<PropertiesMap> main = pages.get("authentication");
  Str name;
  authType = "Velmor";
  if (main) {
    main->get("authType", authType);
    main->get("authSettings", name);
  }
  std::unique_ptr<PropertiesMap> s = name.empty() ? nullptr : pages.get(name);
  if (!s) return false;
  settings = *s;
  return true;
}

bool AuthenticationManagerProxy::setBundleConfig(const Str& settingsStanza, const Str& authType,
                                                 const PropertiesMap& settings, bool reloadNow, Str& err) {
  if (authType != "Velmor" && authType != "LDAP" && authType != "Scripted") {
    err = "Unknown authType '" + authType + "'";
    return false;
  }
  if (settingsStanza.empty() || settingsStanza == "authentication" || settingsStanza == "roleMap" ||
      settingsStanza == "cacheTiming") {
    err = "Invalid settings stanza name '" + settingsStanza + "'";
    return false;
  }
  PropertyPages& pages = PropertyPages::instance(kConfName);
  PropertiesMap main;
  main.put("authType", authType);
  main.put("authSettings", settingsStanza);
  if (!pages.putLocal("authentication", main, false) || !pages.putLocal(settingsStanza, settings, true)) {
    err = "Unable to write the local authentication.conf";
    return false;
  }
  if (!reloadNow) return true;
  return reload(err);
}

// --- forwarding ---------------------------------------------------------------

int AuthenticationManagerProxy::userLogin(const Str& user, const Str& password, Str& userId, Str& err) {
  return getImpl()->userLogin(user, password, userId, err);
}
int AuthenticationManagerProxy::getUserInfoByName(const Str& user, userInformation& out) {
  return getImpl()->getUserInfoByName(user, out);
}
int AuthenticationManagerProxy::getUserType(const Str& user, std::set<Str>& roles) {
  return getImpl()->getUserType(user, roles);
}
int AuthenticationManagerProxy::getUsers(const Str& user, const Str& role, std::vector<userInformation>& out) {
  return getImpl()->getUsers(user, role, out);
}
int AuthenticationManagerProxy::getSearchFilter(const Str& user, const Str& role, std::set<Str>& out) {
  return getImpl()->getSearchFilter(user, role, out);
}
int AuthenticationManagerProxy::saveUser(const userInformation& info, const Str& password, Str& err) {
  return getImpl()->saveUser(info, password, err);
}
int AuthenticationManagerProxy::deleteUser(const Str& user, const Str& by, Str& err) {
  return getImpl()->deleteUser(user, by, err);
}
int AuthenticationManagerProxy::getCleartextPassword(const Str& user, Str& out) {
  return getImpl()->getCleartextPassword(user, out);
}
int AuthenticationManagerProxy::checkSession(const Str& user) { return getImpl()->checkSession(user); }
Str AuthenticationManagerProxy::getAuthSystem() const {
  std::shared_ptr<MAuthenticationManager> impl;
  {
    ScopedLock l(_mutex);
    impl = _impl;
  }
  return impl ? impl->getAuthSystem() : Str("Velmor");
}
