// UsersHandler: the handler of restmap.conf stanzas of type "users": the
// users of the authentication back end over REST.
//
//   GET    /services/authentication/users          every user (Atom feed, or
//                                                    {"entry":[...]} with
//                                                    output_mode=json)
//   GET    /services/authentication/users/<name>   one user (404 if unknown)
//   POST   /services/authentication/users          creates: name, password,
//                                                    roles (repeated), realname;
//                                                    201, 409 if it exists
//   POST   /services/authentication/users/<name>   edits: roles (replace all
//                                                    when given), password,
//                                                    realname; 200
//   DELETE /services/authentication/users/<name>   removes; 200 (a user cannot
//                                                    remove itself: 400)
// A user's entry holds name, realname and roles. A role the authorization
// manager does not know is refused (400, "Role '<r>' does not exist"). The
// capabilities come from the stanza (list_users, edit_user, delete_user in
// the shipped restmap.conf); this handler registers list_users.
//
// Ownership: the service owns it; `authz` (may be null: every role name is
// taken) outlives it. Threads: any request thread; the back end locks itself.
#pragma once

#include <vector>

#include "framework/rest/MRestHandler.h"
#include "util/Str.h"

class AuthorizationManagerVelmor;
struct userInformation;

class UsersHandler : public MRestHandler {
 public:
  explicit UsersHandler(AuthorizationManagerVelmor* authz);
  HTTPReply* handleRequest(const FdConnectionData& conn, const HTTPRequest* req, const Str& path,
                           const RestMapData& stanza) override;

  // The user name of `path` ("" for the collection); false when the path is
  // not below /authentication/users.
  static bool userOfPath(const Str& path, Str& name);
  // The JSON document of `users` ({"entry":[{"name":..,"realname":..,"roles":[..]}]}).
  static Str toJson(const std::vector<userInformation>& users);

 private:
  HTTPReply* list(const FdConnectionData& conn, const HTTPRequest* req, const Str& name);
  HTTPReply* create(const HTTPRequest* req);
  HTTPReply* edit(const HTTPRequest* req, const Str& name);
  HTTPReply* remove(const HTTPRequest* req, const Str& name);
  // False with the refusal in `reply` when a role is unknown or empty.
  bool checkRoles(const std::vector<Str>& roles, HTTPReply*& reply);
  void forget(const Str& name);

  AuthorizationManagerVelmor* _authz;
};
