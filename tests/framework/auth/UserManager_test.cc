#include "framework/UserManager.h"

#include <gtest/gtest.h>

#include "AuthTestHome.h"
#include "framework/auth/AuthenticationManagerVelmor.h"

using authtest::TempDir;
using authtest::writeFile;

namespace {

class FilterPermissions : public IUserPermissions {
 public:
  int checkUserPerms(const Str& cap, const Str&) override { return cap == "search" ? 0 : 1; }
  std::vector<Str> getSearchFilters(const Str&) override { return {"index::main"}; }
};

// Installs a back end and an answerer for one test and takes them away.
struct Installed {
  std::shared_ptr<MAuthenticationManager> oldAuth;
  std::shared_ptr<IUserPermissions> oldPerms;
  Installed(std::shared_ptr<MAuthenticationManager> auth, std::shared_ptr<IUserPermissions> perms)
      : oldAuth(UserManager::setAuthManager(std::move(auth))), oldPerms(UserManager::setPermissions(std::move(perms))) {}
  ~Installed() {
    UserManager::setAuthManager(oldAuth);
    UserManager::setPermissions(oldPerms);
  }
};

}  // namespace

TEST(UserManager, CapabilitiesMustBeKnownEvenToTheAdmin) {
  Installed none(nullptr, nullptr);  // the admin stand-in
  struct Case {
    const char* capability;
    int granted;
  } cases[] = {
      {"search", 1},           {"search_history", 1},         {"search_admin_index", 1},
      {"delete_by_keyword", 1}, {"edit_user", 1},             {"delete_user", 1},
      {"request_auth_token", 1}, {"bounce_authentication", 1}, {"made_up_capability", 0},
      {"", 0},                  {"SEARCH", 0},
  };
  for (const Case& c : cases) EXPECT_EQ(UserManager::checkUserPerms(c.capability, "admin"), c.granted) << c.capability;

  EXPECT_FALSE(UserManager::isCapabilityKnown("rest_test_capability"));
  UserManager::registerCapability("tests", "rest_test_capability");
  UserManager::registerCapability("tests", "rest_test_capability");
  EXPECT_EQ(UserManager::checkUserPerms("rest_test_capability", "admin"), 1);
  EXPECT_EQ(UserManager::getAllCapabilities().count("rest_test_capability"), 1u);

  Installed filtering(nullptr, std::make_shared<FilterPermissions>());
  EXPECT_EQ(UserManager::checkUserPerms("search", "bob"), 0) << "the answerer still decides known ones";
  EXPECT_EQ(UserManager::checkUserPerms("made_up_capability", "bob"), 0);
}

TEST(UserManager, UserCallsGoToTheBackEnd) {
  UserManager& um = UserManager::instance();
  EXPECT_EQ(&um, &UserManager::instance());
  {
    Installed none(nullptr, nullptr);
    Str id, err;
    EXPECT_EQ(um.userLogin("admin", "changeme", id, err), 0);
    EXPECT_FALSE(err.empty());
    EXPECT_EQ(um.getAuthSystem(), "");
    EXPECT_EQ(um.isUserSessionValid("admin"), 0);
  }
  TempDir dir;
  writeFile(dir.path() / "bundles/local/user-seed.conf", "[seed]\nname = admin\npassword = changeme\n");
  Installed velmor(std::make_shared<AuthenticationManagerVelmor>(dir.path()), std::make_shared<FilterPermissions>());
  EXPECT_EQ(um.getAuthSystem(), "Velmor");
  Str id, err;
  EXPECT_EQ(um.userLogin("admin", "changeme", id, err), 1) << err;
  std::set<Str> roles;
  ASSERT_EQ(um.getUserType("admin", roles), 1);
  EXPECT_EQ(roles, std::set<Str>{"Admin"});

  userInformation bob;
  bob.username = "bob";
  bob.roles = {"user"};
  ASSERT_EQ(um.saveUser(bob, "first", err), 1) << err;
  ASSERT_EQ(um.changeUserPassword("bob", "second", err), 1) << err;
  EXPECT_EQ(um.userLogin("bob", "first", id, err), 0);
  EXPECT_EQ(um.userLogin("bob", "second", id, err), 1);
  EXPECT_EQ(um.changeUserPassword("bob", "", err), 0);
  EXPECT_EQ(um.changeUserPassword("nobody", "x", err), 0);
  EXPECT_EQ(um.isUserSessionValid("bob"), 1);

  std::vector<Str> filters;
  ASSERT_EQ(um.getUserSrchFilters("bob", filters), 1);
  EXPECT_EQ(filters, std::vector<Str>{"index::main"});
}

TEST(UserManager, ContextOfTheCallingThread) {
  Installed filtering(nullptr, std::make_shared<FilterPermissions>());
  UserManager& um = UserManager::instance();
  UserContext got;
  EXPECT_EQ(um.getUserContextInfo(got), 0);
  EXPECT_EQ(UserManager::checkContextPerms("edit_user"), 0) << "no context: no credentials";
  {
    UserContext ctx;
    ctx.user = "alice";
    ctx.searchFilters = {"host::a"};
    UserContext::Scope scope(ctx);
    ASSERT_EQ(um.getUserContextInfo(got), 1);
    EXPECT_EQ(got.user, "alice");
    EXPECT_EQ(got.searchFilters, std::vector<Str>{"host::a"});
    EXPECT_EQ(UserManager::checkContextPerms("edit_user"), 1);
    EXPECT_EQ(UserManager::checkContextPerms("search"), 0);
  }
  EXPECT_EQ(um.getUserContextInfo(got), 0);
}
