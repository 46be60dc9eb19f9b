// Continuing a query from a QueryHint: blocks of any size, put together, are
// the one big answer, with no value twice and none missed, also when many
// values share one second (the case a time-only cursor gets wrong), when the
// caller's own time bounds cut in, and when a query fails.
#include "pipeline/indexer/QueryHint.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "pipeline/indexer/IPartitionPolicy.h"

namespace {

// An index of values that all hold the one term "x"; answers newest first.
class FakePolicy : public IPartitionPolicy {
 public:
  std::vector<ValueWrapper> values;
  bool fail = false;
  using IPartitionPolicy::query;
  bool write(const WritableEvent&) override { return false; }
  bool read(const ValueWrapper&, DataWrapper&) override { return false; }
  bool query(const std::vector<Str>& andTerms, const std::vector<Str>&, const std::vector<Str>&, int32_t start,
             int32_t end, size_t count, std::vector<ValueWrapper>& out, size_t skip = 0) override {
    out.clear();
    if (fail) return false;
    if (andTerms != std::vector<Str>{"x"}) return true;
    std::vector<ValueWrapper> all;
    for (const ValueWrapper& v : values)
      if (v.time >= start && v.time <= end) all.push_back(v);
    std::sort(all.begin(), all.end());
    for (size_t i = skip; i < all.size() && out.size() < count; ++i) out.push_back(all[i]);
    return true;
  }
};

ValueWrapper value(int32_t time, uint32_t bucket, uint32_t address) {
  ValueWrapper v;
  v.time = time;
  v.bucketId = bucket;
  v.address = address;
  return v;
}

// Reads the whole answer in blocks of `block`.
std::vector<ValueWrapper> inBlocks(FakePolicy& p, size_t block, int32_t start, int32_t end) {
  QueryHint hint;
  std::vector<ValueWrapper> all, out;
  for (int guard = 0; guard < 1000; ++guard) {
    EXPECT_TRUE(p.query(hint, Str("x"), start, end, block, out));
    all.insert(all.end(), out.begin(), out.end());
    if (hint.exhausted) break;
  }
  EXPECT_TRUE(hint.exhausted);
  EXPECT_TRUE(p.query(hint, Str("x"), start, end, block, out));
  EXPECT_TRUE(out.empty()) << "an exhausted hint gives nothing more";
  return all;
}

TEST(QueryHint, BlocksMakeUpTheWholeAnswer) {
  FakePolicy p;
  // Times 100..119, with second 110 holding seven values over two buckets.
  for (int32_t t = 100; t < 120; ++t) p.values.push_back(value(t, 1, uint32_t(t * 10)));
  for (uint32_t a = 1; a <= 6; ++a) p.values.push_back(value(110, a % 2 ? 2 : 3, a));
  std::vector<ValueWrapper> whole;
  ASSERT_TRUE(p.query({"x"}, {}, {}, 0, 1000, 1000, whole));
  ASSERT_EQ(whole.size(), 26u);
  for (size_t block : {1, 2, 3, 7, 26, 100}) EXPECT_EQ(inBlocks(p, block, 0, 1000), whole) << "block " << block;

  // The caller's bounds still hold: only seconds 105..112.
  std::vector<ValueWrapper> part;
  ASSERT_TRUE(p.query({"x"}, {}, {}, 105, 112, 1000, part));
  EXPECT_EQ(part.size(), 14u);
  EXPECT_EQ(inBlocks(p, 2, 105, 112), part);
}

TEST(QueryHint, AFailedQueryLeavesTheHintAsItWas) {
  FakePolicy p;
  for (int32_t t = 0; t < 10; ++t) p.values.push_back(value(t, 1, uint32_t(t)));
  QueryHint hint;
  std::vector<ValueWrapper> out;
  ASSERT_TRUE(p.query(hint, Str("x"), 0, 100, 4, out));
  ASSERT_EQ(out.size(), 4u);
  EXPECT_EQ(out.back().time, 6);
  p.fail = true;
  EXPECT_FALSE(p.query(hint, Str("x"), 0, 100, 4, out));
  EXPECT_EQ(hint.time, 6);
  EXPECT_FALSE(hint.exhausted);
  p.fail = false;
  ASSERT_TRUE(p.query(hint, Str("x"), 0, 100, 4, out));
  ASSERT_EQ(out.size(), 4u);
  EXPECT_EQ(out.front().time, 5) << "goes on where the good block ended";
}

}  // namespace
