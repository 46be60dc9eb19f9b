// bin / bucket / discretize / prebin: option faults, span choice, bin labels,
// time alignment in the user's zone, and prebin | bin over chunks equal to
// bin over all rows.
#include <gtest/gtest.h>

#include <memory>

#include "CatalogueHome.h"
#include "RowTestUtil.h"
#include "search/SLUtil.h"
#include "search/StringArg.h"
#include "search/processors/DiscretizationProcessor.h"
#include "util/Timezone.h"

namespace {

using rowtest::CommandCase;
using rowtest::Row;

const char* kPre = "Error in 'bin' command: ";

std::string err(const std::string& text) { return kPre + text; }

// A processed `bin` with the argument text, run over rows of `field`.
std::unique_ptr<DiscretizationProcessor> runBin(const std::string& argText, const std::string& field,
                                                const std::vector<std::string>& values, SearchResults& rs) {
  auto p = std::make_unique<DiscretizationProcessor>("bin");
  p->addArgument(new StringArg(argText, false, false));
  SearchResultsInfo info;
  p->evalArgs(info);
  p->processArguments();
  for (const std::string& v : values) rs.addNewResult()->setValue(field, v);
  p->execute(rs, info);
  return p;
}

class BinTest : public ::testing::Test {
 protected:
  void SetUp() override {
    rowtest::CatalogueHome::ensure();
    SLUtil::setUserTimezone(&Timezone::gmt());
  }
  void TearDown() override { SLUtil::setUserTimezone(nullptr); }
};

TEST_F(BinTest, OptionFaults) {
  const Row x = {{"x", "5"}};
  const Row t = {{"_time", "0"}};
  const Row t2 = {{"_time", "100000"}};
  std::vector<CommandCase> cases = {
      {"bin bins=1 x", {x}, {err("Number of bins must be >= 2 and <= 50000")}},
      {"bin bins=50001 x", {x}, {err("Number of bins must be >= 2 and <= 50000")}},
      {"bin bins=abc x", {x}, {err("Invalid value for option bins 'abc'")}},
      {"bin bins=-4 x", {x}, {err("Invalid value for option bins '-4'")}},
      {"bin span=0 x", {x}, {err("Invalid numerical span '0', must be > 0")}},
      {"bin span=-3 x", {x}, {err("Invalid numerical span '-3', must be > 0")}},
      {"bin span=0s _time", {t}, {err("Invalid numerical span '0s', must be > 0")}},
      {"bin span=abc x", {x}, {err("Invalid value for option span 'abc'")}},
      {"bin span=5parsecs x", {x}, {err("Invalid value for option span '5parsecs'")}},
      {"bin span=1.5 _time", {t}, {err("Invalid value for option span '1.5'")}},
      {"bin start=a x", {x}, {err("Invalid value for option start 'a'")}},
      {"bin end=inf x", {x}, {err("Invalid value for option end 'inf'")}},
      {"bin start=10 end=5 x", {x}, {err("end value must be >= start value")}},
      {"bin", {x}, {err("Must specify field to discretize")}},
      {"bin span=10", {x}, {err("Must specify field to discretize")}},
      {"bin x as", {x}, {err("Expected field name after 'as'")}},
      {"bin x y", {x}, {err("Invalid argument: 'y'")}},
      {"bin foo=1 x", {x}, {err("Invalid argument: 'foo=1'")}},
      {"bin span=1 start=0 end=100000 x", {x},
       {err("Span value '1' would result in too many (> 50000) bins.  Edit limits.conf to change limits.")}},
      {"bin span=1s _time", {t, t2},
       {err("Span value '1s' would result in too many (> 50000) bins.  Edit limits.conf to change limits.")}},
      {"bin span=10 x", {{{"x", "abc"}}}, {err("Failed to discretize value 'abc' of field 'x'")}},
      {"bin span=10 x", {{{"x", "nan"}}}, {err("Failed to discretize value 'nan' of field 'x'")}},
      {"bin span=10 x", {{{"x", "1e400"}}}, {err("Failed to discretize value '1e400' of field 'x'")}},
      {"bin bins=10 x", {x, {{"x", "7-3"}}}, {err("Failed to discretize value '7-3' of field 'x'")}},
      {"bin span=1h _time", {{{"_time", "1e12"}}}, {err("Failed to discretize value '1e12' of field '_time'")}},
      {"bucket span=0 x", {x}, {"Error in 'bucket' command: Invalid numerical span '0', must be > 0"}},
  };
  rowtest::runCommandCases(cases);
}

TEST_F(BinTest, SpanChoice) {
  struct Case {
    const char* args;
    const char* field;
    std::vector<std::string> values;
    const char* span;
  } cases[] = {
      {"bins=10 _time", "_time", {"1000", "1050"}, "10s"},
      {"bins=10 _time", "_time", {"1000", "1005"}, "1s"},
      {"bins=10 _time", "_time", {"1000.9", "1000.2"}, "1s"},
      {"bins=100 _time", "_time", {"0", "172800"}, "1h"},
      {"bins=10 _time", "_time", {"0", "31536000"}, "1month"},
      {"bins=10 start=0 end=50 _time", "_time", {"7"}, "10s"},
      {"bins=10 x", "x", {"0", "100"}, "10"},
      {"bins=10 x", "x", {"0", "101"}, "100"},
      {"bins=9 x", "x", {"5", "95"}, "100"},
      {"bins=10 x", "x", {"0", "1"}, "0.1"},
      {"bins=10 x", "x", {"7", "7"}, "1"},
      {"x", "x", {"0", "1000"}, "10"},
      {"bins=4 start=0 end=4000 x", "x", {"3"}, "1000"},
      {"span=2.5 x", "x", {"3"}, "2.5"},
      {"span=5m _time", "_time", {"3"}, "5m"},
  };
  for (const Case& c : cases) {
    SearchResults rs;
    auto p = runBin(c.args, c.field, c.values, rs);
    EXPECT_EQ(p->spanText(), c.span) << c.args;
  }
}

TEST_F(BinTest, LabelsAndTimes) {
  const Timezone* india = Timezone::fixed("IST", 19800);
  std::vector<CommandCase> cases = {
      {"bin bins=10 x",
       {{{"x", "0"}}, {{"x", "55"}}, {{"x", "100"}}},
       {"x=0-10", "x=50-60", "x=100-110"}},
      {"bin span=10 x",
       {{{"x", "-5"}}, {{"x", "25"}}, {{"x", "30"}}, {{"x", "-0"}}},
       {"x=-10-0", "x=20-30", "x=30-40", "x=0-10"}},
      {"bin span=0.5 x", {{{"x", "1.7"}}, {{"x", "0.3"}}}, {"x=1.5-2.0", "x=0.0-0.5"}},
      {"bin span=0.1 x", {{{"x", "0.3"}}}, {"x=0.3-0.4"}},
      {"bin span=10 x as b", {{{"x", "12"}}}, {"b=10-20 x=12"}},
      {"discretize span=10 x", {{{"x", "12"}}, {{"y", "12"}}}, {"x=10-20", "y=12"}},
      // A label bins to itself: the reduce side of prebin sees labels.
      {"bin span=10 x", {{{"x", "20-30"}}, {{"x", "-20--10"}}}, {"x=20-30", "x=-20--10"}},
      {"bin span=1h _time", {{{"_time", "3725.8"}}, {{"_time", "-1"}}}, {"_time=3600", "_time=-3600"}},
      {"bin span=30 _time", {{{"_time", "95"}}}, {"_time=90"}},
      {"bin span=1mon t", {{{"t", "1710510432"}}}, {"t=1709251200"}},
      {"bin span=1d _time", {{{"_time", "1710510432"}}}, {"_time=1710460800"}},
      {"bin span=10 nosuch", {{{"x", "1"}}}, {"x=1"}},
      {"bin nosuch", {{{"x", "1"}}}, {"x=1"}},
      // Without a span the map half cannot know the bins: it passes rows on.
      {"prebin bins=10 x", {{{"x", "13"}}}, {"x=13"}},
      {"prebin span=10 x", {{{"x", "13"}}}, {"x=10-20"}},
  };
  rowtest::runCommandCases(cases);
  // A day bin starts at the user's local midnight.
  SLUtil::setUserTimezone(india);
  rowtest::runCommandCases({{"bin span=1d _time", {{{"_time", "1710510432"}}}, {"_time=1710441000"}},
                            {"bin span=1h _time", {{{"_time", "1710510432"}}}, {"_time=1710509400"}}});
  delete india;
}

TEST_F(BinTest, StreamingOp) {
  struct Case {
    const char* args;
    const char* op;
  } cases[] = {
      {"span=10 x", "prebin span=10 x"},
      {"span=1h start=0 _time as t", "prebin span=1h start=0 _time as \"t\""},
      {"span=5 end=9 \"a b\"", "prebin span=5 end=9 \"a b\""},
      {"bins=10 x", ""},
      {"x", ""},
  };
  for (const Case& c : cases) {
    auto p = std::make_unique<DiscretizationProcessor>("bin");
    p->addArgument(new StringArg(c.args, false, false));
    SearchResultsInfo info;
    p->evalArgs(info);
    p->processArguments();
    EXPECT_EQ(p->getStreamingOp(), c.op) << c.args;
    EXPECT_FALSE(p->isStreamable());
  }
  DiscretizationProcessor pre("prebin");
  EXPECT_TRUE(pre.isStreamable());
}

std::vector<Row> manyRows() {
  std::vector<Row> rows;
  for (int n = 0; n < 1000; ++n) {
    Row r = {{"_time", std::to_string(1700000000 + n * 613)}, {"n", std::to_string(n)}};
    if (n % 9 != 4) r.push_back({"x", std::to_string((n * 37) % 1000 - 200) + "." + std::to_string(n % 10)});
    rows.push_back(r);
  }
  return rows;
}

TEST_F(BinTest, SpilledAndPrebinEqualBinInMemory) {
  ASSERT_EQ(SearchResults::getMaxResultRows(), 100u);
  struct Case {
    const char* plain;
    const char* split;
  } cases[] = {
      {"bin span=7 x", "prebin span=7 x | bin span=7 x"},
      {"bin span=7 x as b", "prebin span=7 x as \"b\" | bin span=7 x as b"},
      {"bin span=1h _time", "prebin span=1h _time | bin span=1h _time"},
      {"bin span=1d _time", "prebin span=1d _time | bin span=1d _time"},
      {"bin bins=20 x", "prebin bins=20 x | bin bins=20 x"},
      {"bin _time", "bin _time"},
  };
  const std::vector<Row> rows = manyRows();
  for (const Case& c : cases) {
    SearchResults mem, sp;
    SearchResultsInfo i1, i2;
    rowtest::addRows(mem, rows);
    rowtest::addRows(sp, rows);
    rowtest::TempDir dir;
    rowtest::spill(sp, dir.path, 100);
    ASSERT_EQ(sp.getFiles().size(), 10u);
    ASSERT_EQ(rowtest::runFresh(c.plain, mem, i1), "") << c.plain;
    ASSERT_EQ(rowtest::runFresh(c.split, sp, i2), "") << c.split;
    std::vector<std::string> a = rowtest::collect(mem), b = rowtest::collect(sp);
    ASSERT_EQ(a.size(), rows.size()) << c.plain;
    EXPECT_EQ(b, a) << c.split;
  }
}

TEST_F(BinTest, RangeIsDiscoveredOverAllSpilledFiles) {
  // The extremes sit in different chunk files: the span must see both.
  std::vector<Row> rows;
  for (int n = 0; n < 300; ++n) rows.push_back({{"x", n == 0 ? "0" : n == 299 ? "1000" : "500"}});
  SearchResults sp;
  rowtest::addRows(sp, rows);
  rowtest::TempDir dir;
  rowtest::spill(sp, dir.path, 100);
  auto p = std::make_unique<DiscretizationProcessor>("bin");
  p->addArgument(new StringArg("bins=10 x", false, false));
  SearchResultsInfo info;
  p->evalArgs(info);
  p->processArguments();
  p->execute(sp, info);
  EXPECT_EQ(p->spanText(), "100");
  std::vector<std::string> out = rowtest::collect(sp);
  ASSERT_EQ(out.size(), 300u);
  EXPECT_EQ(out.front(), "x=0-100");
  EXPECT_EQ(out[1], "x=500-600");
  EXPECT_EQ(out.back(), "x=1000-1100");
}

}  // namespace
