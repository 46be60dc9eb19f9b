// head / tail / reverse / prehead and dedup: search text in, rows out.
#include <gtest/gtest.h>

#include "RowTestUtil.h"
#include "search/processors/DedupOperator.h"
#include "search/processors/HeadProcessor.h"

namespace {

using rowtest::Row;
using V = std::vector<std::string>;


// Runs `search` over rows and gives the `n` of each row left, or {error}.
V ns(const std::string& search, const std::vector<Row>& rows, SearchResultsInfo* infoOut = nullptr) {
  SearchResults rs;
  SearchResultsInfo info;
  rowtest::addRows(rs, rows);
  std::string err = rowtest::run(search, rs, info);
  if (infoOut) *infoOut = info;
  if (!err.empty()) return {err};
  V out;
  sr_index_t n = rs.keyIndex("n");
  for (SearchResult* r : rs) out.push_back(r->getValue(n));
  return out;
}

std::vector<Row> numbered(int count) {
  std::vector<Row> rows;
  for (int i = 0; i < count; ++i) rows.push_back({{"n", std::to_string(i)}, {"x", std::to_string(i % 3)}});
  return rows;
}

TEST(HeadTest, SearchTextToRows) {
  struct Case {
    const char* search;
    int rows;
    V want;
  } cases[] = {
      {"head 2", 5, {"0", "1"}},
      {"head", 12, {"0", "1", "2", "3", "4", "5", "6", "7", "8", "9"}},
      {"tail 2", 3, {"2", "1"}},
      {"reverse", 3, {"2", "1", "0"}},
      {"head 10", 2, {"0", "1"}},
      {"head 0", 2, {"Error in 'head' command: Number of results must be a positive number!"}},
      {"tail -1", 2, {"Error in 'tail' command: Number of results must be a positive number!"}},
      {"head 2 3", 5, {"Error in 'head' command: Invalid argument: '3'"}},
  };
  for (auto& c : cases) EXPECT_EQ(ns(c.search, numbered(c.rows)), c.want) << c.search;
}

TEST(HeadTest, PreheadCountsAcrossCallsAndStopsProducer) {
  HeadProcessor p("prehead", false, 0);
  p.addArgument(new StringArg("3", false, false));
  SearchResultsInfo info;
  p.evalArgs(info);
  p.processArguments();
  EXPECT_TRUE(p.isStreamable());
  SearchResults a, b;
  rowtest::addRows(a, numbered(2));
  rowtest::addRows(b, numbered(2));
  info.resultsComplete = false;
  p.execute(a, info);
  EXPECT_EQ(a.size(), 2u);
  EXPECT_FALSE(info.resultsComplete);
  p.execute(b, info);
  EXPECT_EQ(b.size(), 1u);
  EXPECT_TRUE(info.resultsComplete);
  EXPECT_EQ(HeadProcessor("head", false, 7).getStreamingOp(), "prehead 7");
  EXPECT_EQ(HeadProcessor("tail", true, 7).getStreamingOp(), "");
}

TEST(HeadTest, SpilledEqualsInMemory) {
  for (const char* search : {"head 250", "tail 250", "reverse", "head 10000"}) {
    SearchResults mem, sp;
    SearchResultsInfo i1, i2;
    rowtest::addRows(mem, numbered(10000));
    rowtest::addRows(sp, numbered(10000));
    rowtest::TempDir dir;
    rowtest::spill(sp, dir.path, 100);
    ASSERT_EQ(rowtest::run(search, mem, i1), "");
    ASSERT_EQ(rowtest::run(search, sp, i2), "");
    EXPECT_EQ(rowtest::collect(sp), rowtest::collect(mem)) << search;
  }
}

TEST(DedupTest, SearchTextToRows) {
  std::vector<Row> rows = {{{"n", "0"}, {"x", "a"}, {"y", "1"}}, {{"n", "1"}, {"x", "a"}, {"y", "2"}},
                           {{"n", "2"}, {"y", "1"}},             {{"n", "3"}, {"x", "b"}, {"y", "1"}},
                           {{"n", "4"}, {"x", "a"}, {"y", "1"}}};
  struct Case {
    const char* search;
    V want;
  } cases[] = {
      {"dedup x", {"0", "3"}},
      {"dedup keepempty=true x", {"0", "2", "3"}},
      {"dedup limit=2 x", {"0", "1", "3"}},
      {"dedup x y", {"0", "1", "3"}},
      {"dedup x sortby -num(y)", {"1", "3"}},
      {"dedup limit=0 x", {"Error in 'dedup' command: Invalid limit option, must be >= 1"}},
      {"dedup", {"Error in 'dedup' command: At least one field must be given as an argument."}},
      {"dedup x x", {"Error in 'dedup' command: Field 'x' specified multiple times"}},
      {"dedup x sortby", {"Error in 'dedup-sortby' command: No fields to sort by have been specified!"}},
  };
  for (auto& c : cases) EXPECT_EQ(ns(c.search, rows), c.want) << c.search;
}

TEST(DedupTest, StreamingOpAndSpilled) {
  DedupOperator d("dedup");
  d.addArgument(new StringArg("limit=2 x sortby -y", false, false));
  SearchResultsInfo info;
  d.evalArgs(info);
  d.processArguments();
  EXPECT_EQ(d.getStreamingOp(), "presort -auto(y) | prededup x limit=2 keepempty=false");
  EXPECT_FALSE(d.isStreamable());

  SearchResults mem, sp;
  SearchResultsInfo i1, i2;
  rowtest::addRows(mem, numbered(10000));
  rowtest::addRows(sp, numbered(10000));
  rowtest::TempDir dir;
  rowtest::spill(sp, dir.path, 100);
  ASSERT_EQ(rowtest::run("dedup limit=2 x", mem, i1), "");
  ASSERT_EQ(rowtest::run("dedup limit=2 x", sp, i2), "");
  EXPECT_EQ(rowtest::collect(sp), rowtest::collect(mem));
  EXPECT_EQ(rowtest::collect(mem).size(), 6u);
}

}  // namespace
