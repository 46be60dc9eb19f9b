#include "pipeline/indexer/TEDB.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include "pipeline/indexer/DatabasePartitionTable.h"
#include "pipeline/indexer/LockContainer.h"
#include "pipeline/indexer/ScopedPolicyLock.h"
#include "util/Exceptions.h"

namespace {

TEST(TEDB, BucketNamesRoundTripAndBadNamesAreRefused) {
  EXPECT_EQ(TEDB::makeName(1700000100, 1700000000, 42), "db_1700000100_1700000000_42");
  int64_t e, s;
  uint32_t id;
  TEDB::parseName("db_1700000100_1700000000_42", e, s, id);
  EXPECT_EQ(e, 1700000100);
  EXPECT_EQ(s, 1700000000);
  EXPECT_EQ(id, 42u);
  for (const char* bad : {"db_1_2", "db_1_2_3_", "db_a_2_3", "db-hot", "db_1_2_2147483648", "xdb_1_2_3", "db_1__3"}) {
    try {
      TEDB::parseName(bad, e, s, id);
      ADD_FAILURE() << bad;
    } catch (const DatabasePartitionPolicyException& ex) {
      EXPECT_EQ(Str(ex.what()), Str("Unable to parse times and id from ") + bad);
    }
  }
}

TEST(TEDB, IdsWrapPastTheLargestSignedValue) {
  EXPECT_EQ(TEDB::nextId(0x7FFFFFFE), 0x7FFFFFFFu);
  EXPECT_EQ(TEDB::nextId(0x7FFFFFFF), 0u);
  DatabasePartitionTable t;
  EXPECT_EQ(t.takeNextId(), 0u);  // the first bucket of an index
  t.noteId(0x7FFFFFFF);
  EXPECT_EQ(t.takeNextId(), 0u);
  EXPECT_EQ(t.takeNextId(), 1u);
}

TEST(TEDB, TableOrdersOverlappingBucketsLatestEndFirst) {
  PolicyParameters p;
  DatabasePartitionTable t;
  t.hot = std::make_shared<TEDB>("/x/db-hot", 9, TEDB::kHot, INT64_MAX, INT64_MIN, p);  // empty
  t.warm.push_back(std::make_shared<TEDB>("/x/w1", 1, TEDB::kWarm, 100, 200, p));
  t.warm.push_back(std::make_shared<TEDB>("/x/w2", 2, TEDB::kWarm, 150, 300, p));
  t.cold.push_back(std::make_shared<TEDB>("/x/c0", 0, TEDB::kCold, 10, 90, p));
  auto ids = [&](int64_t a, int64_t b) {
    std::vector<uint32_t> out;
    for (auto& x : t.getMatchingDBsByTime(a, b)) out.push_back(x->id());
    return out;
  };
  EXPECT_EQ(ids(0, 1000), (std::vector<uint32_t>{2, 1, 0}));
  EXPECT_EQ(ids(201, 1000), (std::vector<uint32_t>{2}));
  EXPECT_EQ(ids(90, 100), (std::vector<uint32_t>{1, 0}));  // both ends inclusive
  EXPECT_TRUE(ids(301, 400).empty());
  EXPECT_TRUE(t.remove(t.warm[0].get()));
  EXPECT_EQ(t.findById(1), nullptr);
}

class DirLockTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/dirlock_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    root = Pathname(tmpl);
    p.homePath = root / "db";
    p.coldPath = root / "colddb";
    p.thawedPath = root / "thaweddb";
  }
  void TearDown() override { root.removeRecursive(); }
  Pathname root;
  PolicyParameters p;
};

TEST_F(DirLockTest, PolicyLockTakesHomeColdThawedOnceEachAndNests) {
  LockContainer& lc = LockContainer::instance();
  lc.resetTakenOrder();
  {
    ScopedPolicyLock outer(p);
    ASSERT_TRUE(outer.ok());
    EXPECT_TRUE(Pathname(p.coldPath + ".lock").exists());
    {
      ScopedPolicyLock inner(p);  // nested in one process: counted, not retaken
      EXPECT_TRUE(inner.ok());
      EXPECT_EQ(lc.count(p.homePath), 2u);
    }
    EXPECT_EQ(lc.count(p.homePath), 1u);
    EXPECT_TRUE(Pathname(p.homePath + ".lock").exists());
  }
  EXPECT_EQ(lc.count(p.homePath), 0u);
  EXPECT_FALSE(Pathname(p.homePath + ".lock").exists());
  EXPECT_EQ(lc.takenOrder(), (std::vector<Pathname>{p.homePath, p.coldPath, p.thawedPath}));
}

}  // namespace
