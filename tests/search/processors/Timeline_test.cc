// timeline: options, choice of bucket size on the ladder, calendar-length
// month buckets, per-field top values, the search's time bounds, the zone,
// the timeline.csv file, and spilled rows equal to rows in memory.
#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <sstream>

#include "CatalogueHome.h"
#include "RowTestUtil.h"
#include "search/SLUtil.h"
#include "search/StringArg.h"
#include "search/processors/TimelineProcessor.h"
#include "util/Timezone.h"

namespace {

using rowtest::CommandCase;
using rowtest::Row;

class TimelineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    rowtest::CatalogueHome::ensure();
    SLUtil::setUserTimezone(&Timezone::gmt());
  }
  void TearDown() override { SLUtil::setUserTimezone(nullptr); }
};

std::vector<Row> timeRows(const std::vector<std::string>& times) {
  std::vector<Row> rows;
  for (const std::string& t : times) rows.push_back({{"_time", t}});
  return rows;
}

std::unique_ptr<TimelineProcessor> makeTimeline(const std::string& argText) {
  auto p = std::make_unique<TimelineProcessor>("timeline");
  if (!argText.empty()) p->addArgument(new StringArg(argText, false, false));
  SearchResultsInfo info;
  p->evalArgs(info);
  p->processArguments();
  return p;
}

TEST_F(TimelineTest, OptionFaults) {
  const std::vector<Row> in = timeRows({"1"});
  const std::string pre = "Error in 'timeline' command: ";
  std::vector<CommandCase> cases = {
      {"timeline maxbuckets=0", in, {pre + "Invalid value for option maxbuckets '0'"}},
      {"timeline maxbuckets=-1", in, {pre + "Invalid value for option maxbuckets '-1'"}},
      {"timeline top=x", in, {pre + "Invalid value for option top 'x'"}},
      {"timeline subhistograms=maybe", in, {pre + "Invalid boolean value for option 'subhistograms'"}},
      {"timeline foo", in, {pre + "Invalid argument: 'foo'"}},
  };
  rowtest::runCommandCases(cases);
}

TEST_F(TimelineTest, BucketSizeFromTheLadder) {
  struct Case {
    const char* args;
    std::vector<std::string> times;
    const char* span;
    size_t rows;
    const char* first;
    const char* last;
  } cases[] = {
      {"maxbuckets=300", {"0", "150", "299"}, "1s", 300, "_span=1 _time=0 count=1", "_span=1 _time=299 count=1"},
      {"maxbuckets=300", {"0", "300"}, "10s", 31, "_span=10 _time=0 count=1", "_span=10 _time=300 count=1"},
      {"maxbuckets=2", {"5", "65.9"}, "1min", 2, "_span=60 _time=0 count=1", "_span=60 _time=60 count=1"},
      {"", {"0", "172799"}, "10min", 288, "_span=600 _time=0 count=1", "_span=600 _time=172200 count=1"},
      {"maxbuckets=5", {"-86400", "86399"}, "1day", 2, "_span=86400 _time=-86400 count=1",
       "_span=86400 _time=0 count=1"},
      // Past the ladder the last rung stands; months have their calendar length.
      {"maxbuckets=2", {"1705320000", "1710072000"}, "1month", 3, "_span=2678400 _time=1704067200 count=1",
       "_span=2678400 _time=1709251200 count=1"},
  };
  for (const Case& c : cases) {
    auto p = makeTimeline(c.args);
    SearchResults rs;
    SearchResultsInfo info;
    rowtest::addRows(rs, timeRows(c.times));
    p->execute(rs, info);
    EXPECT_EQ(p->bucketSpan(), c.span) << c.args;
    std::vector<std::string> out = rowtest::collect(rs);
    ASSERT_EQ(out.size(), c.rows) << c.args;
    EXPECT_EQ(out.front(), c.first) << c.args;
    EXPECT_EQ(out.back(), c.last) << c.args;
  }
}

TEST_F(TimelineTest, RowsAndSubhistograms) {
  const std::vector<Row> in = {
      {{"_time", "0"}, {"host", "a"}, {"src", "x"}, {"count", "9"}},
      {{"_time", "1"}, {"host", "a"}, {"_hidden", "z"}},
      {{"_time", "2"}, {"host", "b"}},
      {{"_time", "20"}, {"host", "c"}},
      {{"host", "no time"}},
      {{"_time", "later"}, {"host", "bad time"}},
  };
  std::vector<CommandCase> cases = {
      {"timeline maxbuckets=3",
       in,
       {"_span=10 _time=0 count=3", "_span=10 _time=10 count=0", "_span=10 _time=20 count=1"}},
      {"timeline maxbuckets=3 subhistograms=true top=1",
       in,
       {"_span=10 _time=0 count=3 host=a:2 src=x:1", "_span=10 _time=10 count=0",
        "_span=10 _time=20 count=1 host=c:1"}},
      {"timeline maxbuckets=3 subhistograms=true",
       in,
       {"_span=10 _time=0 count=3 host=a:2\nb:1 src=x:1", "_span=10 _time=10 count=0",
        "_span=10 _time=20 count=1 host=c:1"}},
      {"timeline", timeRows({"abc", "1e12"}), {}},
      {"timeline", {}, {}},
  };
  rowtest::runCommandCases(cases);
}

TEST_F(TimelineTest, SearchBoundsWidenTheRange) {
  auto p = makeTimeline("maxbuckets=300");
  SearchResults rs;
  SearchResultsInfo info;
  info.earliestTime = Timeval(1000, 0);
  info.latestTime = Timeval(1010, 0);
  rowtest::addRows(rs, timeRows({"1005"}));
  p->execute(rs, info);
  std::vector<std::string> out = rowtest::collect(rs);
  ASSERT_EQ(out.size(), 10u);
  EXPECT_EQ(out.front(), "_span=1 _time=1000 count=0");
  EXPECT_EQ(out[5], "_span=1 _time=1005 count=1");
  EXPECT_EQ(out.back(), "_span=1 _time=1009 count=0");
}

TEST_F(TimelineTest, DayBucketsStartAtLocalMidnight) {
  std::unique_ptr<Timezone> plusOne(Timezone::fixed("PLUS1", 3600));
  SLUtil::setUserTimezone(plusOne.get());
  auto p = makeTimeline("maxbuckets=2");
  SearchResults rs;
  SearchResultsInfo info;
  rowtest::addRows(rs, timeRows({"1710510432", "1710596832"}));
  p->execute(rs, info);
  EXPECT_EQ(p->bucketSpan(), "1day");
  EXPECT_EQ(rowtest::collect(rs), (std::vector<std::string>{"_span=86400 _time=1710457200 count=1",
                                                            "_span=86400 _time=1710543600 count=1"}));
  SLUtil::setUserTimezone(nullptr);
}

TEST_F(TimelineTest, WritesTimelineCsvInTheJobDirectory) {
  rowtest::TempDir dir;
  auto p = makeTimeline("maxbuckets=2");
  p->setJobDir(Pathname(dir.path));
  SearchResults rs;
  SearchResultsInfo info;
  rowtest::addRows(rs, timeRows({"5", "65"}));
  p->execute(rs, info);
  std::ifstream in(dir.path + "/timeline.csv");
  std::stringstream text;
  text << in.rdbuf();
  EXPECT_EQ(text.str(), "\"_span\",\"_time\",count\n60,0,1\n60,60,1\n");
}

TEST_F(TimelineTest, MakeBucketsStopsAtTheLimit) {
  TimelineProcessor p("timeline");
  struct Case {
    int64_t earliest, latest;
    long count;
    tl_unit_t unit;
    size_t limit;
    bool ok;
    size_t n;
    int64_t lastEnd;
  } cases[] = {
      {0, 59, 1, TL_MINUTE, 1, true, 1, 60},
      {0, 60, 1, TL_MINUTE, 1, false, 1, 60},
      {1704067200, 1711929599, 1, TL_MONTH, 10, true, 3, 1711929600},
      {1704067200, 1711929600, 1, TL_MONTH, 10, true, 4, 1714521600},
      {5, 5, 10, TL_SECOND, 1, true, 1, 10},
  };
  for (const Case& c : cases) {
    std::vector<TimeBucket> out;
    EXPECT_EQ(p.makeBuckets(c.earliest, c.latest, c.count, c.unit, c.limit, out), c.ok) << c.earliest;
    ASSERT_EQ(out.size(), c.n) << c.earliest;
    EXPECT_EQ(out.back().end(), c.lastEnd) << c.earliest;
  }
}

TEST_F(TimelineTest, SpilledEqualsInMemory) {
  std::vector<Row> rows;
  for (int n = 0; n < 1000; ++n)
    rows.push_back({{"_time", std::to_string(1700000000 + (n * 7919) % 500000)},
                    {"host", "h" + std::to_string(n % 13)}});
  for (const char* search : {"timeline", "timeline maxbuckets=40 subhistograms=true top=3"}) {
    SearchResults mem, sp;
    SearchResultsInfo i1, i2;
    rowtest::addRows(mem, rows);
    rowtest::addRows(sp, rows);
    rowtest::TempDir dir;
    rowtest::spill(sp, dir.path, 100);
    ASSERT_EQ(rowtest::runFresh(search, mem, i1), "") << search;
    ASSERT_EQ(rowtest::runFresh(search, sp, i2), "") << search;
    std::vector<std::string> a = rowtest::collect(mem), b = rowtest::collect(sp);
    EXPECT_FALSE(a.empty()) << search;
    EXPECT_EQ(b, a) << search;
  }
}

}  // namespace
