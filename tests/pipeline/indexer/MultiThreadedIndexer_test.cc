// Indexing threads and background optimisers of a TimeInvertedIndex: what
// the threads index must be found exactly as if the caller's thread had
// indexed it, through full queues, large texts, syncs and closes.
#include "pipeline/indexer/MultiThreadedIndexer.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "libbundle/PropertiesMap.h"
#include "pipeline/indexer/TimeInvertedIndex.h"
#include "util/MainThread.h"

namespace {

class MThread : public MainThread {};

class MultiThreadedIndexerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    static MThread mainThread;
    char tmpl[] = "/tmp/mti_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    root = Pathname(tmpl);
    PropertiesMap m;
    m.put("MAJOR", "\\s [ ] ,");
    m.put("MINOR", ". = : /");
    cleaner = std::make_unique<GenericCleaner>(m);
  }
  void TearDown() override { root.removeRecursive(); }

  Pathname makeDir(const char* name) {
    Pathname d = root / name;
    EXPECT_TRUE(d.mkdir_p());
    return d;
  }

  static std::string text(uint32_t i) {
    static const char* kWords[] = {"alpha", "beta", "gamma", "delta", "omega"};
    return "user=u" + std::to_string(i % 97) + " GET /item/" + std::to_string(i % 1013) + " " + kWords[i % 5] +
           " status=" + std::to_string(200 + (i % 4) * 100) + " id" + std::to_string(i);
  }

  void put(TimeInvertedIndex& idx, uint32_t i, const std::string& raw) {
    IndexableValue v(cleaner.get(), nullptr);
    v.setTime(int32_t(1000 + i / 10));
    v.setAddress(i);
    v.setCodes(1 + i % 3, 1, 1);
    std::string meta = "host::h" + std::to_string(i % 3);
    std::pair<StrSegment, StrSegment> field(StrSegment("k", 1), StrSegment("fieldvalue", 10));
    IndexableEvent ev;
    ev.meta = StrSegment(meta.data(), meta.size());
    ev.raw = StrSegment(raw.data(), raw.size());
    ev.fields = std::span<const std::pair<StrSegment, StrSegment>>(&field, 1);
    ASSERT_TRUE(idx.index(v, ev));
  }

  std::vector<uint32_t> find(TimeInvertedIndex& idx, std::vector<Str> terms, uint32_t capacity = 200000) {
    std::vector<st_tsval> out;
    EXPECT_TRUE(idx.getValues(terms, {}, {}, 0, 2000000000, capacity, ++clock, out));
    std::vector<uint32_t> addrs;
    for (auto& v : out) addrs.push_back(v.address);
    return addrs;
  }

  // Moves the index's sync clock a full period on, so the next call flushes.
  void sync(TimeInvertedIndex& idx) { ASSERT_TRUE(idx.doSyncIfNeeded(clock += 1000)); }

  static size_t slices(const Pathname& d) {
    std::vector<Str> names;
    d.readDirectory(names);
    size_t n = 0;
    for (const Str& s : names) n += s.endswith(".tsidx");
    return n;
  }

  Pathname root;
  std::unique_ptr<GenericCleaner> cleaner;
  int64_t clock = 100000;
};

TEST_F(MultiThreadedIndexerTest, ThreadsFindWhatTheCallersThreadFinds) {
  TimeInvertedIndex::Options direct;
  TimeInvertedIndex::Options threaded;
  threaded.indexThreads = 3;
  TimeInvertedIndex a(makeDir("direct"), direct), b(makeDir("threaded"), threaded);
  a.create(false);
  b.create(false);
  EXPECT_EQ(a.dispatcherCount(), 0u);
  EXPECT_EQ(b.dispatcherCount(), 3u);
  // More than the wake-up threshold of every thread, so batches are taken
  // while events still arrive.
  const uint32_t n = 100000;
  for (uint32_t i = 0; i < n; ++i) {
    std::string raw = text(i);
    put(a, i, raw);
    put(b, i, raw);
  }
  sync(a);
  sync(b);
  for (std::vector<Str> q : std::vector<std::vector<Str>>{
           {}, {"alpha"}, {"status=300", "host::h2"}, {"id4242"}, {"/item/7"}, {"fieldvalue", "u5"}, {"linecount::1"}}) {
    std::vector<uint32_t> x = find(a, q), y = find(b, q);
    EXPECT_EQ(x, y) << (q.empty() ? "(all)" : q[0]);
    EXPECT_FALSE(x.empty());
  }
  EXPECT_EQ(find(b, {}).size(), n);
  // Each thread wrote slices of its own.
  EXPECT_GE(slices(b.getPath()), 3u);
  a.close();
  b.close();
}

TEST_F(MultiThreadedIndexerTest, FullQueuesAndLargeTextsLoseNothing) {
  TimeInvertedIndex::Options o;
  o.indexThreads = 1;
  Pathname d = makeDir("full");
  TimeInvertedIndex idx(d, o);
  idx.create(false);
  // Past 20000 queued events the producer waits for the thread.
  const uint32_t n = 65000;
  for (uint32_t i = 0; i < n; ++i) put(idx, i, text(i));
  // Texts of 1 MB: the byte limit, not the count, wakes the thread.
  std::string big(1 << 20, 'z');
  for (uint32_t i = 0; i < 24; ++i) {
    big.replace(0, 12, "bigword" + std::to_string(10000 + i) + " ");
    put(idx, n + i, big);
  }
  sync(idx);
  EXPECT_EQ(find(idx, {}).size(), n + 24);
  EXPECT_EQ(find(idx, {"bigword10007"}), std::vector<uint32_t>{n + 7});
  EXPECT_EQ(find(idx, {"id64999"}), std::vector<uint32_t>{64999});
  idx.close();
}

TEST_F(MultiThreadedIndexerTest, CloseDrainsTheQueues) {
  TimeInvertedIndex::Options o;
  o.indexThreads = 2;
  Pathname d = makeDir("drain");
  {
    TimeInvertedIndex idx(d, o);
    idx.create(false);
    for (uint32_t i = 0; i < 5000; ++i) put(idx, i, text(i));  // below every threshold
    idx.close();
    EXPECT_EQ(idx.dispatcherCount(), 0u);
    IndexableValue v(cleaner.get(), nullptr);
    EXPECT_FALSE(idx.index(v, IndexableEvent()));  // closed: refused, not queued
  }
  TimeInvertedIndex again(d, TimeInvertedIndex::Options());
  again.create(false);
  EXPECT_EQ(find(again, {}).size(), 5000u);
  EXPECT_EQ(find(again, {"beta", "status=500"}).size(), 250u);
  again.close();
}

TEST_F(MultiThreadedIndexerTest, OptimiserRunsInTheBackgroundAndCloseForcesOneSlice) {
  const std::string optimizer = VELMOR_BINARY_DIR "/bin/velmor-optimize";
  if (access(optimizer.c_str(), X_OK) != 0) GTEST_SKIP() << "velmor-optimize not built";
  TimeInvertedIndex::Options o;
  o.optimizer = optimizer;
  o.waitForOptimize = 1;
  Pathname d = makeDir("opt");
  TimeInvertedIndex idx(d, o);
  EXPECT_FALSE(idx.optimize());  // closed
  idx.create(false);
  for (uint32_t round = 0; round < 4; ++round) {
    for (uint32_t i = round * 1000; i < (round + 1) * 1000; ++i) put(idx, i, text(i));
    sync(idx);
  }
  ASSERT_GE(slices(d), 4u);
  std::vector<uint32_t> before = find(idx, {"gamma"});
  EXPECT_TRUE(idx.optimize());
  idx.close(true);
  EXPECT_EQ(idx.runningOptimizers(), 0u);
  EXPECT_EQ(slices(d), 1u);
  TimeInvertedIndex again(d, TimeInvertedIndex::Options());
  again.create(false);
  EXPECT_EQ(find(again, {"gamma"}), before);
  again.close();
}

TEST_F(MultiThreadedIndexerTest, OptimiserLimitsAndStartFailures) {
  Pathname d = makeDir("limits");
  TimeInvertedIndex::Options none;
  none.maxConcurrentOptimizes = 0;
  {
    TimeInvertedIndex idx(d, none);
    idx.create(false);
    EXPECT_FALSE(idx.optimize());  // "already running": the limit is 0
    idx.close();
  }
  TimeInvertedIndex::Options missing;
  missing.optimizer = "/nonexistent/velmor-optimize";
  TimeInvertedIndex idx(d, missing);
  idx.create(false);
  EXPECT_FALSE(idx.optimize());
  EXPECT_EQ(idx.runningOptimizers(), 0u);
  idx.close(true);  // the forced run fails to start: logged, nothing else
  EXPECT_FALSE(idx.isOpen());
}

TEST_F(MultiThreadedIndexerTest, PrefixLookupCountsPostings) {
  TimeInvertedIndex idx(makeDir("prefix"), TimeInvertedIndex::Options());
  idx.create(false);
  for (uint32_t i = 0; i < 400; ++i) put(idx, i, text(i));
  sync(idx);
  std::vector<std::pair<Str, uint64_t>> words;
  ASSERT_TRUE(idx.getMatchingWordsAndCountsForPrefix("status=", 10, words));
  ASSERT_EQ(words.size(), 4u);
  EXPECT_EQ(words[0].first, "status=200");
  EXPECT_EQ(words[0].second, 100u);
  EXPECT_EQ(words[3].first, "status=500");
  ASSERT_TRUE(idx.getMatchingWordsAndCountsForPrefix("status=", 2, words));
  EXPECT_EQ(words.size(), 2u);
  ASSERT_TRUE(idx.getMatchingWordsAndCountsForPrefix("nosuchprefix", 10, words));
  EXPECT_TRUE(words.empty());
  idx.close();
}

}  // namespace
