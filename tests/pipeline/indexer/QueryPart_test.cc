#include "pipeline/indexer/QueryPart.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <functional>
#include <map>
#include <unordered_map>

#include "FakeQueryIndex.h"
#include "libbundle/PropertiesMap.h"
#include "pipeline/indexer/DatabasePartitionPolicy.h"
#include "pipeline/indexer/IdListQueryPart.h"
#include "pipeline/indexer/QueryStateMachine.h"
#include "pipeline/indexer/SearchFilter.h"
#include "util/Exceptions.h"
#include "util/MainThread.h"

namespace {

// --- evaluation against a real index, compared with a brute-force model ----------

const int64_t kBase = 1700000000;
const int kEvents = 2400;

// Event i: three events share each second; its words follow from i.
int64_t timeOf(int i) { return kBase + i / 3; }

Str rawOf(int i) {
  Str s = Str::fromFormat("ev%d", i);
  if (i % 2 == 0) s += " alpha";
  if (i % 3 == 0) s += " beta";
  if (i % 5 == 0) s += " gamma";
  if (i % 7 == 0) s += " delta";
  if (i % 11 == 0) s += Str::fromFormat(" errorcode%d", i % 4);
  if (i % 13 == 0) s += " xfail";
  if (i % 17 == 0) s += " yfail";
  if (i % 6 == 0) s += " quick brown";
  if (i % 10 == 0) s += " brown fox quick";
  if (i % 9 == 0) s += " Kilo";
  return s;
}
const char* hostOf(int i) { return i % 4 == 0 ? "web1" : i % 4 == 1 ? "web2" : "db"; }
const char* sourceOf(int i) { return i % 5 < 2 ? "/var/log/a.log" : "/var/log/b.log"; }

class EvaluationTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!MainThread::instance()) new MainThread();
    setenv("VELMOR_ST_NEVER_FORK", "1", 1);
    char tmpl[] = "/tmp/queryparts_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    root = new Pathname(tmpl);
    {
      // Eight buckets, the oldest ones cold: written by one policy, read by
      // another, so that the cold ones are closed when a query starts.
      DatabasePartitionPolicy writer(params());
      writer.start();
      for (int i = 0; i < kEvents; ++i) {
        Str raw = rawOf(i), t = Str::fromFormat("%lld", (long long)timeOf(i));
        WritableEvent ev;
        ev.raw = StrSegment(raw);
        ev.time = StrSegment(t);
        ev.host = hostOf(i);
        ev.source = sourceOf(i);
        ev.sourceType = "app";
        ASSERT_TRUE(writer.write(ev));
        if (i % 300 == 299) {
          ASSERT_TRUE(writer.rollHotDb());
        }
      }
      writer.close();
    }
    policy = new DatabasePartitionPolicy(params());
    policy->start();
    {
      ScopedReader r(policy->tableLock());
      ASSERT_GE(policy->table().cold.size(), 2u);
    }
    // Event number of every id.
    std::vector<ValueWrapper> all;
    ASSERT_TRUE(policy->query({}, {}, {}, INT32_MIN, INT32_MAX, 100000, all));
    ASSERT_EQ(all.size(), size_t(kEvents));
    std::vector<DataWrapper> data;
    std::vector<bool> ok;
    policy->read(all, data, ok);
    eventOf = new std::map<std::pair<uint32_t, uint32_t>, int>;
    for (size_t k = 0; k < all.size(); ++k) {
      ASSERT_TRUE(ok[k]);
      (*eventOf)[{all[k].bucketId, all[k].address}] = atoi(data[k].raw.c_str() + 2);
    }
  }
  static void TearDownTestSuite() {
    delete policy;
    delete eventOf;
    root->removeRecursive();
    delete root;
  }

  static PolicyParameters params() {
    PropertiesMap m;
    m.put("homePath", *root / "db");
    m.put("coldPath", *root / "colddb");
    m.put("thawedPath", *root / "thaweddb");
    m.put("maxResults", "100000");
    m.put("compressRawdata", "false");
    m.put("maxDataSize", "0");
    m.put("maxTotalDataSizeMB", "0");
    m.put("optimizeEvery", "0");
    m.put("frozenTimePeriodInSecs", "0");
    m.put("maxWarmDBCount", "4");
    PolicyParameters p = PolicyParameters::fromStanza("main", m);
    p.syncPeriod = 0;
    return p;
  }

  void SetUp() override { container.indexes["main"] = policy; }

  // Runs the tokens; event numbers in result order.
  std::vector<int> run(const std::vector<Str>& tokens, unsigned long limit, bool optimize, unsigned long block,
                       int64_t lo, int64_t hi, const char* regex = nullptr) {
    QueryStateMachine sm("q", "q");
    sm.setContainer(&container);
    sm.setDomain("main");
    sm.setResultLimit(limit);
    sm.setOptimize(optimize);
    if (block) sm.setBlockSizes(block, block);
    sm.getTimeParser().setMinTime(lo);
    sm.getTimeParser().setMaxTime(hi);
    if (regex) sm.addRegexFilter(std::make_shared<Regex>(Str(regex)));
    for (const Str& t : tokens) sm.accept(t);
    sm.finalize();
    std::vector<ValueWrapper> ids;
    sm.execute(ids);
    std::vector<int> out;
    for (const ValueWrapper& v : ids) {
      auto it = eventOf->find({v.bucketId, v.address});
      out.push_back(it == eventOf->end() ? -1 : it->second);
    }
    return out;
  }

  static Pathname* root;
  static DatabasePartitionPolicy* policy;
  static std::map<std::pair<uint32_t, uint32_t>, int>* eventOf;
  FakeContainer container;
};

Pathname* EvaluationTest::root = nullptr;
DatabasePartitionPolicy* EvaluationTest::policy = nullptr;
std::map<std::pair<uint32_t, uint32_t>, int>* EvaluationTest::eventOf = nullptr;

struct ModelCase {
  std::vector<Str> tokens;
  std::function<bool(int)> holds;
  const char* regex = nullptr;
};

// Every query, optimised and not, in blocks of 50 ids and of the standard
// size, over all time and over a window, at three limits, gives exactly the
// newest matching events (ids are ordered by time, then bucket and address,
// which is the order of writing here).
TEST_F(EvaluationTest, QueriesMatchTheModel) {
  auto a = [](int i) { return i % 2 == 0; };
  auto b = [](int i) { return i % 3 == 0; };
  auto g = [](int i) { return i % 5 == 0; };
  auto d = [](int i) { return i % 7 == 0; };
  auto fail = [](int i) { return i % 13 == 0 || i % 17 == 0; };
  auto startsEv1 = [](int i) { return Str::fromFormat("%d", i)[0] == '1'; };
  const ModelCase cases[] = {
      {{"alpha"}, a},
      {{"alpha", "beta"}, [&](int i) { return a(i) && b(i); }},
      {{"alpha", "OR", "beta"}, [&](int i) { return a(i) || b(i); }},
      {{"alpha", "NOT", "beta"}, [&](int i) { return a(i) && !b(i); }},
      {{"NOT", "alpha"}, [&](int i) { return !a(i); }},
      {{"*"}, [](int) { return true; }},
      {{"gamma", "(", "alpha", "OR", "delta", ")"}, [&](int i) { return g(i) && (a(i) || d(i)); }},
      {{"alpha", "NOT", "(", "beta", "OR", "gamma", ")"}, [&](int i) { return a(i) && !(b(i) || g(i)); }},
      {{"alpha", "OR", "beta", "gamma", "OR", "delta"}, [&](int i) { return (a(i) || b(i)) && (g(i) || d(i)); }},
      {{"beta", "OR", "(", "meta::all", "NOT", "alpha", ")"}, [&](int i) { return b(i) || !a(i); }},
      // phrases: the words find candidates, the raw text decides
      {{"quick brown"}, [](int i) { return i % 6 == 0; }},
      {{"Kilo", "QUICK BROWN"}, [](int i) { return i % 9 == 0 && i % 6 == 0; }},
      {{"quick bro*"}, [](int i) { return i % 6 == 0; }},
      // stars
      {{"err*"}, [](int i) { return i % 11 == 0; }},
      {{"*fail"}, fail},
      {{"x*il"}, [](int i) { return i % 13 == 0; }},
      {{"NOT", "*fail"}, [&](int i) { return !fail(i); }},
      {{"ev1*"}, startsEv1},
      {{"alpha", "NOT", "err*"}, [&](int i) { return a(i) && i % 11 != 0; }},
      // host and source terms, filters where something else gives ids
      {{"host::web1"}, [](int i) { return i % 4 == 0; }},
      {{"alpha", "host::web1"}, [](int i) { return i % 4 == 0; }},
      {{"beta", "NOT", "host::web1"}, [&](int i) { return b(i) && i % 4 != 0; }},
      {{"beta", "source::/var/log/a.log"}, [&](int i) { return b(i) && i % 5 < 2; }},
      {{"beta", "host::web1", "host::web2"}, [](int) { return false; }},
      // a regular-expression filter on the raw text
      {{"alpha"}, [](int i) { return i % 10 == 4; }, "^ev\\d*4 "},
  };
  struct Window {
    int64_t lo, hi;
  } windows[] = {{INT32_MIN, INT32_MAX}, {timeOf(700), timeOf(1799)}};
  for (const ModelCase& c : cases) {
    Str name;
    for (const Str& t : c.tokens) name += "[" + t + "]";
    for (const Window& w : windows) {
      std::vector<int> matching;
      for (int i = kEvents - 1; i >= 0; --i)
        if (timeOf(i) >= w.lo && timeOf(i) <= w.hi && c.holds(i)) matching.push_back(i);
      for (unsigned long limit : {3ul, 40ul, 100000ul}) {
        std::vector<int> want(matching.begin(), matching.begin() + long(std::min<size_t>(matching.size(), limit + 1)));
        for (bool optimize : {true, false})
          for (unsigned long block : {50ul, 0ul}) {
            std::vector<int> got;
            try {
              got = run(c.tokens, limit, optimize, block, w.lo, w.hi, c.regex);
            } catch (const std::exception& e) {
              ADD_FAILURE() << name << ": " << e.what();
              continue;
            }
            EXPECT_EQ(got, want) << name << " window " << w.lo << " limit " << limit << " optimize " << optimize
                                 << " block " << block;
          }
      }
    }
  }
}

// Host codes differ per bucket, and a cold bucket is opened only when a
// query reaches it: the filter of "host::web1" must learn that bucket's code
// then, or it would judge its events by codes of other buckets.
TEST_F(EvaluationTest, HostFilterLearnsColdBucketsTheQueryOpens) {
  delete policy;
  policy = new DatabasePartitionPolicy(params());
  policy->start();
  container.indexes["main"] = policy;
  size_t closed = 0;
  {
    ScopedReader r(policy->tableLock());
    for (auto& b : policy->table().cold) closed += !b->isOpen();
  }
  ASSERT_GE(closed, 1u);
  std::vector<int> want;
  for (int i = kEvents - 1; i >= 0; --i)
    if (i % 3 == 0 && i % 4 == 0) want.push_back(i);
  EXPECT_EQ(run({"beta", "host::web1"}, 100000, true, 0, INT32_MIN, INT32_MAX), want);
}

// Literal ids: read back for their times, kept in the time range, ordered,
// and combined with terms like any other part.
TEST_F(EvaluationTest, IdListsAreReadBackAndOrdered) {
  std::map<int, Str> cdOf;
  for (auto& [key, i] : *eventOf) cdOf[i] = Str::fromFormat("%u:%u", key.first, key.second);
  Str list = "idlist::" + cdOf[10] + "," + cdOf[2000] + ", " + cdOf[13] + ",junk,99:99999";
  EXPECT_EQ(run({list}, 100, true, 0, INT32_MIN, INT32_MAX), (std::vector<int>{2000, 13, 10}));
  EXPECT_EQ(run({list, "alpha"}, 100, true, 0, INT32_MIN, INT32_MAX), (std::vector<int>{2000, 10}));
  EXPECT_EQ(run({list, "NOT", "alpha"}, 100, false, 0, INT32_MIN, INT32_MAX), (std::vector<int>{13}));
  EXPECT_EQ(run({list}, 100, true, 0, timeOf(13), timeOf(2000) - 1), (std::vector<int>{13}));
}

TEST(IdListQueryPartTest, ParsesSeekAddresses) {
  struct Case {
    const char* text;
    std::vector<Str> cds;
  } cases[] = {
      {"1:20,3:4", {"1:20", "3:4"}},
      {" 1:20 , 3:4 ", {"1:20", "3:4"}},
      {"x,1:2,,1:2:3", {"1:2"}},
      {"", {}},
      {"4294967296:1", {}},
  };
  for (const Case& c : cases) {
    std::vector<Str> got;
    for (const ValueWrapper& v : IdListQueryPart::parseString(c.text)) got.push_back(v.cd());
    EXPECT_EQ(got, c.cds) << c.text;
  }
}

// --- scored and connected searches, the filter, against a fake index --------------

class FakeIndexTest : public ::testing::Test {
 protected:
  void SetUp() override { container.indexes["main"] = &index; }

  std::vector<ValueWrapper> run(QueryStateMachine& sm, const std::vector<Str>& tokens) {
    sm.setContainer(&container);
    sm.setDomain("main");
    for (const Str& t : tokens) sm.accept(t);
    sm.finalize();
    std::vector<ValueWrapper> ids;
    sm.execute(ids);
    return ids;
  }
  static std::vector<uint32_t> addresses(const std::vector<ValueWrapper>& ids) {
    std::vector<uint32_t> out;
    for (const ValueWrapper& v : ids) out.push_back(v.address);
    return out;
  }

  FakeQueryIndex index;
  FakeContainer container;
};

// "related::x y": x weighs 2 and hits 4 events, y weighs 1 and hits 2;
// event 3 is hit by both: 1/2 + 2/4 = 1, the others 1/2. Scores are a
// percentage of the best; results come by score, then newest first.
TEST_F(FakeIndexTest, RelatedSearchScoresAndOrders) {
  index.size = 20;
  index.hits["x"] = {1, 2, 3, 4};
  index.hits["y"] = {3, 9};
  index.hits["z"] = {};
  struct Case {
    float weight;
    std::vector<Str> tokens;
    std::vector<uint32_t> order;
    float best, other;
  } cases[] = {
      {1.0f, {"related::x y"}, {3, 9, 4, 2, 1}, 100.0f, 50.0f},
      // z has no hits but counts: x weighs 3 (3/4 each), y 2 (1 each).
      {1.0f, {"related::x y z"}, {3, 9, 4, 2, 1}, 100.0f, 0.75f / 1.75f * 100.0f},
      {2.0f, {"related::x y"}, {3, 9, 4, 2, 1}, 100.0f, 25.0f},
      {1.0f, {"related::x y", "NOT", "z", "NOT", "idlist::1:9"}, {3, 4, 2, 1}, 100.0f, 50.0f},
  };
  for (const Case& c : cases) {
    QueryStateMachine sm("q", "q");
    sm.setRelatedWeight(c.weight);
    std::vector<ValueWrapper> ids = run(sm, c.tokens);
    EXPECT_EQ(addresses(ids), c.order) << c.tokens[0];
    EXPECT_FLOAT_EQ(sm.scores()[index.value(3).cd()], c.best);
    EXPECT_FLOAT_EQ(sm.scores()[index.value(1).cd()], c.other);
  }
  // The related max words setting cuts the list: "y" no longer counts.
  QueryStateMachine cut("q", "q");
  cut.setRelatedMaxWords(1);
  EXPECT_EQ(addresses(run(cut, {"related::x y"})), (std::vector<uint32_t>{4, 3, 2, 1}));
}

TEST_F(FakeIndexTest, ConnectedByTypeKeepsRecurringTypes) {
  index.size = 100;
  index.terms["k"] = [](uint32_t i) { return i < 10; };
  index.typeOf = [](uint32_t i) { return i < 3 ? 7u : i < 5 ? 8u : 100u + i; };
  for (long least : {1L, 2L, 3L}) {
    QueryStateMachine sm("q", "q");
    sm.setMinRelationByType(least);
    std::vector<uint32_t> want;
    for (uint32_t i = 10; i-- > 0;)
      if (least == 1 || i < (least == 2 ? 5u : 3u)) want.push_back(i);
    EXPECT_EQ(addresses(run(sm, {"eventtypeconnected::k"})), want) << least;
  }
}

// An id that a negated part excludes never comes back, however the blocks of
// the positive and the negated part fall.
TEST_F(FakeIndexTest, NegatedIdsNeverReturnAcrossBlocks) {
  index.size = 5000;
  index.terms["p"] = [](uint32_t i) { return i % 3 != 0; };
  index.terms["n"] = [](uint32_t i) { return i % 4 == 0 || (i > 1000 && i < 3000); };
  for (unsigned long block : {1ul, 7ul, 64ul, 1000ul})
    for (unsigned long limit : {5ul, 300ul, 10000ul}) {
      QueryStateMachine sm("q", "q");
      sm.setOptimize(false);
      sm.setBlockSizes(block, block);
      sm.setResultLimit(limit);
      std::vector<uint32_t> want;
      for (uint32_t i = index.size; i-- > 0 && want.size() <= limit;)
        if (index.holds("p", i) && !index.holds("n", i)) want.push_back(i);
      EXPECT_EQ(addresses(run(sm, {"p", "NOT", "n"})), want) << block << " " << limit;
    }
}

// Codes of a word differ per bucket; a bucket the index opens only during
// the query (a cold one) is asked about when its first id is filtered.
class LateBucketIndex : public FakeQueryIndex {
 public:
  bool coldOpen = false;
  void getBucketCodesForWord(int table, const Str& word, std::vector<std::pair<uint32_t, uint32_t>>& out) override {
    out.clear();
    if (table != 1 || word != "web1") return;
    out.push_back({1, 5});
    if (coldOpen) out.push_back({2, 9});
  }
};

TEST(SearchFilterTest, CodesArePerBucketAndLateBucketsAreAskedFor) {
  LateBucketIndex index;
  auto id = [](uint32_t bucket, uint32_t host, uint32_t source = 0) {
    ValueWrapper v;
    v.bucketId = bucket;
    v.host = host;
    v.source = source;
    return v;
  };
  SearchFilter require;
  ASSERT_TRUE(require.addToAndFilters("host::web1", &index));
  EXPECT_FALSE(require.addToAndFilters("sourcetype::x", &index));
  EXPECT_FALSE(require.addToAndFilters("host::nosuch", &index));
  EXPECT_FALSE(require.addToAndFilters("host::web*", &index));
  EXPECT_TRUE(require.passes(id(1, 5)));
  EXPECT_FALSE(require.passes(id(1, 9)));  // code 9 is another host in bucket 1
  index.coldOpen = true;                   // bucket 2 opened by the query
  EXPECT_TRUE(require.passes(id(2, 9)));
  EXPECT_FALSE(require.passes(id(2, 5)));
  EXPECT_FALSE(require.passes(id(3, 5)));  // a bucket that does not know web1

  SearchFilter exclude;
  index.coldOpen = false;
  ASSERT_TRUE(exclude.addToNotFilters("host::web1", &index));
  std::vector<ValueWrapper> in = {id(1, 5), id(1, 6), id(2, 9), id(2, 5)}, out;
  index.coldOpen = true;
  EXPECT_EQ(exclude.applyFilter(in.data(), in.data() + in.size(), out), 2u);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[0].host, 6u);
  EXPECT_EQ(out[1].host, 5u);

  // Merged filters apply both.
  exclude.absorb(require);
  EXPECT_FALSE(exclude.passes(id(1, 5)));
  EXPECT_EQ(exclude.toString(), "FILTER(NOT host::web1, host::web1)");
}

TEST(ValueWrapperCompareWithScoreTest, ScoreThenNewest) {
  std::unordered_map<Str, float> scores = {{"1:1", 5.0f}, {"1:2", 5.0f}, {"1:3", 9.0f}};
  std::vector<ValueWrapper> ids(4);
  for (uint32_t k = 0; k < 4; ++k) {
    ids[k].bucketId = 1;
    ids[k].address = k + 1;
    ids[k].time = int32_t(100 + k);
  }
  ValueWrapperCompareWithScore::sort(ids, scores);
  std::vector<uint32_t> order;
  for (const ValueWrapper& v : ids) order.push_back(v.address);
  EXPECT_EQ(order, (std::vector<uint32_t>{3, 2, 1, 4}));  // 4 has no score
  ValueWrapperCompareWithScore cmp(scores);
  EXPECT_TRUE(cmp(ids[0], ids[1]));
  EXPECT_FALSE(cmp(ids[1], ids[0]));
}

}  // namespace
