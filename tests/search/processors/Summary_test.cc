// summary and presummary: the per-field profile, corrupt map-half rows, and
// `presummary | summary` over chunks against the plain command.
#include <gtest/gtest.h>

#include "CatalogueHome.h"
#include "RowTestUtil.h"

namespace {

using rowtest::CommandCase;
using rowtest::Row;

TEST(SummaryTest, Profiles) {
  std::vector<Row> in = {
      {{"code", "200"}, {"host", "a"}, {"_raw", "x"}},
      {{"code", "404"}, {"host", "b"}},
      {{"code", "200"}, {"host", "a"}, {"size", "1.5"}},
      {{"code", "200"}, {"host", "c"}, {"size", "2.5"}},
      {{"code", ""}, {"host", "a"}, {"size", "nan"}},
  };
  std::vector<CommandCase> cases = {
      {"summary", in,
       {// empty values do not count; "_" fields are left out
        "bottom_values=404 (1), 200 (3) count=4 coverage=80.000000 distinct_count=2 field=code is_exact=1 "
        "mean=251.000000 stdev=102.000000 top_values=200 (3), 404 (1)",
        "bottom_values=b (1), c (1), a (3) count=5 coverage=100.000000 distinct_count=3 field=host is_exact=1 "
        "top_values=a (3), b (1), c (1)",
        // one value is not a finite number: no mean or stdev
        "bottom_values=1.5 (1), 2.5 (1), nan (1) count=3 coverage=60.000000 distinct_count=3 field=size "
        "is_exact=1 top_values=1.5 (1), 2.5 (1), nan (1)"}},
      {"summary", {{{"x", "7"}}},
       {"bottom_values=7 (1) count=1 coverage=100.000000 distinct_count=1 field=x is_exact=1 mean=7.000000 "
        "stdev=0.000000 top_values=7 (1)"}},
      {"summary", {}, {}},
      {"summary x", {}, {"Error in 'summary' command: 'summary' command takes no arguments"}},
      {"summary", {{{"_group_size", "x"}, {"_sp_ct_a__", "1"}}}, {"Error in 'summary' command: Corrupt prestats groupcount"}},
      {"summary", {{{"_group_size", "2"}, {"_sp_zz_a__", "1"}}}, {"Error in 'summary' command: Corrupt prestats type"}},
      {"summary", {{{"_group_size", "2"}, {"_sp_ct_a__", "1"}, {"_sp_tv1_a__", "v"}}},
       {"Error in 'summary' command: Corrupt prestats type"}},
      {"summary", {{{"_group_size", "2"}, {"_sp_ct_a__", "3"}}}, {"Error in 'summary' command: Corrupt prestats type"}},
      {"summary", {{{"_group_size", "2"}, {"_sp_ct_a__", "1"}, {"_sp_tv1_a__", "v"}, {"_sp_tc1_a__", "2"}}},
       {"Error in 'summary' command: Corrupt prestats type"}},
      // a well-formed map-half row
      {"summary",
       {{{"_group_size", "4"}, {"_sp_ct_a__", "3"}, {"_sp_tv1_a__", "v"}, {"_sp_tc1_a__", "2"}, {"_sp_bv1_a__", "w"},
         {"_sp_bc1_a__", "1"}}},
       {"bottom_values=w (1), v (2) count=3 coverage=75.000000 distinct_count=2 field=a is_exact=1 "
        "top_values=v (2), w (1)"}},
  };
  rowtest::runCommandCases(cases);
}

TEST(SummaryTest, MapHalfOverChunksEqualsPlain) {
  rowtest::CatalogueHome::ensure();
  std::vector<Row> rows;
  for (int n = 0; n < 1500; ++n) {
    Row r = {{"n", std::to_string(n % 301)}, {"host", "h" + std::to_string((n * n) % 13)}};
    if (n % 4) r.push_back({"lat", std::to_string(n % 9) + "." + std::to_string(n % 10)});
    if (n % 7 == 0) r.push_back({"mixed", n % 3 ? "12" : "word"});
    rows.push_back(r);
  }
  SearchResults mem, sp, sp2;
  SearchResultsInfo i1, i2, i3;
  rowtest::addRows(mem, rows);
  rowtest::addRows(sp, rows);
  rowtest::addRows(sp2, rows);
  rowtest::TempDir dir, dir2;
  rowtest::spill(sp, dir.path, 89);
  rowtest::spill(sp2, dir2.path, 89);
  ASSERT_EQ(rowtest::runFresh("summary", mem, i1), "");
  ASSERT_EQ(rowtest::runFresh("presummary | summary", sp, i2), "");
  std::vector<std::string> a = rowtest::collect(mem), b = rowtest::collect(sp);
  EXPECT_EQ(a.size(), 4u);
  EXPECT_EQ(b, a);
  ASSERT_EQ(rowtest::runFresh("summary", sp2, i3), "");
  EXPECT_EQ(rowtest::collect(sp2), a);
}

}  // namespace
