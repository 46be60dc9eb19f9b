#include "pipeline/indexer/DatabasePartitionPolicy.h"
#include "pipeline/indexer/TimeInvertedIndex.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <set>

#include "../../util/StderrCapture.h"
#include "libbundle/PropertiesMap.h"
#include "pipeline/indexer/LockContainer.h"
#include "searchthing/lock.h"
#include "util/Exceptions.h"
#include "util/MainThread.h"

namespace {

const int64_t kBase = 1700000000;

class PolicyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!MainThread::instance()) new MainThread();
    setenv("VELMOR_ST_NEVER_FORK", "1", 1);
    char tmpl[] = "/tmp/dbpolicy_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    root = Pathname(tmpl);
  }
  void TearDown() override { root.removeRecursive(); }

  PolicyParameters params(const Pathname& at, const char* extraKey = nullptr, const char* extraValue = nullptr) {
    PropertiesMap m;
    m.put("homePath", at / "db");
    m.put("coldPath", at / "colddb");
    m.put("thawedPath", at / "thaweddb");
    m.put("maxResults", "100000");
    m.put("compressRawdata", "false");
    m.put("maxDataSize", "0");
    m.put("maxTotalDataSizeMB", "0");
    m.put("rotatePeriodInSecs", "0");  // every tick checks the rotation
    m.put("optimizeEvery", "0");
    m.put("frozenTimePeriodInSecs", "0");
    if (extraKey) m.put(extraKey, extraValue);
    PolicyParameters p = PolicyParameters::fromStanza("test", m);
    p.syncPeriod = 0;  // every query sees every event
    return p;
  }

  static Str rawOf(int i) { return Str::fromFormat("event %d user=u%d status=%d", i, i % 10, 200 + i % 3); }

  // Event i at time kBase + i.
  static bool put(DatabasePartitionPolicy& p, int i, const char* host = "web1") {
    Str raw = rawOf(i);
    Str t = Str::fromFormat("%lld", (long long)(kBase + i));
    WritableEvent ev;
    ev.raw = StrSegment(raw);
    ev.time = StrSegment(t);
    ev.host = host;
    ev.source = "/var/log/app.log";
    ev.sourceType = "app";
    return p.write(ev);
  }

  // Raw texts found by a query, in the order given.
  static std::vector<std::string> found(DatabasePartitionPolicy& p, std::vector<Str> andTerms,
                                        size_t count = 100000, size_t skip = 0) {
    std::vector<ValueWrapper> vals;
    EXPECT_TRUE(p.query(andTerms, {}, {}, INT32_MIN, INT32_MAX, count, vals, skip));
    std::vector<DataWrapper> data;
    std::vector<bool> ok;
    p.read(vals, data, ok, 3);
    std::vector<std::string> out;
    for (size_t i = 0; i < vals.size(); ++i) {
      EXPECT_TRUE(ok[i]);
      EXPECT_EQ(data[i].time, vals[i].time);
      out.push_back(data[i].raw);
    }
    return out;
  }

  // Expected raw texts of events [from, to) newest first, keeping those i
  // with keep(i).
  template <typename F>
  static std::vector<std::string> newestFirst(int from, int to, F keep) {
    std::vector<std::string> out;
    for (int i = to - 1; i >= from; --i)
      if (keep(i)) out.push_back(rawOf(i));
    return out;
  }
  static std::vector<std::string> newestFirst(int from, int to) {
    return newestFirst(from, to, [](int) { return true; });
  }

  static size_t warmCount(DatabasePartitionPolicy& p) {
    ScopedReader r(p.tableLock());
    return p.table().warm.size();
  }
  static size_t rolledCount(DatabasePartitionPolicy& p) {
    ScopedReader r(p.tableLock());
    return p.table().warm.size() + p.table().cold.size();
  }
  static size_t coldCount(DatabasePartitionPolicy& p) {
    ScopedReader r(p.tableLock());
    return p.table().cold.size();
  }

  Pathname root;
};

// Size rolls (driven by the tick) and address-space rolls (inside write)
// both leave every event findable exactly once, newest first, across the
// buckets; with query threads the answers are the same.
TEST_F(PolicyTest, RolledBucketsAnswerNewestFirst) {
  for (long queryThreads : {0L, 3L}) {
    Pathname at = root / Str::fromFormat("q%ld", queryThreads);
    PolicyParameters p = params(at);
    p.maxDataSizeBytes = 48 * 1024;
    p.queryThreads = queryThreads;
    DatabasePartitionPolicy policy(p);
    policy.start();
    int64_t now = kBase;
    for (int i = 0; i < 1500; ++i) {
      ASSERT_TRUE(put(policy, i));
      if (i % 100 == 99) policy.service(++now);
    }
    size_t bySize = rolledCount(policy);
    EXPECT_GE(bySize, 2u);

    // A low address limit rolls the hot bucket from inside write.
    PolicyParameters q = policy.getPolicyParameters();
    q.addressRollThreshold = 200;
    policy.setPolicy(q);
    for (int i = 1500; i < 2000; ++i) ASSERT_TRUE(put(policy, i));
    EXPECT_GE(rolledCount(policy), bySize + 2);
    EXPECT_EQ(warmCount(policy), 5u);  // the oldest went cold

    EXPECT_EQ(found(policy, {}), newestFirst(0, 2000));
    EXPECT_EQ(found(policy, {"u7"}), newestFirst(0, 2000, [](int i) { return i % 10 == 7; }));
    EXPECT_EQ(found(policy, {"u7", "202"}), newestFirst(0, 2000, [](int i) { return i % 10 == 7 && i % 3 == 2; }));
    std::vector<std::string> page = found(policy, {}, 25, 1490);  // a page across bucket borders
    std::vector<std::string> all = newestFirst(0, 2000);
    EXPECT_EQ(page, std::vector<std::string>(all.begin() + 1490, all.begin() + 1515));

    std::vector<ValueWrapper> vals;
    ASSERT_TRUE(policy.query({}, {}, {}, int32_t(kBase + 100), int32_t(kBase + 109), 100, vals));
    ASSERT_EQ(vals.size(), 10u);
    uint32_t id, addr;
    ASSERT_TRUE(ValueWrapper::parseCd(StrSegment(vals[0].cd()), id, addr));
    EXPECT_EQ(id, vals[0].bucketId);
    EXPECT_EQ(addr, vals[0].address);
    EXPECT_NE(policy.getOpenedDBById(id), nullptr);
    EXPECT_EQ(policy.getTotalEventCount(), 2000u);
  }
}

TEST_F(PolicyTest, RotationRollsOnlyANonEmptyHotBucket) {
  DatabasePartitionPolicy policy(params(root));  // maxDataSize 0: every rotation rolls
  policy.start();
  policy.service(kBase);
  policy.service(kBase + 1);
  EXPECT_EQ(warmCount(policy), 0u);
  ASSERT_TRUE(put(policy, 1));
  policy.service(kBase + 2);
  EXPECT_EQ(warmCount(policy), 1u);
  policy.service(kBase + 3);
  EXPECT_EQ(warmCount(policy), 1u);
  EXPECT_FALSE(policy.rollHotDb());
  EXPECT_TRUE((root / "db" / TEDB::makeName(kBase + 1, kBase + 1, 0)).isDir());

  // Blank events are dropped; an event without a time takes the last one.
  WritableEvent blank;
  blank.raw = " \t\n";
  EXPECT_FALSE(policy.write(blank));
  WritableEvent untimed;
  untimed.raw = "no time here";
  ASSERT_TRUE(policy.write(untimed));
  std::vector<ValueWrapper> vals;
  ASSERT_TRUE(policy.query({"here"}, {}, {}, INT32_MIN, INT32_MAX, 10, vals));
  ASSERT_EQ(vals.size(), 1u);
  EXPECT_EQ(vals[0].time, kBase + 1);
  DataWrapper d;
  ASSERT_TRUE(policy.read(vals[0], d));
  EXPECT_EQ(d.host, "localhost");
  EXPECT_EQ(d.source, "unknown");
  EXPECT_EQ(d.sourceType, "unknown1");
  EXPECT_EQ(d.meta, "host::localhost source::unknown sourcetype::unknown1");
}

class ScriptTest : public PolicyTest {
 protected:
  Pathname script(const char* name, const char* body) {
    Pathname path = root / name;
    std::ofstream(path.c_str()) << "#!/bin/sh\n" << body << "\n";
    chmod(path.c_str(), 0755);
    return path;
  }
  // Writes buckets of 10 events each: bucket b holds events [10b, 10b+10)
  // of host "even" or "odd" by b.
  void fill(DatabasePartitionPolicy& policy, int from, int to) {
    for (int b = from; b < to; ++b) {
      for (int i = 10 * b; i < 10 * b + 10; ++i) ASSERT_TRUE(put(policy, i, b % 2 ? "odd" : "even"));
      ASSERT_TRUE(policy.rollHotDb());
    }
  }
  static uint64_t hostCount(DatabasePartitionPolicy& p, const char* host) {
    for (const auto& r : p.getHosts())
      if (r.word == host) return r.count;
    return 0;
  }
};

// Warm buckets past maxWarmDBCount go cold through the move script (or, when
// it fails, through a plain move); old cold buckets freeze through the
// archive script. A failed archive keeps the bucket and its counts.
TEST_F(ScriptTest, WarmToColdToFrozenThroughScripts) {
  Pathname archive = root / "archive";
  ASSERT_TRUE(archive.mkdir());
  PolicyParameters p = params(root / "idx");
  p.maxWarmDBCount = 1;
  p.warmToColdScript = script("move.sh", "mv \"$1\" \"$2\" && echo \"$2\" >> \"$(dirname \"$0\")/moved\"");
  DatabasePartitionPolicy policy(p);
  policy.start();
  fill(policy, 0, 3);  // 0 and 1 are cold now
  EXPECT_EQ(warmCount(policy), 1u);
  EXPECT_EQ(coldCount(policy), 2u);
  std::ifstream moved((root / "moved").c_str());
  std::string first;
  std::getline(moved, first);
  EXPECT_EQ(first, root / "idx" / "colddb" / TEDB::makeName(kBase + 9, kBase, 0));

  // A failing move script falls back to moving the directory itself.
  p = policy.getPolicyParameters();
  p.warmToColdScript = script("nomove.sh", "exit 4");
  policy.setPolicy(p);
  fill(policy, 3, 4);  // bucket 2 goes cold
  EXPECT_EQ(coldCount(policy), 3u);
  EXPECT_TRUE((root / "idx" / "colddb" / TEDB::makeName(kBase + 29, kBase + 20, 2)).isDir());
  EXPECT_EQ(found(policy, {"u3"}).size(), 4u);  // cold buckets are opened for the search

  // Freezing by age is strict: an end time exactly at the limit stays.
  p.frozenTimePeriodInSecs = 1000;
  p.coldToFrozenScript = script("fail.sh", "exit 3");
  policy.setPolicy(p);
  uint64_t even = hostCount(policy, "even");
  ASSERT_EQ(even, 20u);
  policy.service(kBase + 9 + 1000);  // not past bucket 0's end
  EXPECT_EQ(coldCount(policy), 3u);
  policy.service(kBase + 9 + 1001);  // bucket 0 is due, but the archive fails
  EXPECT_EQ(coldCount(policy), 3u);
  EXPECT_EQ(hostCount(policy, "even"), even);
  EXPECT_TRUE((root / "idx" / "colddb" / TEDB::makeName(kBase + 9, kBase, 0)).isDir());

  p.coldToFrozenScript = Str("cp -R $DIR ") + archive;
  policy.setPolicy(p);
  policy.service(kBase + 9 + 1002);
  EXPECT_TRUE(policy.validate());
  EXPECT_EQ(coldCount(policy), 2u);
  EXPECT_FALSE((root / "idx" / "colddb" / TEDB::makeName(kBase + 9, kBase, 0)).exists());
  EXPECT_TRUE((archive / TEDB::makeName(kBase + 9, kBase, 0) / "rawdata").isDir());
  EXPECT_EQ(hostCount(policy, "even"), even - 10);
  EXPECT_EQ(found(policy, {}), newestFirst(10, 40));
  EXPECT_TRUE(policy.validate());

  // A script that takes the bucket away and then fails leaves nothing to
  // recover: the bucket leaves the lists, which still match the directories.
  Pathname lost = root / "lost";
  p.coldToFrozenScript = Str("mv $DIR ") + lost + "; exit 5";
  policy.setPolicy(p);
  policy.service(kBase + 19 + 1001);
  EXPECT_EQ(coldCount(policy), 1u);
  EXPECT_TRUE(lost.isDir());
  EXPECT_TRUE(policy.validate());
  EXPECT_EQ(found(policy, {}), newestFirst(20, 40));
}

// A copy of the index taken after a sync, while the policy goes on writing,
// put back in place once the policy is gone, stands for a crash: it reopens
// with the stale hot bucket, and every event synced before is found exactly
// once, also when the metadata manifest is gone and the global tables are
// rebuilt from the buckets.
TEST_F(PolicyTest, ReopenAfterCrashFindsSyncedEventsOnce) {
  unsetenv("VELMOR_ST_NEVER_FORK");  // queries run in forked engines, as in service
  Pathname live = root / "live", snapshot = root / "snapshot";
  {
    DatabasePartitionPolicy policy(params(live));
    policy.start();
    for (int i = 0; i < 300; ++i) ASSERT_TRUE(put(policy, i));
    ASSERT_TRUE(policy.rollHotDb());
    for (int i = 300; i < 500; ++i) ASSERT_TRUE(put(policy, i));
    policy.sync(true);
    ASSERT_TRUE(live.copyToRecursive(snapshot));
    for (int i = 500; i < 520; ++i) ASSERT_TRUE(put(policy, i));
  }
  for (bool dropManifest : {false, true}) {
    ASSERT_TRUE(live.removeRecursive());
    ASSERT_TRUE(snapshot.copyToRecursive(live));
    ASSERT_TRUE((live / "db" / "db-hot").isDir());
    if (dropManifest) {
      ASSERT_TRUE((live / "db" / ".metaManifest").unlink());
    }
    DatabasePartitionPolicy reopened(params(live));
    reopened.start();
    EXPECT_EQ(found(reopened, {}), newestFirst(0, 500)) << dropManifest;
    EXPECT_EQ(reopened.getTotalEventCount(), 500u) << dropManifest;
    // The reopened hot bucket goes on taking events.
    ASSERT_TRUE(put(reopened, 600));
    EXPECT_EQ(found(reopened, {}, 1), std::vector<std::string>{rawOf(600)});
    ASSERT_TRUE(reopened.rollHotDb());
    EXPECT_EQ(found(reopened, {"u3"}).size(), 50u);
  }
}

// A bucket holding a value dump is re-indexed from its raw data at start:
// with every slice gone, the events are found again by their words, the
// dump is marked done and the work directory is gone. A dump that cannot
// be read leaves the bucket as it is, to be tried again.
TEST_F(PolicyTest, ValueDumpRebuildsALostIndex) {
  Pathname live = root / "live";
  Pathname bucket;
  {
    DatabasePartitionPolicy policy(params(live));
    policy.start();
    for (int i = 0; i < 300; ++i) ASSERT_TRUE(put(policy, i));
    ASSERT_TRUE(policy.rollHotDb());
    ScopedReader r(policy.tableLock());
    ASSERT_EQ(policy.table().warm.size(), 1u);
    bucket = policy.table().warm.front()->path();
  }
  {
    TimeInvertedIndex index(bucket, TimeInvertedIndex::Options());
    index.create(false);
    ASSERT_TRUE(index.exportTsvals(bucket / "__2.0tsval.out__", 0));
    index.close();
  }
  std::vector<Str> names;
  ASSERT_TRUE(bucket.readDirectory(names));
  size_t slices = 0;
  for (const Str& n : names)
    if (n.endswith(".tsidx") && (bucket / n).unlink()) ++slices;
  ASSERT_GT(slices, 0u);

  // Cut short, the dump is refused and stays for the next start.
  ASSERT_TRUE((bucket / "__2.0tsval.out__").copyTo(root / "dump"));
  ASSERT_TRUE((bucket / "__2.0tsval.out__").truncate(20));
  {
    DatabasePartitionPolicy reopened(params(live));
    reopened.start();
    EXPECT_TRUE(found(reopened, {"u3"}).empty());
  }
  EXPECT_TRUE((bucket / "__2.0tsval.out__").exists());

  ASSERT_TRUE((root / "dump").renameTo(bucket / "__2.0tsval.out__"));
  DatabasePartitionPolicy reopened(params(live));
  reopened.start();
  EXPECT_EQ(found(reopened, {"u3"}), newestFirst(0, 300, [](int i) { return i % 10 == 3; }));
  EXPECT_EQ(found(reopened, {"host::web1", "201"}), newestFirst(0, 300, [](int i) { return i % 3 == 1 || i == 201; }));
  EXPECT_FALSE((bucket / "__2.0tsval.out__").exists());
  EXPECT_TRUE((bucket / "__2.1tsval.out__").exists());
  EXPECT_FALSE((bucket / "rebuild.tmp").exists());
}

// Shutdown is finished by the service tick (here the policy's own thread):
// everything is synced and closed, and writes and queries are refused.
TEST_F(PolicyTest, ShutdownCompletesOnTheServiceThread) {
  DatabasePartitionPolicy policy(params(root));
  policy.start();
  ASSERT_TRUE(put(policy, 1));
  policy.signalShutdown();
  EXPECT_FALSE(put(policy, 2));
  std::vector<ValueWrapper> vals;
  EXPECT_FALSE(policy.query({}, {}, {}, INT32_MIN, INT32_MAX, 10, vals));
  policy.startServiceThread();
  EXPECT_TRUE(policy.waitForShutdownComplete(60));
  policy.stopServiceThread();

  DatabasePartitionPolicy reopened(params(root));
  reopened.start();
  EXPECT_EQ(found(reopened, {}), std::vector<std::string>{rawOf(1)});
}

// Searches open cold buckets on need; the service tick closes the oldest
// opened ones beyond maxColdDBCount, and later searches open them again.
TEST_F(PolicyTest, ColdOpenQueueIsBoundedAndReopensOnNeed) {
  PolicyParameters p = params(root);
  p.maxWarmDBCount = 0;
  p.maxColdDBCount = 1;
  p.rotatePeriodInSecs = 1000000;
  DatabasePartitionPolicy policy(p);
  policy.start();
  for (int b = 0; b < 3; ++b) {
    for (int i = 10 * b; i < 10 * b + 10; ++i) ASSERT_TRUE(put(policy, i));
    ASSERT_TRUE(policy.rollHotDb());
  }
  auto openCold = [&] {
    ScopedReader r(policy.tableLock());
    size_t n = 0;
    for (auto& b : policy.table().cold) n += b->isOpen();
    EXPECT_EQ(n, policy.table().coldOpen.size());
    return n;
  };
  EXPECT_EQ(coldCount(policy), 3u);
  EXPECT_EQ(openCold(), 0u);
  EXPECT_EQ(found(policy, {}), newestFirst(0, 30));
  EXPECT_EQ(openCold(), 3u);
  for (int t = 1; t <= 30; ++t) policy.service(kBase + t);
  EXPECT_EQ(openCold(), 1u);
  EXPECT_EQ(found(policy, {"u4"}), newestFirst(0, 30, [](int i) { return i % 10 == 4; }));
}

// A bucket put back by hand into the thawed directory is listed by a rescan,
// and one whose id is already taken gets a fresh id (and name).
TEST_F(PolicyTest, RescanListsThawedBucketsAndResolvesIdCollisions) {
  PolicyParameters p = params(root / "idx");
  DatabasePartitionPolicy policy(p);
  policy.start();
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(put(policy, i));
  ASSERT_TRUE(policy.rollHotDb());  // bucket id 0
  Pathname warm = p.homePath / TEDB::makeName(kBase + 9, kBase, 0);
  ASSERT_TRUE(warm.isDir());
  ASSERT_TRUE(warm.copyToRecursive(p.thawedPath / TEDB::makeName(kBase + 9, kBase, 0)));
  policy.rescanDirectories();
  EXPECT_FALSE((p.thawedPath / TEDB::makeName(kBase + 9, kBase, 0)).exists());
  EXPECT_TRUE((p.thawedPath / TEDB::makeName(kBase + 9, kBase, 2)).isDir());  // hot has id 1
  EXPECT_TRUE(policy.validate());
  // Both copies answer; the thawed one reads back from its own directory.
  std::vector<std::string> twice;
  for (int i = 9; i >= 0; --i) {
    twice.push_back(rawOf(i));
    twice.push_back(rawOf(i));
  }
  EXPECT_EQ(found(policy, {}), twice);
  EXPECT_EQ(policy.getTotalEventCount(), 20u);
}

// Reopened with a hot bucket and a warm one of id 0, the index keeps every
// name: the hot bucket, opened first, holds no id the warm one must give up.
TEST_F(PolicyTest, ReopeningKeepsBucketNamesAndIds) {
  PolicyParameters p = params(root / "idx");
  {
    DatabasePartitionPolicy policy(p);
    policy.start();
    for (int i = 0; i < 10; ++i) ASSERT_TRUE(put(policy, i));
    ASSERT_TRUE(policy.rollHotDb());  // bucket id 0
    ASSERT_TRUE(put(policy, 10));     // into the new hot bucket
  }
  Pathname warm = p.homePath / TEDB::makeName(kBase + 9, kBase, 0);
  ASSERT_TRUE(warm.isDir());
  StderrCapture cap((root / "stderr").c_str());
  DatabasePartitionPolicy reopened(p);
  reopened.start();
  std::string log = cap.text();
  EXPECT_EQ(log.find("is taken"), std::string::npos) << log;
  EXPECT_TRUE(warm.isDir());
  EXPECT_EQ(found(reopened, {}), newestFirst(0, 11));
  ASSERT_TRUE(reopened.rollHotDb());
  EXPECT_TRUE(reopened.validate());
  EXPECT_TRUE(warm.isDir());
}

TEST_F(PolicyTest, RollsTakeDirectoryLocksHomeColdThawed) {
  DatabasePartitionPolicy policy(params(root));
  policy.start();
  ASSERT_TRUE(put(policy, 1));
  LockContainer::instance().resetTakenOrder();
  ASSERT_TRUE(policy.rollHotDb());
  const PolicyParameters& p = policy.getPolicyParameters();
  EXPECT_EQ(LockContainer::instance().takenOrder(), (std::vector<Pathname>{p.homePath, p.coldPath, p.thawedPath}));
  EXPECT_FALSE(Pathname(p.homePath + ".lock").exists());
}

// Events of a signed index verify against the blocks in the signature index;
// a byte changed in the raw data file shows as tampered.
TEST_F(PolicyTest, BlockSignaturesDetectAChangedByte) {
  PolicyParameters p = params(root / "data");
  p.blockSignSize = 4;
  DatabasePartitionPolicy signatures(params(root / "sigs"));  // outlives the signed index
  DatabasePartitionPolicy data(p);
  data.start();
  signatures.start();
  data.setBlockSignatureStore(&signatures);
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(put(data, i));
  data.flushBlockSignatures();  // the last two events form a partial block
  EXPECT_EQ(found(signatures, {}).size(), 3u);

  std::vector<ValueWrapper> vals;
  ASSERT_TRUE(data.query({}, {}, {}, INT32_MIN, INT32_MAX, 100, vals));
  std::vector<DataWrapper> out;
  std::vector<bool> ok;
  ASSERT_EQ(data.read(vals, out, ok, 2, true), 10u);
  for (const DataWrapper& d : out) EXPECT_EQ(d.audit, "audit_valid") << d.raw;

  // Change "event 5 " to "event 5!" in the raw data file.
  Pathname rawdir = root / "data" / "db" / "db-hot" / "rawdata";
  std::vector<Str> names;
  ASSERT_TRUE(rawdir.readDirectory(names));
  Pathname file = rawdir / "0";
  std::fstream f(file.c_str(), std::ios::in | std::ios::out | std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  size_t at = bytes.find("event 5 ");
  ASSERT_NE(at, std::string::npos);
  f.seekp(std::streamoff(at + 7));
  f.put('!');
  f.close();
  ASSERT_EQ(data.read(vals, out, ok, 1, true), 10u);
  for (const DataWrapper& d : out)
    EXPECT_EQ(d.audit, d.raw.startswith("event 5!") ? "audit_tampered" : "audit_valid") << d.raw;

  // An event no block names cannot be validated.
  ASSERT_TRUE(put(data, 10));
  ASSERT_TRUE(data.query({"10"}, {}, {}, INT32_MIN, INT32_MAX, 100, vals));
  ASSERT_EQ(data.read(vals, out, ok, 1, true), 1u);
  EXPECT_EQ(out[0].audit, "audit_cantValidate");
}

TEST_F(PolicyTest, ExportImportAndDelete) {
  DatabasePartitionPolicy policy(params(root / "a"));
  policy.start();
  for (int i = 0; i < 20; ++i) ASSERT_TRUE(put(policy, i, i % 2 ? "odd" : "even"));
  Str multi = "first line, with a comma\nsecond line";
  WritableEvent ev;
  ev.raw = StrSegment(multi);
  ev.time = "1700000050";
  ASSERT_TRUE(policy.write(ev));

  Pathname file = root / "export.txt";
  EXPECT_EQ(policy.exportByKeyword({}, INT32_MIN, INT32_MAX, file), 21);
  std::ifstream in(file.c_str());
  std::string header, marker, body;
  std::getline(in, header);
  std::getline(in, marker);
  std::getline(in, body);
  EXPECT_EQ(header, ">>>>>>>>>>>>>>> VELMOR EXPORT <<<<<<<<<<<<<<< FORMAT : host,source,sourcetype,eventtype,rawdata");
  EXPECT_EQ(marker, ">>>>>>>>>>>>>>> VELMOR EVENT <<<<<<<<<<<<<<< 1700000050");
  EXPECT_EQ(body, "localhost,unknown,unknown1,,first line, with a comma");

  DatabasePartitionPolicy other(params(root / "b"));
  other.start();
  EXPECT_EQ(other.importExportFile(file), 21);
  EXPECT_EQ(found(other, {}), found(policy, {}));
  EXPECT_EQ(other.importExportFile(root / "missing"), -1);

  EXPECT_THROW(policy.deleteByKeyword("u3", INT32_MIN, INT32_MAX, false), DatabasePartitionPolicyException);
  ASSERT_TRUE(policy.rollHotDb());
  EXPECT_EQ(policy.deleteByKeyword("U3", INT32_MIN, INT32_MAX, true), 2u);
  EXPECT_TRUE(found(policy, {"u3"}).empty());
  EXPECT_EQ(found(policy, {}).size(), 19u);
  EXPECT_EQ(policy.getTotalEventCount(), 19u);
}

}  // namespace

namespace {

// Events of a followed file, with how far into the file each reaches.
bool putFrom(DatabasePartitionPolicy& p, int i, const char* file, uint64_t offset) {
  Str raw = Str::fromFormat("line %d of %s", i, file);
  Str t = Str::fromFormat("%lld", (long long)(kBase + i));
  FileProgress at;
  at.initCRC = 0xabc;
  at.seekCRC = offset * 7;
  at.seekPtr = offset;
  at.modTime = kBase;
  WritableEvent ev;
  ev.raw = StrSegment(raw);
  ev.time = StrSegment(t);
  ev.source = file;
  ev.progress = &at;
  return p.write(ev);
}

// Read positions reach the listener before the slice holding their events is
// written, the newest per file; a listener that cannot store them keeps the
// slice (and the positions) in memory for the next sync; after a crash the
// stored position of a slice that never reached the disk is told apart
// from one that did.
TEST_F(PolicyTest, ReadPositionsAreStoredAheadOfTheirSlice) {
  Pathname live = root / "live", snapshot = root / "snapshot";
  struct Stored {
    SourceProgress p;
    size_t slicesOnDisk;  // slices of the hot bucket on disk when it was stored
  };
  auto slices = [&] {
    size_t n = 0;
    std::vector<Str> names;
    (live / "db" / "db-hot").readDirectory(names);
    for (const Str& name : names) n += name.endswith(".tsidx") ? 1 : 0;
    return n;
  };
  std::vector<Stored> stored;
  bool refuse = false;
  {
    DatabasePartitionPolicy policy(params(live));
    policy.start();
    policy.setSliceCommitListener([&](DatabasePartitionPolicy&, const std::vector<SourceProgress>& batch) {
      if (refuse) return false;
      for (const SourceProgress& sp : batch) stored.push_back({sp, slices()});
      return true;
    });
    for (int i = 0; i < 10; ++i) ASSERT_TRUE(putFrom(policy, i, "/var/log/a.log", 100 * (i + 1)));
    ASSERT_TRUE(putFrom(policy, 10, "/var/log/b.log", 50));
    EXPECT_TRUE(policy.hasUncommittedProgress("/var/log/a.log"));
    policy.sync(true);
    ASSERT_EQ(stored.size(), 2u);
    std::map<Str, SourceProgress> byFile;
    for (const Stored& s : stored) byFile[s.p.source] = s.p;
    EXPECT_EQ(byFile["/var/log/a.log"].at.seekPtr, 1000u) << "the newest event of the file";
    EXPECT_EQ(byFile["/var/log/b.log"].at.seekPtr, 50u);
    for (const Stored& s : stored) EXPECT_EQ(s.slicesOnDisk, 0u) << "stored before the slice was written";
    EXPECT_EQ(slices(), 1u);
    EXPECT_FALSE(policy.hasUncommittedProgress("/var/log/a.log"));
    EXPECT_EQ(found(policy, {"line"}).size(), 11u);
    SourceProgress committed = byFile["/var/log/a.log"];
    EXPECT_TRUE(policy.isCommitted(committed.bucketId, committed.source, committed.address, committed.time));

    // A store that fails holds the slice back; the positions wait with it.
    refuse = true;
    ASSERT_TRUE(putFrom(policy, 11, "/var/log/a.log", 1100));
    policy.sync(true);
    EXPECT_TRUE(policy.hasUncommittedProgress("/var/log/a.log"));
    refuse = false;
    ASSERT_TRUE(putFrom(policy, 12, "/var/log/a.log", 1200));
    policy.sync(true);
    ASSERT_EQ(stored.size(), 3u);
    EXPECT_EQ(stored.back().p.at.seekPtr, 1200u);
    EXPECT_EQ(found(policy, {"line"}).size(), 13u);

    // A position stored just before a crash, for a slice that never came.
    ASSERT_TRUE(live.copyToRecursive(snapshot));
    ASSERT_TRUE(putFrom(policy, 13, "/var/log/a.log", 1300));
    policy.sync(true);
    ASSERT_EQ(stored.size(), 4u);
  }
  ASSERT_TRUE(live.removeRecursive());
  ASSERT_TRUE(snapshot.copyToRecursive(live));
  DatabasePartitionPolicy reopened(params(live));
  reopened.start();
  const SourceProgress& last = stored[3].p;
  const SourceProgress& before = stored[2].p;
  EXPECT_FALSE(reopened.isCommitted(last.bucketId, last.source, last.address, last.time));
  EXPECT_TRUE(reopened.isCommitted(before.bucketId, before.source, before.address, before.time));
  EXPECT_TRUE(reopened.isCommitted(before.bucketId + 100, before.source, before.address, before.time))
      << "a bucket that is gone took its events with it";
}

}  // namespace

namespace {

// A lock file left by a process that was killed while it held it (its pid
// names no process) is broken; the index opens instead of waiting for ever.
TEST_F(PolicyTest, LockOfAProcessThatIsGoneIsBroken) {
  pid_t child = fork();
  if (child == 0) _exit(0);
  ASSERT_GT(child, 0);
  waitpid(child, nullptr, 0);
  Pathname at = root / "stale";
  ASSERT_TRUE((at / "db").mkdir_p());
  for (const char* dir : {"db", "colddb", "thaweddb"}) {
    std::ofstream(at / (Str(dir) + ".lock")) << child << "\n";
  }
  {
    DatabasePartitionPolicy policy(params(at));
    policy.start();
    ASSERT_TRUE(put(policy, 1));
    EXPECT_TRUE(policy.rollHotDb()) << "the roll takes the directory locks";
  }
  for (const char* dir : {"db", "colddb", "thaweddb"}) EXPECT_FALSE((at / (Str(dir) + ".lock")).exists()) << dir;
  EXPECT_EQ(st_lock_owner((at / "db").c_str()), 0);
}

}  // namespace
