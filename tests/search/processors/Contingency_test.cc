// contingency and precontingency: option faults, the table with its totals,
// row and column cuts, and the map half over chunks.
#include <gtest/gtest.h>

#include "CatalogueHome.h"
#include "RowTestUtil.h"

namespace {

using rowtest::CommandCase;
using rowtest::Row;

std::vector<Row> pairs(std::vector<std::pair<const char*, const char*>> ps) {
  std::vector<Row> rows;
  for (auto& p : ps) {
    Row r;
    if (p.first) r.push_back({"h", p.first});
    if (p.second) r.push_back({"s", p.second});
    rows.push_back(r);
  }
  return rows;
}

TEST(ContingencyTest, Faults) {
  std::vector<CommandCase> cases = {
      {"contingency h", {}, {"Error in 'contingency' command: Must specify valid and distinct row and column fields"}},
      {"contingency h h", {}, {"Error in 'contingency' command: Must specify valid and distinct row and column fields"}},
      {"contingency a b c", {}, {"Error in 'contingency' command: Must specify valid and distinct row and column fields"}},
      {"contingency maxrows=1001 a b", {}, {"Error in 'contingency' command: Value of option 'maxrows' must be <= 1000"}},
      {"contingency maxcols=5000 a b", {}, {"Error in 'contingency' command: Value of option 'maxcols' must be <= 1000"}},
      {"contingency minrowcover=0 a b", {}, {"Error in 'contingency' command: min row and col covers must be > 0.0 and <= 1.0"}},
      {"contingency mincolcover=1.5 a b", {}, {"Error in 'contingency' command: min row and col covers must be > 0.0 and <= 1.0"}},
      {"contingency h s", {{{"h", "a"}, {"s", "x"}, {"_ctcount", "0"}}}, {"Error in 'contingency' command: Corrupt output from precontingency"}},
  };
  rowtest::runCommandCases(cases);
}

TEST(ContingencyTest, Tables) {
  std::vector<Row> in = pairs({{"a", "ok"}, {"b", "ok"}, {"a", "fail"}, {"a", "ok"}, {"c", "ok"}, {"b", nullptr},
                               {nullptr, "ok"}, {"b", "ok"}, {"", "ok"}});
  std::vector<CommandCase> cases = {
      // rows by total (a 3, b 2, c 1); missing cells are 0; rows lacking a field are skipped
      {"contingency h s", in,
       {"TOTAL=3 fail=1 h=a ok=2", "TOTAL=2 fail=0 h=b ok=2", "TOTAL=1 fail=0 h=c ok=1", "TOTAL=6 fail=1 h=TOTAL ok=5"}},
      {"contingency usetotal=false h s", in, {"fail=1 h=a ok=2", "fail=0 h=b ok=2", "fail=0 h=c ok=1"}},
      // cut columns still count in the row totals
      {"contingency maxcols=1 totalstr=ALL h s", in, {"ALL=3 h=a ok=2", "ALL=2 h=b ok=2", "ALL=1 h=c ok=1", "ALL=6 h=ALL ok=5"}},
      // a and b cover 5 of 6 >= 0.8; 0.9 needs c too
      {"contingency minrowcover=0.8 usetotal=f h s", in, {"fail=1 h=a ok=2", "fail=0 h=b ok=2"}},
      {"contingency maxrows=1 usetotal=f h s", in, {"fail=1 h=a ok=2"}},
      {"contingency h s", {}, {}},
      // column values that would overwrite the label or the totals
      {"contingency h s", pairs({{"a", "h"}, {"a", "TOTAL"}, {"a", "x"}}), {"TOTAL=3 h=a x=1", "TOTAL=3 h=TOTAL x=1"}},
  };
  rowtest::runCommandCases(cases);
}

TEST(ContingencyTest, MapHalfOverChunksEqualsPlain) {
  rowtest::CatalogueHome::ensure();
  std::vector<Row> rows;
  for (int n = 0; n < 1200; ++n)
    rows.push_back({{"h", "h" + std::to_string((n * 7) % 11)}, {"s", "s" + std::to_string((n * n) % 5)}});
  for (const char* search : {"contingency h s", "contingency maxcols=3 mincolcover=0.5 h s"}) {
    SearchResults mem, sp, sp2;
    SearchResultsInfo i1, i2, i3;
    rowtest::addRows(mem, rows);
    rowtest::addRows(sp, rows);
    rowtest::addRows(sp2, rows);
    rowtest::TempDir dir, dir2;
    rowtest::spill(sp, dir.path, 101);
    rowtest::spill(sp2, dir2.path, 101);
    ASSERT_EQ(rowtest::runFresh(search, mem, i1), "");
    ASSERT_EQ(rowtest::runFresh(std::string("precontingency h s | ") + search, sp, i2), "");
    std::vector<std::string> a = rowtest::collect(mem), b = rowtest::collect(sp);
    EXPECT_FALSE(a.empty());
    EXPECT_EQ(b, a) << search;
    ASSERT_EQ(rowtest::runFresh(search, sp2, i3), "");
    EXPECT_EQ(rowtest::collect(sp2), a) << search << " over spill files";
  }
}

}  // namespace
