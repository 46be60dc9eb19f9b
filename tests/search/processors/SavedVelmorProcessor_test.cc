// The savedsearch command over a store of a scratch installation: $key$
// substitution, the search a stored text becomes, its argument failures,
// and a stored pipeline run on the command's own rows.
#include "search/processors/SavedVelmorProcessor.h"

#include <gtest/gtest.h>

#include <stdlib.h>

#include <fstream>
#include <memory>

#include "framework/SavedVelmorManager.h"
#include "search/SearchParser.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/processors/SearchCommands.h"
#include "search/processors/ToolCommands.h"

#include "../SearchTestUtil.h"

namespace {

TEST(SavedVelmorProcessor, SubstitutionTable) {
  const std::map<Str, Str> values = {{"user", "alice"}, {"n", "5"}, {"a_1", "x y"}};
  struct Case {
    const char* text;
    const char* out;
    std::vector<Str> missing;
  };
  const std::vector<Case> cases = {
      {"user=$user$", "user=alice", {}},
      {"$n$$n$ $a_1$", "55 x y", {}},
      {"cost $5 and $ alone $", "cost $5 and $ alone $", {}},  // not names: a letter must lead
      {"$1x$ $user", "$1x$ $user", {}},
      {"$host$ $user$ $port$ $host$", "$host$ alice $port$ $host$", {"host", "port"}},
      {"", "", {}},
  };
  for (const Case& c : cases) {
    std::vector<Str> missing;
    EXPECT_EQ(std::string(SavedVelmorProcessor::substitute(c.text, values, missing)), c.out) << c.text;
    EXPECT_EQ(missing, c.missing) << c.text;
  }
}

TEST(SavedVelmorProcessor, SearchForStoredText) {
  struct Case {
    const char* text;
    const char* search;
  };
  const Case cases[] = {
      {"error", "search error"},
      {"  error | stats count ", "search error | stats count"},
      {"| eval x=1", "eval x=1"},
      {"  |  head 3", "head 3"},
  };
  for (const Case& c : cases) EXPECT_EQ(std::string(SavedVelmorProcessor::searchFor(c.text)), c.search) << c.text;
}

class SavedVelmorCommandTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir = new searchtest::ScratchDir();
    const std::string home = dir->path();
    ASSERT_EQ(system(("mkdir -p " + home + "/etc/bundles/default").c_str()), 0);
    setenv("VELMOR_HOME", home.c_str(), 1);
    std::ofstream(home + "/etc/bundles/default/savedsearches.conf")
        << "[tagit]\nquery = | eval who=\"$user$\" | eval n=\"$n$\"\n"
           "[plain]\nquery = | eval seen=\"yes\"\n"
           "[theirs]\nquery = | eval x=1\nuserid = bob\nisGlobal = false\n";
    SavedVelmorManager::instance().reload();
    SearchCommands::registerAll();
    ToolCommands::registerAll();
  }
  static void TearDownTestSuite() { delete dir; }

  // Runs `search` on `rows` as `user`; the error text or "".
  static std::string run(const Str& search, SearchResults& rows, const Str& user = Str()) {
    SearchResultsInfo info;
    info.queryId = "q";
    info.userContext = user;
    try {
      std::unique_ptr<SearchProcessor> p(SearchParser::parse(search, false));
      p->execute(rows, info);
    } catch (const SearchProcessorException& e) {
      return e.what();
    }
    return "";
  }

  static searchtest::ScratchDir* dir;
};
searchtest::ScratchDir* SavedVelmorCommandTest::dir = nullptr;

TEST_F(SavedVelmorCommandTest, ArgumentFailures) {
  struct Case {
    const char* search;
    const char* user;
    const char* msg;
  };
  const Case cases[] = {
      {"savedsearch", "", "usage: savedsearch <name> [options]"},
      {"savedsearch nosuch", "", "Unable to find saved velmor with name = nosuch"},
      {"savedsearch theirs", "alice", "Unable to find saved velmor with name = theirs"},
      {"savedsearch tagit", "", "The savedsearch tagit requires the fields user and n."},
      {"macro tagit n=1", "", "The savedsearch tagit requires the field user."},
      {"savedsearch tagit nosubstitution=t extra", "", "Error in 'savedsearch' command: Invalid argument: 'extra'"},
      {"savedsearch plain maxage=x", "", "Error in 'savedsearch' command: Invalid non-negative integer value for option 'maxage'"},
  };
  for (const Case& c : cases) {
    SearchResults rows;
    std::string got = run(c.search, rows, c.user);
    EXPECT_EQ(got, c.msg) << c.search;
  }
}

TEST_F(SavedVelmorCommandTest, RunsTheStoredPipelineOnItsRows) {
  struct Case {
    const char* search;
    searchtest::Row want;
  };
  const Case cases[] = {
      {"savedsearch tagit user=alice n=2", {{"k", "1"}, {"who", "alice"}, {"n", "2"}}},
      {"savedvelmor plain usecache=true maxage=5 unused=1", {{"k", "1"}, {"seen", "yes"}}},
      {"savedsearch tagit nosubstitution=true", {{"k", "1"}, {"who", "$user$"}, {"n", "$n$"}}},
      {"savedsearch theirs", {{"k", "1"}, {"x", "1"}}},  // the process itself sees all
  };
  for (const Case& c : cases) {
    SearchResults rows;
    searchtest::addRows(rows, {{{"k", "1"}}});
    ASSERT_EQ(run(c.search, rows), "") << c.search;
    EXPECT_EQ(searchtest::rowsOf(rows), std::vector<searchtest::Row>{c.want}) << c.search;
  }
}

}  // namespace
