// MAuthenticationManager: one back end that decides who a user is: the local
// user file, an LDAP directory, or an external script.
//
// Threads: every call may come from any request thread at once; each
// implementation locks what it shares.
#pragma once

#include <set>
#include <vector>

#include "framework/auth/userInformation.h"
#include "util/Str.h"

class MAuthenticationManager {
 public:
  virtual ~MAuthenticationManager() = default;

  // 1 when `password` is the user's; 0 otherwise, with the reason in `err`
  // ("No such user", "Authentication Failed", "Login forbidden for harriet.").
  // `userId` gets the user's id on success.
  virtual int userLogin(const Str& user, const Str& password, Str& userId, Str& err) = 0;
  // 1 and the user's record, or 0.
  virtual int getUserInfoByName(const Str& user, userInformation& out) = 0;
  // The user's roles ("Admin", ...). 0 when the user is unknown.
  virtual int getUserType(const Str& user, std::set<Str>& roles) = 0;
  // Every user (the two Str narrow by user name and role when not empty).
  virtual int getUsers(const Str& user, const Str& role, std::vector<userInformation>& out) = 0;
  // Search filters the back end attaches to the user, if any.
  virtual int getSearchFilter(const Str& user, const Str& role, std::set<Str>& out) = 0;
  // Creates or updates a user; `password` is the typed text ("" keeps the old).
  virtual int saveUser(const userInformation& info, const Str& password, Str& err) = 0;
  virtual int deleteUser(const Str& user, const Str& by, Str& err) = 0;
  // The stored password text of a user as the digest check needs it (the
  // typed password, recovered); 0 when the back end cannot give it.
  virtual int getCleartextPassword(const Str& /*user*/, Str& /*out*/) { return 0; }
  // Whether a session of this user is still good (the script may say no).
  virtual int checkSession(const Str& /*user*/) { return 1; }
  // "Velmor", "LDAP" or "Scripted".
  virtual Str getAuthSystem() const = 0;
};
