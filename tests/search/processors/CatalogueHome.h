// A scratch installation for command tests that need the message catalogue
// or the property files: a fresh VELMOR_HOME whose default bundle holds the
// shipped "strings" file and a `limits` with maxresultrows = 100, so that
// result sets spill early. One per test program, made before the first
// catalogue lookup (the catalogue is read once per process):
//   ::testing::AddGlobalTestEnvironment(new rowtest::CatalogueHome);
// or, simpler, rowtest::CatalogueHome::ensure() at the start of each test.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <sstream>

#include "../SearchTestUtil.h"
#include "RowTestUtil.h"
#include "search/SearchParser.h"
#include "search/SearchProcessor.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/Subsearch.h"
#include "search/processors/SearchCommands.h"
#include "search/processors/ToolCommands.h"
#include "util/MainThread.h"

namespace rowtest {

class CatalogueHome {
 public:
  // The process-wide home, made on first call and removed at exit.
  static searchtest::ScratchHome& ensure() {
    static CatalogueHome home;
    return home._home;
  }

 private:
  CatalogueHome() {
    // Subsearches run on threads of their own, which need a main thread.
    static MainThread mainThread;
    std::ifstream in(VELMOR_SOURCE_DIR "/etc/bundles/default/strings.conf");
    std::stringstream text;
    text << in.rdbuf();
    _home.writeConf("strings", text.str());
    _home.writeConf("limits", "[searchresults]\nmaxresultrows = 100\n");
    SearchResults::getMaxResultRows(true);
    Subsearch::setDispatchRoot(_home.path() / "var/run/velmor/dispatch");
    SearchCommands::registerAll();
    ToolCommands::registerAll();
  }
  searchtest::ScratchHome _home;
};

// rowtest::run with a query id of its own for every call, so that no two
// runs share the job directories of their subsearches.
inline std::string runFresh(const std::string& search, SearchResults& rs, SearchResultsInfo& info) {
  static int n = 0;
  SearchCommands::registerAll();
  try {
    std::unique_ptr<SearchProcessor> p(SearchParser::parse(search, true));
    info.queryId = "q" + std::to_string(++n);
    p->execute(rs, info);
  } catch (const std::exception& e) {
    return e.what();
  }
  return "";
}

// One row of a command table: search text, input rows, and the expected
// rowtest::collect() lines, or a single entry holding the expected message.
struct CommandCase {
  const char* search;
  std::vector<Row> in;
  std::vector<std::string> out;
};

// Runs each case on a fresh set of its input rows; `lastInfo`, when given,
// receives the info of the last case.
inline void runCommandCases(const std::vector<CommandCase>& cases, SearchResultsInfo* lastInfo = nullptr) {
  CatalogueHome::ensure();
  for (const CommandCase& c : cases) {
    SearchResults rs;
    SearchResultsInfo info;
    addRows(rs, c.in);
    std::string err = runFresh(c.search, rs, info);
    if (lastInfo) *lastInfo = info;
    if (!err.empty()) {
      EXPECT_EQ(std::vector<std::string>{err}, c.out) << c.search;
      continue;
    }
    EXPECT_EQ(collect(rs), c.out) << c.search;
  }
}

}  // namespace rowtest
