// ToolUser: who a command-line tool works for, for as long as it lives.
// The user named by VELMOR_USER, whose roles come from the configured
// authentication back end, or without it "admin" with the role admin
// (whoever runs the tool can read the index files anyway). The roles of
// authorize.conf then decide the user's capabilities, indexes and search
// filters.
//
// Construction installs the authorization manager (and, with VELMOR_USER,
// the authentication back end) for the process and sets the calling
// thread's user context; destruction undoes both.
// REQUIRES: made and destroyed on the thread that runs the searches, one at
// a time in a process.
#pragma once

#include <memory>

#include "framework/UserManager.h"

class AuthorizationManagerVelmor;

class ToolUser {
 public:
  ToolUser();
  ~ToolUser();
  ToolUser(const ToolUser&) = delete;
  ToolUser& operator=(const ToolUser&) = delete;

  const Str& name() const { return _name; }

 private:
  Str _name;
  std::shared_ptr<AuthorizationManagerVelmor> _authz;
  std::unique_ptr<UserContext::Scope> _scope;
};
