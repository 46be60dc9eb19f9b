// Helpers of the file command tests: a scratch installation whose
// var/run/velmor is the secure directory, with the shipped message catalogue
// and a small maxresultrows, and runs of search text over rows.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "../SearchTestUtil.h"
#include "RowTestUtil.h"
#include "search/SL.h"
#include "search/SearchParser.h"
#include "search/SearchProcessor.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/processors/SearchCommands.h"

namespace filetest {

using searchtest::Row;

// A scratch VELMOR_HOME for one test; spill chunks are `chunkRows` rows.
class Home {
 public:
  explicit Home(size_t chunkRows = 100) {
    home.writeConf("limits", "[searchresults]\nmaxresultrows = " + std::to_string(chunkRows) + "\n");
    SearchResults::getMaxResultRows(true);
    std::string strings = searchtest::readAll(Pathname(Str(VELMOR_SOURCE_DIR "/etc/bundles/default/strings.conf")));
    home.writeConf("strings", strings);
    SearchCommands::registerAll();
  }
  ~Home() {
    home.writeConf("limits", "");
    SearchResults::getMaxResultRows(true);
  }
  Pathname run() const { return home.path() / "var/run/velmor"; }
  Pathname operator/(const std::string& rel) const { return run() / rel; }
  void write(const std::string& rel, const std::string& text) const { searchtest::writeAll(*this / rel, text); }
  std::string read(const std::string& rel) const { return searchtest::readAll(*this / rel); }

  searchtest::ScratchHome home;
};

// Runs `search` over `rs`; "" or the failure text.
inline std::string run(const std::string& search, SearchResults& rs, SearchResultsInfo& info) {
  try {
    std::unique_ptr<SearchProcessor> p(SearchParser::parse(search, true));
    if (info.queryId.empty()) info.queryId = "filetest";
    p->execute(rs, info);
  } catch (const std::exception& e) {
    return e.what();
  }
  return "";
}

inline std::string run(const std::string& search, SearchResults& rs) {
  SearchResultsInfo info;
  return run(search, rs, info);
}

// Every row of every spill chunk, as name -> value maps.
inline std::vector<Row> allRows(SearchResults& rs) {
  if (!rs.hasFiles()) return searchtest::rowsOf(rs);
  std::vector<Row> out;
  rs.firstFile();
  while (rs.readFile()) {
    for (const Row& r : searchtest::rowsOf(rs)) out.push_back(r);
    if (!rs.nextFile()) break;
  }
  rs.firstFile();
  rs.readFile();
  return out;
}

// `count` rows with a number, a text with a comma, and a field only every
// third row has.
inline std::vector<Row> numbered(int count) {
  std::vector<Row> rows;
  for (int i = 0; i < count; ++i) {
    Row r{{"n", std::to_string(i)}, {"_raw", "event, number " + std::to_string(i)}};
    if (i % 3 == 0) r["third"] = "t" + std::to_string(i);
    rows.push_back(r);
  }
  return rows;
}

// Moves the rows of `rs` into chunk files of `chunk` rows under `dir`.
inline void spill(SearchResults& rs, const Pathname& dir, size_t chunk) { rowtest::spill(rs, dir, chunk); }

// The "_xml" of the one row an output command leaves.
inline std::string xmlOf(SearchResults& rs) {
  if (rs.size() != 1) return "<" + std::to_string(rs.size()) + " rows>";
  const Str* v = rs.front()->getValuePtr(rs.keyIndex(SL::XML));
  return v ? *v : "<no _xml>";
}

}  // namespace filetest
