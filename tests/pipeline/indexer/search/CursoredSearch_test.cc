// Reading an index newest first in batches, over real buckets in a scratch
// directory: batches joined equal one big query even with interleaved
// buckets and seconds holding more events than a batch, the time range of
// the expression, NOT terms, inexact expressions cut by the filter,
// deleted events, and the fields each row carries. Then over an in-memory
// index whose answers the test controls: random interleavings, the number
// of bucket queries, answers of deleted events only, buckets that vanish,
// failing queries and a second too busy to read.
#include "pipeline/indexer/search/CursoredSearch.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "libbundle/PropertiesMap.h"
#include "loaderinfo/LoaderInfo.h"
#include "pipeline/indexer/DatabasePartitionPolicy.h"
#include "search/SearchResults.h"
#include "search/processors/SearchEvaluator.h"
#include "util/Exceptions.h"
#include "util/MainThread.h"
#include "../ScratchHome.h"

namespace {

const int64_t kBase = 1700000000;

// One event as written: its number (the "n=" field) and its time.
struct Event {
  int n;
  int64_t time;
};

// A row as read back.
struct Row {
  std::string cd, raw;
  int64_t time;
  std::string serial;
};

class CursoredSearchTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!MainThread::instance()) new MainThread();
    setenv("VELMOR_ST_NEVER_FORK", "1", 1);
    scratch = new ScratchHome("cursoredsearch");
    ASSERT_TRUE(scratch->ok());
  }
  static void TearDownTestSuite() {
    delete scratch;
    scratch = nullptr;
  }

  void SetUp() override { makePolicy([](PolicyParameters&) {}); }
  void makePolicy(const std::function<void(PolicyParameters&)>& tweak) {
    policy.reset();
    events.clear();
    static int seq = 0;
    Pathname at = Pathname(scratch->dir) / Str::fromFormat("idx%d", seq++);
    PropertiesMap m;
    m.put("homePath", at / "db");
    m.put("coldPath", at / "colddb");
    m.put("thawedPath", at / "thaweddb");
    m.put("maxResults", "1000000");
    m.put("compressRawdata", "false");
    m.put("maxDataSize", "0");
    m.put("maxTotalDataSizeMB", "0");
    m.put("rotatePeriodInSecs", "1000000");
    m.put("frozenTimePeriodInSecs", "0");
    PolicyParameters p = PolicyParameters::fromStanza("main", m);
    p.syncPeriod = 0;  // every query sees every event
    tweak(p);
    policy = std::make_unique<DatabasePartitionPolicy>(p);
    policy->start();
  }
  void TearDown() override { policy.reset(); }

  static Str rawOf(int n, const char* extra = "") {
    return Str::fromFormat("event %d user=u%d status=%d n=%d%s", n, n % 10, 200 + n % 3, n, extra);
  }
  void put(int n, int64_t time, const char* extra = "") {
    Str raw = rawOf(n, extra);
    Str t = Str::fromFormat("%lld", (long long)time);
    WritableEvent ev;
    ev.raw = StrSegment(raw);
    ev.time = StrSegment(t);
    ev.host = n % 2 ? "web1" : "web2";
    ev.source = "/var/log/app.log";
    ev.sourceType = "app";
    ASSERT_TRUE(policy->write(ev));
    events.push_back({n, time});
  }
  void roll() { ASSERT_TRUE(policy->rollHotDb()); }

  // Every batch of the search; checks each batch's size against count.
  std::vector<Row> readAll(const std::string& search, unsigned long count, bool rawOnly = false,
                           size_t* emptyBatches = nullptr, Timeval earliest = Timeval(), Timeval latest = Timeval()) {
    SearchEvaluator e(search);
    EXPECT_TRUE(e.optimize());
    CursoredSearch cs(&e, policy.get(), earliest, latest, rawOnly);
    std::vector<Row> rows;
    for (int guard = 0; guard < 100000; ++guard) {
      SearchResults out;
      if (!cs.fetchResults(out, count)) break;
      if (emptyBatches && out.empty()) ++*emptyBatches;
      std::vector<Row> batch = rowsOf(out);
      if (batch.size() > count) {  // only a second that alone holds more
        for (const Row& r : batch) EXPECT_EQ(r.time, batch.front().time) << search;
      }
      if (!batch.empty()) {
        EXPECT_GE(batch.back().time, cs.getCursorTime().sec()) << search;
      }
      rows.insert(rows.end(), batch.begin(), batch.end());
    }
    SearchResults after;
    EXPECT_FALSE(cs.fetchResults(after, count));
    EXPECT_TRUE(after.empty());
    EXPECT_EQ(cs.getCursorTime().sec(), cs.getEarliestTime().sec());
    EXPECT_EQ(cs.handedOut(), rows.size());
    return rows;
  }

  static std::vector<Row> rowsOf(const SearchResults& out) {
    std::vector<Row> rows;
    sr_index_t cd = out.keyIndex(Str("_cd")), raw = out.keyIndex(Str("_raw")), t = out.keyIndex(Str("_time")),
               serial = out.keyIndex(Str("_serial"));
    for (const SearchResult* r : out)
      rows.push_back({r->getValue(cd), r->getValue(raw), Str(r->getValue(t)).toLong(-1), r->getValue(serial)});
    return rows;
  }

  // The _cd texts of one big query, newest first.
  std::vector<std::string> bigQuery(std::vector<Str> andTerms, std::vector<Str> notTerms = {}) {
    std::vector<ValueWrapper> vals;
    EXPECT_TRUE(policy->query(andTerms, {}, notTerms, INT32_MIN, INT32_MAX, 1000000, vals));
    std::vector<std::string> out;
    for (const ValueWrapper& v : vals) out.push_back(v.cd());
    return out;
  }

  // The raw texts of the written events that `keep` selects, newest first
  // (the order of equal times does not matter: compared as sets per time).
  std::multiset<std::pair<int64_t, std::string>> expected(const std::function<bool(const Event&)>& keep) const {
    std::multiset<std::pair<int64_t, std::string>> out;
    for (const Event& e : events)
      if (keep(e)) out.insert({e.time, rawOf(e.n)});
    return out;
  }
  static std::multiset<std::pair<int64_t, std::string>> asSet(const std::vector<Row>& rows) {
    std::multiset<std::pair<int64_t, std::string>> out;
    for (const Row& r : rows) out.insert({r.time, r.raw});
    return out;
  }
  static std::vector<std::string> cds(const std::vector<Row>& rows) {
    std::vector<std::string> out;
    for (const Row& r : rows) out.push_back(r.cd);
    return out;
  }
  // Newest first, no duplicates, serials counting from 0.
  static void expectWellOrdered(const std::vector<Row>& rows) {
    std::set<std::string> seen;
    for (size_t i = 0; i < rows.size(); ++i) {
      EXPECT_TRUE(seen.insert(rows[i].cd).second) << "duplicate " << rows[i].cd;
      if (i > 0) {
        EXPECT_LE(rows[i].time, rows[i - 1].time) << "time goes backwards at " << i;
      }
      EXPECT_EQ(rows[i].serial, std::to_string(i));
    }
  }

  static ScratchHome* scratch;
  std::unique_ptr<DatabasePartitionPolicy> policy;
  std::vector<Event> events;
};

ScratchHome* CursoredSearchTest::scratch = nullptr;

// Bucket A holds the even seconds, bucket B the odd ones and 150 more
// events in one second, both hold 80 events of one shared second, and the
// hot bucket some seconds in between: batches of 100 (and of 7) joined
// give exactly the ids of one big query, newest first.
TEST_F(CursoredSearchTest, InterleavedBucketsAndBusySecondsReadExactly) {
  int n = 0;
  for (int k = 0; k < 150; ++k) put(n++, kBase + 2 * k);
  for (int k = 0; k < 80; ++k) put(n++, kBase + 201);
  roll();
  for (int k = 0; k < 150; ++k) put(n++, kBase + 2 * k + 1);
  for (int k = 0; k < 150; ++k) put(n++, kBase + 101);
  for (int k = 0; k < 80; ++k) put(n++, kBase + 201);
  roll();
  for (int k = 150; k < 160; ++k) put(n++, kBase + k);
  {
    std::vector<IPartitionPolicy::BucketSpan> spans;
    policy->getBucketSpans(INT32_MIN, INT32_MAX, spans);
    ASSERT_EQ(spans.size(), 3u);
    EXPECT_EQ(spans[0].latest, kBase + 299);
    EXPECT_EQ(spans[0].earliest, kBase + 1);
  }

  for (unsigned long count : {100UL, 7UL, 1000UL}) {
    std::vector<Row> all = readAll("*", count);
    EXPECT_EQ(all.size(), events.size()) << count;
    EXPECT_EQ(cds(all), bigQuery({})) << count;
    expectWellOrdered(all);

    std::vector<Row> u3 = readAll("u3", count);
    EXPECT_EQ(cds(u3), bigQuery({"u3"})) << count;
    EXPECT_EQ(asSet(u3), expected([](const Event& e) { return e.n % 10 == 3; }));
    expectWellOrdered(u3);
  }
}

TEST_F(CursoredSearchTest, EmptyIndexEndsAtOnce) {
  SearchEvaluator e("*");
  ASSERT_TRUE(e.optimize());
  CursoredSearch cs(&e, policy.get(), Timeval(kBase, 0), Timeval(kBase + 100, 0), false);
  SearchResults out;
  EXPECT_FALSE(cs.fetchResults(out, 100));
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(cs.getCursorTime().sec(), kBase);
  EXPECT_EQ(cs.handedOut(), 0u);
  EXPECT_TRUE(readAll("u1", 10).empty());
}

// The expression's _time comparisons narrow the constructor's bounds; the
// whole-second forms are exact, the others are cut by the filter.
TEST_F(CursoredSearchTest, TimeComparisonsNarrowTheRange) {
  for (int i = 0; i < 60; ++i) put(i, kBase + i);
  roll();
  for (int i = 60; i < 120; ++i) put(i, kBase + i);
  auto between = [](int64_t from, int64_t to) {
    return [=](const Event& e) { return e.time >= from && e.time < to; };
  };

  Str exact = Str::fromFormat("_time>=%lld _time<%lld", (long long)(kBase + 10), (long long)(kBase + 90));
  {
    SearchEvaluator e(exact);
    ASSERT_TRUE(e.optimize());
    CursoredSearch cs(&e, policy.get(), Timeval(), Timeval(), false);
    EXPECT_TRUE(cs.isExact());
    EXPECT_EQ(cs.getEarliestTime().sec(), kBase + 10);
    EXPECT_EQ(cs.getLatestTime().sec(), kBase + 90);
  }
  std::vector<Row> rows = readAll(exact, 25);
  EXPECT_EQ(asSet(rows), expected(between(kBase + 10, kBase + 90)));
  expectWellOrdered(rows);

  // The constructor's bounds are narrower still on one side.
  rows = readAll(exact, 25, false, nullptr, Timeval(kBase + 50, 0), Timeval(kBase + 200, 0));
  EXPECT_EQ(asSet(rows), expected(between(kBase + 50, kBase + 90)));
  // A latest bound with a fraction includes its second.
  rows = readAll("*", 25, false, nullptr, Timeval(kBase + 5, 0), Timeval(kBase + 7, 500000));
  EXPECT_EQ(asSet(rows), expected(between(kBase + 5, kBase + 8)));

  // ">" and "<=" give inexact answers that the filter cuts to the second.
  Str open = Str::fromFormat("_time>%lld _time<=%lld u3", (long long)(kBase + 13), (long long)(kBase + 73));
  rows = readAll(open, 4);
  EXPECT_EQ(asSet(rows), expected([](const Event& e) {
              return e.time > kBase + 13 && e.time <= kBase + 73 && e.n % 10 == 3;
            }));
  expectWellOrdered(rows);

  // An empty range by the expression itself.
  SearchEvaluator empty(Str::fromFormat("_time>=%lld _time<%lld", (long long)(kBase + 50), (long long)(kBase + 40)));
  ASSERT_TRUE(empty.optimize());
  try {
    CursoredSearch cs(&empty, policy.get(), Timeval(), Timeval(), false);
    ADD_FAILURE() << "no exception";
  } catch (const SearchParsingException& ex) {
    EXPECT_EQ(std::string(ex.what()),
              Str::fromFormat("empty search: start=%d > end=%d", int(kBase + 50), int(kBase + 40)));
  }
}

TEST_F(CursoredSearchTest, NotTermsAreLeftOut) {
  for (int i = 0; i < 100; ++i) put(i, kBase + i / 3);
  roll();
  for (int i = 100; i < 200; ++i) put(i, kBase + i / 3);
  std::vector<Row> rows = readAll("NOT u3", 30);
  EXPECT_EQ(asSet(rows), expected([](const Event& e) { return e.n % 10 != 3; }));
  EXPECT_EQ(cds(rows), bigQuery({}, {"u3"}));
  expectWellOrdered(rows);
  rows = readAll("host::web1 NOT u3 NOT u5", 30);
  EXPECT_EQ(asSet(rows), expected([](const Event& e) { return e.n % 2 == 1 && e.n % 10 != 3 && e.n % 10 != 5; }));
}

// Field comparisons are not index terms: the index answers a superset and
// the filter cuts it, batch by batch; a batch the filter empties still
// answers true. Rows already in the results are not filtered.
TEST_F(CursoredSearchTest, InexactExpressionsAreCutByTheFilter) {
  for (int i = 0; i < 150; ++i) put(i, kBase + i);
  roll();
  for (int i = 150; i < 300; ++i) put(i, kBase + i - 75);

  SearchEvaluator probe("u2 status=201");
  ASSERT_TRUE(probe.optimize());
  EXPECT_FALSE(CursoredSearch(&probe, policy.get(), Timeval(), Timeval(), false).isExact());
  std::vector<Row> rows = readAll("u2 status=201", 10);
  EXPECT_EQ(asSet(rows), expected([](const Event& e) { return e.n % 10 == 2 && e.n % 3 == 1; }));
  expectWellOrdered(rows);
  // Raw-only rows still get the fields the filter compares.
  EXPECT_EQ(asSet(readAll("u2 status=201", 10, true)), asSet(rows));
  // A phrase: the index finds its words, the filter the words in a row.
  EXPECT_EQ(asSet(readAll("\"201 n\"", 50)), expected([](const Event& e) { return e.n % 3 == 1; }));

  // A range the index cannot narrow: most batches are emptied by the filter.
  size_t empties = 0;
  rows = readAll("u2 n>151 n<153", 10, false, &empties);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].raw, rawOf(152));
  EXPECT_EQ(rows[0].serial, "0");
  EXPECT_GT(empties, 0u);

  // Appending to results that hold a row of their own.
  SearchEvaluator e("u2 status=201");
  ASSERT_TRUE(e.optimize());
  CursoredSearch cs(&e, policy.get(), Timeval(), Timeval(), false);
  SearchResults out;
  out.addNewResult()->setValue(out.keyIndex("_raw", true), Str("an older row"));
  for (int guard = 0; guard < 1000 && cs.fetchResults(out, 10); ++guard) {
  }
  const size_t matching = expected([](const Event& e) { return e.n % 10 == 2 && e.n % 3 == 1; }).size();
  ASSERT_EQ(out.size(), 1 + matching);
  EXPECT_EQ(out.front()->getValue(out.keyIndex("_raw")), "an older row");
  size_t serial = 0;
  for (auto it = std::next(out.begin()); it != out.end(); ++it)
    EXPECT_EQ((*it)->getValue(out.keyIndex("_serial")), std::to_string(serial++));
}

// Deleted events never show, also when a bucket's newest answer holds
// nothing but deleted events.
TEST_F(CursoredSearchTest, DeletedEventsNeverShow) {
  for (int i = 0; i < 150; ++i) put(i, kBase + i, i >= 100 ? " gone" : "");
  roll();
  for (int i = 150; i < 300; ++i) put(i, kBase + i + 50, i % 10 == 5 ? " gone" : "");
  ASSERT_GT(policy->deleteByKeyword("gone", INT32_MIN, INT32_MAX, true), 0u);
  auto kept = [](const Event& e) { return e.n < 100 || (e.n >= 150 && e.n % 10 != 5); };
  for (unsigned long count : {100UL, 10UL}) {
    std::vector<Row> rows = readAll("*", count);
    EXPECT_EQ(asSet(rows), expected(kept)) << count;
    EXPECT_EQ(cds(rows), bigQuery({})) << count;
    expectWellOrdered(rows);
  }
  EXPECT_TRUE(readAll("gone", 10).empty());
}

// Buckets that went cold (closed) are opened when their turn comes.
TEST_F(CursoredSearchTest, ColdBucketsAreOpenedOnTheirTurn) {
  makePolicy([](PolicyParameters& p) {
    p.maxWarmDBCount = 0;
    p.maxColdDBCount = 1;
  });
  for (int b = 0; b < 3; ++b) {
    for (int i = 10 * b; i < 10 * b + 10; ++i) put(i, kBase + i);
    roll();
  }
  auto openCold = [&] {
    ScopedReader r(policy->tableLock());
    size_t n = 0;
    for (auto& b : policy->table().cold) n += b->isOpen();
    return n;
  };
  ASSERT_EQ(openCold(), 0u);
  std::vector<Row> rows = readAll("u4", 1);
  EXPECT_EQ(asSet(rows), expected([](const Event& e) { return e.n % 10 == 4; }));
  EXPECT_EQ(cds(rows), bigQuery({"u4"}));
  EXPECT_GT(openCold(), 0u);
}

// Each row carries the event's stored fields and, unless raw-only, its
// key=value fields; _cd names the event for a direct read.
TEST_F(CursoredSearchTest, RowsCarryTheEventFields) {
  for (int i = 0; i < 5; ++i) put(i, kBase + i);
  roll();
  for (int i = 5; i < 10; ++i) put(i, kBase + i);
  for (bool rawOnly : {false, true}) {
    SearchEvaluator e("*");
    ASSERT_TRUE(e.optimize());
    CursoredSearch cs(&e, policy.get(), Timeval(), Timeval(), rawOnly);
    SearchResults out;
    ASSERT_TRUE(cs.fetchResults(out, 100));
    ASSERT_EQ(out.size(), 10u);
    int n = 9;
    for (const SearchResult* r : out) {
      Str v;
      auto get = [&](const char* key) {
        r->getValue(Str(key), v);
        return std::string(v);
      };
      EXPECT_EQ(get("_raw"), rawOf(n));
      EXPECT_EQ(get("_time"), std::to_string(kBase + n));
      EXPECT_EQ(get("host"), n % 2 ? "web1" : "web2");
      EXPECT_EQ(get("source"), "/var/log/app.log");
      EXPECT_EQ(get("sourcetype"), "app");
      EXPECT_EQ(get("index"), "main");
      EXPECT_EQ(get("user"), rawOnly ? "" : "u" + std::to_string(n % 10));
      EXPECT_EQ(get("n"), rawOnly ? "" : std::to_string(n));
      uint32_t bucket = 0, address = 0;
      ASSERT_TRUE(ValueWrapper::parseCd(StrSegment(get("_cd")), bucket, address)) << get("_cd");
      ValueWrapper w;
      w.bucketId = bucket;
      w.address = address;
      DataWrapper d;
      ASSERT_TRUE(policy->read(w, d));
      EXPECT_EQ(d.raw, rawOf(n));
      --n;
    }
    EXPECT_FALSE(cs.fetchResults(out, 100));
  }
}

// --- an in-memory index ----------------------------------------------------------------

// Buckets of events (id = position), answering every expression with all
// their events. Deleted events count in `answered` as the engine's do.
class FakeBuckets : public IPartitionPolicy {
 public:
  struct Ev {
    int32_t time;
    bool deleted;
  };
  std::vector<std::vector<Ev>> buckets;
  std::set<uint32_t> vanished;  // listed, but gone when queried
  bool fail = false;
  int32_t endlessSecond = -1;  // bucket 0 holds endless events of this second
  size_t queries = 0;

  bool write(const WritableEvent&) override { return false; }
  bool query(const std::vector<Str>&, const std::vector<Str>&, const std::vector<Str>&, int32_t start, int32_t end,
             size_t count, std::vector<ValueWrapper>& out, size_t skip) override {
    out.clear();
    for (uint32_t b = 0; b < buckets.size(); ++b)
      for (const ValueWrapper& v : inRange(b, start, end))
        if (!buckets[b][v.address].deleted) out.push_back(v);
    std::sort(out.begin(), out.end());
    out.erase(out.begin(), out.begin() + long(std::min(skip, out.size())));
    if (out.size() > count) out.resize(count);
    return true;
  }
  bool read(const ValueWrapper& v, DataWrapper& out) override {
    out.value = v;
    out.time = v.time;
    out.raw = Str("event ") + v.cd();
    return true;
  }
  void getBucketSpans(int32_t start, int32_t end, std::vector<BucketSpan>& out) override {
    out.clear();
    for (uint32_t b = 0; b < buckets.size(); ++b) {
      if (buckets[b].empty()) continue;
      BucketSpan s;
      s.id = b;
      s.earliest = s.latest = buckets[b][0].time;
      for (const Ev& e : buckets[b]) {
        s.earliest = std::min(s.earliest, e.time);
        s.latest = std::max(s.latest, e.time);
      }
      if (s.earliest <= end && s.latest >= start) out.push_back(s);
    }
    std::sort(out.begin(), out.end(), [](const BucketSpan& a, const BucketSpan& b) { return a.latest > b.latest; });
  }
  bool queryBucket(uint32_t id, const std::vector<Str>&, const std::vector<Str>&, const std::vector<Str>&,
                   int32_t start, int32_t end, size_t count, std::vector<ValueWrapper>& out,
                   size_t* answered) override {
    ++queries;
    out.clear();
    *answered = 0;
    if (fail) return false;
    if (vanished.count(id)) return true;
    if (id == 0 && endlessSecond >= 0) {
      st_tsval v{};
      v.time = endlessSecond;
      for (size_t i = 0; i < count; ++i) {
        v.address = uint32_t(i);
        out.emplace_back(0, v);
      }
      *answered = count;
      return true;
    }
    std::vector<ValueWrapper> all = inRange(id, start, end);
    std::sort(all.begin(), all.end());
    if (all.size() > count) all.resize(count);
    *answered = all.size();
    for (const ValueWrapper& v : all)
      if (!buckets[id][v.address].deleted) out.push_back(v);
    return true;
  }
  const Str& getName() const override {
    static const Str kName("fake");
    return kName;
  }

 private:
  std::vector<ValueWrapper> inRange(uint32_t b, int32_t start, int32_t end) const {
    std::vector<ValueWrapper> out;
    for (uint32_t a = 0; a < buckets[b].size(); ++a) {
      if (buckets[b][a].time < start || buckets[b][a].time > end) continue;
      st_tsval v{};
      v.address = a;
      v.time = buckets[b][a].time;
      out.emplace_back(b, v);
    }
    return out;
  }
};

class FakeIndexTest : public CursoredSearchTest {
 protected:
  // The _cd texts of every batch joined; `calls` gets the fetchResults calls.
  static std::vector<std::string> readFake(FakeBuckets& index, unsigned long count, size_t* calls = nullptr) {
    SearchEvaluator e("*");
    EXPECT_TRUE(e.optimize());
    CursoredSearch cs(&e, &index, Timeval(), Timeval(), false);
    std::vector<std::string> out;
    size_t n = 0;
    for (; n < 100000; ++n) {
      SearchResults rs;
      if (!cs.fetchResults(rs, count)) break;
      for (const Row& r : rowsOf(rs)) out.push_back(r.cd);
    }
    if (calls) *calls = n + 1;
    return out;
  }
  static std::vector<std::string> whole(FakeBuckets& index) {
    std::vector<ValueWrapper> vals;
    index.query({}, {}, {}, INT32_MIN, INT32_MAX, 100000000, vals, 0);
    std::vector<std::string> out;
    for (const ValueWrapper& v : vals) out.push_back(v.cd());
    return out;
  }
};

// Random buckets with overlapping times, busy seconds and deleted events:
// whatever the batch size, the batches joined are the whole list.
TEST_F(FakeIndexTest, RandomInterleavingsReadExactly) {
  std::mt19937 rng(20261124);
  for (int round = 0; round < 40; ++round) {
    FakeBuckets index;
    index.buckets.resize(1 + rng() % 5);
    for (auto& b : index.buckets) {
      int32_t from = int32_t(kBase + rng() % 200), span = int32_t(1 + rng() % 300);
      size_t n = rng() % 400;
      for (size_t i = 0; i < n; ++i) b.push_back({from + int32_t(rng() % span), rng() % 10 == 0});
      if (rng() % 3 == 0)  // a busy second
        for (int i = 0; i < 150; ++i) b.push_back({from + span / 2, rng() % 10 == 0});
    }
    const unsigned long counts[] = {1, 3, 10, 100, 1000};
    unsigned long count = counts[rng() % 5];
    EXPECT_EQ(readFake(index, count), whole(index)) << "round " << round << " count " << count;
  }
}

// Each batch asks every bucket at most once: two buckets of 500 events in
// alternating seconds, read 10 at a time, take two queries per batch.
TEST_F(FakeIndexTest, EachBatchAsksEachBucketOnce) {
  FakeBuckets index;
  index.buckets.resize(2);
  for (int i = 0; i < 1000; ++i) index.buckets[i % 2].push_back({int32_t(kBase + i), false});
  size_t calls = 0;
  EXPECT_EQ(readFake(index, 10, &calls), whole(index));
  EXPECT_EQ(calls, 101u);
  EXPECT_LE(index.queries, 2 * calls);
}

// A bucket whose newest answer holds deleted events only tells no second to
// cut at: the count grows until live events come.
TEST_F(FakeIndexTest, AnswersOfDeletedEventsOnlyGrowTheCount) {
  FakeBuckets index;
  index.buckets.resize(1);
  for (int i = 0; i < 250; ++i) index.buckets[0].push_back({int32_t(kBase + i), i >= 50});
  std::vector<std::string> got = readFake(index, 10);
  EXPECT_EQ(got.size(), 50u);
  EXPECT_EQ(got, whole(index));
}

// A bucket moved away between the listing and its query gives nothing; a
// query that cannot run fails the search; a second holding more events than
// the largest count fails it too.
TEST_F(FakeIndexTest, VanishedBucketsFailingQueriesAndEndlessSeconds) {
  FakeBuckets index;
  index.buckets.resize(2);
  for (int i = 0; i < 40; ++i) index.buckets[i % 2].push_back({int32_t(kBase + i), false});
  index.vanished.insert(1);
  std::vector<std::string> got = readFake(index, 7);
  EXPECT_EQ(got.size(), 20u);
  for (const std::string& cd : got) EXPECT_EQ(cd.rfind("0:", 0), 0u) << cd;

  index.vanished.clear();
  index.fail = true;
  SearchEvaluator e("*");
  ASSERT_TRUE(e.optimize());
  {
    CursoredSearch cs(&e, &index, Timeval(), Timeval(), false);
    SearchResults rs;
    EXPECT_THROW(cs.fetchResults(rs, 10), DatabasePartitionPolicyException);
  }
  index.fail = false;
  index.endlessSecond = int32_t(kBase + 100);
  {
    CursoredSearch cs(&e, &index, Timeval(), Timeval(), false);
    SearchResults rs;
    EXPECT_THROW(cs.fetchResults(rs, 100), SearchProcessorException);
    EXPECT_TRUE(rs.empty());
  }
}

}  // namespace
