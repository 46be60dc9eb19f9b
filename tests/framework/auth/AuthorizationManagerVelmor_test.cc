#include "framework/auth/AuthorizationManagerVelmor.h"

#include <gtest/gtest.h>

#include <map>

#include "AuthTestHome.h"
#include "libbundle/PropertyPages.h"
#include "loaderinfo/LoaderInfo.h"

using authtest::TempDir;
using authtest::writeFile;

namespace {

const char* kRoles = R"(
[role_Everybody]
request_auth_token = enabled

[role_base]
search = enabled
edit_user_searches = enabled

[role_mid]
importRoles = base
schedule_search = enabled
edit_user_searches = disabled

[role_top]
importRoles = mid; ghost
rtsearch = enabled

[role_both]
importRoles = mid;base

[role_cyc_a]
importRoles = cyc_b
search = enabled

[role_cyc_b]
importRoles = cyc_a
schedule_search = enabled

[role_self]
importRoles = self
edit_eventtype = enabled

[role_Admin]
importRoles = top
search_admin_index = enabled
edit_user = enabled
delete_user = enabled

[role_web]
importRoles = base
srchFilter = host=web1
srchIndexesAllowed = main; web*

[role_ops]
srchFilter = sourcetype=syslog
srchIndexesAllowed = ops

[role_weird]
search = maybe
)";

// A scratch home with an authorize.conf, its own pages and a manager whose
// users and roles the test sets; counts the questions to the role source.
struct AuthzHome {
  TempDir dir;
  std::unique_ptr<PropertyPages> pages;
  std::map<Str, std::set<Str>> users{{"root", {"Admin"}},       {"alice", {"web"}},       {"carol", {"web", "ops"}},
                                     {"dave", {"mid"}},         {"erin", {"both"}},       {"frank", {"cyc_a"}},
                                     {"gina", {"nonexistent"}}, {"hank", {"top", "mid"}}};
  int asked = 0;
  std::unique_ptr<AuthorizationManagerVelmor> authz;

  explicit AuthzHome(const std::string& conf = kRoles) {
    LoaderInfo::getInstance().setHomePath(dir.path());
    writeFile(dir.path() / "etc/bundles/default/authorize.conf", conf);
    (dir.path() / "etc/bundles/local").mkdir_p();
    pages = std::make_unique<PropertyPages>("authorize");
    pages->updateConfigs();
    authz = std::make_unique<AuthorizationManagerVelmor>(
        [this](const Str& user, std::set<Str>& roles) {
          ++asked;
          auto it = users.find(user);
          if (it == users.end()) return false;
          roles = it->second;
          return true;
        },
        pages.get());
    authz->initialize();
    for (const char* c : {"schedule_search", "edit_user_searches", "rtsearch", "edit_eventtype"})
      authz->registerCapability("authz tests", c);
  }
  ~AuthzHome() { LoaderInfo::getInstance().setHomePath(""); }
};

Str join(const std::set<Str>& s) {
  Str out;
  for (const Str& x : s) out += (out.empty() ? "" : ",") + x;
  return out;
}

}  // namespace

TEST(AuthorizationManagerVelmor, FlattensImportsWithTheRolesOwnKeysDeciding) {
  AuthzHome h;
  struct Case {
    const char* role;
    const char* expected;  // enabled capabilities, sorted, comma-separated
  } cases[] = {
      {"base", "edit_user_searches,search"},
      {"mid", "schedule_search,search"},  // its own "disabled" beats base's "enabled"
      {"top", "rtsearch,schedule_search,search"},  // the unknown import "ghost" is skipped
      {"both", "edit_user_searches,schedule_search,search"},  // one import enabling is enough
      {"cyc_a", "schedule_search,search"},  // a cycle is cut, both sides counted
      {"cyc_b", "schedule_search,search"},
      {"self", "edit_eventtype"},
      {"ADMIN", "delete_user,edit_user,rtsearch,schedule_search,search,search_admin_index"},
      {"weird", ""},  // a value that is neither enabled nor disabled is ignored
      {"nonexistent", ""},
  };
  for (const Case& c : cases) {
    std::set<Str> seen, out;
    h.authz->flattenCapabilities(c.role, seen, out);
    EXPECT_EQ(join(out), c.expected) << c.role;
  }
  roleDetails mid;
  ASSERT_TRUE(h.authz->getRole("Mid", mid));
  EXPECT_EQ(mid.importRoles, std::vector<Str>{"base"});
  EXPECT_FALSE(mid.enabled("edit_user_searches"));
  std::set<Str> roles;
  h.authz->getRoles(roles);
  EXPECT_EQ(join(roles), "admin,base,both,cyc_a,cyc_b,everybody,mid,ops,self,top,web,weird");
}

TEST(AuthorizationManagerVelmor, UsersGetWhatAnyOfTheirRolesGrants) {
  AuthzHome h;
  struct Case {
    const char* user;
    const char* capability;
    int granted;
  } cases[] = {
      {"root", "search", 1},                 // through Admin -> top -> mid -> base
      {"root", "schedule_search", 1},
      {"root", "search_admin_index", 1},
      {"root", "edit_user_searches", 0},     // mid disables it on the way down
      {"root", "made_up_capability", 0},     // nobody registered it: refused to the admin too
      {"alice", "search", 1},
      {"alice", "edit_user", 0},
      {"alice", "request_auth_token", 1},    // Everybody's
      {"dave", "edit_user_searches", 0},
      {"erin", "edit_user_searches", 1},
      {"hank", "rtsearch", 1},
      {"frank", "schedule_search", 1},
      {"gina", "search", 0},                 // a role nobody configured grants nothing
      {"gina", "request_auth_token", 1},
      {"stranger", "search", 0},             // unknown to the back end: Everybody only
      {"stranger", "request_auth_token", 1},
      {"", "request_auth_token", 1},
      {"", "search", 0},
  };
  for (const Case& c : cases)
    EXPECT_EQ(h.authz->checkUserPerms(c.capability, c.user), c.granted) << c.user << " " << c.capability;
}

TEST(AuthorizationManagerVelmor, InstalledItAnswersUserManagerAndUnknownCapabilitiesStayRefused) {
  AuthzHome h;
  std::shared_ptr<AuthorizationManagerVelmor> shared(h.authz.get(), [](AuthorizationManagerVelmor*) {});
  std::shared_ptr<IUserPermissions> old = UserManager::setPermissions(shared);
  EXPECT_EQ(UserManager::checkUserPerms("search_admin_index", "root"), 1);
  EXPECT_EQ(UserManager::checkUserPerms("search_admin_index", "alice"), 0);
  EXPECT_EQ(UserManager::checkUserPerms("never_registered_anywhere", "root"), 0);
  EXPECT_EQ(UserManager::checkIndexAccess("alice", "ops"), 0);
  EXPECT_EQ(UserManager::indexRefusal("ops"), "Your roles do not allow searching the index ops");
  UserManager::setPermissions(old);
}

TEST(AuthorizationManagerVelmor, SearchFiltersComeFromEachRoleOfTheUser) {
  AuthzHome h;
  struct Case {
    const char* user;
    const char* role;
    const char* filters;
  } cases[] = {
      {"alice", "", "host=web1"},
      {"carol", "", "host=web1,sourcetype=syslog"},
      {"root", "", ""},
      {"gina", "", ""},       // a nonexistent role is logged and skipped
      {"stranger", "", ""},
      {"root", "ops", "sourcetype=syslog"},  // one role only
  };
  for (const Case& c : cases) {
    std::set<Str> out;
    EXPECT_EQ(h.authz->getSearchFilters(c.user, c.role, out), 1);
    EXPECT_EQ(join(out), c.filters) << c.user;
  }
  std::set<Str> none;
  EXPECT_EQ(h.authz->getSearchFilters("", "", none), 0) << "no user and no role";
  EXPECT_TRUE(h.authz->getSearchFilters(Str("")).empty());
  EXPECT_EQ(h.authz->getSearchFilters(Str("carol")).size(), 2u);
}

TEST(AuthorizationManagerVelmor, IndexRightsAreTheUnionOfTheRolesWildcards) {
  AuthzHome h;
  struct Case {
    const char* user;
    const char* index;
    bool allowed;
  } cases[] = {
      {"alice", "main", true},   {"alice", "web", true},       {"alice", "webshop", true},
      {"alice", "ops", false},   {"alice", "mainframe", false}, {"alice", "_internal", false},
      {"carol", "ops", true},    {"carol", "webx", true},       {"carol", "history", false},
      {"root", "anything", true}, {"root", "_internal", true},  // no list anywhere: every index
      {"stranger", "main", true},
  };
  for (const Case& c : cases) EXPECT_EQ(h.authz->isIndexAllowed(c.user, c.index), c.allowed) << c.user << " " << c.index;
}

TEST(AuthorizationManagerVelmor, RolesOfUsersAreCachedUntilForgottenOrExpired) {
  AuthzHome h;
  h.authz->checkUserPerms("search", "alice");
  h.authz->checkUserPerms("search", "alice");
  EXPECT_EQ(h.asked, 1);
  h.users["alice"] = {"Admin"};
  EXPECT_EQ(h.authz->checkUserPerms("edit_user", "alice"), 0) << "the cached roles still hold";
  h.authz->forgetUser("alice");
  EXPECT_EQ(h.authz->checkUserPerms("edit_user", "alice"), 1);
  EXPECT_EQ(h.asked, 2);
  h.authz->setRoleCacheSeconds(0);
  h.authz->checkUserPerms("search", "alice");
  h.authz->checkUserPerms("search", "alice");
  EXPECT_EQ(h.asked, 4);
}

TEST(AuthorizationManagerVelmor, ChangedConfigurationIsReadAgain) {
  AuthzHome h;
  EXPECT_EQ(h.authz->checkUserPerms("edit_user", "alice"), 0);
  EXPECT_FALSE(h.authz->reloadIfChanged());
  std::string changed = kRoles;
  changed.replace(changed.find("[role_web]\nimportRoles = base"), 29, "[role_web]\nedit_user = enabled\nimportRoles = cyc_a");
  writeFile(h.dir.path() / "etc/bundles/default/authorize.conf", changed);
  ASSERT_TRUE(h.authz->reloadIfChanged());
  EXPECT_EQ(h.authz->checkUserPerms("edit_user", "alice"), 1);
  EXPECT_EQ(h.authz->checkUserPerms("schedule_search", "alice"), 1) << "imports of the new text";
  roleDetails added;
  added.capabilities["delete_user"] = true;
  added.importRoles = {"WEB"};
  h.authz->addUpdateRole("Helpdesk", added);
  std::set<Str> seen, caps;
  h.authz->flattenCapabilities("helpdesk", seen, caps);
  EXPECT_EQ(join(caps), "delete_user,edit_user,schedule_search,search");
  EXPECT_EQ(h.authz->checkUserPerms("edit_user_searches", "alice"), 0) << "base is no longer imported";
}

TEST(AuthorizationManagerVelmor, WithoutAnyConfiguredRoleOnlyTheBuiltInAdminHasRights) {
  AuthzHome h("# nothing configured\n");
  EXPECT_EQ(h.authz->checkUserPerms("search_admin_index", "root"), 1);
  EXPECT_EQ(h.authz->checkUserPerms("made_up_capability", "root"), 0);
  EXPECT_EQ(h.authz->checkUserPerms("search", "alice"), 0);
  std::set<Str> roles;
  h.authz->getRoles(roles);
  EXPECT_EQ(join(roles), "everybody");
}

TEST(AuthorizationManagerVelmor, ShippedRolesGiveTheAdminEverythingAndPowerMoreThanUser) {
  AuthzHome h(authtest::readFile(VELMOR_SOURCE_DIR "/etc/bundles/default/authorize.conf"));
  h.users = {{"a", {"admin"}}, {"p", {"power"}}, {"u", {"user"}}, {"n", {}}};
  struct Case {
    const char* capability;
    const char* who;  // which of a, p, u, n have it
  } cases[] = {
      {"search", "apu"},           {"edit_user_searches", "apu"}, {"schedule_search", "ap"},
      {"edit_eventtype", "ap"},    {"edit_local_search", "ap"},   {"rtsearch", "ap"},
      {"search_admin_index", "a"}, {"edit_user", "a"},            {"delete_user", "a"},
      {"list_users", "a"},         {"admin_all_objects", "a"},    {"bounce_authentication", "a"},
  };
  for (const Case& c : cases) {
    h.authz->registerCapability("authz tests", c.capability);
    for (const char* u : {"a", "p", "u", "n"}) {
      bool expected = Str(c.who).find(u) != Str::npos;
      EXPECT_EQ(h.authz->checkUserPerms(c.capability, u), expected ? 1 : 0) << u << " " << c.capability;
    }
  }
}

TEST(UserContextFilters, ForwardedFiltersNarrowTheUsersOwn) {
  using V = std::vector<Str>;
  struct Case {
    V own, forwarded, expected;
  } cases[] = {
      {{}, {}, {}},
      {{"host=a"}, {}, {"host=a"}},
      {{}, {"host=b"}, {"host=b"}},
      {{"host=a"}, {"host=b"}, {"( host=a ) ( host=b )"}},
      {{"x", "y"}, {"z"}, {"( x ) ( z )", "( y ) ( z )"}},
  };
  for (const Case& c : cases) EXPECT_EQ(UserContext::combineFilters(c.own, c.forwarded), c.expected);
}
