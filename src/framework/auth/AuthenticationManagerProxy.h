// AuthenticationManagerProxy: holds the active authentication back end and
// answers for it, so that callers keep one object across a change of back
// end. The back end is named by the configuration "authentication", stanza
// [authentication]: authType "Velmor" (the default), "LDAP" or "Scripted",
// and authSettings, the stanza with the back end's settings (for LDAP also
// the stanza "roleMap", for the script "cacheTiming").
//
// Threads: any thread. The back end is held by shared pointer and swapped
// under a mutex; a caller keeps the one it got for the length of its call.
#pragma once

#include <cstdint>
#include <memory>

#include "framework/auth/MAuthenticationManager.h"
#include "util/Mutex.h"
#include "util/Pathname.h"

class PropertiesMap;

class AuthenticationManagerProxy : public MAuthenticationManager {
 public:
  // The process's proxy (its back end home: LoaderInfo's). The service
  // hands instancePtr() to UserManager::setAuthManager at start.
  static AuthenticationManagerProxy& instance();
  static std::shared_ptr<AuthenticationManagerProxy> instancePtr();

  // `configDir` goes to the local back end (empty: that of LoaderInfo).
  explicit AuthenticationManagerProxy(const Pathname& configDir = Pathname());

  // Reads "authentication" again and builds the back end it names; on a bad
  // configuration the back end stays the local one and `err` says why.
  bool reload(Str& err);
  // The active back end (built by reload() at the first call).
  std::shared_ptr<MAuthenticationManager> getImpl();
  // Installs a back end directly (tests, tools).
  void setImpl(std::shared_ptr<MAuthenticationManager> impl);
  // Grows by one at each change of back end: a session keeper compares it
  // to know when to drop its sessions.
  uint64_t generation() const;

  // The [authentication] stanza and the settings stanza it names, merged
  // over the bundles; false when there is no settings stanza.
  bool getBundleConfig(Str& authType, PropertiesMap& settings);
  // Writes authType and the settings (stanza `settingsStanza`) into the local
  // bundle, then reloads when `reloadNow`. False with `err` on failure.
  bool setBundleConfig(const Str& settingsStanza, const Str& authType, const PropertiesMap& settings,
                       bool reloadNow, Str& err);

  int userLogin(const Str& user, const Str& password, Str& userId, Str& err) override;
  int getUserInfoByName(const Str& user, userInformation& out) override;
  int getUserType(const Str& user, std::set<Str>& roles) override;
  int getUsers(const Str& user, const Str& role, std::vector<userInformation>& out) override;
  int getSearchFilter(const Str& user, const Str& role, std::set<Str>& out) override;
  int saveUser(const userInformation& info, const Str& password, Str& err) override;
  int deleteUser(const Str& user, const Str& by, Str& err) override;
  int getCleartextPassword(const Str& user, Str& out) override;
  int checkSession(const Str& user) override;
  Str getAuthSystem() const override;

 private:
  std::shared_ptr<MAuthenticationManager> build(Str& err);

  Pathname _configDir;
  mutable Mutex _mutex;
  std::shared_ptr<MAuthenticationManager> _impl;
  uint64_t _generation = 0;
};
