// IndexProcessor over a scratch installation: the configuration texts of
// init, events written with execute and found by runQuery (both forms) and
// runSearch, the access-control clauses (the search first, then the
// filter), the admin-only rule for internal indexes, the bound on running
// queries, and the management calls.
#include "pipeline/indexer/IndexProcessor.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <string>

#include "framework/UserManager.h"
#include "libbundle/PropertyPages.h"
#include "loaderinfo/LoaderInfo.h"
#include "pipeline/indexer/QueryRunningSingleton.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"

namespace {

class IndexProcessorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/velmor-indexprocessor-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = tmpl;
    home = dir + "/home";
    ASSERT_EQ(system(("bash " VELMOR_SOURCE_DIR "/scripts/mkhome.sh " + home + " >/dev/null").c_str()), 0);
    setenv("VELMOR_HOME", home.c_str(), 1);
    setenv("VELMOR_DB", (home + "/var/lib/velmor/db").c_str(), 1);
    LoaderInfo::getInstance().populateFromEnvironment();
  }
  void TearDown() override {
    UserManager::setPermissions(nullptr);
    if (!dir.empty() && system(("rm -rf " + dir).c_str()) != 0) ADD_FAILURE() << "cleanup";
  }

  // Writes the local indexes.conf: `defaults` goes into [default], then
  // the index "main" and `more`.
  void configure(const std::string& defaults, const std::string& more = "") {
    std::ofstream conf(home + "/etc/bundles/local/indexes.conf");
    conf << "[default]\n" << defaults << "\n\n[main]\nhomePath = $VELMOR_DB/defaultdb/db\n"
         << "coldPath = $VELMOR_DB/defaultdb/colddb\nthawedPath = $VELMOR_DB/defaultdb/thaweddb\n"
         << "frozenTimePeriodInSecs = 2147483647\n\n" << more;
    conf.close();
    PropertyPages::instance("indexes").updateConfigs();
  }

  // The error text init throws, or "" when it succeeds.
  std::string initError(IndexProcessor& p) {
    try {
      p.init(false, false);
    } catch (const std::exception& e) {
      return e.what();
    }
    return "";
  }

  void write(IndexProcessor& p, const std::string& raw, const std::string& host, long t) {
    PipelineData ev;
    ev.put(PipelineData::rawKey, raw);
    ev.put(PipelineData::hostKey, host);
    ev.put(PipelineData::sourceKey, "/var/log/app.log");
    ev.put(PipelineData::sourceTypeKey, "app");
    ev.put(PipelineData::timeKey, std::to_string(t));
    ev.put("_sync", "1");
    ASSERT_EQ(p.execute(ev), IndexProcessor::eOk);
  }

  static std::string error(const std::string& doc) {
    std::smatch m;
    return std::regex_search(doc, m, std::regex("<error>([^<]*)</error>")) ? m[1].str() : "";
  }
  static long total(const std::string& doc) {
    std::smatch m;
    return std::regex_search(doc, m, std::regex("tc=\"(\\d+)\"")) ? atol(m[1].str().c_str()) : -1;
  }

  std::string dir, home;
};

TEST_F(IndexProcessorTest, InitNamesEachConfigurationFault) {
  struct Row {
    std::string defaults, more, error;
  };
  const std::string twin =
      "[twin]\nhomePath = $VELMOR_DB/defaultdb/db\ncoldPath = $VELMOR_DB/twin/colddb\n"
      "thawedPath = $VELMOR_DB/twin/thaweddb\nmaxResults = 100\ncompressRawdata = true\nmaxDataSize = 10\n"
      "maxTotalDataSizeMB = 100\n";
  const Row rows[] = {
      {"maxQueryIds =", "", "'maxQueryIds' tag required in config"},
      {"queryLanguageDefinition =", "", "'queryLanguageDefinition' tag required in config"},
      {"blockSignatureDatabase =", "", "'blockSignatureDatabase' tag required in config"},
      {"defaultDatabase =", "", "'defaultDatabase' tag required in config"},
      {"maxQueryIds = many", "", "Invalid value 'many' for 'maxQueryIds' in config"},
      {"queryLanguageDefinition = " + dir + "/none.xml", "",
       "Could not find search language definition at " + dir + "/none.xml"},
      {"blockSignatureDatabase = nosuch", "", "Could not find blockSignatureDatabase : nosuch could not be found"},
      {"defaultDatabase = nosuch", "", "defaultDatabase : nosuch could not be found"},
      {"", twin, " collides in the indexprocessor config ... please check your config"},
      {"", "", ""},
  };
  for (const Row& r : rows) {
    configure(r.defaults, r.more);
    IndexProcessor p;
    std::string got = initError(p);
    if (r.error.empty())
      EXPECT_EQ(got, "") << r.defaults;
    else
      EXPECT_NE(got.find(r.error), std::string::npos) << r.defaults << r.more << " -> " << got;
  }
  // A plain file where the result documents go.
  configure("");
  ASSERT_EQ(system(("rm -rf " + home + "/var/lib/velmor/db/searches && touch " + home +
                    "/var/lib/velmor/db/searches").c_str()),
            0);
  IndexProcessor p;
  EXPECT_NE(initError(p).find("searches must be a directory."), std::string::npos);
}

TEST_F(IndexProcessorTest, EventsWrittenAreFoundByEveryQueryForm) {
  configure("");
  IndexProcessor p;
  ASSERT_EQ(initError(p), "");
  std::vector<Str> domains;
  p.enumerateDomains(domains);
  EXPECT_EQ(domains, (std::vector<Str>{"_blocksignature", "_internal", "_thefileseeks", "main"}));
  EXPECT_EQ(p.getDefaultDomain(), "main");
  EXPECT_EQ(p.getDomainCreationTime("nosuch"), -1);
  EXPECT_GT(p.getDomainCreationTime("main"), 0);

  for (int i = 0; i < 30; ++i)
    write(p, "event " + std::to_string(i) + (i % 3 ? " login ok" : " login failed"), i % 2 ? "web1" : "web2",
          1795132800 + i);

  Str doc;
  p.runQuery("SEARCH login NOT ok GET events::0-4 OUTPUT velmorui::2.2", "admin", "q1", doc);
  EXPECT_EQ(error(doc), "");
  EXPECT_EQ(total(doc), 10) << doc;
  EXPECT_NE(doc.find("event 27 login failed"), Str::npos) << doc;
  EXPECT_EQ(doc.find("event 12 login failed"), Str::npos) << "only five events asked for";

  std::unordered_map<Str, std::vector<std::shared_ptr<Str>>> raw;
  p.runQuery("SEARCH failed host::web1 GET events::0-99", "admin", "q2", raw);
  ASSERT_EQ(raw["events"].size(), 5u);  // 3, 9, 15, 21, 27
  EXPECT_EQ(*raw["events"][0], "event 27 login failed");

  // The injected event is synced and found at once.
  EXPECT_EQ(p.handleSoapCall("injectEvent", {{"raw", "injected marker"}, {"host", "h9"}, {"time", "1795132900"}}),
            "Event injected");
  p.runQuery("SEARCH marker host::h9 GET events::0-0 OUTPUT velmorui::2.2", "admin", "q3", doc);
  EXPECT_EQ(total(doc), 1) << doc;
  EXPECT_EQ(p.handleSoapCall("cancelQuery", {{"queryId", "idle"}}), "Query idle is not running");
  EXPECT_THROW(p.handleSoapCall("frob", {}), std::invalid_argument);

  // Maintenance closes the door and opens it again.
  p.disableQueries();
  p.runQuery("SEARCH marker GET events::0-0", "admin", "q4", doc);
  EXPECT_EQ(error(doc), "Queries are disabled while the indexes are under maintenance");
  p.enableQueries();
  p.runQuery("SEARCH marker GET events::0-0", "admin", "q4", doc);
  EXPECT_EQ(error(doc), "");
}

TEST_F(IndexProcessorTest, AccessControlPutsTheSearchFirstAndAndsTheFilter) {
  const struct {
    std::string search;
    std::vector<Str> filters;
    std::string expected;
  } rows[] = {
      {"error", {}, "error"},
      {"error", {"host::web1"}, "( error ACCESS_CONTROL_NEXT host::web1 ) "},
      {"a OR b", {"host::web1", "sourcetype::app"},
       "( a OR b ACCESS_CONTROL_NEXT host::web1 )  OR ( a OR b ACCESS_CONTROL_NEXT sourcetype::app ) "},
      {"x NOT", {"y"}, "( x NOT ACCESS_CONTROL_NEXT y ) "},
  };
  for (const auto& r : rows) EXPECT_EQ(IndexProcessor::accessControlledSearch(r.search, r.filters), r.expected);

  configure("");
  IndexProcessor p;
  ASSERT_EQ(initError(p), "");
  for (int i = 0; i < 20; ++i) write(p, "event " + std::to_string(i) + " error", i % 2 ? "web1" : "web2", 1795132800 + i);

  SearchResults rows1;
  SearchResultsInfo info;
  p.runSearch("error", rows1, info);
  ASSERT_TRUE(info.hasMessages(SearchResultsInfo::MSG_ERROR));
  EXPECT_EQ(info.messages[SearchResultsInfo::MSG_ERROR][0], "unable to get thread user context");

  {
    UserContext::Scope as(UserContext{"bob", {"host::web1"}});
    // A trailing NOT of the user's own search cannot swallow the filter.
    SearchResults rows2;
    SearchResultsInfo info2;
    p.runSearch("error", rows2, info2);
    ASSERT_FALSE(info2.hasMessages(SearchResultsInfo::MSG_ERROR)) << info2.messages[SearchResultsInfo::MSG_ERROR][0];
    EXPECT_EQ(rows2.size(), 10u);
    Str host;
    for (SearchResult* r : rows2) {
      ASSERT_TRUE(r->getValue("host", host));
      EXPECT_EQ(host, "web1");
    }
    ASSERT_TRUE(info2.hasMessages(SearchResultsInfo::MSG_WARN));
    EXPECT_EQ(info2.messages[SearchResultsInfo::MSG_WARN][0],
              "Your search was restricted by the access control string \"host::web1\"");
    SearchResults rows3;
    SearchResultsInfo info3;
    p.runSearch("error OR event", rows3, info3);
    EXPECT_EQ(rows3.size(), 10u);
  }
  {
    UserContext::Scope as(UserContext{"freeuser", {}});
    SearchResults rows4;
    SearchResultsInfo info4;
    p.runSearch("error", rows4, info4);
    EXPECT_EQ(rows4.size(), 20u);
    EXPECT_FALSE(info4.hasMessages(SearchResultsInfo::MSG_WARN));
  }

  // Internal indexes are for admins only.
  class NoAdmin : public IUserPermissions {
   public:
    int checkUserPerms(const Str& cap, const Str&) override { return cap == "search_admin_index" ? 0 : 1; }
    std::vector<Str> getSearchFilters(const Str&) override { return {}; }
  };
  UserManager::setPermissions(std::make_shared<NoAdmin>());
  Str doc;
  p.runQuery("SEARCH * index::_internal GET events::0-0", "carol", "q5", doc);
  EXPECT_EQ(error(doc), "Search Execute failed because Only admins may search the index _internal");
  p.runQuery("SEARCH error GET events::0-0", "carol", "q6", doc);
  EXPECT_EQ(error(doc), "");
}

TEST_F(IndexProcessorTest, RunningQueriesAreBoundedByMaxQueryIds) {
  configure("maxQueryIds = 1");
  IndexProcessor p;
  ASSERT_EQ(initError(p), "");
  write(p, "one event", "h", 1795132800);
  ASSERT_TRUE(QueryRunningSingleton::instance()->start("busy"));
  Str doc;
  p.runQuery("SEARCH event GET events::0-0", "admin", "q7", doc);
  EXPECT_EQ(error(doc), "Too many queries are running (maxQueryIds = 1), or query q7 runs already");
  EXPECT_EQ(p.handleSoapCall("cancelQuery", {{"queryId", "busy"}}), "Query busy was canceled");
  EXPECT_TRUE(QueryRunningSingleton::instance()->finish("busy"));
  p.runQuery("SEARCH event GET events::0-0 OUTPUT velmorui::2.2", "admin", "q7", doc);
  EXPECT_EQ(error(doc), "");
  EXPECT_EQ(total(doc), 1);
  EXPECT_EQ(QueryRunningSingleton::instance()->running(), 0u);
}

}  // namespace
