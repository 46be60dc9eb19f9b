// The event side of a job: bucket sizes follow the ladder of the `timeline`
// command and move up as the range grows without losing a count; the
// requested bounds widen the range; the field summaries count, bound and cap
// what they see; the readers page through the numbered event files in
// numeric order and by time, ignoring other files.
#include <gtest/gtest.h>

#include "../processors/CatalogueHome.h"
#include "../processors/RowTestUtil.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/dispatch/Timeliner.h"

namespace {

using rowtest::Row;

struct Dir {
  Pathname path;
  Dir() {
    rowtest::CatalogueHome::ensure();
    char tmpl[] = "/tmp/velmor-timeliner-XXXXXX";
    path = Pathname(mkdtemp(tmpl));
  }
  ~Dir() { path.removeRecursive(); }
};

SearchResults chunkOf(const std::vector<long>& times, const char* extraField = nullptr) {
  SearchResults rs;
  std::vector<Row> rows;
  for (long t : times) {
    Row r = {{"_time", std::to_string(t)}, {"_raw", "event at " + std::to_string(t)}};
    if (extraField) r.push_back({extraField, std::to_string(t % 3)});
    rows.push_back(r);
  }
  rowtest::addRows(rs, rows);
  return rs;
}

struct Bucket {
  long et, lt, count;
  std::string complete;
};

std::vector<Bucket> timeline(const Pathname& dir) {
  SearchResults tl;
  std::vector<Bucket> out;
  if (!Timeliner::readTimeline(dir, tl)) return out;
  for (SearchResult* r : tl)
    out.push_back({r->getValue(tl.keyIndex("et")).toLong(0), r->getValue(tl.keyIndex("lt")).toLong(0),
                   r->getValue(tl.keyIndex("count")).toLong(0), r->getValue(tl.keyIndex("complete"))});
  return out;
}

// Each bucket holds exactly the events whose time lies in it, the buckets
// touch, and none is empty at both ends.
void expectCountsMatch(const std::vector<Bucket>& tl, const std::vector<long>& times) {
  ASSERT_FALSE(tl.empty());
  for (size_t i = 0; i < tl.size(); ++i) {
    long n = 0;
    for (long t : times) n += t >= tl[i].et && t < tl[i].lt;
    EXPECT_EQ(tl[i].count, n) << "bucket " << tl[i].et;
    if (i) {
      EXPECT_EQ(tl[i - 1].lt, tl[i].et);
    }
  }
  EXPECT_GT(tl.front().count, 0);
  EXPECT_GT(tl.back().count, 0);
}

TEST(TimelinerTest, BucketSizesClimbTheLadderAsTheRangeGrows) {
  const long base = 1795000020;  // a whole minute in every zone with whole-minute offsets
  struct Case {
    std::vector<std::vector<long>> chunks;
    size_t buckets;
    const char* span;
  } cases[] = {
      {{{base + 9, base + 3, base}}, 10, "1s"},
      {{{base + 50, base + 1}}, 10, "10s"},
      // A first chunk that fits in seconds, a second that needs hours.
      {{{base + 5, base + 2}, {base - 4 * 3600}}, 10, "1h"},
      {{{base, base - 3 * 86400}}, 10, "1day"},
  };
  for (const Case& c : cases) {
    Dir d;
    Timeliner tl(d.path, c.buckets, 0, 0);
    std::vector<long> all;
    for (const auto& chunk : c.chunks) {
      ASSERT_TRUE(tl.processResults(chunkOf(chunk)));
      all.insert(all.end(), chunk.begin(), chunk.end());
    }
    EXPECT_STREQ(tl.bucketSpan(), c.span);
    ASSERT_TRUE(tl.commit(true));
    std::vector<Bucket> rows = timeline(d.path);
    EXPECT_LE(rows.size(), c.buckets);
    expectCountsMatch(rows, all);
    for (const Bucket& b : rows) EXPECT_EQ(b.complete, "1");
  }
}

TEST(TimelinerTest, RequestedBoundsWidenTheTimeline) {
  Dir d;
  const long base = 1795003200;
  Timeliner tl(d.path, 100, base - 3600, base + 3600);
  ASSERT_TRUE(tl.processResults(chunkOf({base + 10})));
  std::vector<Bucket> rows = timeline(d.path);
  ASSERT_FALSE(rows.empty());
  EXPECT_LE(rows.front().et, base - 3600);
  EXPECT_GE(rows.back().lt, base + 3600);
  // Before commit only buckets behind the reading are complete.
  for (const Bucket& b : rows) EXPECT_EQ(b.complete, b.et > base + 10 ? "1" : "0") << b.et;
}

TEST(TimelinerTest, SummaryCountsBoundsAndCapsEachField) {
  Dir d;
  Timeliner tl(d.path, 10, 0, 0);
  SearchResults rs;
  std::vector<Row> rows;
  for (int i = 0; i < 10050; ++i) {
    Row r = {{"_time", "1795000000"}, {"id", "v" + std::to_string(i)}, {"n", std::to_string(i % 4)}};
    if (i % 2) r.push_back({"mix", i % 4 == 1 ? "abc" : "2.5"});
    rows.push_back(r);
  }
  rowtest::addRows(rs, rows);
  ASSERT_TRUE(tl.processResults(rs));
  ASSERT_TRUE(tl.commit(true));
  SearchResults sm;
  ASSERT_TRUE(Timeliner::readSummary(d.path, sm));
  std::map<std::string, std::vector<std::string>> byKey;  // field -> its rows as text
  for (SearchResult* r : sm) {
    std::string line;
    for (const char* col : {"value", "count", "min", "max", "sum", "sumsq", "dc"})
      line += std::string(col) + "=" + std::string(r->getValue(sm.keyIndex(col))) + " ";
    byKey[r->getValue(sm.keyIndex("key"))].push_back(line);
  }
  EXPECT_EQ(byKey.count("_time"), 0u);
  // Distinct values stop being counted at 10000; 100 value rows at most.
  ASSERT_EQ(byKey["id"].size(), 101u);
  EXPECT_EQ(byKey["id"][0], "value= count=10050 min= max= sum= sumsq= dc=10000 ");
  // Numbers: 0..3 repeated; their values by frequency, then by text.
  ASSERT_EQ(byKey["n"].size(), 5u);
  EXPECT_EQ(byKey["n"][0], "value= count=10050 min=0 max=3 sum=15073 sumsq=35169 dc=4 ");
  EXPECT_EQ(byKey["n"][1], "value=0 count=2513 min= max= sum= sumsq= dc= ");
  EXPECT_EQ(byKey["n"][4], "value=3 count=2512 min= max= sum= sumsq= dc= ");
  // Only the numeric values enter the bounds and sums.
  ASSERT_EQ(byKey["mix"].size(), 3u);
  EXPECT_EQ(byKey["mix"][0], "value= count=5025 min=2.5 max=2.5 sum=6280 sumsq=15700 dc=2 ");
}

TEST(TimelinerTest, ReadEventsPagesThroughTheNumberedFilesByTime) {
  Dir d;
  Timeliner tl(d.path, 50, 0, 0);
  std::vector<long> all;
  // Chunks of 20, 80 and 10 events, newest first: files 0, 20 and 100
  // ("100.csv" comes after "20.csv", though not as text).
  long t = 1795000000;
  for (size_t n : {20, 80, 10}) {
    std::vector<long> chunk;
    for (size_t i = 0; i < n; ++i) chunk.push_back(t--);
    ASSERT_TRUE(tl.processResults(chunkOf(chunk)));
    all.insert(all.end(), chunk.begin(), chunk.end());
  }
  // Files that are not event files are left alone.
  for (const char* other : {"x.csv", "12a.csv", "60.csv.tmp", ".csv"}) {
    FILE* f = fopen((d.path / other).c_str(), "w");
    fputs("_time\n1\n", f);
    fclose(f);
  }
  struct Case {
    double et, lt;
    size_t offset, count;
    long first;  // the time of the first row given (0: none)
    size_t size;
  } cases[] = {
      {0, 0, 0, 0, 1795000000, 110},
      {0, 0, 15, 10, 1795000000 - 15, 10},     // across the first two files
      {0, 0, 95, 10, 1795000000 - 95, 10},     // across the last two
      {0, 0, 105, 30, 1795000000 - 105, 5},    // the tail
      {0, 0, 200, 10, 0, 0},                   // past the end
      {1795000000 - 49, 1795000000 - 9, 0, 0, 1795000000 - 10, 40},  // [et, lt)
      {1795000000 - 49, 1795000000 - 9, 5, 10, 1795000000 - 15, 10},
      {1795000000 - 5, 0, 0, 0, 1795000000, 6},  // open end
      {0, 1795000000 - 104, 0, 0, 1795000000 - 105, 5},  // open start
  };
  for (const Case& c : cases) {
    SearchResults out;
    bool any = Timeliner::readEvents(d.path, c.et, c.lt, c.offset, c.count, out);
    EXPECT_EQ(any, c.size > 0);
    ASSERT_EQ(out.size(), c.size) << c.et << " " << c.lt << " " << c.offset;
    if (c.size) {
      EXPECT_EQ(out.front()->getValue(out.keyIndex("_time")).toLong(0), c.first);
      // Consecutive: one second apart, newest first.
      EXPECT_EQ(out.back()->getValue(out.keyIndex("_time")).toLong(0), c.first - long(c.size) + 1);
    }
  }
  // No such files at all.
  Dir empty;
  SearchResults out;
  EXPECT_FALSE(Timeliner::readEvents(empty.path, 0, 0, 0, 0, out));
  EXPECT_FALSE(Timeliner::readTimeline(empty.path, out));
  EXPECT_FALSE(Timeliner::readSummary(empty.path, out));
}

}  // namespace
