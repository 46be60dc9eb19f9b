#include "pipeline/indexer/TimeInvertedIndex.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "libbundle/PropertiesMap.h"
#include "util/Exceptions.h"

namespace {

class TimeInvertedIndexTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/tii_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = Pathname(tmpl);
    PropertiesMap m;
    m.put("MAJOR", "\\s [ ] ,");
    m.put("MINOR", ". = :");
    cleaner = std::make_unique<GenericCleaner>(m);
  }
  void TearDown() override { dir.removeRecursive(); }

  void put(TimeInvertedIndex& idx, int32_t t, uint32_t addr, const char* host, const char* raw) {
    IndexableValue v(cleaner.get(), nullptr);
    v.setTime(t);
    v.setAddress(addr);
    uint32_t hostCode = uint32_t(idx.hosts().addWord(host, t));
    v.setCodes(hostCode, 0, 0);
    Str meta = Str("host::") + host;
    IndexableEvent ev;
    ev.meta = StrSegment(meta);
    ev.raw = raw;
    ASSERT_TRUE(idx.index(v, ev));
  }

  std::vector<uint32_t> addresses(TimeInvertedIndex& idx, std::vector<Str> a, std::vector<Str> o,
                                  std::vector<Str> n, int32_t lo = 0, int32_t hi = 2000000000) {
    std::vector<st_tsval> out;
    EXPECT_TRUE(idx.getValues(a, o, n, lo, hi, 100, 1000, out));
    std::vector<uint32_t> addrs;
    for (auto& v : out) addrs.push_back(v.address);
    return addrs;
  }

  Pathname dir;
  std::unique_ptr<GenericCleaner> cleaner;
};

TEST_F(TimeInvertedIndexTest, IndexQueryReopen) {
  {
    TimeInvertedIndex idx(dir, TimeInvertedIndex::Options());
    std::vector<st_tsval> out;
    EXPECT_FALSE(idx.index(*std::make_unique<IndexableValue>(cleaner.get(), nullptr), IndexableEvent()));
    idx.create(false);
    idx.create(false);  // logged, harmless
    put(idx, 100, 10, "web", "GET /a status=200");
    put(idx, 200, 20, "db", "slow query status=500");
    put(idx, 300, 30, "web", "GET /b status=500");
    EXPECT_EQ(addresses(idx, {"status=500"}, {}, {}), (std::vector<uint32_t>{30, 20}));
    EXPECT_EQ(addresses(idx, {"+get"}, {}, {"500"}), (std::vector<uint32_t>{10}));
    EXPECT_EQ(addresses(idx, {}, {"slow", "/b"}, {}), (std::vector<uint32_t>{30, 20}));
    EXPECT_EQ(addresses(idx, {"", "host::web"}, {}, {}), (std::vector<uint32_t>{30, 10}));
    EXPECT_EQ(addresses(idx, {}, {}, {}), (std::vector<uint32_t>{30, 20, 10}));
    EXPECT_EQ(addresses(idx, {}, {}, {}, 150, 250), (std::vector<uint32_t>{20}));
    EXPECT_EQ(addresses(idx, {"linecount::1", "meta::all"}, {}, {}).size(), 3u);
    idx.close();
    idx.close();  // logged once, nothing else
    EXPECT_FALSE(idx.isOpen());
  }
  TimeInvertedIndex again(dir, TimeInvertedIndex::Options());
  again.create(false);
  EXPECT_EQ(again.hosts().getCodeForWord("db"), 1);
  EXPECT_EQ(again.hosts().getTotalCount(), 3u);
  EXPECT_EQ(addresses(again, {"query"}, {}, {}), (std::vector<uint32_t>{20}));
  again.close();

  TimeInvertedIndex forced(dir, TimeInvertedIndex::Options());
  forced.create(true);
  EXPECT_EQ(forced.hosts().size(), 0u);
}

TEST_F(TimeInvertedIndexTest, ExportImportValues) {
  Pathname dump = dir / "__2.1tsval.out__";
  {
    TimeInvertedIndex idx(dir, TimeInvertedIndex::Options());
    idx.create(false);
    put(idx, 100, 10, "web", "a");
    put(idx, 200, 20, "db", "b");
    ASSERT_TRUE(idx.exportTsvals(dump, 0));
  }
  std::vector<st_tsval> vals;
  ASSERT_TRUE(TimeInvertedIndex::importTsvals(dump, vals));
  ASSERT_EQ(vals.size(), 2u);
  EXPECT_EQ(vals[0].time, 200);
  EXPECT_EQ(vals[0].address, 20u);
  EXPECT_EQ(vals[0].host, 1u);
  EXPECT_EQ(vals[1].address, 10u);

  std::string bytes;
  {
    std::ifstream in(dump.c_str(), std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(in), {});
  }
  ASSERT_EQ(bytes.size(), 16u + 2 * sizeof(st_tsval));
  for (std::string bad : {bytes.substr(0, bytes.size() - 1), bytes.substr(0, 12), std::string("TSVALS02") + bytes.substr(8)}) {
    std::ofstream((dir / "bad").c_str(), std::ios::binary) << bad;
    EXPECT_FALSE(TimeInvertedIndex::importTsvals(dir / "bad", vals));
    EXPECT_TRUE(vals.empty());
  }
  EXPECT_FALSE(TimeInvertedIndex::importTsvals(dir / "missing", vals));
}

TEST_F(TimeInvertedIndexTest, SyncFollowsTheCallersClock) {
  TimeInvertedIndex::Options o;
  o.syncPeriod = 30;
  TimeInvertedIndex idx(dir, o);
  EXPECT_FALSE(idx.doSyncIfNeeded(0));  // closed
  idx.create(false);
  EXPECT_TRUE(idx.doSyncIfNeeded(1000));
  EXPECT_FALSE(idx.doSyncIfNeeded(1029));
  EXPECT_TRUE(idx.doSyncIfNeeded(1030));
  EXPECT_FALSE(idx.doSyncIfNeeded(1031));
}

TEST_F(TimeInvertedIndexTest, OpenFailureThrows) {
  TimeInvertedIndex idx(dir / "no" / "such", TimeInvertedIndex::Options());
  EXPECT_THROW(idx.create(false), DbException);
}

TEST_F(TimeInvertedIndexTest, UncompressDirGunzipsSlices) {
  { std::ofstream((dir / "1-2-3.tsidx").c_str()) << "slice bytes"; }
  { std::ofstream((dir / "other.gz").c_str()) << "left alone"; }
  ASSERT_EQ(std::system(("gzip " + (dir / "1-2-3.tsidx")).c_str()), 0);
  EXPECT_TRUE(TimeInvertedIndex::uncompressDir(dir));
  EXPECT_TRUE((dir / "1-2-3.tsidx").exists());
  EXPECT_FALSE((dir / "1-2-3.tsidx.gz").exists());
  EXPECT_TRUE((dir / "other.gz").exists());
  { std::ofstream((dir / "bad.tsidx.gz").c_str()) << "not gzip"; }
  EXPECT_FALSE(TimeInvertedIndex::uncompressDir(dir));
}

// A stand-in optimiser that notes each start and then waits, at most a
// minute, for the index to end it or for a "release" file.
TEST_F(TimeInvertedIndexTest, OneOptimiserPerBucketAtATime) {
  Pathname bucket = dir / "bucket";
  ASSERT_TRUE(bucket.mkdir_p());
  const std::string d = dir;
  const std::string script = d + "/optimizer.sh";
  {
    std::ofstream f(script);
    f << "#!/bin/sh\n"
      << "echo start >> " << d << "/starts\n"
      << "i=0; while [ $i -lt 1200 ] && [ ! -e " << d << "/release ]; do sleep 0.05; i=$((i+1)); done\n"
      << "echo merged\n";
  }
  ASSERT_EQ(chmod(script.c_str(), 0755), 0);
  auto starts = [&] {
    std::ifstream f(d + "/starts");
    int n = 0;
    for (std::string l; std::getline(f, l);) ++n;
    return n;
  };
  // The stand-in notes its start a moment after it is spawned.
  auto awaitStarts = [&](int n) {
    for (int i = 0; i < 400 && starts() < n; ++i) usleep(25000);
    return starts();
  };
  TimeInvertedIndex::Options o;
  o.optimizer = script;
  o.maxConcurrentOptimizes = 6;
  o.waitForOptimize = 0;  // close ends the stand-in
  {
    TimeInvertedIndex idx(bucket, o);
    idx.create(false);
    put(idx, 100, 10, "web", "GET /a status=200");
    ASSERT_TRUE(idx.sync(100));
    ASSERT_TRUE(idx.optimize());
    EXPECT_FALSE(idx.optimize());  // in flight on this bucket
    EXPECT_EQ(idx.runningOptimizers(), 1u);
    EXPECT_EQ(awaitStarts(1), 1);
    // Another object on the same bucket may not start one either.
    TimeInvertedIndex other(bucket, o);
    other.openReadOnly();
    EXPECT_FALSE(other.optimize());
    other.close();
    // Nor a forced run at the close of a writer on it.
    TimeInvertedIndex writer(bucket, o);
    writer.create(false);
    writer.close(true);
    // Nor may a maxConcurrentOptimizes of 0 start any, on any bucket.
    Pathname quiet = dir / "quiet";
    ASSERT_TRUE(quiet.mkdir_p());
    TimeInvertedIndex::Options none = o;
    none.maxConcurrentOptimizes = 0;
    TimeInvertedIndex off(quiet, none);
    off.create(false);
    EXPECT_FALSE(off.optimize());
    off.close();
    idx.close();  // ends the optimiser and frees the bucket
  }
  EXPECT_EQ(starts(), 1);
  TimeInvertedIndex again(bucket, o);
  again.create(false);
  EXPECT_TRUE(again.optimize());
  EXPECT_EQ(awaitStarts(2), 2);
  // Once the running one has ended, the next may start.
  { std::ofstream(d + "/release") << ""; }
  again.waitForOptimizers();
  EXPECT_EQ(again.runningOptimizers(), 0u);
  EXPECT_TRUE(again.optimize());
  again.waitForOptimizers();
  again.close();
  EXPECT_EQ(starts(), 3);
}

}  // namespace
