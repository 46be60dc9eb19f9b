// chart and timechart: search text and rows in, pivoted rows or the fault
// out; the map half and spilled chunks give the same rows as one chunk.
#include <gtest/gtest.h>

#include <memory>

#include "CatalogueHome.h"
#include "RowTestUtil.h"
#include "search/SearchFactory.h"

namespace {

using rowtest::CommandCase;
using rowtest::Row;

Row ab(const char* a, const char* b) { return {{"a", a}, {"b", b}}; }

std::vector<Row> fiveSeries() {
  // s1 x5, s2 x4, s3 x3, s4 x2, s5 x1, all at a=x
  std::vector<Row> rows;
  for (int s = 1; s <= 5; ++s)
    for (int n = 0; n < 6 - s; ++n) rows.push_back(ab("x", ("s" + std::to_string(s)).c_str()));
  return rows;
}

TEST(ChartTest, SplitCharts) {
  std::vector<Row> hosts = {ab("x", "p"), ab("x", "q"), ab("y", "p"), ab("x", "p"), {{"a", "y"}}};
  rowtest::runCommandCases({
      {"chart count by a b", hosts, {"a=x p=2 q=1", "NULL=1 a=y p=1"}},
      {"chart nullstr=none count by a b", hosts, {"a=x p=2 q=1", "a=y none=1 p=1"}},
      {"chart usenull=f count by a b", hosts, {"a=x p=2 q=1", "a=y p=1"}},
      {"chart count as n by a", hosts, {"a=x n=3", "a=y n=2"}},
      {"chart c", hosts, {"c=5"}},
      // a series value that names the x field keeps x intact
      {"chart count by a b", {ab("x", "a"), ab("x", "p")}, {"a=x b: a=1 p=1"}},
      // five series, the three largest stay
      {"chart count by a b where count in top3", fiveSeries(), {"OTHER=3 a=x s1=5 s2=4 s3=3"}},
      {"chart otherstr=rest count by a b where sum in top3", fiveSeries(), {"a=x rest=3 s1=5 s2=4 s3=3"}},
      {"chart useother=f count by a b where count in top3", fiveSeries(), {"a=x s1=5 s2=4 s3=3"}},
      {"chart count by a b where count in bottom2", fiveSeries(), {"OTHER=12 a=x s4=2 s5=1"}},
      {"chart limit=2 count by a b", fiveSeries(), {"OTHER=6 a=x s1=5 s2=4"}},
      {"chart limit=0 count by a b", fiveSeries(), {"a=x s1=5 s2=4 s3=3 s4=2 s5=1"}},
      // the default limit is ten series
      {"chart count by b a", fiveSeries(), {"b=s1 x=5", "b=s2 x=4", "b=s3 x=3", "b=s4 x=2", "b=s5 x=1"}},
      // OTHER is computed from the rows, not from the series' averages
      {"chart limit=1 avg(v) by a b",
       {{{"a", "x"}, {"b", "p"}, {"v", "10"}},
        {{"a", "x"}, {"b", "p"}, {"v", "10"}},
        {{"a", "x"}, {"b", "q"}, {"v", "1"}},
        {{"a", "x"}, {"b", "r"}, {"v", "2"}},
        {{"a", "x"}, {"b", "r"}, {"v", "3"}}},
       {"OTHER=2.000000 a=x p=10.000000"}},
  });
}

TEST(ChartTest, OrderAndBins) {
  std::vector<Row> nums = {{{"v", "1"}}, {{"v", "35"}}, {{"v", "9"}}, {{"v", "100"}}};
  rowtest::runCommandCases({
      // x sorts as numbers, not as text
      {"chart count by v", nums, {"count=1 v=1", "count=1 v=9", "count=1 v=35", "count=1 v=100"}},
      {"chart span=50 count by v", nums, {"count=3 v=0-50", "count=1 v=100-150"}},
      {"chart span=50 cont=t count by v", nums, {"count=3 v=0-50", "count=0 v=50-100", "count=1 v=100-150"}},
      // binning replaces x in place; other fields keep their values
      {"chart span=10 cont=t max(w) by v",
       {{{"v", "1"}, {"w", "1"}}, {{"v", "25"}, {"w", "25"}}},
       {"max(w)=1 v=0-10", "v=10-20", "max(w)=25 v=20-30"}},
      {"chart span=0.5 cont=t count by v",
       {{{"v", "-1"}}, {{"v", "0.2"}}},
       {"count=1 v=-1.0--0.5", "count=0 v=-0.5-0.0", "count=1 v=0.0-0.5"}},
  });
}

TEST(ChartTest, Timecharts) {
  std::vector<Row> rows = {{{"_time", "10"}, {"host", "a"}},
                           {{"_time", "20"}, {"host", "a"}},
                           {{"_time", "3700"}, {"host", "b"}},
                           {{"_time", "7300"}, {"host", "a"}}};
  std::vector<Row> gap = {{{"_time", "5"}}, {{"_time", "10805"}}};
  rowtest::runCommandCases({
      {"timechart span=1h count by host", rows, {"_time=0 a=2 b=0", "_time=3600 a=0 b=1", "_time=7200 a=1 b=0"}},
      {"timechart span=1h cont=f count by host", rows, {"_time=0 a=2", "_time=3600 b=1", "_time=7200 a=1"}},
      {"timechart span=1h count", gap, {"_time=0 count=1", "_time=3600 count=0", "_time=7200 count=0",
                                        "_time=10800 count=1"}},
      {"timechart span=1h cont=false count", gap, {"_time=0 count=1", "_time=10800 count=1"}},
      {"timechart span=1h count by host where count in top1", rows,
       {"OTHER=0 _time=0 a=2", "OTHER=1 _time=3600 a=0", "OTHER=0 _time=7200 a=1"}},
  });
}

TEST(ChartTest, Faults) {
  std::vector<Row> rows = {ab("x", "p")};
  auto e = [](const char* cmd, const char* text) { return std::string("Error in '") + cmd + "' command: " + text; };
  rowtest::runCommandCases({
      {"chart", rows, {e("chart", "Must specify data field(s) to chart!")}},
      {"chart by a", rows, {e("chart", "Must specify data field(s) to chart!")}},
      {"chart avg(x by a", rows, {e("chart", "Malformed data field: 'avg(x'")}},
      {"chart avg)x( by a", rows, {e("chart", "Malformed data field: 'avg)x('")}},
      {"chart avg by a", rows,
       {e("chart", "Invalid specifier 'avg', must be in form <func>(<field>).  E.g. max(size)")}},
      {"chart count by", rows, {e("chart", "Expected x-axis field")}},
      {"chart count by \"\"", rows, {e("chart", "x-axis field must not be empty")}},
      {"chart count by a \"\"", rows, {e("chart", "splitby field cannot have empty name")}},
      {"timechart count by", rows, {e("timechart", "Expected splitby field")}},
      {"chart count avg(x) by a b", rows,
       {e("chart", "Only single functions applied to a non-wildcarded data field is allowed when specifying a split "
                   "by field")}},
      {"chart avg(*) by a b", rows,
       {e("chart", "Only single functions applied to a non-wildcarded data field is allowed when specifying a split "
                   "by field")}},
      {"chart default by a b", rows,
       {e("chart", "Only single functions applied to a non-wildcarded data field is allowed when specifying a split "
                   "by field")}},
      {"chart count as", rows, {e("chart", "Must specify a field name after 'as'")}},
      {"chart count by a b c", rows, {e("chart", "Invalid argument: 'c'")}},
      {"chart count by a b where count in", rows, {e("chart", "Invalid argument: 'where'")}},
      {"chart count by a b where count in middle3", rows,
       {e("chart", "Exception caught from subcommand: Error in 'newseriesfilter' command: Invalid usage")}},
      {"chart count by a b where count like top3", rows,
       {e("chart", "Exception caught from subcommand: Error in 'newseriesfilter' command: Invalid comparator: "
                   "'like'")}},
      {"chart usenull=maybe count by a b", rows, {e("chart", "Invalid boolean value for option 'usenull'")}},
      {"chart span=0 count by a", rows,
       {e("chart", "Exception caught from subcommand: Error in 'bin' command: Invalid numerical span '0', must be "
                   "> 0")}},
      {"chart span=10 count by a", rows,
       {e("chart", "Exception from subcommand: Error in 'bin' command: Failed to discretize value 'x' of field "
                   "'a'")}},
  });
}

TEST(ChartTest, SeriesOptionsWithoutSeriesWarn) {
  rowtest::CatalogueHome::ensure();
  SearchResultsInfo info;
  rowtest::runCommandCases({{"chart usenull=f count by a", {ab("x", "p")}, {"a=x count=1"}}}, &info);
  EXPECT_EQ(info.messages[SearchResultsInfo::MSG_WARN],
            std::vector<Str>{"usenull/useother/nullstr/otherstr options have no effect when no split-by series is "
                             "specified"});
  rowtest::runCommandCases({{"chart count by a b", {ab("x", "p")}, {"a=x p=1"}}}, &info);
  EXPECT_TRUE(info.messages[SearchResultsInfo::MSG_WARN].empty());
}

TEST(ChartTest, FixedRangeTakesTheSearchBounds) {
  rowtest::CatalogueHome::ensure();
  std::vector<Row> rows = {{{"_time", "0"}}, {{"_time", "50"}}};
  struct Case {
    const char* search;
    bool bounds;
    std::vector<std::string> out;
  } cases[] = {
      // 50 s in 10 bins: 10 s bins, the holes filled
      {"timechart bins=10 count", false,
       {"_time=0 count=1", "_time=10 count=0", "_time=20 count=0", "_time=30 count=0", "_time=40 count=0",
        "_time=50 count=1"}},
      {"timechart bins=10 fixedrange=t count", false,
       {"_time=0 count=1", "_time=10 count=0", "_time=20 count=0", "_time=30 count=0", "_time=40 count=0",
        "_time=50 count=1"}},
      // the search spans 5000 s: 10 min bins
      {"timechart bins=10 fixedrange=t count", true, {"_time=0 count=2"}},
      {"timechart bins=10 fixedrange=f count", true,
       {"_time=0 count=1", "_time=10 count=0", "_time=20 count=0", "_time=30 count=0", "_time=40 count=0",
        "_time=50 count=1"}},
  };
  for (const Case& c : cases) {
    SearchResults rs;
    SearchResultsInfo info;
    if (c.bounds) {
      info.earliestTime = Timeval(1, 0);
      info.latestTime = Timeval(5000, 0);
    }
    rowtest::addRows(rs, rows);
    ASSERT_EQ(rowtest::runFresh(c.search, rs, info), "") << c.search;
    EXPECT_EQ(rowtest::collect(rs), c.out) << c.search;
  }
}

// A service job runs the same pipeline again and again: no run may see the
// state of the one before.
TEST(ChartTest, RepeatedRunsDoNotAccumulate) {
  rowtest::CatalogueHome::ensure();
  std::vector<Row> rows = {ab("x", "p"), ab("x", "q"), ab("y", "p")};
  for (const char* search : {"chart count by a b", "chart count by a b where count in top1", "chart dc(b)"}) {
    std::unique_ptr<SearchProcessor> p(SearchParser::parse(search, true));
    std::vector<std::string> first;
    for (int run = 0; run < 2; ++run) {
      SearchResults rs;
      SearchResultsInfo info;
      info.queryId = "repeat";
      rowtest::addRows(rs, rows);
      p->execute(rs, info);
      if (run == 0)
        first = rowtest::collect(rs);
      else
        EXPECT_EQ(rowtest::collect(rs), first) << search;
    }
    EXPECT_FALSE(first.empty()) << search;
  }
}

std::vector<Row> manyRows() {
  std::vector<Row> rows;
  for (int n = 0; n < 1000; ++n) {
    Row r = {{"_time", std::to_string(100000 - n * 37)},
             {"a", "a" + std::to_string(n % 4)},
             {"v", std::to_string(n % 97) + (n % 3 ? ".5" : "")}};
    if (n % 11) r.push_back({"b", "b" + std::to_string(n % 7)});
    rows.push_back(r);
  }
  return rows;
}

// The streaming op of a chart command text.
std::string streamingOp(const std::string& search) {
  rowtest::CatalogueHome::ensure();
  size_t sp = search.find(' ');
  std::unique_ptr<SearchProcessor> p(SearchFactory::getProcessor(search.substr(0, sp), false));
  p->addArgument(new StringArg(search.substr(sp + 1), false, false));
  p->parseArguments();
  p->processArguments();
  return p->getStreamingOp();
}

TEST(ChartTest, ChunksAndMapHalfEqualOneChunk) {
  rowtest::CatalogueHome::ensure();
  const std::vector<Row> rows = manyRows();
  const char* searches[] = {
      "chart count by a b",
      "chart count as n by a b",
      "chart avg(v) by a b where max in top3",
      "chart useother=f sum(v) by b a where count in bottom2",
      "timechart span=1h count by b",
      "timechart bins=20 count by a",
      "chart bins=10 count by v a",
      "timechart span=10min avg(v) by a",
      "chart span=10 count by v",
      "chart count max(v) by a",
      "chart dc(b)",
  };
  for (const char* search : searches) {
    SearchResults mem;
    SearchResultsInfo i1;
    rowtest::addRows(mem, rows);
    ASSERT_EQ(rowtest::runFresh(search, mem, i1), "") << search;
    std::vector<std::string> want = rowtest::collect(mem);
    EXPECT_FALSE(want.empty()) << search;
    for (bool mapHalf : {false, true}) {
      SearchResults sp;
      SearchResultsInfo i2;
      rowtest::addRows(sp, rows);
      rowtest::TempDir dir;
      rowtest::spill(sp, dir.path, 100);
      std::string text = mapHalf ? streamingOp(search) + " | " + search : std::string(search);
      ASSERT_EQ(rowtest::runFresh(text, sp, i2), "") << text;
      EXPECT_EQ(rowtest::collect(sp), want) << text;
    }
  }
}

}  // namespace
