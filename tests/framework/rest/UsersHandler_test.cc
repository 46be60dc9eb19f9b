#include "framework/rest/UsersHandler.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "RestTestSupport.h"
#include "framework/auth/AuthenticationManagerVelmor.h"
#include "framework/auth/AuthorizationManagerVelmor.h"
#include "framework/http/FdConnectionData.h"
#include "framework/rest/HTTPAuthManager.h"
#include "framework/rest/HTTPRestDispatcher.h"
#include "libbundle/PropertyPages.h"
#include "util/RE.h"

using namespace resttest;

namespace {

std::string shipped(const char* name) {
  std::ifstream in(std::string(VELMOR_SOURCE_DIR "/etc/bundles/default/") + name);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// The shipped restmap.conf and authorize.conf, the local user file with an
// admin, a power user and a plain user, the real dispatcher, session
// manager, roles and users handler.
struct UsersFixture : ::testing::Test {
  TempRestHome tmp{shipped("restmap.conf")};
  std::shared_ptr<AuthenticationManagerVelmor> backend;
  std::unique_ptr<PropertyPages> restmap, authorize;
  std::unique_ptr<AuthorizationManagerVelmor> authz;
  std::unique_ptr<UsersHandler> users;
  HTTPAuthManager auth{3600};
  std::unique_ptr<HTTPRestDispatcher> disp;
  FdConnectionData conn;
  std::map<Str, Str> keys;  // user -> session key

  UsersFixture() {
    writeFile(tmp.bundle() + "/authorize.conf", shipped("authorize.conf"));
    backend = std::make_shared<AuthenticationManagerVelmor>(Pathname(tmp.path() + "/etc"));
    for (auto [name, role] : {std::pair<const char*, const char*>{"root", "Admin"}, {"pat", "power"}, {"bob", "user"}}) {
      userInformation u;
      u.username = name;
      u.roles = {role};
      Str err;
      EXPECT_EQ(backend->saveUser(u, Str(name) + "-secret", err), 1) << err;
    }
    UserManager::setAuthManager(backend);
    auth.setBackend(backend);
    authorize = std::make_unique<PropertyPages>("authorize");
    authorize->updateConfigs();
    authz = std::make_unique<AuthorizationManagerVelmor>(AuthorizationManagerVelmor::RoleSource(), authorize.get());
    authz->initialize();
    UserManager::setPermissions(std::shared_ptr<IUserPermissions>(authz.get(), [](IUserPermissions*) {}));
    users = std::make_unique<UsersHandler>(authz.get());
    disp = std::make_unique<HTTPRestDispatcher>(auth);
    disp->registerHandler("users", users.get());
    restmap = std::make_unique<PropertyPages>("restmap");
    restmap->updateConfigs();
    EXPECT_TRUE(disp->loadConfig("restmap", restmap.get()));
  }
  ~UsersFixture() override {
    UserManager::setPermissions(nullptr);
    UserManager::setAuthManager(nullptr);
  }
  std::unique_ptr<HTTPReply> call(const Str& method, const Str& target, const std::vector<Str>& headers = {},
                                  const Str& body = "") {
    auto req = makeRequest(method, target, headers, body);
    return std::unique_ptr<HTTPReply>(disp->handleRequest(conn, req.get()));
  }
  std::unique_ptr<HTTPReply> as(const Str& user, const Str& method, const Str& target, const Str& body = "") {
    Str& key = keys[user];
    if (key.empty()) {
      auto r = call("POST", "/services/auth/login", {}, "username=" + user + "&password=" + user + "-secret");
      std::string k;
      EXPECT_TRUE(RE("<sessionKey>(\\w+)</sessionKey>").PartialMatch(r->body(), &k)) << r->body();
      key = k;
    }
    return call(method, target, {"Authorization: Velmor " + key}, body);
  }
};

}  // namespace

TEST(UsersHandlerPaths, NameOfTheUserComesFromThePath) {
  struct {
    const char* path;
    bool ok;
    const char* name;
  } cases[] = {
      {"/authentication/users", true, ""},       {"/authentication/users/", true, ""},
      {"/authentication/users/bob", true, "bob"}, {"/authentication/users/bob/", true, "bob"},
      {"/authentication/usersx", false, ""},     {"/authentication/users/a/b", false, ""},
      {"/authentication/user", false, ""},       {"/search/jobs", false, ""},
  };
  for (const auto& c : cases) {
    Str name = "unset";
    EXPECT_EQ(UsersHandler::userOfPath(c.path, name), c.ok) << c.path;
    if (c.ok) {
      EXPECT_EQ(name, c.name) << c.path;
    }
  }
}

TEST(UsersHandlerPaths, JsonEscapesWhatItQuotes) {
  userInformation a, b;
  a.username = "al\"ice";
  a.realname = "A\\B\n";
  a.roles = {"user", "power"};
  b.username = "bob";
  EXPECT_EQ(UsersHandler::toJson({a, b}),
            "{\"entry\":[{\"name\":\"al\\\"ice\",\"realname\":\"A\\\\B\\n\",\"roles\":[\"user\",\"power\"]},"
            "{\"name\":\"bob\",\"realname\":\"\",\"roles\":[]}]}\n");
  EXPECT_EQ(UsersHandler::toJson({}), "{\"entry\":[]}\n");
}

TEST_F(UsersFixture, EachMethodNeedsItsCapability) {
  struct {
    const char* user;
    const char* method;
    const char* target;
    const char* body;
    int status;
  } cases[] = {
      {"root", "GET", "/services/authentication/users", "", 200},
      {"pat", "GET", "/services/authentication/users", "", 401},
      {"bob", "GET", "/services/authentication/users", "", 401},
      {"bob", "GET", "/services/authentication/users/bob", "", 401},
      {"pat", "POST", "/services/authentication/users", "name=x&password=y&roles=user", 401},
      {"bob", "POST", "/services/authentication/users/bob", "roles=admin", 401},  // no promoting oneself
      {"pat", "DELETE", "/services/authentication/users/bob", "", 401},
      {"root", "GET", "/services/authentication/users/pat", "", 200},
      {"root", "GET", "/services/authentication/users/nobody", "", 404},
      {"root", "PUT", "/services/authentication/users/pat", "", 405},
  };
  for (const auto& c : cases) {
    auto r = as(c.user, c.method, c.target, c.body);
    EXPECT_EQ(r->status(), c.status) << c.user << " " << c.method << " " << c.target << "\n" << r->body();
  }
  // Without the capability: 401 with the capability named; given a role
  // that has it, the same request passes.
  auto refused = as("bob", "GET", "/services/authentication/users");
  EXPECT_NE(refused->body().find("list_users"), Str::npos) << refused->body();
  EXPECT_EQ(as("root", "POST", "/services/authentication/users/bob", "roles=admin")->status(), 200);
  EXPECT_EQ(as("bob", "GET", "/services/authentication/users")->status(), 200);
}

TEST_F(UsersFixture, CreateListEditAndDelete) {
  struct Step {
    const char* method;
    const char* target;
    const char* body;
    int status;
    const char* inBody;  // text the reply must hold ("" for none), XML-escaped
  } steps[] = {
      {"POST", "/services/authentication/users", "name=carol&password=pw&roles=user&roles=power&realname=Carol+C",
       201, "User &apos;carol&apos; created"},
      {"POST", "/services/authentication/users", "name=carol&password=pw&roles=user", 409, "already exists"},
      {"POST", "/services/authentication/users", "name=dan&password=pw&roles=wizard", 400,
       "Role &apos;wizard&apos; does not exist"},
      {"POST", "/services/authentication/users", "password=pw", 400, "No name specified"},
      {"POST", "/services/authentication/users", "name=dan", 400, "A new user needs a password"},
      {"POST", "/services/authentication/users", "name=bad:name&password=pw", 400, "Invalid username"},
      {"GET", "/services/authentication/users?output_mode=json", "", 200,
       "{\"name\":\"carol\",\"realname\":\"Carol C\",\"roles\":[\"user\",\"power\"]}"},
      {"GET", "/services/authentication/users", "", 200, "<title>carol</title>"},
      {"GET", "/services/authentication/users/carol", "", 200, "roles=user;power"},
      {"POST", "/services/authentication/users/carol", "roles=Admin", 200, "User &apos;carol&apos; saved"},
      {"POST", "/services/authentication/users/carol", "roles=ghost", 400, "Role &apos;ghost&apos; does not exist"},
      {"GET", "/services/authentication/users/carol?output_mode=json", "", 200, "\"roles\":[\"Admin\"]"},
      {"POST", "/services/authentication/users/nobody", "roles=user", 404, "does not exist"},
      {"DELETE", "/services/authentication/users/root", "", 400, "cannot delete itself"},
      {"DELETE", "/services/authentication/users/carol", "", 200, "User &apos;carol&apos; deleted"},
      {"DELETE", "/services/authentication/users/carol", "", 404, "does not exist"},
  };
  for (const Step& s : steps) {
    auto r = as("root", s.method, s.target, s.body);
    EXPECT_EQ(r->status(), s.status) << s.method << " " << s.target << " " << s.body << "\n" << r->body();
    EXPECT_NE(r->body().find(s.inBody), Str::npos) << s.method << " " << s.target << "\n" << r->body();
  }
  auto list = as("root", "GET", "/services/authentication/users?output_mode=json");
  EXPECT_EQ(list->body().find("carol"), Str::npos) << list->body();
  for (const char* name : {"\"root\"", "\"pat\"", "\"bob\""}) EXPECT_NE(list->body().find(name), Str::npos) << name;
}

TEST_F(UsersFixture, ANewPasswordAndNewRolesTakeEffectAtOnce) {
  EXPECT_EQ(as("root", "POST", "/services/authentication/users", "name=eve&password=eve-secret&roles=user")->status(),
            201);
  EXPECT_EQ(as("eve", "GET", "/services/authentication/users")->status(), 401);
  EXPECT_EQ(as("root", "POST", "/services/authentication/users/eve", "roles=admin")->status(), 200);
  EXPECT_EQ(as("eve", "GET", "/services/authentication/users")->status(), 200) << "the same session, new roles";
  EXPECT_EQ(as("root", "POST", "/services/authentication/users/eve", "password=changed")->status(), 200);
  EXPECT_NE(call("POST", "/services/auth/login", {}, "username=eve&password=eve-secret")->status(), 200);
  EXPECT_EQ(call("POST", "/services/auth/login", {}, "username=eve&password=changed")->status(), 200);
  EXPECT_EQ(as("root", "GET", "/services/authentication/users/eve?output_mode=json")->body().find("\"roles\":[\"admin\"]") !=
                Str::npos,
            true)
      << "a password change keeps the roles";
}
