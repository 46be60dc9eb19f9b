#include "framework/rest/UsersHandler.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <memory>

#include "framework/UserManager.h"
#include "framework/auth/AuthorizationManagerVelmor.h"
#include "framework/auth/MAuthenticationManager.h"
#include "framework/http/AtomEntry.h"
#include "framework/http/AtomFeed.h"
#include "framework/http/FdConnectionData.h"
#include "framework/http/HTTPReply.h"
#include "framework/http/HTTPRequest.h"
#include "util/Logger.h"

static Logger gLogger("UsersHandler");

namespace {
const char* const kBase = "/authentication/users";

Str rfc3339(time_t t) {
  struct tm tm;
  gmtime_r(&t, &tm);
  char buf[32];
  strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return buf;
}

void jsonString(const Str& in, Str& out) {
  out += '"';
  for (unsigned char c : in) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20)
          out += Str::fromFormat("\\u%04x", c);
        else
          out += static_cast<char>(c);
    }
  }
  out += '"';
}

// Every value of `key`, from the body first, then from the query string.
std::vector<Str> allValues(const HTTPRequest* req, const Str& key) {
  std::vector<Str> out;
  for (const HTTPRequest::Params* p : {&req->postParams(), &req->getParams()}) {
    auto it = p->find(key);
    if (it != p->end()) out.insert(out.end(), it->second.begin(), it->second.end());
  }
  return out;
}

HTTPReply* error(int status, const Str& text) { return HTTPReply::createErrorXMLReply(status, "ERROR", text); }

std::shared_ptr<MAuthenticationManager> backEnd() { return UserManager::getAuthManager(); }
}  // namespace

UsersHandler::UsersHandler(AuthorizationManagerVelmor* authz) : _authz(authz) {
  UserManager::registerCapability("users", "list_users");
}

bool UsersHandler::userOfPath(const Str& path, Str& name) {
  const size_t n = strlen(kBase);
  if (!path.startswith(kBase)) return false;
  size_t from = n, to = path.size();
  if (from < to && path[from] != '/') return false;
  if (from < to) ++from;                        // the slash after the base
  if (to > from && path[to - 1] == '/') --to;  // a trailing slash
  name.assign(path.data() + from, to - from);
  return name.find('/') == Str::npos;
}

Str UsersHandler::toJson(const std::vector<userInformation>& users) {
  Str out = "{\"entry\":[";
  for (size_t i = 0; i < users.size(); ++i) {
    if (i) out += ',';
    out += "{\"name\":";
    jsonString(users[i].username, out);
    out += ",\"realname\":";
    jsonString(users[i].realname, out);
    out += ",\"roles\":[";
    for (size_t r = 0; r < users[i].roles.size(); ++r) {
      if (r) out += ',';
      jsonString(users[i].roles[r], out);
    }
    out += "]}";
  }
  out += "]}\n";
  return out;
}

HTTPReply* UsersHandler::handleRequest(const FdConnectionData& conn, const HTTPRequest* req, const Str& path,
                                       const RestMapData& /*stanza*/) {
  Str name;
  if (!userOfPath(path, name)) return HTTPReply::createNotFoundErrorReply();
  if (!backEnd()) return error(500, "No authentication system is configured");
  const Str& m = req->method();
  if (m == "GET" || m == "HEAD") return list(conn, req, name);
  if (m == "POST") return name.empty() ? create(req) : edit(req, name);
  if (m == "DELETE" && !name.empty()) return remove(req, name);
  return error(405, "Method " + m + " is not allowed here");
}

HTTPReply* UsersHandler::list(const FdConnectionData& conn, const HTTPRequest* req, const Str& name) {
  std::vector<userInformation> users;
  std::shared_ptr<MAuthenticationManager> auth = backEnd();
  if (!name.empty()) {
    userInformation one;
    if (!auth->getUserInfoByName(name, one)) return error(404, "User '" + name + "' does not exist");
    users.push_back(one);
  } else {
    auth->getUsers(Str(), Str(), users);
    std::sort(users.begin(), users.end(),
              [](const userInformation& a, const userInformation& b) { return a.username < b.username; });
  }
  const Str* mode = req->param("output_mode");
  if (mode && *mode == "json") return HTTPReply::createReply(200, toJson(users), "application/json", false);

  const Str base = Str(conn._ssl ? "https://" : "http://") + req->getHost() + "/services" + kBase;
  const Str now = rfc3339(time(nullptr));
  auto entryOf = [&](const userInformation& u) {
    AtomEntry e;
    e.title = u.username;
    e.id = base + "/" + u.username;
    e.updated = now;
    e.links.push_back(AtomLink{Str("/services") + kBase + "/" + u.username, "alternate", ""});
    Str roles;
    for (const Str& r : u.roles) roles += (roles.empty() ? "" : ";") + r;
    e.content = "name=" + u.username + "\nrealname=" + u.realname + "\nroles=" + roles + "\n";
    return e;
  };
  if (!name.empty()) return HTTPReply::createAtomReply(entryOf(users.front()));
  AtomFeed feed;
  feed.title = "Users";
  feed.id = base;
  feed.updated = now;
  feed.links.push_back(AtomLink{Str("/services") + kBase, "self", ""});
  for (const userInformation& u : users) feed.entries.push_back(entryOf(u));
  return HTTPReply::createAtomReply(feed);
}

bool UsersHandler::checkRoles(const std::vector<Str>& roles, HTTPReply*& reply) {
  for (const Str& r : roles) {
    if (r.empty() || (_authz && !_authz->roleExists(r))) {
      reply = error(400, "Role '" + r + "' does not exist");
      return false;
    }
  }
  return true;
}

void UsersHandler::forget(const Str& name) {
  if (_authz) _authz->forgetUser(name);
}

HTTPReply* UsersHandler::create(const HTTPRequest* req) {
  const Str* name = req->param("name");
  if (!name || name->empty()) return error(400, "No name specified");
  const Str* password = req->param("password");
  if (!password || password->empty()) return error(400, "A new user needs a password");
  std::vector<Str> roles = allValues(req, "roles");
  HTTPReply* refusal = nullptr;
  if (!checkRoles(roles, refusal)) return refusal;
  std::shared_ptr<MAuthenticationManager> auth = backEnd();
  userInformation existing;
  if (auth->getUserInfoByName(*name, existing)) return error(409, "User '" + *name + "' already exists");
  userInformation info;
  info.username = *name;
  if (const Str* rn = req->param("realname")) info.realname = *rn;
  info.roles = roles;
  Str err;
  if (!auth->saveUser(info, *password, err)) return error(400, err);
  forget(*name);
  gLogger.info("User '%s' created by '%s'", name->c_str(), req->user().c_str());
  HTTPReply* r = HTTPReply::createErrorXMLReply(201, "INFO", "User '" + *name + "' created");
  r->addHeader("Location", Str("/services") + kBase + "/" + *name);
  return r;
}

HTTPReply* UsersHandler::edit(const HTTPRequest* req, const Str& name) {
  std::shared_ptr<MAuthenticationManager> auth = backEnd();
  userInformation info;
  if (!auth->getUserInfoByName(name, info)) return error(404, "User '" + name + "' does not exist");
  std::vector<Str> roles = allValues(req, "roles");
  if (!roles.empty()) {
    HTTPReply* refusal = nullptr;
    if (!checkRoles(roles, refusal)) return refusal;
    info.roles = roles;
  }
  if (const Str* rn = req->param("realname")) info.realname = *rn;
  Str password;
  if (const Str* p = req->param("password")) password = *p;
  Str err;
  if (!auth->saveUser(info, password, err)) return error(400, err);
  forget(name);
  gLogger.info("User '%s' edited by '%s'", name.c_str(), req->user().c_str());
  return HTTPReply::createErrorXMLReply(200, "INFO", "User '" + name + "' saved");
}

HTTPReply* UsersHandler::remove(const HTTPRequest* req, const Str& name) {
  if (name == req->user()) return error(400, "A user cannot delete itself");
  Str err;
  if (!backEnd()->deleteUser(name, req->user(), err))
    return err == "No such user" ? error(404, "User '" + name + "' does not exist") : error(500, err);
  forget(name);
  gLogger.info("User '%s' deleted by '%s'", name.c_str(), req->user().c_str());
  return HTTPReply::createErrorXMLReply(200, "INFO", "User '" + name + "' deleted");
}
