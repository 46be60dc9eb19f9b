// The streaming driver: how a search is cut into prefix, map half and rest;
// that a report run chunk by chunk (through its map half, spilled or not)
// gives the rows of the same report over all rows at once; and where the
// reading stops (head, the event cap, cancellation, a spill that cannot be
// written).
#include <gtest/gtest.h>

#include <random>

#include "../processors/CatalogueHome.h"
#include "../processors/RowTestUtil.h"
#include "search/SearchCancel.h"
#include "search/SearchFactory.h"
#include "search/SearchParser.h"
#include "search/dispatch/PipelineSplit.h"
#include "search/dispatch/StreamingSearch.h"

namespace {

using rowtest::Row;

// The rows the producer gives, and how many per call.
std::vector<Row> gRows;
size_t gChunk = 1;
// Stops the search's cancel id once this many chunks were given (0: never).
size_t gCancelAfter = 0;

// `testrows`: a producer that gives gRows gChunk rows at a time, in order,
// saying "more to come" until the last, as the index reader does.
class TestRows : public SearchProcessor {
 public:
  explicit TestRows(const Str& n) : SearchProcessor(n) {}
  static SearchProcessor* create(const Str& n) { return new TestRows(n); }
  void parseArguments() override {}
  void execute(SearchResults& results, SearchResultsInfo& info) override {
    results.free(false);
    size_t end = std::min(gRows.size(), _next + gChunk);
    rowtest::addRows(results, std::vector<Row>(gRows.begin() + long(_next), gRows.begin() + long(end)));
    _next = end;
    ++_calls;
    info.resultsComplete = _next >= gRows.size();
    if (gCancelAfter && _calls >= gCancelAfter) SearchCancel::instance()->stop(info.cancelId);
  }

 private:
  size_t _next = 0, _calls = 0;
};

void setUp() {
  rowtest::CatalogueHome::ensure();
  static bool registered = false;
  if (!registered) {
    SearchFactory::registerProcessor("testrows", &TestRows::create, false);
    registered = true;
  }
  gCancelAfter = 0;
}

// Rows with a group g (9 values), a series s (5), a number x, a word w
// that is sometimes missing and a time an hour apart every 7 rows.
std::vector<Row> makeRows(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::vector<Row> rows;
  for (size_t i = 0; i < n; ++i) {
    Row r = {{"g", "g" + std::to_string(rng() % 9)},
             {"s", "s" + std::to_string(rng() % 5)},
             {"x", std::to_string(static_cast<int>(rng() % 1000) - 300)},
             {"_time", std::to_string(1795000000 + long(i) * 3600 / 7)}};
    if (i % 4 != 0) r.push_back({"w", "w" + std::to_string(rng() % 13)});
    rows.push_back(r);
  }
  return rows;
}

struct Outcome {
  std::vector<std::string> rows;
  std::string error;
  SearchResultsInfo info;
  size_t chunks = 0, events = 0, spills = 0;
};

Outcome runStreaming(const std::string& search, size_t chunk, StreamingSearch::Options opts = {}) {
  gChunk = chunk;
  Outcome out;
  static int runs = 0;
  out.info.cancelId = "streaming-test-" + std::to_string(++runs);
  SearchCancel::instance()->start(out.info.cancelId);
  SearchResults rs;
  try {
    StreamingSearch s(SearchParser::parse(search, true), out.info, std::move(opts));
    s.run(rs, out.info);
    out.chunks = s.chunks();
    out.events = s.eventsRead();
    out.spills = s.spillFiles();
  } catch (const std::exception& e) {
    out.error = e.what();
  }
  out.rows = rowtest::collect(rs);
  return out;
}

// The same search as one pipeline over all rows at once.
std::vector<std::string> runWhole(const std::string& search) {
  gChunk = gRows.size() + 1;
  SearchResults rs;
  SearchResultsInfo info;
  EXPECT_EQ(rowtest::run(search, rs, info), "") << search;
  return rowtest::collect(rs);
}

std::string describe(const std::string& search) {
  SearchResultsInfo info;
  try {
    PipelineSplit split(SearchParser::parse(search, true), info);
    return split.describe();
  } catch (const std::exception& e) {
    return std::string("error: ") + e.what();
  }
}

TEST(PipelineSplitTest, CutsAtTheFirstCommandThatIsNotStreamable) {
  setUp();
  struct Case {
    const char* search;
    const char* want;
  } cases[] = {
      // A sort gets its own map half (presort) on the rest.
      {"| testrows | eval y=x*2 | stats count by g | sort -count",
       "prefix: testrows | eval; map: prestats; rest: stats | presort | sort"},
      {"| testrows | head 5", "prefix: testrows; map: prehead; rest: head"},
      {"| testrows | where x > 3 | top limit=2 g", "prefix: testrows | where; map: pretop; rest: top"},
      {"| testrows | timechart span=1h count by s", "prefix: testrows; map: prebin | fillnull | prestats; rest: timechart"},
      // Nothing streams behind a producer that gives everything at once.
      {"| inputcsv absent.csv | stats count", "prefix: ; map: ; rest: inputcsv | stats"},
      // A command without a map half ends the prefix all the same.
      {"| testrows | reverse | stats count", "prefix: testrows; map: ; rest: reverse | stats"},
      {"| testrows | stats count | eval a=1", "prefix: testrows; map: prestats; rest: stats | eval"},
  };
  for (const Case& c : cases) EXPECT_EQ(describe(c.search), c.want) << c.search;
  // An argument fault is the command's own text, and frees what was split.
  EXPECT_EQ(describe("| testrows | head -3"), "error: Error in 'head' command: Number of results must be a positive number!");
}

TEST(StreamingSearchTest, ReportsInChunksEqualTheReportOverAllRows) {
  setUp();
  gRows = makeRows(700, 11);
  const char* reports[] = {
      "stats count avg(x) min(w) max(w) dc(w) by g",
      "stats median(x) p90(x) stdev(x) values(w) first(w) last(w) by s",
      "stats count",
      "top limit=3 g",
      "rare w by s",
      "chart count by g s",
      "chart avg(x) by g s where count in top3",
      "timechart span=1h count by s",
      "timechart span=1d avg(x) by g limit=4",
      "contingency g s",
      "dedup g | sort g",
      "sort -x | head 4",
      "stats count by g | sort -count | head 3",
  };
  for (const char* report : reports) {
    std::string search = std::string("| testrows | ") + report;
    std::vector<std::string> whole = runWhole(search);
    ASSERT_FALSE(whole.empty()) << search;
    for (size_t chunk : {1, 2, 3, 5, 13, 700}) {
      Outcome r = runStreaming(search, chunk);
      EXPECT_EQ(r.error, "") << search;
      EXPECT_EQ(r.rows, whole) << search << " in chunks of " << chunk;
    }
    // The gathered map rows spilled into files every 5 rows.
    StreamingSearch::Options opts;
    opts.spillRows = 5;
    Outcome spilled = runStreaming(search, 13, opts);
    EXPECT_EQ(spilled.rows, whole) << search << " spilled";
  }
}

TEST(StreamingSearchTest, SpillsOnlyBeforeATransformingCommand) {
  setUp();
  gRows = makeRows(300, 3);
  StreamingSearch::Options opts;
  opts.spillRows = 10;
  Outcome r = runStreaming("| testrows | stats count by g x", 20, opts);
  EXPECT_GT(r.spills, 3u);
  EXPECT_EQ(r.events, 300u);
  EXPECT_EQ(r.rows, runWhole("| testrows | stats count by g x"));
  // sort needs its rows in memory: nothing is spilled ahead of it.
  Outcome sorted = runStreaming("| testrows | sort x g", 20, opts);
  EXPECT_EQ(sorted.spills, 0u);
  EXPECT_EQ(sorted.rows.size(), 300u);
}

TEST(StreamingSearchTest, ReadingStopsWhereTheSearchHasWhatItNeeds) {
  setUp();
  gRows = makeRows(100, 5);
  // head 5 over chunks of 2: three chunks, not fifty.
  Outcome head = runStreaming("| testrows | head 5", 2);
  EXPECT_EQ(head.rows.size(), 5u);
  EXPECT_EQ(head.chunks, 3u);
  EXPECT_EQ(head.rows, runWhole("| testrows | head 5"));

  // A search for events keeps the first maxEvents rows and says more match.
  StreamingSearch::Options capped;
  capped.maxEvents = 25;
  Outcome events = runStreaming("| testrows | eval y=1", 10, capped);
  EXPECT_EQ(events.rows.size(), 25u);
  EXPECT_EQ(events.events, 30u);
  ASSERT_EQ(events.info.messages["INFO"].size(), 1u);
  EXPECT_NE(events.info.messages["INFO"][0].find("first 25 events"), std::string::npos);
  // Exactly as many as the cap: no message.
  capped.maxEvents = 100;
  Outcome exact = runStreaming("| testrows | eval y=1", 10, capped);
  EXPECT_EQ(exact.rows.size(), 100u);
  EXPECT_TRUE(exact.info.messages["INFO"].empty());
  // A report reads everything whatever the cap.
  capped.maxEvents = 25;
  Outcome report = runStreaming("| testrows | stats count", 10, capped);
  EXPECT_EQ(report.rows, std::vector<std::string>{"count=100"});
  // So does a chart, whose map rows outnumber the cap.
  Outcome chart = runStreaming("| testrows | chart avg(x) by g s where count in top3", 1, capped);
  EXPECT_EQ(chart.rows, runWhole("| testrows | chart avg(x) by g s where count in top3"));

  // A cancelled search stops between chunks and gives nothing.
  gCancelAfter = 3;
  Outcome cancelled = runStreaming("| testrows | stats count", 10);
  EXPECT_EQ(cancelled.chunks, 3u);
  EXPECT_TRUE(cancelled.rows.empty());
}

TEST(StreamingSearchTest, ASpillThatCannotBeWrittenFailsTheSearch) {
  setUp();
  gRows = makeRows(100, 9);
  rowtest::TempDir dir;
  Pathname notADir(Str(dir.path) + "/plain-file");
  FILE* f = fopen(notADir.c_str(), "w");
  ASSERT_NE(f, nullptr);
  fclose(f);
  StreamingSearch::Options opts;
  opts.spillRows = 10;
  opts.spillParent = notADir;
  Outcome r = runStreaming("| testrows | stats count by x", 10, opts);
  EXPECT_EQ(r.error, "Could not make a directory for search rows in '" + notADir + "': Not a directory");
  EXPECT_TRUE(r.rows.empty());
}

}  // namespace

