// The two halves of `stats`: the map half over rows split into chunks,
// merged by the reduce half, must give the rows of `stats` alone; spilled
// input must give the rows of the same input in memory; and intermediate
// rows that are damaged fail with the corruption texts.
#include <gtest/gtest.h>

#include <random>

#include "CatalogueHome.h"
#include "RowTestUtil.h"
#include "search/SearchFactory.h"
#include "search/processors/StatsProcessor.h"

namespace {

using rowtest::CommandCase;
using rowtest::Row;

// Rows with a group g of `groups` values, a number x with a varying number
// of decimals, a word w, a sometimes-missing number y and a time.
std::vector<Row> makeRows(size_t n, unsigned groups, unsigned seed) {
  std::mt19937 rng(seed);
  std::vector<Row> rows;
  for (size_t i = 0; i < n; ++i) {
    Row r = {{"g", "g" + std::to_string(rng() % groups)},
             {"x", std::to_string(static_cast<int>(rng() % 1000) - 300)},
             {"w", "w" + std::to_string(rng() % 13)},
             {"_time", std::to_string(1000 + i)}};
    if (i % 5 == 0) r[1].second += "." + std::to_string(rng() % 100);
    if (i % 3 != 0) r.push_back({"y", std::to_string(rng() % 50)});
    if (i % 17 == 4) r.push_back({"y", "none"});
    if (i % 11 == 0) r.push_back({"h", "k" + std::to_string(rng() % 4)});
    rows.push_back(r);
  }
  return rows;
}

const char* kAggregations[] = {
    "count avg(x) sum(x) min(x) max(x) by g",
    "count(y) sum(y) avg(y) min(y) max(y) dc(y) mode(y) by g",
    "median(x) p10(x) perc90(x) var(x) stdevp(x) range(x) by g",
    "first(w) last(w) values(w) list(w) dc(w) by g",
    "rate(x) count by h g",
    "default(x) all(y) sum(*) as all_*",
    "count c(h) by h",
    "avg(x) as \"mean of x\" p50(y) as \"half, y\" by w g",
};

std::vector<std::string> runOn(const std::string& search, const std::vector<Row>& rows, size_t chunks,
                               std::string* err = nullptr) {
  SearchResults rs;
  SearchResultsInfo info;
  rowtest::addRows(rs, rows);
  rowtest::TempDir dir;
  if (chunks > 0) rowtest::spill(rs, dir.path, (rows.size() + chunks - 1) / chunks);
  std::string e = rowtest::runFresh(search, rs, info);
  if (err) *err = e;
  EXPECT_EQ(e, "") << search;
  return rowtest::collect(rs);
}

// The map half as the dispatcher makes it: getStreamingOp of the command.
std::string streamingOp(const std::string& args) {
  std::unique_ptr<SearchProcessor> p(SearchFactory::getProcessor("stats", true));
  p->addArgument(new StringArg(args, false, false));
  SearchResultsInfo info;
  p->evalArgs(info);
  p->processArguments();
  return p->getStreamingOp();
}

TEST(StatsPrestatsTest, MapThenReduceEqualsStatsAlone) {
  rowtest::CatalogueHome::ensure();
  const std::vector<Row> rows = makeRows(700, 9, 7);
  for (const char* aggs : kAggregations) {
    std::string stats = std::string("stats ") + aggs;
    std::vector<std::string> want = runOn(stats, rows, 0);
    ASSERT_FALSE(want.empty()) << aggs;
    std::string split = streamingOp(aggs) + " | " + stats;
    for (size_t chunks : {1, 2, 7}) EXPECT_EQ(runOn(split, rows, chunks), want) << split << " in " << chunks;
  }
}

TEST(StatsPrestatsTest, SpilledEqualsInMemoryAtHundredRows) {
  rowtest::CatalogueHome::ensure();
  ASSERT_EQ(SearchResults::getMaxResultRows(), 100u);
  const std::vector<Row> few = makeRows(10000, 40, 3);
  // 300 groups: 100 are kept, the first in key order, whatever the input order
  const std::vector<Row> many = makeRows(10000, 300, 5);
  for (const char* aggs : kAggregations) {
    std::string stats = std::string("stats ") + aggs;
    for (const auto* rows : {&few, &many}) {
      std::vector<std::string> mem = runOn(stats, *rows, 0);
      EXPECT_LE(mem.size(), 100u);
      EXPECT_EQ(runOn(stats, *rows, 100), mem) << stats;
      EXPECT_EQ(runOn(streamingOp(aggs) + " | " + stats, *rows, 100), mem) << stats;
    }
  }
}

TEST(StatsPrestatsTest, GroupLimitKeepsFirstKeysAndWarns) {
  rowtest::CatalogueHome::ensure();
  std::vector<Row> rows;
  for (int i = 150; i >= 0; --i) rows.push_back({{"g", std::to_string(1000 + i)}});
  SearchResults rs;
  SearchResultsInfo info;
  rowtest::addRows(rs, rows);
  ASSERT_EQ(rowtest::runFresh("stats count by g", rs, info), "");
  std::vector<std::string> out = rowtest::collect(rs);
  ASSERT_EQ(out.size(), 100u);
  EXPECT_EQ(out.front(), "count=1 g=1000");
  EXPECT_EQ(out.back(), "count=1 g=1099");
  ASSERT_EQ(info.messages[SearchResultsInfo::MSG_WARN].size(), 1u);
  EXPECT_EQ(info.messages[SearchResultsInfo::MSG_WARN][0],
            "Limit (100 results) reached.  Some fields may have been ignored.  If necessary, edit limits.conf to "
            "adjust limits.");
  // The map half drops the same groups and says so, even when the reduce
  // side then sees no more than the limit.
  SearchResults split;
  SearchResultsInfo splitInfo;
  rowtest::addRows(split, rows);
  ASSERT_EQ(rowtest::runFresh("prestats count by g | stats count by g", split, splitInfo), "");
  EXPECT_EQ(rowtest::collect(split), out);
  ASSERT_EQ(splitInfo.messages[SearchResultsInfo::MSG_WARN].size(), 1u);
  EXPECT_EQ(splitInfo.messages[SearchResultsInfo::MSG_WARN][0], info.messages[SearchResultsInfo::MSG_WARN][0]);
}

TEST(StatsPrestatsTest, CorruptIntermediateRows) {
  const std::string e = "Error in 'stats' command: Corrupt information from pre-stats: ";
  auto entry = [](const char* g, const char* key, const char* vt, const char* num, const char* str) {
    Row r;
    if (g) r.push_back({"g", g});
    if (key) r.push_back({"_key", key});
    if (vt) r.push_back({"vt", vt});
    if (num) r.push_back({"num", num});
    if (str) r.push_back({"str", str});
    return r;
  };
  const char* s = "stats sum(x) first(x) by g";
  rowtest::runCommandCases({
      // a sound block reads back
      {s,
       {entry("a", "", "count", "2", nullptr), entry("a", "x", "count", "2", nullptr),
        entry("a", "x", "sum", "3.50", nullptr), entry("a", "x", "dec", "1", nullptr),
        entry("a", "x", "first", nullptr, "1.5"), entry("a", "x", "last", nullptr, "2")},
       {"first(x)=1.5 g=a sum(x)=3.5"}},
      {s, {entry("a", "x", nullptr, "1", nullptr)}, {e + "No val or type in entire results"}},
      {s, {entry("a", "x", "count", nullptr, nullptr)}, {e + "No val or type in entire results"}},
      {s, {entry("a", "x", "count", "1", nullptr), entry("a", nullptr, "count", "1", nullptr)}, {e + "No key or type"}},
      {s, {entry("a", "x", "count", "1", nullptr), entry("a", "x", nullptr, "1", nullptr)}, {e + "No key or type"}},
      {s, {entry(nullptr, "x", "count", "1", nullptr)}, {e + "groupby key(s) missing"}},
      {s, {entry("a", "x", "bogus", "1", nullptr)}, {e + "Invalid type"}},
      {s, {entry("a", "x", "sum", nullptr, "1")}, {e + "Invalid valuetype"}},
      {s, {entry("a", "x", "first", "1", nullptr)}, {e + "Invalid valuetype"}},
      {s, {entry("a", "x", "sum", "abc", nullptr)}, {e + "Invalid non-numerical val"}},
      {s, {entry("a", "x", "nummin", "nan", nullptr)}, {e + "Invalid non-numerical val"}},
      {s, {entry("a", "x", "count", "1.5", nullptr)}, {e + "Failed to read group count"}},
      {s, {entry("a", "x", "count", "-1", nullptr)}, {e + "Failed to read group count"}},
      {s, {entry("a", "x", "dv", "x", "v")}, {e + "Invalid non-numerical val"}},
  });
}

}  // namespace
