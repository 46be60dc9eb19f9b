// The search-management commands (cancelps, searchps, nopartial, showargs)
// and the capability answers of every command the factory knows, checked
// against the table the dispatcher relies on.
#include <gtest/gtest.h>

#include <memory>

#include "search/SearchCancel.h"
#include "search/SearchFactory.h"
#include "search/SearchParser.h"
#include "search/SearchProcessor.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/processors/SearchCommands.h"
#include "search/processors/ToolCommands.h"

namespace {

class ToolCommandsTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    SearchCommands::registerAll();
    ToolCommands::registerAll();
  }
  // Runs a search; answers the error text or "".
  static Str run(const Str& search, SearchResults& r, SearchResultsInfo& info) {
    try {
      std::unique_ptr<SearchProcessor> p(SearchParser::parse(search, false));
      p->execute(r, info);
    } catch (const SearchProcessorException& e) {
      return e.what();
    }
    return "";
  }
};

TEST_F(ToolCommandsTest, ArgumentFailures) {
  struct Case {
    const char* search;
    const char* msg;
  } cases[] = {
      {"cancelps", "usage: cancelps <cancel_id>+"},
      {"searchps x", "Error in 'searchps' command: Invalid argument: 'x'"},
      {"nopartial now", "Error in 'nopartial' command: Invalid argument: 'now'"},
      {"savedsearch", "usage: savedsearch <name> [options]"},
      {"MACRO", "usage: macro <name> [options]"},
      {"savedsearch errors_today usecache=t", "Unable to find saved velmor with name = errors_today"},
  };
  for (const Case& c : cases) {
    SearchResults r;
    SearchResultsInfo info;
    info.queryId = "q";
    EXPECT_EQ(run(c.search, r, info), c.msg) << c.search;
  }
}

TEST_F(ToolCommandsTest, CancelPsStopsNamedOrAllSearches) {
  SearchCancel* sc = SearchCancel::instance();
  sc->start("a");
  sc->start("b");
  sc->start("c");
  SearchResults r;
  SearchResultsInfo info;
  info.queryId = "q";
  EXPECT_EQ(run("cancelps a, b", r, info), "");
  EXPECT_FALSE(sc->cont("a"));
  EXPECT_FALSE(sc->cont("b"));
  EXPECT_TRUE(sc->cont("c"));
  EXPECT_EQ(run("cancelps *", r, info), "");
  EXPECT_FALSE(sc->cont("c"));
  EXPECT_TRUE(sc->cont(""));  // an empty id is never cancelled
}

TEST_F(ToolCommandsTest, SearchPsShowsTheRunningPipeline) {
  SearchResults r;
  SearchResultsInfo info;
  info.queryId = "q";
  info.cancelId = "ps1";
  SearchCancel::instance()->start("ps1");
  EXPECT_EQ(run("nopartial | searchps", r, info), "");
  ASSERT_EQ(r.size(), 1u);  // only this pipeline runs
  Str search, proc, cancel;
  r.front()->getValue("search", search);
  r.front()->getValue("current_processor", proc);
  r.front()->getValue("cancel_id", cancel);
  EXPECT_EQ(search, "nopartial | searchps");
  EXPECT_EQ(proc, "searchps");
  EXPECT_EQ(cancel, "ps1");
  SearchCancel::instance()->stop("ps1");
}

TEST_F(ToolCommandsTest, ShowArgsAndNoPartial) {
  SearchResults r;
  SearchResultsInfo info;
  info.queryId = "q";
  EXPECT_EQ(run("showargs a, \"b c\" k=v", r, info), "");
  ASSERT_EQ(r.size(), 1u);
  Str args, count;
  r.front()->getValue("args", args);
  r.front()->getValue("arg_count", count);
  EXPECT_EQ(args, "a, \"b c\" k=v");
  EXPECT_EQ(count, "3");

  std::unique_ptr<SearchProcessor> p(SearchParser::parse("showargs | nopartial", false));
  EXPECT_FALSE(p->acceptsPartialResults());
  std::unique_ptr<SearchProcessor> q(SearchParser::parse("showargs", false));
  EXPECT_TRUE(q->acceptsPartialResults());
}

// The dispatcher's table. Names not registered yet are skipped; each
// registered one must answer as listed.
TEST_F(ToolCommandsTest, CapabilityTablePerRegisteredCommand) {
  struct Case {
    const char* name;
    bool streamable, transforming, opRequired, hasOp, results, partial;
  } cases[] = {
      // name            stream transf opReq  hasOp  resArg partial
      {"admin", false, false, false, false, false, true},
      {"outputcsv", false, false, false, false, false, true},
      {"outputxml", false, false, false, false, false, true},
      {"transaction", false, false, false, false, false, false},
      {"top", false, true, false, true, false, true},
      {"pretop", true, true, false, true, false, true},
      {"rare", false, true, false, true, false, true},
      {"stats", false, true, false, true, false, true},
      {"prestats", true, true, false, true, false, true},
      {"sort", false, false, true, true, false, true},
      {"presort", true, false, true, true, false, true},
      {"head", false, false, false, true, false, true},
      {"prehead", true, false, false, true, false, true},
      {"tail", false, false, false, false, false, true},
      {"reverse", false, false, false, false, false, true},
      {"dedup", false, false, false, true, false, true},
      {"set", true, false, false, false, true, true},
      {"nopartial", true, false, false, false, false, false},
      {"cancelps", false, false, false, false, false, true},
      {"searchps", false, false, false, false, false, true},
      {"showargs", false, false, false, false, false, true},
  };
  int checked = 0;
  for (const Case& c : cases) {
    if (!SearchFactory::isProcessorRegistered(c.name, true)) continue;
    ++checked;
    std::unique_ptr<SearchProcessor> p(SearchFactory::getProcessor(c.name, true));
    EXPECT_EQ(p->isStreamable(), c.streamable) << c.name;
    EXPECT_EQ(p->isTransforming(), c.transforming) << c.name;
    EXPECT_EQ(p->isStreamingOpRequired(), c.opRequired) << c.name;
    // A map half is never split again, so it is not asked for its own.
    if (!Str(c.name).startswith("pre")) {
      EXPECT_EQ(!p->getStreamingOp().empty(), c.hasOp) << c.name;
    }
    EXPECT_EQ(p->handlesSearchResultsArguments(), c.results) << c.name;
    EXPECT_EQ(p->acceptsPartialResults(), c.partial) << c.name;
  }
  EXPECT_GE(checked, 4);
}

TEST_F(ToolCommandsTest, InternalNamesNeedTheInternalFlag) {
  if (!SearchFactory::isProcessorRegistered("presort", true)) GTEST_SKIP() << "presort not registered";
  EXPECT_FALSE(SearchFactory::isProcessorRegistered("presort", false));
  EXPECT_THROW(delete SearchFactory::getProcessor("presort", false), SearchProcessorException);
  delete SearchFactory::getProcessor("PreSort", true);
}

}  // namespace
