// The results cache: entries made on demand and found again, the size
// account, eviction of the least recently accessed entries, removal while
// a handle holds an entry, and one handle at a time per entry.
#include "pipeline/indexer/search/SearchResultsCache.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

// Appends `n` rows of a 1000-byte value.
void fill(SearchResults& rs, int n) {
  sr_index_t k = rs.keyIndex("_raw", true);
  for (int i = 0; i < n; ++i) rs.addNewResult()->setValue(k, Str(1000, char('a' + i % 26)));
}

TEST(SearchResultsCacheTest, EntriesAreMadeOnDemandAndKeepTheirRows) {
  SearchResultsCache cache;
  EXPECT_EQ(cache.createResultsHandle("q1", false), nullptr);
  EXPECT_EQ(cache.getEntryCount(), 0u);
  {
    auto h = cache.createResultsHandle("q1", true);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->queryId(), "q1");
    EXPECT_TRUE(h->results().empty());
    fill(h->results(), 3);
  }
  {
    auto h = cache.createResultsHandle("q1", false);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->results().size(), 3u);
    EXPECT_EQ(SRCacheEntry::measure(h->results()), cache.getCacheSize());
  }
  EXPECT_GT(cache.getCacheSize(), 3000u);
  EXPECT_EQ(cache.createResultsHandle("q2", false), nullptr);

  EXPECT_FALSE(cache.remove("nope"));
  EXPECT_TRUE(cache.remove("q1"));
  EXPECT_EQ(cache.createResultsHandle("q1", false), nullptr);
  EXPECT_EQ(cache.getCacheSize(), 0u);

  for (const char* id : {"a", "b", "c"}) fill(cache.createResultsHandle(id, true)->results(), 1);
  EXPECT_EQ(cache.getEntryCount(), 3u);
  cache.clear();
  EXPECT_EQ(cache.getEntryCount(), 0u);
  EXPECT_EQ(cache.getCacheSize(), 0u);
}

// Room for about three entries of ten rows: the fourth evicts the entry
// accessed longest ago, not the one made first.
TEST(SearchResultsCacheTest, EvictsLeastRecentlyAccessedFirst) {
  size_t entryBytes;
  {
    SearchResults probe;
    fill(probe, 10);
    entryBytes = SRCacheEntry::measure(probe);
  }
  SearchResultsCache cache(3 * entryBytes + entryBytes / 2);
  for (const char* id : {"e1", "e2", "e3"}) fill(cache.createResultsHandle(id, true)->results(), 10);
  EXPECT_EQ(cache.getEntryCount(), 3u);
  EXPECT_LE(cache.getCacheSize(), cache.getMaxBytes());

  ASSERT_NE(cache.createResultsHandle("e1", false), nullptr);  // e1 is now the most recent
  fill(cache.createResultsHandle("e4", true)->results(), 10);
  EXPECT_EQ(cache.getEntryCount(), 3u);
  EXPECT_EQ(cache.createResultsHandle("e2", false), nullptr);
  EXPECT_NE(cache.createResultsHandle("e1", false), nullptr);
  EXPECT_NE(cache.createResultsHandle("e3", false), nullptr);
  EXPECT_NE(cache.createResultsHandle("e4", false), nullptr);
  EXPECT_LE(cache.getCacheSize(), cache.getMaxBytes());

  // One entry larger than the whole bound is not kept past its handle.
  fill(cache.createResultsHandle("huge", true)->results(), 40);
  EXPECT_EQ(cache.createResultsHandle("huge", false), nullptr);
  EXPECT_LE(cache.getCacheSize(), cache.getMaxBytes());
}

// A handle keeps its rows when the entry is removed or evicted meanwhile;
// the id then names a fresh entry.
TEST(SearchResultsCacheTest, RemovalWhileHeldLeavesTheHandleWorking) {
  SearchResultsCache cache;
  auto h = cache.createResultsHandle("q", true);
  fill(h->results(), 2);
  EXPECT_TRUE(cache.remove("q"));
  fill(h->results(), 1);
  EXPECT_EQ(h->results().size(), 3u);
  auto fresh = cache.createResultsHandle("q", true);  // another entry: no wait
  EXPECT_TRUE(fresh->results().empty());
  fresh.reset();
  h.reset();
  auto again = cache.createResultsHandle("q", false);
  ASSERT_NE(again, nullptr);
  EXPECT_TRUE(again->results().empty());
}

// While one handle holds an entry a second one waits; it then sees what
// the first wrote. Handles of other entries do not wait, and a thread
// holding a handle may use the cache.
TEST(SearchResultsCacheTest, OneHandleAtATimePerEntry) {
  SearchResultsCache cache;
  auto h = cache.createResultsHandle("shared", true);
  std::atomic<bool> got{false};
  size_t seen = 0;
  std::thread t([&] {
    auto second = cache.createResultsHandle("shared", false);
    if (second) seen = second->results().size();
    got = true;
  });
  // Give the second handle every chance to get in too early.
  for (int i = 0; i < 20 && !got; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  bool early = got.load();
  {
    auto other = cache.createResultsHandle("other", true);  // no wait on another entry
    fill(other->results(), 1);
    EXPECT_EQ(cache.getEntryCount(), 2u);
  }
  fill(h->results(), 2);
  h.reset();
  t.join();
  EXPECT_FALSE(early);
  EXPECT_EQ(seen, 2u);
}

}  // namespace
