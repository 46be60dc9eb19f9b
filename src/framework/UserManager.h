// UserManager: the capabilities of users, as the rest of the system asks for
// them: checkUserPerms(capability, user). Who has what is answered by an
// IUserPermissions; until roles are configured (authorize.conf and the
// authorization manager), the installed answerer is the stand-in that gives
// every user what the admin role has: every capability, and no search
// filter. Tests install their own.
//
// UserContext: the user a thread works for (its name and the search filters
// of its roles), set by whoever starts work on a user's behalf (a search
// tool, a request handler) with UserContext::Scope.
//
// Threads: any thread may call; the answerer is swapped under a mutex and
// must itself be thread-safe. The user context is per thread.
#pragma once

#include <memory>
#include <vector>

#include "util/Str.h"

class IUserPermissions {
 public:
  virtual ~IUserPermissions() = default;
  // 1 when the user has the capability, 0 when not.
  virtual int checkUserPerms(const Str& capability, const Str& user) = 0;
  // The search filters of the user's roles (empty: unrestricted).
  virtual std::vector<Str> getSearchFilters(const Str& user) = 0;
};

class UserManager {
 public:
  static int checkUserPerms(const Str& capability, const Str& user);
  static std::vector<Str> getSearchFilters(const Str& user);
  // Installs an answerer (null: the admin stand-in again). Returns the one
  // it replaced.
  static std::shared_ptr<IUserPermissions> setPermissions(std::shared_ptr<IUserPermissions> p);
};

struct UserContext {
  Str user;
  std::vector<Str> searchFilters;

  // The context of the calling thread, or null when none was set.
  static const UserContext* current();

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
