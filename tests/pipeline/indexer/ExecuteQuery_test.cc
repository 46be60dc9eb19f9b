// executeQuery end to end over an index in memory: what a query finds with
// each module, the result document it leaves (complete and well formed,
// also when the query fails), the texts of its failures, and the query
// cache: a query id asked again within 180 seconds reruns "GET" and
// "OUTPUT" without touching the index.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <ctime>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <thread>

#include "MemoryIndexContainer.h"
#include "MemoryQueryIndex.h"
#include "loaderinfo/LoaderInfo.h"
#include "pipeline/indexer/CompiledQueryLanguage.h"
#include "pipeline/indexer/ISavedSearchSource.h"
#include "pipeline/indexer/ITagResolver.h"
#include "pipeline/indexer/Query.h"
#include "pipeline/indexer/QueryCacheManager.h"
#include "search/SearchCancel.h"
#include "util/Pathname.h"
#include "util/xml/XmlTreeParser.h"

namespace {

const Str kShipped = VELMOR_SOURCE_DIR "/etc/searchLanguage.xml";

class Resolver : public ITagResolver {
 public:
  std::map<Str, std::vector<Str>> known;  // "<kind>:<name>" -> terms
  bool find(const Str& key, std::vector<Str>& terms) {
    auto it = known.find(key);
    if (it == known.end()) return false;
    terms = it->second;
    return true;
  }
  bool resolveHostTag(const Str& tag, const Str&, std::vector<Str>& t) override { return find("hosttag:" + tag, t); }
  bool resolveEventType(const Str& n, const Str&, std::vector<Str>& t) override { return find("eventtype:" + n, t); }
  bool resolveEventTypeTag(const Str& tag, const Str&, std::vector<Str>& t) override {
    return find("eventtypetag:" + tag, t);
  }
  bool resolveSourceType(const Str& n, const Str&, std::vector<Str>& t) override { return find("sourcetype:" + n, t); }
  bool resolveTag(const Str& field, const Str& tag, const Str&, std::vector<Str>& t) override {
    return find("tag:" + field + ":" + tag, t);
  }
};

class Saved : public ISavedSearchSource {
 public:
  std::map<Str, Str> texts;
  bool lookup(const Str& name, const Str&, Str& text) override {
    auto it = texts.find(name);
    if (it == texts.end()) return false;
    text = it->second;
    return true;
  }
};

class ExecuteQueryTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    char tmpl[] = "/tmp/executequery_test.XXXXXX";
    ASSERT_TRUE(mkdtemp(tmpl));
    dbDir() = Pathname(tmpl);
    LoaderInfo::getInstance().setDbPath(dbDir());
    CompiledQueryLanguage::getInstance().compileLanguage(kShipped);
  }
  static void TearDownTestSuite() { dbDir().removeRecursive(); }
  static Pathname& dbDir() {
    static Pathname d;
    return d;
  }

  void SetUp() override {
    // Added out of time order: arrival order differs from time order.
    main.add("error disk full", 100, "web1", "/var/log/a.log", "app", "unexpected::2");
    main.add("login ok for bob", 200, "web2", "/var/log/b.log", "app", "unexpected::5 status::200");
    main.add("error timeout talking to db", 300, "web1", "/var/log/a.log", "app", "unexpected::7 status::500");
    main.add("error again", 500, "web2", "/var/log/b.log", "app", "status::500");
    main.add("warning slow", 400, "web3", "/var/log/c.log", "app", "unexpected::9 status::404");
    history.add("search error", 100, "h", "s", "st", "user::admin");
    history.add("search login", 200, "h", "s", "st", "user::bob");
    container.add(main);
    container.add(history);
    CompiledQueryLanguage::getInstance().setContainer(&container);
    QueryCacheManager::getInstance().clear();
  }
  void TearDown() override {
    QueryCacheManager::getInstance().clear();
    CompiledQueryLanguage::getInstance().setContainer(nullptr);
    ITagResolver::install(nullptr);
    ISavedSearchSource::install(nullptr);
  }

  static std::shared_ptr<Query> run(const Str& text, const Str& queryId = "", const Str& user = "admin",
                                    bool whole = false) {
    std::shared_ptr<Query> q = executeQuery(text, user, queryId, "", whole);
    EXPECT_TRUE(q != nullptr);
    return q;
  }
  static std::vector<int> times(const Query& q) {
    std::vector<int> out;
    for (const ValueWrapper& v : const_cast<Query&>(q).results()) out.push_back(v.time);
    return out;
  }
  static Str document(const Query& q) {
    std::ifstream in(q.getOutputPath());
    std::stringstream ss;
    ss << in.rdbuf();
    return Str(ss.str());
  }
  // The document parses as XML, with the frame's elements in order.
  static void expectCompleteDocument(const Query& q) {
    Str doc = document(q);
    ASSERT_EQ(doc.rfind("<queryResult>\n", 0), 0u) << doc;
    xml::tree_parser parser(doc.data(), doc.size(), false);
    ASSERT_FALSE(parser.failed()) << parser.get_error_message() << "\n" << doc;
    xml::node root = parser.get_document().get_root_node();
    EXPECT_STREQ(root.get_name(), "queryResult");
    EXPECT_FALSE(root.find("performance").empty());
    EXPECT_FALSE(root.find("query").empty());
    EXPECT_EQ(!root.find("error").empty(), q.hasFailed()) << doc;
    if (q.hasFailed()) {
      EXPECT_EQ(root.find("error").get_content(), q.getError());
    }
    EXPECT_TRUE(doc.endswith("</queryResult>"));
  }

  MemoryQueryIndex main{"main"};
  MemoryQueryIndex history{"history"};
  MemoryIndexContainer container;
};

TEST_F(ExecuteQueryTest, WhatEachSearchFinds) {
  auto resolver = std::make_shared<Resolver>();
  resolver->known["hosttag:prod"] = {"host::web1", "host::web2"};
  resolver->known["eventtype:trouble"] = {"error", "warning"};
  resolver->known["tag:host:blue"] = {"host::web3"};
  resolver->known["sourcetype:apps"] = {"sourcetype::app", "sourcetype::other"};
  ITagResolver::install(resolver);
  auto saved = std::make_shared<Saved>();
  saved->texts["errs"] = "error";
  ISavedSearchSource::install(saved);

  struct Case {
    const char* text;
    std::vector<int> times;
  };
  const Case cases[] = {
      {"SEARCH error", {500, 300, 100}},
      {"SEARCH error OR warning", {500, 400, 300, 100}},
      {"SEARCH error NOT disk", {500, 300}},
      {"SEARCH host=web1", {300, 100}},
      {"SEARCH host!=web1", {500, 400, 200}},
      {"SEARCH error \"disk full\"", {100}},
      {"SEARCH maxresults::2 error", {500, 300}},
      {"SEARCH unexpected::5+", {400, 300, 200}},
      {"SEARCH unexpected::-5", {200, 100}},
      {"SEARCH unexpected::6-7", {300}},
      {"SEARCH unexpected::7", {300}},
      {"SEARCH * !resultsetsortby::newest_last", {100, 200, 300, 400, 500}},
      {"SEARCH * !resultsetsortby::arrival", {100, 200, 300, 500, 400}},
      {"SEARCH * !resultsetsortby::3", {400, 500, 300, 200, 100}},
      {"SEARCH * sort::host", {300, 100, 500, 200, 400}},
      {"SEARCH * sort::host order::DESC", {400, 500, 200, 300, 100}},
      {"SEARCH * sort::time", {100, 200, 300, 400, 500}},
      {"SEARCH * sort::status", {200, 400, 500, 300, 100}},  // numbers in order, no value last
      {"SEARCH * sort::status order::desc", {500, 300, 400, 200, 100}},
      {"SEARCH * lastby::host", {500, 400, 300}},
      {"SEARCH * lastby::status", {500, 400, 200, 100}},  // events without the field all stay
      {"SEARCH * lastby::host sort::time", {300, 400, 500}},
      {"SEARCH * grep::tim.out", {300}},
      {"SEARCH * grep::ERROR", {}},  // the pattern is case sensitive
      {"SEARCH * starttimeu::150 endtimeu::350", {300, 200}},
      {"SEARCH index::history user::current_user", {100}},
      {"SEARCH index::history user::bob", {200}},
      {"SEARCH hosttag::prod", {500, 300, 200, 100}},
      {"SEARCH NOT hosttag::prod", {400}},
      {"SEARCH eventtype::trouble", {500, 400, 300, 100}},
      {"SEARCH tag::host::blue", {400}},
      {"SEARCH sourcetype::apps", {500, 400, 300, 200, 100}},
      {"SEARCH savedsearch::errs NOT disk", {500, 300}},
  };
  for (const Case& c : cases) {
    auto q = run(c.text);
    ASSERT_TRUE(q);
    EXPECT_FALSE(q->hasFailed()) << c.text << ": " << q->getError();
    EXPECT_EQ(times(*q), c.times) << c.text;
  }
}

TEST_F(ExecuteQueryTest, WholeStringIsSearch) {
  EXPECT_EQ(times(*run("error disk", "", "admin", true)), std::vector<int>{100});
  auto q = run("error GET", "", "admin", true);  // GET is a term here
  EXPECT_FALSE(q->hasFailed());
  EXPECT_TRUE(times(*q).empty());
}

TEST_F(ExecuteQueryTest, UnknownNamesAreNotedNotFailed) {
  struct Case {
    const char* text;
    const char* info;
    std::vector<int> times;
  };
  const Case cases[] = {
      // Without a resolver only source types work, as the terms they are.
      {"SEARCH hosttag::prod", "'prod' is not a valid host tag", {}},
      {"SEARCH eventtype::nope", "Unable to find eventtype nope", {}},
      {"SEARCH eventtypetag::t", "Unable to find tag t on eventtype", {}},
      {"SEARCH tag::source::x", "Unable to find tag x on source", {}},
      {"SEARCH savedsearch::nope error", "Unable to find savedvelmor nope", {500, 300, 100}},
      {"SEARCH sourcetype::app maxresults::9", nullptr, {500, 400, 300, 200, 100}},
  };
  for (const Case& c : cases) {
    auto q = run(c.text);
    EXPECT_FALSE(q->hasFailed()) << c.text << ": " << q->getError();
    EXPECT_EQ(times(*q), c.times) << c.text;
    auto info = q->getMessages().find("INFO");
    if (c.info) {
      ASSERT_TRUE(info != q->getMessages().end()) << c.text;
      EXPECT_EQ(info->second, std::vector<Str>{c.info}) << c.text;
    } else {
      EXPECT_TRUE(info == q->getMessages().end()) << c.text;
    }
  }
}

TEST_F(ExecuteQueryTest, IndexMaxResultsCapsTheLimit) {
  main.setMaxResults(2);
  auto q = run("SEARCH maxresults::10 *");
  EXPECT_EQ(times(*q), (std::vector<int>{500, 400}));
  EXPECT_EQ(q->getMessages().at("INFO"),
            std::vector<Str>{"Your maximum number of results has been limited to 2 because it exceeded the "
                             "maxResults setting."});
}

TEST_F(ExecuteQueryTest, DocumentOfASuccessfulQuery) {
  auto q = run("SEARCH error", "doc1");
  ASSERT_FALSE(q->hasFailed()) << q->getError();
  EXPECT_EQ(q->getOutputPath(), dbDir() / "searches" / "doc1.xml");
  expectCompleteDocument(*q);
  // No GET or OUTPUT: an empty frame with the performance line.
  std::regex frame(
      "<queryResult>\n<performance>Queryid=doc1 user=admin result=&quot;success&quot; results_returned=3 "
      "submitted=\\d\\d/\\d\\d/\\d{4}:\\d\\d:\\d\\d:\\d\\d time_between_submission_and_execution=\\d+\\.\\d{3} "
      "execution_time=\\d+\\.\\d{3} total_time=\\d+\\.\\d{3}</performance>\n<query>SEARCH error</query>\n"
      "</queryResult>");
  Str doc = document(*q);
  EXPECT_TRUE(std::regex_match(doc, frame)) << doc;
  // No temporary file is left beside it.
  std::vector<Str> names;
  ASSERT_TRUE((dbDir() / "searches").readDirectory(names));
  for (const Str& n : names) EXPECT_EQ(n.find(".tmp"), Str::npos) << n;
}

TEST_F(ExecuteQueryTest, HelpGoesIntoTheDocument) {
  auto q = run("GET help::maxtime", "help1");
  ASSERT_FALSE(q->hasFailed()) << q->getError();
  expectCompleteDocument(*q);
  Str doc = document(*q);
  EXPECT_NE(doc.find("<help keyword=\"maxtime\" control=\"SEARCH\" module=\"maxtime\" required=\"maxtime\" "
                     "optional=\"\">maxtime::&lt;seconds&gt; limits"),
            Str::npos)
      << doc;
  q = run("GET help::nosuch", "help2");
  EXPECT_NE(document(*q).find("<help keyword=\"nosuch\"></help>"), Str::npos);
  EXPECT_EQ(q->getMessages().at("INFO"), std::vector<Str>{"Unable to find help for nosuch"});
  q = run("GET help::all", "help3");
  expectCompleteDocument(*q);
  EXPECT_NE(document(*q).find("<help keyword=\"starttime\" control=\"SEARCH\" module=\"time\""), Str::npos);
  EXPECT_NE(document(*q).find("<help keyword=\"velmorui\" control=\"OUTPUT\""), Str::npos);
}

TEST_F(ExecuteQueryTest, FailuresEndInTheDocument) {
  struct Case {
    const char* text;
    const char* error;
  };
  const Case cases[] = {
      {"bare words", "Search Parse failed because Found token with no control 'bare'"},
      {"SEARCH \"open", "Search Parse failed because  unable to parse search string. Expected \", got end of input"},
      {"SEARCH x GET <bogus>::1", "Search Parse failed because Unrecognized argument <bogus> in GET"},
      {"SEARCH NOT NOT a", "Search Parse failed because Query parse failure : NOT NOT"},
      {"SEARCH a index::nosuch", "Search Execute failed because No domain nosuch could be found"},
      {"SEARCH maxresults::0 a", "Search Parse failed because 0 is not a valid value for maxresults"},
      {"SEARCH maxresults::-3 a", "Search Parse failed because -3 is not a valid value for maxresults"},
      {"SEARCH maxresults::+3 a", "Search Parse failed because +3 is not a valid value for maxresults"},
      {"SEARCH grep::[ a", "Search Parse failed because Unable to parse [ as a regular expression "},
      {"SEARCH unexpected::x", "Search Parse failed because x is not a valid value for unexpected"},
      {"SEARCH unexpected::12", "Search Parse failed because 12 is not a valid value for unexpected"},
      {"SEARCH unexpected::-", "Search Parse failed because - is not a valid value for unexpected"},
      {"SEARCH maxtime::soon a", "Search Parse failed because soon is not a valid value for maxtime"},
      {"SEARCH readlevel::-1 a", "Search Parse failed because -1 is not a valid value for readlevel"},
      {"SEARCH readtimeout::x a", "Search Parse failed because x is not a valid value for readtimeout"},
      {"SEARCH !resultsetsortby::sideways a",
       "Search Parse failed because sideways is not a valid value for !resultsetsortby"},
      {"SEARCH readlimit::5-2 a", "Search Parse failed because readlimit malformed. Must be readlimit::start-end"},
      {"SEARCH hosttag::web*", "Search Parse failed because Prefix searching on host tags is unsupported."},
      {"SEARCH eventtypetag::x*", "Search Parse failed because Prefix searching on event tags is unsupported."},
      {"SEARCH tag::eventtype::x*", "Search Parse failed because Prefix searching on event tags is unsupported."},
      {"SEARCH tag::host", "Search Parse failed because Tag request malformed. Must be tag::<metadata>::<tag>"},
      {"SEARCH tag::color::red",
       "Search Parse failed because In query, tags are only allowed for host, source, sourctype, savedsearch and "
       "eventtype."},
      {"SEARCH sort::", "Search Parse failed because No field to sort by. Must be sort::<field>"},
  };
  for (const Case& c : cases) {
    auto q = run(c.text, "fail");
    ASSERT_TRUE(q);
    EXPECT_TRUE(q->hasFailed()) << c.text;
    EXPECT_EQ(q->getError(), c.error) << c.text;
    expectCompleteDocument(*q);
    EXPECT_EQ(document(*q).find("result=&quot;failed&quot;") != Str::npos, true) << c.text;
    EXPECT_FALSE(QueryCacheManager::getInstance().getFromQueryCache("fail", "admin")) << c.text;
  }
  // Time words are read by the time parser; its complaint becomes the error.
  auto q = run("SEARCH starttime::garbage", "fail");
  EXPECT_EQ(q->getError().rfind("Search Execute failed because ", 0), 0u) << q->getError();
  expectCompleteDocument(*q);
}

TEST_F(ExecuteQueryTest, ACancelledSearchFails) {
  std::shared_ptr<Query> q = executeQuery("SEARCH error", "admin", "", "not-running", false);
  EXPECT_EQ(q->getError(), "Search Execute failed because it was cancelled.");
  SearchCancel::instance()->start("running");
  q = executeQuery("SEARCH error", "admin", "", "running", false);
  SearchCancel::instance()->stop("running");
  EXPECT_FALSE(q->hasFailed()) << q->getError();
  EXPECT_EQ(CompiledQueryLanguage::getInstance().isQueryCancelled("running"), 1);
  EXPECT_EQ(CompiledQueryLanguage::getInstance().isQueryCancelled(""), 0);
}

TEST_F(ExecuteQueryTest, WhatModulesWroteIsDroppedWhenALaterOneFails) {
  auto q = run("SEARCH error GET help::grep OUTPUT velmorui::9.9", "late");
  ASSERT_TRUE(q->hasFailed());
  EXPECT_NE(q->getError().find("9.9"), Str::npos) << q->getError();
  expectCompleteDocument(*q);
  EXPECT_EQ(document(*q).find("<help"), Str::npos);
}

TEST_F(ExecuteQueryTest, UnwritableResultDirectory) {
  Pathname blocker = dbDir() / "blocker";
  FILE* f = fopen(blocker.c_str(), "w");
  ASSERT_TRUE(f);
  fclose(f);
  LoaderInfo::getInstance().setDbPath(blocker);  // "searches" cannot be made under a file
  auto q = run("SEARCH error", "nowhere");
  LoaderInfo::getInstance().setDbPath(dbDir());
  ASSERT_TRUE(q);
  EXPECT_EQ(q->getError().rfind("Cannot open \"" + blocker + "/searches/nowhere.xml\" for writing: ", 0), 0u)
      << q->getError();
  EXPECT_TRUE(q->results().empty());  // it did not run
  EXPECT_FALSE(QueryCacheManager::getInstance().getFromQueryCache("nowhere", "admin"));
}

TEST_F(ExecuteQueryTest, QueryIdsNameFilesInTheSearchesDirectoryOnly) {
  auto q = run("SEARCH error", "../escape");
  EXPECT_EQ(q->getOutputPath(), dbDir() / "searches" / ".._escape.xml");
  expectCompleteDocument(*q);
}

TEST_F(ExecuteQueryTest, CacheHitRerunsGetAndOutputWithoutTheIndex) {
  // Sorting by a field of the events reads them.
  auto first = run("SEARCH * sort::status GET help::maxtime", "c1");
  ASSERT_FALSE(first->hasFailed()) << first->getError();
  const int calls = main.queryCalls, reads = main.readCalls;
  ASSERT_GT(calls, 0);
  ASSERT_GT(reads, 0);
  const std::vector<int> found = times(*first);

  auto again = run("SEARCH * sort::status GET help::grep", "c1");
  EXPECT_EQ(again.get(), first.get());
  EXPECT_FALSE(again->isFresh());
  EXPECT_EQ(main.queryCalls, calls) << "a cached search touched the index";
  EXPECT_EQ(main.readCalls, reads) << "a cached search sorted again";
  EXPECT_EQ(times(*again), found);  // sorted once, kept sorted
  Str doc = document(*again);
  expectCompleteDocument(*again);
  EXPECT_NE(doc.find("<help keyword=\"grep\""), Str::npos);
  EXPECT_EQ(doc.find("<help keyword=\"maxtime\""), Str::npos);
  EXPECT_NE(doc.find("<query>SEARCH * sort::status GET help::grep</query>"), Str::npos);

  // Another user's query of the same id is a search of its own.
  auto other = run("SEARCH * sort::status GET help::grep", "c1", "bob");
  EXPECT_NE(other.get(), first.get());
  EXPECT_TRUE(other->isFresh());
  EXPECT_GT(main.queryCalls, calls);
}

TEST_F(ExecuteQueryTest, CacheEntriesExpireAfter180IdleSeconds) {
  QueryCacheManager& cache = QueryCacheManager::getInstance();
  auto q = run("SEARCH error", "c2");
  ASSERT_EQ(cache.size(), 1u);
  const time_t now = ::time(nullptr);
  EXPECT_TRUE(cache.getFromQueryCache("c2", "admin", now + 180));  // and stamps it again
  EXPECT_FALSE(cache.getFromQueryCache("c2", "admin", now + 180 + 181));
  run("SEARCH error", "c3");
  run("SEARCH error", "c4");
  ASSERT_EQ(cache.size(), 2u);
  cache.checkCacheClean(now + 181);
  EXPECT_EQ(cache.size(), 0u);
  // A failed search is not stored; a good one under the same id then is.
  run("SEARCH NOT NOT x", "c5");
  EXPECT_EQ(cache.size(), 0u);
  run("SEARCH x", "c5");
  EXPECT_EQ(cache.size(), 1u);
  cache.clear();
  EXPECT_EQ(cache.size(), 0u);
  // Without a query id nothing is cached.
  run("SEARCH x");
  EXPECT_EQ(cache.size(), 0u);
}

TEST_F(ExecuteQueryTest, ConcurrentQueriesOfOneIdShareItSafely) {
  std::vector<std::thread> threads;
  std::vector<std::shared_ptr<Query>> got(4);
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 5; ++i) got[t] = executeQuery("SEARCH error GET help::grep", "admin", "shared", "", false);
    });
  for (auto& th : threads) th.join();
  for (const auto& q : got) {
    ASSERT_TRUE(q);
    EXPECT_FALSE(q->hasFailed()) << q->getError();
    EXPECT_EQ(times(*q), (std::vector<int>{500, 300, 100}));
  }
  expectCompleteDocument(*got[0]);
}

}  // namespace
