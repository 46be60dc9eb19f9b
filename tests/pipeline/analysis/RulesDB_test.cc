#include "pipeline/analysis/RulesDB.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(RulesDB, AddRuleRaisesOnlyAgreeingRulesByMoreThanAHair) {
  struct Step {
    bool brk;
    double weight;
    bool expectBrk;       // the rule's flag after the step
    double expectWeight;  // and its weight
  } steps[] = {
      {false, 10.0, false, 10.0},    // new rule
      {false, 10.04, false, 10.0},   // not more than old + 0.05
      {false, 10.06, false, 10.06},  // raised
      {false, 3.0, false, 10.06},    // never lowered
      {true, 500.0, false, 10.06},   // the other flag changes nothing
  };
  RulesDB db;
  int i = 0;
  for (const Step& s : steps) {
    db.addRule("AB", s.brk, s.weight);
    std::shared_ptr<Rule> r = db.findRule("AB");
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->brk, s.expectBrk) << "step " << i;
    EXPECT_DOUBLE_EQ(r->weight, s.expectWeight) << "step " << i++;
  }
  bool brk = false;
  EXPECT_FALSE(db.lookupBreak("BA", brk));
  EXPECT_EQ(db.findRule("BA"), nullptr);
}

TEST(RulesDB, BoundedLeastRecentlyUsedFirstAndFindCountsAsUse) {
  RulesDB db;
  db.setMaxCacheSize(3);
  db.addRule("a", true, 1);
  db.addRule("b", true, 1);
  db.addRule("c", false, 1);
  std::shared_ptr<Rule> kept = db.findRule("a");  // a is now the most recent
  db.addRule("d", true, 1);                       // b goes
  struct {
    const char* key;
    bool present;
  } expect[] = {{"a", true}, {"b", false}, {"c", true}, {"d", true}};
  for (auto& e : expect) {
    bool brk;
    EXPECT_EQ(db.lookupBreak(e.key, brk), e.present) << e.key;
  }
  EXPECT_EQ(db.size(), 3u);
  db.setMaxCacheSize(1);  // shrinking drops the least recent at once
  EXPECT_EQ(db.size(), 1u);
  EXPECT_NE(db.findRule("d"), nullptr);  // the last one looked up above
  db.clear();
  EXPECT_EQ(db.findRule("d"), nullptr);
  EXPECT_TRUE(kept->brk);  // a caller's copy outlives its eviction
}

}  // namespace
