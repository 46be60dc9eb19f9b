// `stats` over rows: the functions, groups, wildcards, limits and every
// option fault, as tables of search text and rows in -> rows or message out.
#include <gtest/gtest.h>

#include "CatalogueHome.h"
#include "RowTestUtil.h"
#include "search/SearchFactory.h"
#include "search/processors/StatsProcessor.h"

namespace {

using rowtest::CommandCase;
using rowtest::Row;

std::vector<Row> xs(std::vector<std::string> vals) {
  std::vector<Row> rows;
  for (auto& v : vals) rows.push_back({{"x", v}});
  return rows;
}

TEST(StatsTest, Functions) {
  rowtest::runCommandCases({
      // a word among numbers: no avg, count still right, max by strings
      {"stats avg(x) count(x) max(x) min(x)", xs({"1", "abc", "3"}), {"count(x)=3 max(x)=abc min(x)=1"}},
      // the larger precision wins
      {"stats sum(x)", xs({"1.5", "2"}), {"sum(x)=3.5"}},
      {"stats sum(x) min(x) max(x) range(x)", xs({"2", "-0.25", "10"}),
       {"max(x)=10.00 min(x)=-0.25 range(x)=10.25 sum(x)=11.75"}},
      {"stats median(x)", xs({"4", "1", "3", "2"}), {"median(x)=2.5"}},
      {"stats median(x)", xs({"3", "1", "2"}), {"median(x)=2"}},
      // percentiles take an element, no interpolation
      {"stats perc50(x) p25(x) p99(x) p1(x)", xs({"1", "2", "3", "4"}),
       {"p1(x)=1 p25(x)=2 p99(x)=4 perc50(x)=3"}},
      {"stats var(x) varp(x) stdev(x) stdevp(x)", xs({"5"}),
       {"stdev(x)=0.000000 stdevp(x)=0.000000 var(x)=0.000000 varp(x)=0.000000"}},
      {"stats var(x) varp(x) avg(x) mean(x)", xs({"2", "4", "4", "4", "5", "5", "7", "9"}),
       {"avg(x)=5.000000 mean(x)=5.000000 var(x)=4.571429 varp(x)=4.000000"}},
      // mode: largest count, first in key order on a tie
      {"stats mode(x) dc(x) distinct_count(x) c(x)", xs({"b", "a", "b", "a", "c"}),
       {"c(x)=5 dc(x)=3 distinct_count(x)=3 mode(x)=a"}},
      {"stats first(x) last(x) values(x) list(x)", xs({"b", "a", "b"}),
       {"first(x)=b last(x)=b list(x)=b\na\nb values(x)=a\nb"}},
      // nan, inf and hex are words, not numbers
      {"stats sum(x) max(x)", xs({"1", "nan"}), {"max(x)=nan"}},
      {"stats sum(x) max(x)", xs({"1", "inf"}), {"max(x)=inf"}},
      {"stats sum(x)", xs({"0x10", "1"}), {""}},
      {"stats sum(x) max(x)", xs({"1e308", "1e308"}), {"max(x)=" + Str::fromFormat("%.0f", 1e308) + " sum(x)=inf"}},
      // rename; the row count alone and over no rows
      {"stats count as n sum(x) as total", xs({"1", "2"}), {"n=2 total=3"}},
      {"stats avg(x) as \"mean of (x)\"", xs({"1", "2"}), {"mean of (x)=1.500000"}},
      {"stats count", {}, {"count=0"}},
      {"statistics count() c", xs({"1", "2"}), {"c=2 count=2"}},
      // sets
      {"stats default(x)", xs({"1", "2"}),
       {"avg(x)=1.500000 count(x)=2 dc(x)=2 max(x)=2 min(x)=1 sum(x)=3"}},
      // rate: growth per second of a counter over _time
      {"stats rate(c)", {{{"c", "10"}, {"_time", "100"}}, {{"c", "40"}, {"_time", "110"}}}, {"rate(c)=3.000000"}},
      {"stats rate(c) count", {{{"c", "10"}, {"_time", "100"}}}, {"count=1"}},
  });
}

TEST(StatsTest, GroupsAndWildcards) {
  rowtest::runCommandCases({
      // rows without a are skipped; groups come in key order
      {"stats count by a",
       {{{"a", "y"}}, {{"b", "1"}}, {{"a", "x"}}, {{"a", "y"}}},
       {"a=x count=1", "a=y count=2"}},
      {"stats count sum(x) by a b",
       {{{"a", "1"}, {"b", "q"}, {"x", "2"}}, {{"a", "1"}, {"b", "p"}}, {{"a", "1"}, {"b", "q"}, {"x", "3"}}},
       {"a=1 b=p count=1", "a=1 b=q count=2 sum(x)=5"}},
      // a group without the field: count 0, no sum
      {"stats count(x) sum(x) by g",
       {{{"g", "a"}}, {{"g", "b"}, {"x", "1"}}},
       {"count(x)=0 g=a", "count(x)=1 g=b sum(x)=1"}},
      // * skips hidden columns and the by fields
      {"stats sum(*) by g",
       {{{"g", "1"}, {"x", "1"}, {"y", "2"}, {"_h", "3"}}},
       {"g=1 sum(x)=1 sum(y)=2"}},
      {"stats sum() max(_*)", {{{"x", "1"}, {"_h", "3"}}}, {"max(_h)=3 sum(x)=1"}},
      {"stats sum(b*) as total_*", {{{"bytes", "1"}, {"bin", "2"}, {"c", "3"}}}, {"total_in=2 total_ytes=1"}},
      {"stats count(a*z*) as n_*_*", {{{"abzcd", "1"}}}, {"n_b_cd=1"}},
      {"stats Count by a", {{{"a", "1"}}}, {"a=1 count=1"}},
  });
}

TEST(StatsTest, OptionFaults) {
  const std::string e = "Error in 'stats' command: ";
  const std::string agg = "', must be [func_name]([key])";
  const std::string wc =
      "'.  Note: empty field specifiers implies all fields, e.g. sum() == sum(*)";
  std::vector<Row> in = xs({"1"});
  rowtest::runCommandCases({
      {"stats p100(x)", in, {e + "Percentile must be integer >= 1 and <= 99"}},
      {"stats perc0(x)", in, {e + "Percentile must be integer >= 1 and <= 99"}},
      {"stats p1.5(x)", in, {e + "Percentile must be integer >= 1 and <= 99"}},
      {"stats foo(x)", in, {e + "Invalid argument 'foo(x)'"}},
      {"stats avg", in, {e + "Invalid aggregation specifier: 'avg" + agg}},
      {"stats avg(x", in, {e + "Invalid aggregation specifier: 'avg(x" + agg}},
      {"stats (x)", in, {e + "Invalid aggregation specifier: '(x)" + agg}},
      {"stats avg(x)y", in, {e + "Invalid aggregation specifier: 'avg(x)y" + agg}},
      {"stats avg(a**)", in, {e + "Invalid wildcard field, contains consecutive wildcards!"}},
      {"stats avg(x) as", in, {e + "Must specify a field name after 'as'"}},
      {"stats avg(x) as \"\"", in, {e + "Invalid rename value"}},
      {"stats count by", in, {e + "Must specify at least one field after 'by'"}},
      {"stats sum(x*) as y", in,
       {e + "Number of wildcards does not match between field specifier 'x*' and rename specifier 'y" + wc}},
      {"stats sum() as s", in,
       {e + "Number of wildcards does not match between field specifier '*' and rename specifier 's" + wc}},
      {"stats default(x) as y", in,
       {e + "Cannot specify a rename for multi-function specifiers ('all' or 'default')"}},
      {"stats all(x) as y", in,
       {e + "Cannot specify a rename for multi-function specifiers ('all' or 'default')"}},
      {"stats", in, {e + "No aggregation functions specified"}},
  });
}

TEST(StatsTest, ValueLimitsCutAndWarn) {
  searchtest::ScratchHome& home = rowtest::CatalogueHome::ensure();
  home.writeConf("limits", "[searchresults]\nmaxresultrows = 100\n[stats]\nmaxvaluesize = 3\nmaxvalues = 2\n");
  StatsProcessor::getLimits(true);
  SearchResultsInfo info;
  // cut forms: "abcd" and "abcx" are both "abc"; dc counts the cut forms
  rowtest::runCommandCases({{"stats dc(x) max(x)", xs({"abcd", "abcx", "ab"}), {"dc(x)=2 max(x)=abc"}}}, &info);
  ASSERT_EQ(info.messages[SearchResultsInfo::MSG_WARN].size(), 1u);
  EXPECT_EQ(info.messages[SearchResultsInfo::MSG_WARN][0],
            "Limit for field 'x' reached.  Some values may have been truncated or ignored.  If necessary, edit "
            "limits.conf to adjust limits.");
  // maxvalues = 2: a third distinct value is not kept, count still is
  rowtest::runCommandCases({{"stats dc(x) count(x) values(x)", xs({"a", "b", "c", "a"}),
                             {"count(x)=4 dc(x)=2 values(x)=a\nb"}}},
                           &info);
  EXPECT_EQ(info.messages[SearchResultsInfo::MSG_WARN].size(), 1u);
  // 0 means no limit
  home.writeConf("limits", "[searchresults]\nmaxresultrows = 100\n[stats]\nmaxvaluesize = 0\nmaxvalues = 0\n");
  StatsProcessor::getLimits(true);
  rowtest::runCommandCases({{"stats dc(x)", xs({"abcd", "abcx", "ab"}), {"dc(x)=3"}}}, &info);
  EXPECT_TRUE(info.messages.empty());
  home.writeConf("limits", "[searchresults]\nmaxresultrows = 100\n");
  StatsProcessor::getLimits(true);
}

TEST(StatsTest, MissingByFieldsWarn) {
  SearchResultsInfo info;
  rowtest::runCommandCases({{"stats count by a b", xs({"1"}), {}}}, &info);
  ASSERT_EQ(info.messages[SearchResultsInfo::MSG_WARN].size(), 1u);
  EXPECT_EQ(info.messages[SearchResultsInfo::MSG_WARN][0], "Specified field(s) missing from results: 'a', 'b'");
}

TEST(StatsTest, CommandAnswersAndFactory) {
  rowtest::CatalogueHome::ensure();
  struct Case {
    const char* name;
    const char* text;
    bool streamable;
    const char* op;
  } cases[] = {
      {"stats", "count avg(x) as \"mean x\" by host", false, "prestats count avg(x) as \"mean x\" by host"},
      {"statistics", "p50(x), sum(y)", false, "prestats p50(x) sum(y)"},
      {"prestats", "count by x series", true, "prestats count by x series"},
  };
  for (auto& c : cases) {
    std::unique_ptr<SearchProcessor> p(SearchFactory::getProcessor(c.name, true));
    p->addArgument(new StringArg(c.text, false, false));
    SearchResultsInfo info;
    p->evalArgs(info);
    p->processArguments();
    EXPECT_EQ(p->isStreamable(), c.streamable) << c.name;
    EXPECT_TRUE(p->isTransforming());
    EXPECT_EQ(p->getStreamingOp(), c.op) << c.name;
  }
  EXPECT_THROW(SearchFactory::getProcessor("prestats", false), SearchProcessorException);
}

}  // namespace
