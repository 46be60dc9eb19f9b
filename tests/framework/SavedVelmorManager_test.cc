// The saved search store over a scratch installation: what a save needs and
// who may make it, who sees what, renames and removals (of local and of
// shipped stanzas), event type templates with their cycles, tags, query by
// example, the files it writes and reads back (also when another process
// changed them), and the management calls.
#include "framework/SavedVelmorManager.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "framework/UserManager.h"
#include "util/xml/XmlTreeParser.h"

namespace {

std::string gHome;

std::string slurp(const std::string& path) {
  std::ifstream f(path);
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

void write(const std::string& path, const std::string& text) {
  std::ofstream f(path);
  f << text;
}

std::string localConf(const char* name) { return gHome + "/etc/bundles/local/" + name + ".conf"; }

// Capabilities by user; anyone not listed has none.
class FakePermissions : public IUserPermissions {
 public:
  std::map<Str, std::set<Str>> caps;
  int checkUserPerms(const Str& capability, const Str& user) override {
    auto it = caps.find(user);
    return it != caps.end() && it->second.count(capability) ? 1 : 0;
  }
  std::vector<Str> getSearchFilters(const Str&) override { return {}; }
};

class SavedVelmorManagerTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    char tmpl[] = "/tmp/velmor-savedvelmor-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    gHome = tmpl;
    ASSERT_EQ(system(("mkdir -p " + gHome + "/etc/bundles/default " + gHome + "/etc/bundles/local").c_str()), 0);
    setenv("VELMOR_HOME", gHome.c_str(), 1);
    write(gHome + "/etc/bundles/default/eventtypes.conf",
          "# shipped\n"
          "[a]\nquery = x\ntags = base\n"
          "[b]\nquery = %a% OR y\ntags = base, derived\n"
          "[c]\nquery = %b% %a%\n"
          "[loop1]\nquery = %loop2%\n"
          "[loop2]\nquery = z %loop1%\n"
          "[self]\nquery = %self%\n"
          "[piped]\nquery = a | stats count\n"
          "[quotedpipe]\nsearch = \"a|b\" %a%\n"
          "[unknownref]\nquery = %nosuch% z\n"
          "[percent]\nquery = 50% off %a% %-% %a\n");
    write(gHome + "/etc/bundles/default/savedsearches.conf", "[shipped]\nquery = error\nisGlobal = true\n");
    write(gHome + "/etc/bundles/default/web.conf", "[settings]\nhttpport = 8123\n");
  }
  static void TearDownTestSuite() {
    if (!gHome.empty() && system(("rm -rf " + gHome).c_str()) != 0) ADD_FAILURE() << "cleanup";
  }

  void SetUp() override {
    unlink(localConf("savedsearches").c_str());
    unlink(localConf("eventtypes").c_str());
    perms = std::make_shared<FakePermissions>();
    const std::set<Str> all = {"edit_eventtype", "edit_local_search", "edit_role_search", "edit_user_searches",
                               "schedule_search"};
    perms->caps["admin"] = all;
    perms->caps["alice"] = {"edit_user_searches"};
    perms->caps["bob"] = {"edit_user_searches"};
    previous = UserManager::setPermissions(perms);
    store().reload();
  }
  void TearDown() override { UserManager::setPermissions(previous); }

  static SavedVelmorManager& store() { return SavedVelmorManager::instance(); }

  static SavedVelmor search(const char* name, const char* query, bool eventType = false) {
    SavedVelmor s;
    s.name = name;
    s.query = query;
    s.isEventType = eventType ? "true" : "false";
    return s;
  }

  // Saves as `user` into `where`; "" on success, else the message.
  static Str save(SavedVelmor s, BundleType where, const Str& user) {
    Str err;
    return store().save(s, where, user, err) ? Str() : err;
  }

  static std::vector<Str> names(const Str& type, const Str& user) {
    std::list<Str> l;
    store().getVelmorNames(type, l, user);
    return std::vector<Str>(l.begin(), l.end());
  }

  std::shared_ptr<FakePermissions> perms;
  std::shared_ptr<IUserPermissions> previous;
};

TEST_F(SavedVelmorManagerTest, ASaveNeedsANameATypeAndAStorableName) {
  struct Case {
    const char* name;
    const char* isEventType;
    const char* err;
  };
  const Case cases[] = {
      {"", "false", "No name specified"},
      {"x", "", "No isEventType specified"},
      {"default", "false", "Unable to save search: 'default'.  It was not saved."},
      {"a]b", "true", "Unable to save search: 'a]b'.  It was not saved."},
      {"two\nlines", "false", "Unable to save search: 'two\nlines'.  It was not saved."},
      {" padded", "false", "Unable to save search: ' padded'.  It was not saved."},
  };
  for (const Case& c : cases) {
    SavedVelmor s = search(c.name, "q");
    s.isEventType = c.isEventType;
    EXPECT_EQ(save(s, BundleType::global, "admin"), c.err) << c.name;
  }
  EXPECT_EQ(names("savedsearch", ""), std::vector<Str>{"shipped"});
}

TEST_F(SavedVelmorManagerTest, WhoMayChangeWhat) {
  // alice owns "mine"; "team" is global; "ops" belongs to a role.
  ASSERT_EQ(save(search("mine", "a"), BundleType::user, "alice"), "");
  ASSERT_EQ(save(search("team", "t"), BundleType::global, "admin"), "");
  SavedVelmor ops = search("ops", "o");
  ops.role = "ops";
  ASSERT_EQ(save(ops, BundleType::global, "admin"), "");
  SavedVelmor timed = search("timed", "t");
  timed.schedule = "0 * * * *";
  timed.enableSched = "true";
  ASSERT_EQ(save(timed, BundleType::user, "alice"), "You do not have sufficient privileges to change search schedules.");
  perms->caps["alice"].insert("schedule_search");
  ASSERT_EQ(save(timed, BundleType::user, "alice"), "");
  perms->caps["alice"].erase("schedule_search");

  struct Case {
    const char* what;
    SavedVelmor s;
    BundleType where;
    const char* user;
    const char* err;  // "" for success
  };
  SavedVelmor sameSchedule = timed;
  sameSchedule.query = "changed";
  SavedVelmor newSchedule = timed;
  newSchedule.schedule = "5 * * * *";
  SavedVelmor opsChanged = ops;
  opsChanged.query = "o2";
  const std::vector<Case> cases = {
      {"owner replaces", search("mine", "a2"), BundleType::user, "alice", ""},
      {"another user", search("mine", "b"), BundleType::user, "bob",
       "You don't have permission  to save the saved search 'mine' belongs to another user"},
      {"no capability", search("new", "n"), BundleType::user, "carol",
       "You don't have permission  to save the saved search 'new'"},
      {"global without edit_local_search", search("team", "t2"), BundleType::global, "alice",
       "You don't have permission  to save the saved search 'team'"},
      {"global as admin", search("team", "t3"), BundleType::global, "admin", ""},
      {"event type without edit_eventtype", search("et", "e", true), BundleType::global, "alice",
       "You don't have permission  to save the saved search 'et'"},
      {"event type as admin", search("et", "e", true), BundleType::global, "admin", ""},
      {"same schedule, other text", sameSchedule, BundleType::user, "alice", ""},
      {"schedule changed", newSchedule, BundleType::user, "alice",
       "You do not have sufficient privileges to change search schedules."},
      {"role search without edit_role_search", opsChanged, BundleType::user, "bob",
       "You don't have permission  to save the saved search 'ops'"},
      {"the process itself", search("mine", "a3"), BundleType::user, "", ""},
  };
  for (const Case& c : cases) EXPECT_EQ(save(c.s, c.where, c.user), c.err) << c.what;

  SavedVelmor got;
  ASSERT_TRUE(store().getVelmorByKey("mine", "savedsearch", got, "alice"));
  EXPECT_EQ(got.query, "a3");
  EXPECT_EQ(got.userid, "alice");  // a replaced search keeps its owner
  EXPECT_EQ(got.isGlobal, "false");

  struct Removal {
    const char* name;
    const char* user;
    const char* err;
  };
  const Removal removals[] = {
      {"mine", "bob", "Could not find search='mine' to delete"},  // bob does not see it
      {"team", "alice", "You don't have permission  to delete the saved search 'team'"},
      {"nosuch", "admin", "Could not find search='nosuch' to delete"},
      {"", "admin", "No name specified"},
      {"mine", "alice", ""},
  };
  for (const Removal& r : removals) {
    Str err;
    bool ok = store().remove(r.name, false, r.user, err);
    EXPECT_EQ(ok ? Str() : err, r.err) << r.name << " by " << r.user;
  }
  EXPECT_FALSE(store().gotVelmorByKey("mine", "savedsearch", ""));
}

TEST_F(SavedVelmorManagerTest, WhoSeesWhat) {
  ASSERT_EQ(save(search("alices", "a"), BundleType::user, "alice"), "");
  ASSERT_EQ(save(search("bobs", "b"), BundleType::user, "bob"), "");
  SavedVelmor shared = search("shared", "s");
  shared.userid = "bob";
  ASSERT_EQ(save(shared, BundleType::global, "admin"), "");
  struct Case {
    const char* user;
    std::vector<Str> sees;
  };
  const std::vector<Case> cases = {
      {"alice", {"alices", "shared", "shipped"}},
      {"bob", {"bobs", "shared", "shipped"}},
      {"carol", {"shared", "shipped"}},
      {"", {"alices", "bobs", "shared", "shipped"}},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(names("savedsearch", c.user), c.sees) << c.user;
    SavedVelmor got;
    EXPECT_EQ(store().getVelmorByKey("alices", "savedsearch", got, c.user),
              std::find(c.sees.begin(), c.sees.end(), "alices") != c.sees.end())
        << c.user;
  }
  SavedVelmor got;
  EXPECT_FALSE(store().getVelmorByKey("alices", "eventtype", got, ""));  // another store
  EXPECT_FALSE(store().getVelmorByKey("alices", "nosuchtype", got, ""));
}

TEST_F(SavedVelmorManagerTest, SavesLandInTheLocalBundleAndReadBack) {
  SavedVelmor s = search("errs", "error OR fail");
  s.tags = "ops, web";
  s.description = "two words";
  ASSERT_EQ(save(s, BundleType::user, "alice"), "");
  const std::string text = slurp(localConf("savedsearches"));
  EXPECT_NE(text.find("[errs]\n"), std::string::npos) << text;
  EXPECT_NE(text.find("query = error OR fail\n"), std::string::npos) << text;
  EXPECT_NE(text.find("userid = alice\n"), std::string::npos) << text;
  EXPECT_NE(text.find("isGlobal = false\n"), std::string::npos) << text;
  EXPECT_EQ(text.find("isEventType"), std::string::npos) << text;

  // An event type of the shipped bundle is overridden locally, and comes
  // back when the local one goes.
  SavedVelmor a = search("a", "x2", true);
  ASSERT_EQ(save(a, BundleType::global, "admin"), "");
  // The shipped tags are not part of the new one: written empty, they hide.
  EXPECT_EQ(slurp(localConf("eventtypes")), "[a]\nisGlobal = true\nquery = x2\ntags = \n\n");
  SavedVelmor got;
  ASSERT_TRUE(store().getVelmorByKey("a", "eventtype", got, ""));
  EXPECT_EQ(got.query, "x2");
  EXPECT_EQ(got.tags, "");
  Str err;
  ASSERT_TRUE(store().remove("a", true, "admin", err)) << err;
  ASSERT_TRUE(store().getVelmorByKey("a", "eventtype", got, ""));
  EXPECT_EQ(got.query, "x");
  EXPECT_FALSE(store().remove("a", true, "admin", err));
  EXPECT_EQ(err, "The search='a' is shipped with the system and cannot be deleted");

  // A cleared field is written empty so that the shipped value is hidden.
  SavedVelmor b;
  ASSERT_TRUE(store().getVelmorByKey("b", "eventtype", b, ""));
  b.tags.clear();
  ASSERT_EQ(save(b, BundleType::global, "admin"), "");
  store().reload();
  ASSERT_TRUE(store().getVelmorByKey("b", "eventtype", got, ""));
  EXPECT_EQ(got.tags, "");
  EXPECT_EQ(got.query, "%a% OR y");
}

TEST_F(SavedVelmorManagerTest, AFailedWriteChangesNothing) {
  const std::string local = gHome + "/etc/bundles/local";
  ASSERT_EQ(rename(local.c_str(), (local + ".away").c_str()), 0);
  write(local, "not a directory");
  Str err;
  SavedVelmor s = search("lost", "q");
  EXPECT_FALSE(store().save(s, BundleType::global, "admin", err));
  EXPECT_EQ(err, "Unable to save search: 'lost'.  It was not saved.");
  EXPECT_FALSE(store().gotVelmorByKey("lost", "savedsearch", ""));
  const std::string doc = "<savedVelmor><name>lost</name><isEventType>false</isEventType></savedVelmor>";
  xml::tree_parser p(doc.data(), doc.size(), false);
  ASSERT_FALSE(p.failed()) << p.get_error_message();
  EXPECT_EQ(store().saveVelmor(p.get_document().get_root_node(), "admin"), "<error>Unable to save velmor</error>");

  unlink(local.c_str());
  ASSERT_EQ(rename((local + ".away").c_str(), local.c_str()), 0);
  ASSERT_EQ(save(search("kept", "q"), BundleType::global, "admin"), "");
  const std::string text = slurp(localConf("savedsearches"));
  EXPECT_EQ(text.find("lost"), std::string::npos) << text;
  EXPECT_NE(text.find("[kept]"), std::string::npos) << text;
}

TEST_F(SavedVelmorManagerTest, Renames) {
  ASSERT_EQ(save(search("one", "1"), BundleType::user, "alice"), "");
  ASSERT_EQ(save(search("two", "2"), BundleType::user, "alice"), "");
  struct Case {
    const char* from;
    const char* to;
    const char* user;
    const char* err;
  };
  const Case cases[] = {
      {"one", "two", "alice", "Saved search with name 'two' already exists, failed to rename search"},
      {"zz", "three", "alice", "Could not find search='zz' to rename"},
      {"one", "three", "bob", "Could not find search='one' to rename"},
      {"one", "", "alice", "No name specified"},
      {"shipped", "moved", "admin", "The search='shipped' is shipped with the system and cannot be deleted"},
      {"one", "three", "alice", ""},
  };
  for (const Case& c : cases) {
    Str err;
    bool ok = store().rename(c.from, c.to, false, c.user, err);
    EXPECT_EQ(ok ? Str() : err, c.err) << c.from << " -> " << c.to;
  }
  EXPECT_EQ(names("savedsearch", "alice"), (std::vector<Str>{"shipped", "three", "two"}));
  SavedVelmor got;
  ASSERT_TRUE(store().getVelmorByKey("three", "savedsearch", got, "alice"));
  EXPECT_EQ(got.query, "1");
  EXPECT_EQ(got.userid, "alice");
}

TEST_F(SavedVelmorManagerTest, EventTypeTemplates) {
  struct Case {
    const char* name;
    bool ok;
    const char* text;  // the expansion, or the reason
  };
  const Case cases[] = {
      {"a", true, "x"},
      {"b", true, "(x) OR y"},
      {"c", true, "((x) OR y) (x)"},
      {"quotedpipe", true, "\"a|b\" (x)"},
      {"unknownref", true, "%nosuch% z"},
      {"percent", true, "50% off (x) %-% %a"},
      {"loop1", false, "The eventtype 'loop1' refers to itself through 'loop1'"},
      {"loop2", false, "The eventtype 'loop2' refers to itself through 'loop2'"},
      {"self", false, "The eventtype 'self' refers to itself through 'self'"},
      {"piped", false, "The eventtype's 'search' field has unsupported syntax: a | stats count"},
      {"missing", false, "Unable to find eventtype missing"},
  };
  for (const Case& c : cases) {
    Str out, err;
    EXPECT_EQ(store().getEventTypeTemplateQuery(c.name, out, err), c.ok) << c.name;
    EXPECT_EQ(c.ok ? out : err, c.text) << c.name;
  }
}

TEST_F(SavedVelmorManagerTest, TagsFollowSavesAndVisibility) {
  SavedVelmor s = search("mine", "m");
  s.tags = "web,private";
  ASSERT_EQ(save(s, BundleType::user, "alice"), "");
  SavedVelmor g = search("pub", "p");
  g.tags = "web";
  ASSERT_EQ(save(g, BundleType::global, "admin"), "");
  auto tagged = [](const char* tag, const char* user) {
    std::vector<SavedVelmor> out;
    store().getVelmorsForTag("savedsearch", tag, out, user);
    std::vector<Str> n;
    for (const SavedVelmor& v : out) n.push_back(v.name);
    return n;
  };
  EXPECT_EQ(tagged("web", "alice"), (std::vector<Str>{"mine", "pub"}));
  EXPECT_EQ(tagged("web", "bob"), std::vector<Str>{"pub"});
  EXPECT_EQ(store().getAllTags("savedsearch", "alice"), (std::vector<Str>{"private", "web"}));
  EXPECT_EQ(store().getAllTags("savedsearch", "bob"), std::vector<Str>{"web"});
  EXPECT_EQ(store().getAllTags("eventtype", ""), (std::vector<Str>{"base", "derived"}));

  s.tags = "other";  // replacing drops the old tags
  ASSERT_EQ(save(s, BundleType::user, "alice"), "");
  EXPECT_EQ(tagged("web", "alice"), std::vector<Str>{"pub"});
  EXPECT_EQ(tagged("other", "alice"), std::vector<Str>{"mine"});
  Str err;
  ASSERT_TRUE(store().remove("pub", false, "admin", err)) << err;
  EXPECT_TRUE(tagged("web", "").empty());
}

TEST_F(SavedVelmorManagerTest, QueryByExampleAndRemovalByOwner) {
  ASSERT_EQ(save(search("a1", "q"), BundleType::user, "alice"), "");
  ASSERT_EQ(save(search("a2", "other"), BundleType::user, "alice"), "");
  ASSERT_EQ(save(search("b1", "q"), BundleType::user, "bob"), "");
  struct Case {
    SavedVelmor example;
    const char* user;
    std::vector<Str> want;
  };
  SavedVelmor byQuery;
  byQuery.query = "q";
  SavedVelmor byOwner;
  byOwner.userid = "alice";
  SavedVelmor both = byQuery;
  both.userid = "alice";
  SavedVelmor eventTypes;
  eventTypes.isEventType = "true";
  eventTypes.query = "x";
  SavedVelmor anyStore;
  anyStore.name = "a";
  const std::vector<Case> cases = {
      {byQuery, "", {"a1", "b1"}},       {byQuery, "bob", {"b1"}}, {byOwner, "", {"a1", "a2"}},
      {both, "", {"a1"}},                {eventTypes, "", {"a"}},  {anyStore, "", {"a"}},
      {SavedVelmor(), "carol", {"shipped", "a", "b", "c", "loop1", "loop2", "percent", "piped", "quotedpipe",
                                "self", "unknownref"}},
  };
  for (const Case& c : cases) {
    std::vector<SavedVelmor> out;
    store().getByExample(c.example, out, c.user);
    std::vector<Str> n;
    for (const SavedVelmor& v : out) n.push_back(v.name);
    EXPECT_EQ(n, c.want);
  }
  EXPECT_EQ(store().deleteVelmorsByUserId("savedsearch", "alice"), 2);
  EXPECT_EQ(store().deleteVelmorsByUserId("savedsearch", "alice"), 0);
  EXPECT_EQ(store().deleteVelmorsByUserId("nosuchtype", "bob"), 0);
  EXPECT_EQ(names("savedsearch", ""), (std::vector<Str>{"b1", "shipped"}));
}

TEST_F(SavedVelmorManagerTest, AnotherProcessesSaveIsSeen) {
  ASSERT_EQ(save(search("mine", "m"), BundleType::global, "admin"), "");
  // Another process rewrites the file; the store notices once the clock has
  // moved to the next second (it looks at most once a second).
  std::string text = slurp(localConf("savedsearches"));
  write(localConf("savedsearches") + ".new", text + "[theirs]\nquery = t\nisGlobal = true\n");
  ASSERT_EQ(rename((localConf("savedsearches") + ".new").c_str(), localConf("savedsearches").c_str()), 0);
  const time_t start = time(nullptr);
  for (int i = 0; i < 100 && time(nullptr) < start + 2; ++i) usleep(25000);
  SavedVelmor got;
  ASSERT_TRUE(store().getVelmorByKey("theirs", "savedsearch", got, "carol"));
  EXPECT_EQ(got.query, "t");
  EXPECT_TRUE(store().gotVelmorByKey("mine", "savedsearch", "carol"));
}

TEST_F(SavedVelmorManagerTest, NextRunAndHttpPort) {
  setenv("TZ", "UTC", 1);
  tzset();
  struct Case {
    const char* schedule;
    time_t want;
  };
  const time_t now = 1795582431;  // 04:53:51
  const Case cases[] = {{"0 * * * *", 1795582800}, {"*/5 * * * *", 1795582500}, {"", 0}, {"bad", 0}};
  for (const Case& c : cases) {
    SavedVelmor s;
    s.schedule = c.schedule;
    EXPECT_EQ(store().getNextRun(s, now), c.want) << c.schedule;
  }
  Str port;
  store().getHTTPPort(port);
  EXPECT_EQ(port, "8123");
}

TEST_F(SavedVelmorManagerTest, ManagementCalls) {
  auto call = [](const Str& name, const std::string& args, const Str& user) {
    xml::tree_parser p(args.data(), args.size(), false);
    EXPECT_FALSE(p.failed()) << args;
    Str reply;
    store().handleSoapCall(name, p.get_document().get_root_node(), user, reply);
    return reply;
  };
  struct Case {
    const char* call;
    std::string args;
    const char* user;
    std::string reply;  // the whole reply, or its start when it ends in "..."
  };
  const std::vector<Case> cases = {
      {"frob", "<x/>", "admin", "<error>SavedVelmorManager::handleSoapCall: No soap api call for frob</error>"},
      {"saveVelmor", "<savedVelmor><query>q</query></savedVelmor>", "alice", "<error>No name specified</error>"},
      {"saveVelmor", "<call><savedVelmor><name>n</name></savedVelmor></call>", "alice",
       "<error>No isEventType specified</error>"},
      {"saveVelmor", "<savedVelmor><name>n</name><isEventType>false</isEventType><query>a&lt;b</query></savedVelmor>",
       "alice", "<savedVelmorRet><savedVelmor><query>a&lt;b</query><name>n</name>..."},
      {"saveVelmor", "<savedVelmor><name>n</name><isEventType>false</isEventType></savedVelmor>", "bob",
       "<error>You don't have permission  to save the saved search 'n' belongs to another user</error>"},
      {"getUserVelmor", "<savedVelmor><name>n</name></savedVelmor>", "alice",
       "<savedVelmorRet><savedVelmor><query>a&lt;b</query>..."},
      {"getUserVelmor", "<savedVelmor><name>n</name></savedVelmor>", "bob",
       "<error>Unable to find saved velmor with name = n</error>"},
      {"getUserVelmors", "<savedVelmor><isEventType>false</isEventType></savedVelmor>", "bob",
       "<savedVelmorRet><savedVelmor><query>error</query><name>shipped</name>..."},
      {"renameVelmor", "<call><name>n</name><newName>m</newName><isEventType>0</isEventType></call>", "alice",
       "<savedVelmorRet><name>m</name></savedVelmorRet>"},
      {"getAllTags", "<call><type>eventtype</type><tag>derived</tag></call>", "alice",
       "<savedVelmorRet><tags type=\"eventtype\"><tag name=\"derived\"><name>b</name></tag></tags></savedVelmorRet>"},
      {"getAllTags", "<call><type>nosuch</type></call>", "alice", "<error>Unknown type 'nosuch'</error>"},
      {"getByExample", "<savedVelmor><userid>alice</userid></savedVelmor>", "",
       "<savedVelmorRet><savedVelmor><query>a&lt;b</query><name>m</name>..."},
      {"deleteVelmor", "<call><name>m</name></call>", "alice", "<error>No isEventType specified</error>"},
      {"deleteVelmor", "<call><name>m</name><isEventType>false</isEventType></call>", "alice",
       "<savedVelmorRet><name>m</name></savedVelmorRet>"},
      {"deleteVelmor", "<call><name>m</name><isEventType>false</isEventType></call>", "alice",
       "<error>Could not find search='m' to delete</error>"},
  };
  for (const Case& c : cases) {
    Str reply = call(c.call, c.args, c.user);
    if (c.reply.size() > 3 && c.reply.compare(c.reply.size() - 3, 3, "...") == 0) {
      EXPECT_EQ(reply.substr(0, c.reply.size() - 3), c.reply.substr(0, c.reply.size() - 3)) << c.call;
    } else {
      EXPECT_EQ(reply, c.reply) << c.call << " " << c.args;
    }
  }
}

}  // namespace
