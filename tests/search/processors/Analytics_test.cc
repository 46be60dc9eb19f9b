// The small analytic commands: outlier, kmeans, anomalousvalue, associate
// and correlate, each as a table of searches over rows, with their option
// faults, plus outlier and kmeans over spilled chunks.
#include <gtest/gtest.h>

#include "CatalogueHome.h"
#include "RowTestUtil.h"

namespace {

using rowtest::CommandCase;
using rowtest::Row;

std::vector<Row> column(const char* field, std::vector<const char*> values) {
  std::vector<Row> rows;
  for (const char* v : values) rows.push_back(v ? Row{{field, v}} : Row{{"other", "1"}});
  return rows;
}

std::vector<std::string> column(const char* field, std::vector<const char*> values, bool) {
  std::vector<std::string> out;
  for (const char* v : values) out.push_back(v ? std::string(field) + "=" + v : "other=1");
  return out;
}

TEST(OutlierTest, Table) {
  // sorted: 1..10, 100 -> Q1 = 3, Q3 = 9, bounds -12 and 24 with param 2.5
  std::vector<const char*> base = {"5", "100", "1", "2", "3", "4", "6", "7", "8", "9", "10"};
  std::vector<const char*> withLow = base;
  withLow.push_back("-50");
  std::vector<const char*> decimals = base;
  decimals[0] = "5.25";
  std::vector<CommandCase> cases = {
      {"outlier x", column("x", base), column("x", {"5", "24", "1", "2", "3", "4", "6", "7", "8", "9", "10"}, true)},
      {"outlier action=rm x", column("x", base), column("x", {"5", "1", "2", "3", "4", "6", "7", "8", "9", "10"}, true)},
      // the bound prints with the field's decimals
      {"outlier", column("x", decimals), column("x", {"5.25", "24.00", "1", "2", "3", "4", "6", "7", "8", "9", "10"}, true)},
      // low values only with uselower
      {"outlier x", column("x", withLow), column("x", {"5", "24", "1", "2", "3", "4", "6", "7", "8", "9", "10", "-50"}, true)},
      {"outlier uselower=t x", column("x", withLow),
       column("x", {"5", "24", "1", "2", "3", "4", "6", "7", "8", "9", "10", "-12"}, true)},
      {"outlier param=100 x", column("x", base), column("x", base, true)},
      {"outlier mincount=12 x", column("x", base), column("x", base, true)},
      // words and missing values are left alone
      {"outlier x", column("x", {"1", "2", "word", nullptr, "3", "4", "5", "6", "7", "8", "9", "10", "1e9"}),
       column("x", {"1", "2", "word", nullptr, "3", "4", "5", "6", "7", "8", "9", "10", "24"}, true)},
      {"outlier action=drop x", {}, {"Error in 'outlier' command: Invalid action 'drop', must be 'tf' or 'rm'"}},
      {"outlier type=zscore", {}, {"Error in 'outlier' command: Invalid type 'zscore', must be 'iqr'"}},
      {"outlier param=-1", {}, {"Error in 'outlier' command: Invalid param, must be a number >= 0"}},
  };
  rowtest::runCommandCases(cases);
}

TEST(KMeansTest, Table) {
  std::vector<Row> in = {{{"x", "1"}, {"y", "5"}}, {{"x", "100"}, {"y", "5"}}, {{"x", "2"}, {"y", "6"}},
                         {{"x", "101"}, {"y", "4"}}, {{"y", "1"}},          {{"x", "3"}, {"y", "5"}}};
  std::vector<CommandCase> cases = {
      // clusters numbered by their first row; a row without x is left out
      {"kmeans x",
       in,
       {"CLUSTERNUM=1 x=1 y=5", "CLUSTERNUM=2 x=100 y=5", "CLUSTERNUM=1 x=2 y=6", "CLUSTERNUM=2 x=101 y=4", "y=1",
        "CLUSTERNUM=1 x=3 y=5"}},
      {"kmeans k=1 cfield=c dt=l1 x y", in, {"c=1 x=1 y=5", "c=1 x=100 y=5", "c=1 x=2 y=6", "c=1 x=101 y=4", "y=1", "c=1 x=3 y=5"}},
      // without fields: y is numeric in every row, x too; a word makes a field unusable
      {"kmeans k=2 norm=false", {{{"a", "0"}}, {{"a", "10"}}, {{"a", "1"}}, {{"a", "9"}, {"w", "text"}}},
       {"CLUSTERNUM=1 a=0", "CLUSTERNUM=2 a=10", "CLUSTERNUM=1 a=1", "CLUSTERNUM=2 a=9 w=text"}},
      {"kmeans k=3 x", {{{"x", "1"}}, {{"x", "2"}}}, {"Error in 'kmeans' command: Too few data points for k=3"}},
      {"kmeans", {{{"w", "text"}}}, {"Error in 'kmeans' command: No numeric fields to cluster on"}},
      {"kmeans k=0", {}, {"Error in 'kmeans' command: Invalid k, must be >= 1"}},
      {"kmeans dt=cosine x", {}, {"Error in 'kmeans' command: Invalid dt 'cosine', must be 'l1' or 'l2'"}},
  };
  rowtest::runCommandCases(cases);
}

// Commands that read every row must give the same answer over spill files.
TEST(AnalyticsTest, SpilledEqualsInMemory) {
  rowtest::CatalogueHome::ensure();
  std::vector<Row> rows;
  for (int n = 0; n < 1000; ++n) {
    int v = n % 50 == 7 ? 5000 + n : (n * 37) % 101;
    rows.push_back({{"v", std::to_string(v)}, {"g", n % 3 ? "a" : "b"}, {"h", n % 3 ? "x" : "y"},
                    {"z", n % 400 == 3 ? "odd" : "even"}});
  }
  for (const char* search : {"outlier v", "outlier action=rm v", "kmeans k=3 v", "anomalousvalue z",
                             "anomalousvalue action=annotate z", "correlate", "associate supcnt=10 g h z"}) {
    SearchResults mem, sp;
    SearchResultsInfo i1, i2;
    rowtest::addRows(mem, rows);
    rowtest::addRows(sp, rows);
    rowtest::TempDir dir;
    rowtest::spill(sp, dir.path, 99);
    ASSERT_EQ(rowtest::runFresh(search, mem, i1), "") << search;
    ASSERT_EQ(rowtest::runFresh(search, sp, i2), "") << search;
    std::vector<std::string> a = rowtest::collect(mem), b = rowtest::collect(sp);
    EXPECT_FALSE(a.empty()) << search;
    EXPECT_EQ(b, a) << search;
  }
}

TEST(AnomalousValueTest, Table) {
  // 200 rows: c is "ok" but twice; id is different in every row
  std::vector<Row> in;
  for (int n = 0; n < 200; ++n)
    in.push_back({{"c", n == 17 ? "bad" : n == 90 ? "weird" : "ok"}, {"id", std::to_string(n)}});
  std::vector<Row> few(in.begin(), in.begin() + 99);
  std::vector<CommandCase> cases = {
      // id is anomalous everywhere, so it is too irregular to judge
      {"anomalousvalue", in,
       {"anomalous_fields=c anomaly_score=2.301030 c=bad id=17", "anomalous_fields=c anomaly_score=2.301030 c=weird id=90"}},
      {"anomalousvalue action=summary", in,
       {"anomalous_rows=2 anomalous_values=2 count=200 distinct_count=3 field=c"}},
      // pthresh below 1/200: nothing is rare enough
      {"anomalousvalue pthresh=0.001 c", in, {}},
      // fewer rows than minsupcount: not judged
      {"anomalousvalue c", few, {}},
      {"anomalousvalue minsupcount=10 c", few, {}},  // 1/99 is above pthresh
      {"anomalousvalue minsupcount=10 pthresh=0.02 c", few,
       {"anomalous_fields=c anomaly_score=1.995635 c=bad id=17", "anomalous_fields=c anomaly_score=1.995635 c=weird id=90"}},
      {"anomalousvalue action=drop", {}, {"Error in 'anomalousvalue' command: Invalid action 'drop', must be filter, annotate or summary"}},
      {"anomalousvalue pthresh=2", {}, {"Error in 'anomalousvalue' command: Value of option 'pthresh' must be between 0 and 1"}},
  };
  rowtest::runCommandCases(cases);
  // annotate keeps every row
  SearchResults rs;
  SearchResultsInfo info;
  rowtest::addRows(rs, in);
  ASSERT_EQ(rowtest::runFresh("anomalousvalue action=annotate", rs, info), "");
  EXPECT_EQ(rowtest::collect(rs).size(), 200u);
}

TEST(AssociateTest, Table) {
  std::vector<Row> in = {
      {{"os", "win"}, {"b", "ie"}},   {{"os", "win"}, {"b", "ie"}}, {{"os", "mac"}, {"b", "sf"}},
      {{"os", "mac"}, {"b", "sf"}},   {{"os", "win"}, {"b", "ff"}}, {{"os", "lin"}},
  };
  std::vector<CommandCase> cases = {
      // b=sf always comes with os=mac: 1 - 2/6; os=mac always with b=sf: 1 - 2/5
      {"associate supcnt=2 supfreq=0.1 improv=0.5", in,
       {"confidence=1.000000 improvement=0.666667 reference_key=b reference_value=sf support=0.333333 target_key=os "
        "target_value=mac",
        "confidence=1.000000 improvement=0.600000 reference_key=os reference_value=mac support=0.333333 target_key=b "
        "target_value=sf",
        "confidence=1.000000 improvement=0.500000 reference_key=b reference_value=ie support=0.333333 target_key=os "
        "target_value=win"}},
      // the default support count of 100 is not reached
      {"associate", in, {}},
      {"associate supfreq=3", {}, {"Error in 'associate' command: Value of option 'supfreq' must be between 0 and 1"}},
  };
  rowtest::runCommandCases(cases);
}

TEST(CorrelateTest, Table) {
  std::vector<Row> in = {{{"a", "1"}, {"b", "1"}}, {{"a", "1"}}, {{"b", "1"}, {"c", "1"}},
                         {{"a", "1"}, {"b", "1"}, {"c", "1"}, {"_raw", "x"}}};
  std::vector<CommandCase> cases = {
      {"correlate", in,
       {"RowField=a a=1.000000 b=0.500000 c=0.250000", "RowField=b a=0.500000 b=1.000000 c=0.666667",
        "RowField=c a=0.250000 b=0.666667 c=1.000000"}},
      {"correlate type=cocur a c", in, {"RowField=a a=1.000000 c=0.250000", "RowField=c a=0.250000 c=1.000000"}},
      {"correlate", {}, {}},
      {"correlate type=pearson", {}, {"Error in 'correlate' command: Invalid type 'pearson', must be 'cocur'"}},
  };
  rowtest::runCommandCases(cases);
}

}  // namespace
