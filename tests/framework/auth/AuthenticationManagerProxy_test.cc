#include "framework/auth/AuthenticationManagerProxy.h"

#include <gtest/gtest.h>

#include "AuthTestHome.h"
#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPages.h"
#include "loaderinfo/LoaderInfo.h"

using authtest::readFile;
using authtest::TempDir;
using authtest::writeFile;

namespace {

// A scratch home for LoaderInfo and the property files, put back afterwards.
struct HomeScope {
  TempDir dir;
  Pathname etc = dir.path() / "etc";
  Pathname old = LoaderInfo::getInstance().getHomePath();
  HomeScope() {
    LoaderInfo::getInstance().setHomePath(dir.path());
    (etc / "bundles/default").mkdir_p();
    writeFile(etc / "bundles/local/user-seed.conf", "[seed]\nname = admin\npassword = changeme\n");
    PropertyPages::instance("authentication").updateConfigs();
  }
  ~HomeScope() {
    LoaderInfo::getInstance().setHomePath(old);
    PropertyPages::instance("authentication").clear();
  }
};

}  // namespace

TEST(AuthenticationManagerProxy, ChoosesTheConfiguredBackEnd) {
  HomeScope home;
  AuthenticationManagerProxy proxy(home.etc);
  EXPECT_EQ(proxy.getAuthSystem(), "Velmor") << "before the first use";
  std::shared_ptr<MAuthenticationManager> first = proxy.getImpl();
  EXPECT_EQ(first->getAuthSystem(), "Velmor") << "no configuration: the local user file";
  Str id, err;
  EXPECT_EQ(proxy.userLogin("admin", "changeme", id, err), 1) << err;
  uint64_t gen = proxy.generation();

  PropertiesMap script;
  script.put("scriptPath", home.dir.path() / "auth.py");
  ASSERT_TRUE(proxy.setBundleConfig("scriptSettings", "Scripted", script, true, err)) << err;
  EXPECT_EQ(proxy.getAuthSystem(), "Scripted");
  EXPECT_GT(proxy.generation(), gen);
  EXPECT_EQ(first->getAuthSystem(), "Velmor") << "a holder keeps the back end it got";
  std::string conf = readFile(home.etc / "bundles/local/authentication.conf");
  EXPECT_NE(conf.find("authType = Scripted"), std::string::npos) << conf;
  EXPECT_NE(conf.find("authSettings = scriptSettings"), std::string::npos) << conf;
  Str type;
  PropertiesMap back;
  ASSERT_TRUE(proxy.getBundleConfig(type, back));
  EXPECT_EQ(type, "Scripted");
  EXPECT_STREQ(back.get("scriptPath"), (home.dir.path() / "auth.py").c_str());

  struct Case {
    const char* type;
    const char* key;
    const char* value;
    bool ok;
    const char* system;
  } cases[] = {
      {"LDAP", "host", "127.0.0.1", false, "Velmor"},  // no userBaseDN: refused, the local file again
      {"Nonsense", "x", "y", false, "Velmor"},
      {"Velmor", "x", "y", true, "Velmor"},
  };
  for (const Case& c : cases) {
    PropertiesMap s;
    s.put(c.key, c.value);
    Str e;
    EXPECT_EQ(proxy.setBundleConfig("settings", c.type, s, true, e), c.ok) << c.type;
    if (c.ok) {
      EXPECT_EQ(proxy.getAuthSystem(), c.system) << c.type;
    } else {
      EXPECT_FALSE(e.empty()) << c.type;
    }
  }
  Str e;
  EXPECT_FALSE(proxy.setBundleConfig("roleMap", "LDAP", PropertiesMap(), true, e));

  // A broken file written by hand falls back to the local back end on reload.
  writeFile(home.etc / "bundles/local/authentication.conf",
            "[authentication]\nauthType = LDAP\nauthSettings = missing\n");
  PropertyPages::instance("authentication").updateConfigs();
  EXPECT_FALSE(proxy.reload(e));
  EXPECT_EQ(proxy.getAuthSystem(), "Velmor");
  EXPECT_EQ(proxy.userLogin("admin", "changeme", id, err), 1) << err;
}
