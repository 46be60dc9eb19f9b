#include "framework/auth/AuthenticationManagerScripted.h"

#include <gtest/gtest.h>

#include "AuthTestHome.h"
#include "libbundle/PropertiesMap.h"

using authtest::readFile;
using authtest::TempDir;
using authtest::writeFile;
using Scripted = AuthenticationManagerScripted;

namespace {

// The script logs every run (its arguments and standard input) to runs.log.
const char* const kScript = R"PY(#!/usr/bin/env python3
import sys, os
here = os.path.dirname(os.path.abspath(__file__))
call = sys.argv[1]
args = dict(a[2:].split("=", 1) for a in sys.argv[2:])
stdin = sys.stdin.read()
with open(os.path.join(here, "runs.log"), "a") as f:
    f.write(" ".join(sys.argv[1:]) + " | stdin=" + stdin.strip() + "\n")
user = args.get("username", "")
if user == "crash":
    sys.exit(3)
if user == "flaky":
    print("--status=tmp_fail"); sys.exit(0)
if call == "userLogin":
    ok = user == "alice" and stdin.strip() == "--password=pa ss"
    print("--status=success --userId=42" if ok else "--status=auth_fail")
elif call == "getUserInfo":
    print("--status=success --userInfo=42;alice;;Alice A;Admin:power" if user == "alice" else "--status=auth_fail")
elif call == "getUserType":
    print("--status=success --role=Admin --role=power")
elif call == "getUsers":
    print("--status=success --userInfo=42;alice;;Alice A;Admin:power")
    print("--userInfo=43;bob;;Bob;user")
elif call == "getSearchFilter":
    print("--status=success --search_filter=host::web-01 --search_filter=sourcetype::access")
elif call == "checkSessions":
    print("--status=success" if user == "alice" else "--status=auth_fail")
else:
    print("--status=bogus")
)PY";

struct ScriptFixture {
  TempDir dir;
  Pathname script = dir.path() / "auth.py";
  Pathname runs = dir.path() / "runs.log";
  ScriptFixture() { writeFile(script, kScript, 0700); }
  size_t runCount() const {
    std::string log = readFile(runs);
    return static_cast<size_t>(std::count(log.begin(), log.end(), '\n'));
  }
  scriptConfig config(int ttl) const {
    PropertiesMap settings, timing;
    settings.put("scriptPath", script);
    settings.put("scriptSearchFilters", "true");
    Str t = Str::fromFormat("%ds", ttl);
    for (const char* k : {"getUserInfoTTL", "getUserTypeTTL", "getUsersTTL", "checkSessionsTTL"}) timing.put(k, t);
    scriptConfig cfg;
    Str err;
    EXPECT_TRUE(scriptConfig::fromStanzas(settings, &timing, cfg, err)) << err;
    return cfg;
  }
};

}  // namespace

TEST(AuthenticationManagerScripted, ParsesOutputPairs) {
  struct Case {
    const char* text;
    Scripted::Pairs pairs;
  } cases[] = {
      {"--status=success", {{"status", "success"}}},
      {"--status=success --role=Admin --role=power\n",
       {{"status", "success"}, {"role", "Admin"}, {"role", "power"}}},
      {"--status=success --realname=Alice A --x=", {{"status", "success"}, {"realname", "Alice A"}, {"x", ""}}},
      {"--status=success\n--userInfo=1;a;;A;Admin\n--userInfo=2;b;;B;\n",
       {{"status", "success"}, {"userInfo", "1;a;;A;Admin"}, {"userInfo", "2;b;;B;"}}},
      {"--filter=a--b=c", {{"filter", "a--b=c"}}},
      {"no pairs at all", {}},
      {"", {}},
  };
  for (const Case& c : cases) EXPECT_EQ(Scripted::parseOutput(c.text), c.pairs) << c.text;
}

TEST(AuthenticationManagerScripted, ConfigNeedsAScriptAndReadsDurations) {
  PropertiesMap none, settings, timing;
  scriptConfig cfg;
  Str err;
  EXPECT_FALSE(scriptConfig::fromStanzas(none, nullptr, cfg, err));
  settings.put("scriptPath", "/x.py");
  timing.put("getUserInfoTTL", "2m");
  timing.put("getUserTypeTTL", "1h");
  timing.put("getUsersTTL", "0");
  timing.put("checkSessionsTTL", "soon");  // bad: keeps the default
  ASSERT_TRUE(scriptConfig::fromStanzas(settings, &timing, cfg, err));
  EXPECT_EQ(cfg.getUserInfoTTL, 120);
  EXPECT_EQ(cfg.getUserTypeTTL, 3600);
  EXPECT_EQ(cfg.getUsersTTL, 0);
  EXPECT_EQ(cfg.checkSessionsTTL, scriptConfig().checkSessionsTTL);
  EXPECT_FALSE(cfg.scriptSearchFilters);
}

TEST(AuthenticationManagerScripted, AnswersFromTheScript) {
  ScriptFixture f;
  Scripted m(f.config(0));
  EXPECT_EQ(m.getAuthSystem(), "Scripted");
  struct Case {
    const char* user;
    const char* password;
    int result;
    const char* userId;
  } logins[] = {
      {"alice", "pa ss", 1, "42"},
      {"alice", "wrong", 0, ""},
      {"bob", "pa ss", 0, ""},
      {"flaky", "pa ss", 0, ""},
      {"crash", "pa ss", 0, ""},
  };
  for (const Case& c : logins) {
    Str id, err;
    EXPECT_EQ(m.userLogin(c.user, c.password, id, err), c.result) << c.user << "/" << c.password;
    if (c.result) {
      EXPECT_EQ(id, c.userId);
    } else {
      EXPECT_FALSE(err.empty());
    }
  }
  std::string log = readFile(f.runs);
  EXPECT_NE(log.find("userLogin --username=alice | stdin=--password=pa ss"), std::string::npos) << log;
  EXPECT_EQ(log.find("--password=pa ss |"), std::string::npos) << "the password never goes on the command line";

  userInformation info;
  ASSERT_EQ(m.getUserInfoByName("alice", info), 1);
  EXPECT_EQ(info.toString(), "42;alice;;Alice A;Admin:power");
  EXPECT_EQ(m.getUserInfoByName("bob", info), 0);
  std::set<Str> roles;
  ASSERT_EQ(m.getUserType("alice", roles), 1);
  EXPECT_EQ(roles, (std::set<Str>{"Admin", "power"}));
  std::vector<userInformation> users;
  ASSERT_EQ(m.getUsers("", "user", users), 1);
  ASSERT_EQ(users.size(), 1u);
  EXPECT_EQ(users[0].username, "bob");
  std::set<Str> filters;
  ASSERT_EQ(m.getSearchFilter("alice", "", filters), 1);
  EXPECT_EQ(filters, (std::set<Str>{"host::web-01", "sourcetype::access"}));
  EXPECT_EQ(m.checkSession("alice"), 1);
  EXPECT_EQ(m.checkSession("bob"), 0);
  EXPECT_EQ(m.checkSession("flaky"), 0);

  Str err;
  EXPECT_EQ(m.saveUser(info, "pw", err), 0);
  EXPECT_EQ(err, "Saving users is not permitting in scripted auth");
  EXPECT_EQ(m.deleteUser("alice", "admin", err), 0);
  EXPECT_EQ(err, "Scripted auth does not support deleteUser.");

  Str id;
  EXPECT_EQ(m.userLogin("harriet", "x", id, err), 0);
  EXPECT_EQ(err, "Login forbidden for harriet.");
}

TEST(AuthenticationManagerScripted, CachesSuccessesPerUserAndCall) {
  ScriptFixture f;
  Scripted cached(f.config(3600));
  std::set<Str> roles;
  userInformation info;
  ASSERT_EQ(cached.getUserType("alice", roles), 1);
  ASSERT_EQ(cached.getUserType("alice", roles), 1);
  EXPECT_EQ(f.runCount(), 1u) << "the second question is a cache hit";
  ASSERT_EQ(cached.getUserInfoByName("alice", info), 1);
  ASSERT_EQ(cached.getUserType("carol", roles), 1);
  EXPECT_EQ(f.runCount(), 3u) << "other calls and other users are not hits";
  ASSERT_EQ(cached.getUserInfoByName("alice", info), 1);
  EXPECT_EQ(info.username, "alice");
  EXPECT_EQ(f.runCount(), 3u);

  // Failures are not cached: a temporary failure is asked again.
  EXPECT_EQ(cached.getUserType("flaky", roles), 0);
  EXPECT_EQ(cached.getUserType("flaky", roles), 0);
  EXPECT_EQ(f.runCount(), 5u);
  // Logins are never cached.
  Str id, err;
  cached.userLogin("alice", "pa ss", id, err);
  cached.userLogin("alice", "pa ss", id, err);
  EXPECT_EQ(f.runCount(), 7u);

  cached.clearCache();
  cached.getUserType("alice", roles);
  EXPECT_EQ(f.runCount(), 8u);

  Scripted uncached(f.config(0));
  uncached.getUserType("alice", roles);
  uncached.getUserType("alice", roles);
  EXPECT_EQ(f.runCount(), 10u) << "a lifetime of 0 turns the cache off";
}

TEST(AuthenticationManagerScripted, MissingScriptIsATemporaryFailure) {
  scriptConfig cfg;
  cfg.scriptPath = "/nonexistent/velmor-auth-script";
  Scripted m(cfg);
  Scripted::Pairs out;
  EXPECT_EQ(m.callScript("getUserType", {{"username", "alice"}}, "", out), Scripted::Status::tmp_fail);
  Str id, err;
  EXPECT_EQ(m.userLogin("alice", "pw", id, err), 0);
}
