// newsearch over a real index: the local options and their warnings, the
// chunk size rule, the events read chunk by chunk (newest first, each once),
// time bounds, the user's role filters, index rights and every error text,
// and a search cancelled between chunks.
#include "pipeline/indexer/search/SearchOperator.h"

#include <algorithm>
#include <set>

#include "SearchCommandsFixture.h"
#include "search/SearchCancel.h"
#include "search/SearchFactory.h"
#include "search/SearchPipeline.h"

namespace {

using velmortest::column;
using velmortest::FakePermissions;
using velmortest::Row;

class SearchOperatorTest : public velmortest::SearchCommandsFixture {
 protected:
  // The raw texts newsearch should give for events selected by `keep`,
  // newest first.
  template <typename F>
  std::vector<std::string> expected(F keep) {
    std::vector<std::string> out;
    for (int i = 59; i >= 0; --i)
      if (keep(i)) out.push_back("event " + std::to_string(i) + (i % 3 == 0 ? " error disk full" : " ok served"));
    return out;
  }
};

TEST(SearchOperatorOptions, LocalOptionsAreCutOutWithTheirWarnings) {
  struct Case {
    const char* text;
    const char* rest;
    const char* index;
    int level;
    std::vector<Str> warnings;
  };
  const Case cases[] = {
      {"error host::web-01", "error host::web-01", "", 2, {}},
      {"error index=main", "error", "main", 2, {}},
      {"index::main error", " error", "main", 2, {}},
      {"error index=\"main\" ok", "error ok", "main", 2, {}},
      {"error readlevel=0 index=web", "error", "web", 0, {}},
      {"a index=x b index=y", "a b", "y", 2, {"index specified multiple times, using only 'y'"}},
      {"a readlevel=-1", "a", "", 2, {"Invalid readlevel '-1'"}},
      {"a readlevel=abc", "a", "", 2, {"Invalid readlevel 'abc'"}},
      {"a readlevel=1 readlevel=3", "a", "", 3, {"readlevel specified multiple times, using '3'"}},
      {"a maxtime=5 maxresults::10 b",
       "a b",
       "",
       2,
       {"Ignoring deprecated search modifier 'maxtime'", "Ignoring deprecated search modifier 'maxresults'"}},
      {"myindex=x notindex::y", "myindex=x notindex::y", "", 2, {}},
      {"index= a", "index= a", "", 2, {}},
  };
  for (const Case& c : cases) {
    Str index;
    int level = 2;
    std::vector<Str> warnings;
    EXPECT_EQ(SearchOperator::stripLocalOptions(c.text, index, level, warnings), c.rest) << c.text;
    EXPECT_EQ(index, c.index) << c.text;
    EXPECT_EQ(level, c.level) << c.text;
    EXPECT_EQ(warnings, c.warnings) << c.text;
  }
}

TEST(SearchOperatorOptions, ChunkSizeAdaptsWithinItsBounds) {
  struct Case {
    unsigned long size;
    long elapsed, target;
    unsigned long max, next;
  };
  const Case cases[] = {
      {20, 0, 2000, 10000, 200},       // no measurable time: tenfold
      {20, 5, 0, 10000, 200},          // no target: tenfold
      {5000, 0, 2000, 10000, 10000},   // tenfold, capped
      {100, 1000, 2000, 10000, 200},   // half the target: twice as many
      {20, 4000, 2000, 10000, 20},     // too slow, but never below 20
      {1000, 2000, 2000, 10000, 1000}, // on target
      {20, 0, 2000, 5, 20},            // a maximum below 20 still gives 20
  };
  for (const Case& c : cases)
    EXPECT_EQ(SearchOperator::nextChunkSize(c.size, c.elapsed, c.target, c.max), c.next)
        << c.size << " " << c.elapsed << " " << c.target << " " << c.max;
}

TEST_F(SearchOperatorTest, ReadsEachMatchingEventOnceNewestFirstInChunks) {
  start();
  writeStandardEvents();
  SearchResultsInfo info;
  std::vector<Row> rows = run("newsearch error host::web-01", info);
  EXPECT_EQ(column(rows, "_raw"), expected([](int i) { return i % 3 == 0 && i % 2 == 0; }));
  for (const Row& r : rows) {
    EXPECT_EQ(r.at("host"), "web-01");
    EXPECT_EQ(r.at("index"), "main");
  }

  // All 60 events: the first chunk holds 20, so it takes several rounds.
  rounds = 0;
  SearchResultsInfo all;
  rows = run("newsearch *", all);
  EXPECT_EQ(column(rows, "_raw"), expected([](int) { return true; }));
  EXPECT_GT(rounds, 1);
  std::set<std::string> serials;
  for (const Row& r : rows) serials.insert(r.at("_cd"));
  EXPECT_EQ(serials.size(), 60u);

  // A filter later in the pipeline sees only the chunk's rows.
  rows = run("newsearch host::web-02 | search ok");
  EXPECT_EQ(column(rows, "_raw"), expected([](int i) { return i % 2 == 1 && i % 3 != 0; }));
}

TEST_F(SearchOperatorTest, FirstChunkHoldsAtMostTwentyAndTheRestFollows) {
  start();
  writeStandardEvents();
  std::unique_ptr<SearchProcessor> p(SearchFactory::getProcessor("newsearch", false));
  p->addArgument(new StringArg("* index=default", false, false));
  SearchResultsInfo info;
  p->evalArgs(info);
  p->processArguments();
  EXPECT_EQ(p->getSearchString(), "index=default readlevel=2 *");
  // At most 20, cut at a whole second: the newest events.
  SearchResults first;
  p->execute(first, info);
  ASSERT_GE(first.size(), 1u);
  EXPECT_LE(first.size(), 20u);
  std::vector<std::string> newest = expected([](int) { return true; });
  newest.resize(first.size());
  EXPECT_EQ(column(velmortest::rowsOf(first), "_raw"), newest);
  EXPECT_FALSE(info.resultsComplete);
  size_t total = first.size();
  for (int i = 0; i < 100 && !info.resultsComplete; ++i) {
    SearchResults more;
    p->execute(more, info);
    total += more.size();
  }
  EXPECT_TRUE(info.resultsComplete);
  EXPECT_EQ(total, 60u);
}

TEST_F(SearchOperatorTest, TimeBoundsNarrowTheSearchAndComeBackReal) {
  start();
  writeStandardEvents();
  SearchResultsInfo info;
  info.earliestTime = Timeval(kT0 + 10, 0);
  info.latestTime = Timeval(kT0 + 20, 0);
  std::vector<Row> rows = run("newsearch *", info);
  EXPECT_EQ(column(rows, "_raw"), expected([](int i) { return i >= 10 && i < 20; }));
  EXPECT_EQ(info.earliestTime.sec(), kT0 + 10);
  EXPECT_EQ(info.latestTime.sec(), kT0 + 20);

  // Unbounded: the latest bound becomes 0 again when the earliest is 0.
  SearchResultsInfo open;
  run("newsearch error", open);
  EXPECT_EQ(open.latestTime.sec(), 0);
}

TEST_F(SearchOperatorTest, RoleFiltersRestrictTheSearch) {
  start();
  writeStandardEvents();
  UserManager::setPermissions(std::make_shared<FakePermissions>(true, std::vector<Str>{"host::web-02"}));
  UserContext ctx;
  ctx.user = "bob";
  UserContext::Scope scope(ctx);
  SearchResultsInfo info;
  std::vector<Row> rows = run("newsearch error", info);
  EXPECT_EQ(column(rows, "_raw"), expected([](int i) { return i % 3 == 0 && i % 2 == 1; }));
  EXPECT_EQ(info.messages[SearchResultsInfo::MSG_INFO],
            (std::vector<Str>{"Your search was restricted by  ( host::web-02 ) "}));
}

TEST_F(SearchOperatorTest, EveryFailureNamesItsCause) {
  start();
  writeStandardEvents();
  UserManager::setPermissions(std::make_shared<FakePermissions>(false, std::vector<Str>{}));
  UserContext ctx;
  ctx.user = "eve";
  UserContext::Scope scope(ctx);
  struct Case {
    const char* search;
    const char* error;
  };
  const Case cases[] = {
      {"newsearch index=nosuch error", "Could not find a policy for domain \"nosuch\""},
      {"newsearch index=_internal error", "Only admins may search the index _internal"},
      {"newsearch error index=velmorlogger", "Only admins may search the index velmorlogger"},
      {"newsearch error OR", "unable to parse search: Missing RHS for OR"},
      {"newsearch NOT", "unable to parse search: NOT requires an argument"},
      {"newsearch (error", "unable to parse search: unbalanced parentheses"},
      {"newsearch error index=main", ""},
  };
  for (const Case& c : cases) {
    std::string got = failure(c.search);
    if (*c.error == 0)
      EXPECT_EQ(got, "") << c.search;
    else
      EXPECT_NE(got.find(c.error), std::string::npos) << c.search << " -> " << got;
  }
  // Without the index processor there is nothing to search.
  processor.reset();
  EXPECT_NE(failure("newsearch error").find("There is no query runner registered"), std::string::npos);
}

TEST_F(SearchOperatorTest, IndexRightsFollowTheUsersCapabilities) {
  start("\n[history]\nhomePath = $VELMOR_DB/history/db\ncoldPath = $VELMOR_DB/history/colddb\n"
        "thawedPath = $VELMOR_DB/history/thaweddb\nmaxResults = 50000\ncompressRawdata = true\n"
        "maxDataSize = 100\nmaxTotalDataSizeMB = 20000\n");
  UserContext ctx;
  ctx.user = "eve";
  UserContext::Scope scope(ctx);
  struct Case {
    bool allowed;
    const char* options;
    const char* text;  // what the operator searches, "" for a refusal
  };
  const Case cases[] = {
      {true, "index=_internal", "error"},
      {false, "index=_internal", ""},
      {true, "index=history", "error"},
      {false, "index=history", "( error ) user::eve"},
      {false, "index=main", "error"},
  };
  for (const Case& c : cases) {
    UserManager::setPermissions(std::make_shared<FakePermissions>(c.allowed, std::vector<Str>{}));
    SearchOperator op("newsearch");
    op.addArgument(new StringArg(Str("error ") + c.options, false, false));
    SearchResultsInfo info;
    std::string error;
    try {
      op.evalArgs(info);
    } catch (const std::exception& e) {
      error = e.what();
    }
    if (*c.text == 0) {
      EXPECT_NE(error.find("Only admins may search the index"), std::string::npos) << c.options << " -> " << error;
    } else {
      EXPECT_EQ(error, "") << c.options;
      EXPECT_EQ(op.getText(), c.text) << c.allowed << " " << c.options;
    }
  }
}

TEST_F(SearchOperatorTest, CancelledSearchStopsBetweenChunks) {
  start();
  writeStandardEvents();
  std::unique_ptr<SearchProcessor> p(SearchFactory::getProcessor("newsearch", false));
  p->addArgument(new StringArg("*", false, false));
  SearchResultsInfo info;
  info.cancelId = "cancel-between-chunks";
  SearchCancel::instance()->start(info.cancelId);
  p->evalArgs(info);
  SearchResults first;
  p->execute(first, info);
  EXPECT_FALSE(first.empty());
  EXPECT_FALSE(info.resultsComplete);

  SearchCancel::instance()->stop(info.cancelId);
  SearchResults next;
  p->execute(next, info);
  EXPECT_TRUE(next.empty());
  EXPECT_TRUE(info.resultsComplete);
}

}  // namespace
