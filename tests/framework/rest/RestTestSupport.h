// Shared by the REST tests: an in-memory authentication back end, a
// permissions answerer the test controls, a request builder that goes
// through the real request parser, a handler that echoes what it was called
// with, and a scratch VELMOR_HOME (removed afterwards).
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <fstream>

#include <map>
#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "framework/UserManager.h"
#include "framework/auth/MAuthenticationManager.h"
#include "framework/http/HTTPReply.h"
#include "framework/http/HTTPRequest.h"
#include "framework/rest/MRestHandler.h"
#include "framework/rest/RestMapData.h"
#include "loaderinfo/LoaderInfo.h"
#include "util/Mutex.h"

namespace resttest {

// Users by name: password and id. checkSession answers `sessionsGood`.
class FakeBackend : public MAuthenticationManager {
 public:
  std::map<Str, std::pair<Str, Str>> users{{"alice", {"wonder land", "7"}}, {"bob", {"builder", "8"}}};
  bool sessionsGood = true;

  int userLogin(const Str& user, const Str& password, Str& userId, Str& err) override {
    auto it = users.find(user);
    if (it == users.end() || it->second.first != password) {
      err = "Authentication Failed";
      return 0;
    }
    userId = it->second.second;
    return 1;
  }
  int getUserInfoByName(const Str&, userInformation&) override { return 0; }
  int getUserType(const Str&, std::set<Str>&) override { return 0; }
  int getUsers(const Str&, const Str&, std::vector<userInformation>&) override { return 0; }
  int getSearchFilter(const Str&, const Str&, std::set<Str>&) override { return 0; }
  int saveUser(const userInformation&, const Str&, Str&) override { return 0; }
  int deleteUser(const Str&, const Str&, Str&) override { return 0; }
  int getCleartextPassword(const Str& user, Str& out) override {
    auto it = users.find(user);
    if (it == users.end()) return 0;
    out = it->second.first;
    return 1;
  }
  int checkSession(const Str&) override { return sessionsGood ? 1 : 0; }
  Str getAuthSystem() const override { return "Velmor"; }
};

// Grants every capability but those in `denied`; remembers what was asked.
class TestPermissions : public IUserPermissions {
 public:
  std::set<Str> denied;
  std::vector<std::pair<Str, Str>> asked;  // capability, target
  std::vector<Str> askedBy;                // the thread's user at each question
  int checkUserPerms(const Str& capability, const Str& target) override {
    asked.emplace_back(capability, target);
    const UserContext* c = UserContext::current();
    askedBy.push_back(c ? c->user : Str("<none>"));
    return denied.count(capability) ? 0 : 1;
  }
  std::vector<Str> getSearchFilters(const Str&) override { return {}; }
};

// Installs a TestPermissions for the scope and puts the stand-in back after.
struct PermissionsGuard {
  std::shared_ptr<TestPermissions> perms = std::make_shared<TestPermissions>();
  PermissionsGuard() { UserManager::setPermissions(perms); }
  ~PermissionsGuard() { UserManager::setPermissions(nullptr); }
};

// "GET /x?a=1" plus header lines; a body is sent as a form.
inline std::unique_ptr<HTTPRequest> makeRequest(const Str& method, const Str& target,
                                                const std::vector<Str>& headers = {}, const Str& body = "") {
  Str head = method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n";
  for (const Str& h : headers) head += h + "\r\n";
  if (!body.empty())
    head += Str::fromFormat("Content-Type: application/x-www-form-urlencoded\r\nContent-Length: %zu\r\n", body.size());
  head += "\r\n";
  auto req = std::make_unique<HTTPRequest>();
  Str err;
  EXPECT_TRUE(req->parse(head, body, err)) << err;
  return req;
}

inline Str headerOf(const HTTPReply& r, const Str& name) {
  for (const auto& h : r.extraHeaders())
    if (h.first == name) return h.second;
  return "";
}

inline void writeFile(const std::string& path, const std::string& text, mode_t mode = 0644) {
  std::ofstream(path, std::ios::trunc) << text;
  chmod(path.c_str(), mode);
}

// A home with etc/bundles/default (with xsl/ and bin/) and etc/bundles/local.
class TempRestHome {
 public:
  explicit TempRestHome(const std::string& restmap) {
    char tmpl[] = "/tmp/velmor-rest-test-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) abort();
    _path = tmpl;
    LoaderInfo::getInstance().setHomePath(_path);
    if (system(("mkdir -p '" + bundle() + "/xsl' '" + bundle() + "/bin' '" + _path + "/etc/bundles/local'").c_str()))
      abort();
    writeFile(bundle() + "/restmap.conf", restmap);
  }
  ~TempRestHome() {
    LoaderInfo::getInstance().setHomePath("");
    if (system(("rm -rf '" + _path + "'").c_str()) != 0) perror("rm");
  }
  const std::string& path() const { return _path; }
  std::string bundle() const { return _path + "/etc/bundles/default"; }

 private:
  std::string _path;
};

// Answers every stanza of its type with what it was called with.
class EchoHandler : public MRestHandler {
 public:
  std::map<Str, RestMapData*> known;
  void init(std::map<Str, RestMapData*>& stanzas) override { known = stanzas; }
  HTTPReply* handleRequest(const FdConnectionData&, const HTTPRequest* req, const Str& path,
                           const RestMapData& stanza) override {
    const UserContext* ctx = UserContext::current();
    return HTTPReply::createReply(200,
                                  "<echo stanza=\"" + stanza.name() + "\" path=\"" + path + "\" user=\"" +
                                      req->user() + "\" ctx=\"" + (ctx ? ctx->user : Str("-")) + "\"/>",
                                  "text/xml", false);
  }
};

}  // namespace resttest
