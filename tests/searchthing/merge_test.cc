#include "searchthing/warmslice_merge.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "searchthing/ipcver.h"
#include "searchthing/lock.h"
#include "searchthing/osfile.h"
#include "st_model.h"
#include "st_test_util.h"

namespace {

std::vector<unsigned char> encode(std::vector<uint32_t> values) {
  std::vector<unsigned char> buf(values.size() * 10 + 10);
  buf.resize(st_merge_encode_list(values.data(), static_cast<uint32_t>(values.size()), buf.data()));
  return buf;
}

TEST(MergeListCoding, RunsAreEscaped) {
  struct Row {
    std::vector<uint32_t> values;
    std::vector<unsigned char> bytes;
  } rows[] = {
      {{5, 6, 7, 8}, {5, 0, 3}},
      {{0}, {0}},  // a first word of 0 is a value, not an escape
      {{0, 1, 2}, {0, 0, 2}},
      {{5, 6, 7, 10, 11}, {5, 0, 2, 3, 0, 1}},
      {{3, 300}, {3, 0xA9, 0x02}},
      {{1, 3, 5}, {1, 2, 2}},
  };
  for (const Row& r : rows) EXPECT_EQ(encode(r.values), r.bytes) << "first value " << r.values[0];
}

class Optimize : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!tmpAllowsLocks()) GTEST_SKIP() << "/tmp is on a file system on which engine locks are refused";
  }
  // One slice per call, holding the given (term, time, address) postings.
  void slice(std::initializer_list<std::tuple<const char*, int32_t, uint32_t>> postings) {
    st_handle* h = st_open(dir_.c_str());
    ASSERT_NE(h, nullptr);
    for (auto& p : postings) ASSERT_EQ(st_put(h, std::get<0>(p), std::get<1>(p), std::get<2>(p), 1, 2, 3, 4), 0);
    ASSERT_EQ(st_close(h), 0);
  }
  // A file named as a slice, of the given size, holding no slice.
  void fake(const char* name, off_t size) {
    std::string p = dir_ + "/" + name;
    int fd = open(p.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, size), 0);
    close(fd);
  }
  int optimize(int force) {
    st_handle* h = st_open(dir_.c_str());
    int rc = st_optimize_ex(h, force);
    st_close(h);
    return rc;
  }
  std::vector<std::string> slices() {
    std::vector<std::string> out;
    for (const std::string& n : ScratchDir::list(dir_))
      if (st_tsidx_parse_name(n.c_str(), nullptr, nullptr, nullptr)) out.push_back(n);
    return out;
  }

  EnvGuard always_{"VELMOR_ST_ALWAYS_FORK", nullptr};
  ScratchDir scratch_;
  std::string dir_ = scratch_.sub("idx");
};

TEST_F(Optimize, PairChoiceBySize) {
  // Below a million bytes any two merge (opening fails here, so a chosen
  // pair shows as two "-invalid" files); a million and two million merge only
  // when forced, twice the smaller must be above the larger.
  fake("30-20-1.tsidx", 1000000);
  fake("50-40-2.tsidx", 2000000);
  EXPECT_EQ(optimize(0), 1);
  EXPECT_EQ(slices().size(), 2u);
  EXPECT_EQ(optimize(1), -1);
  EXPECT_EQ(ScratchDir::countSuffix(dir_, "-invalid"), 2u);
  EXPECT_TRUE(slices().empty());
  EXPECT_EQ(optimize(0), -1) << "no slice at all";

  fake("70-60-3.tsidx", 10);
  fake("90-80-4.tsidx", 999999);
  EXPECT_EQ(optimize(0), -1);
  EXPECT_EQ(ScratchDir::countSuffix(dir_, "-invalid"), 4u);

  fake("95-94-5.tsidx", 0);  // unreadable size 0: passed over
  fake("99-98-6.tsidx", 1500000);
  fake("99-98-7.tsidx", 2000000);
  EXPECT_EQ(optimize(0), -1) << "1.5 MB and 2 MB: twice the smaller is above the larger";
  EXPECT_EQ(ScratchDir::countSuffix(dir_, "-invalid"), 6u);
  EXPECT_EQ(ScratchDir::countSuffix(dir_, ".lock"), 0u) << "all locks released";
}

TEST_F(Optimize, OneSliceIsNothingToMergeEvenForced) {
  slice({{"a", 10, 1}});
  EXPECT_EQ(optimize(0), 1);
  EXPECT_EQ(optimize(1), 1);
  st_handle* h = st_open(dir_.c_str());
  EXPECT_EQ(st_is_optimized(h), 1);
  st_close(h);
}

TEST_F(Optimize, LockedSliceIsLeftOut) {
  slice({{"a", 10, 1}});
  slice({{"a", 20, 2}});
  slice({{"a", 30, 3}});
  std::vector<std::string> before = slices();
  ASSERT_EQ(before.size(), 3u);
  std::string held = dir_ + "/" + before[1];
  ASSERT_EQ(st_lock(held.c_str()), 0);
  EXPECT_EQ(optimize(1), 0);
  std::vector<std::string> after = slices();
  ASSERT_EQ(after.size(), 2u);
  EXPECT_TRUE(std::find(after.begin(), after.end(), before[1]) != after.end()) << "the locked slice stays";
  EXPECT_EQ(optimize(1), 1) << "only the locked one and the merged one: one candidate";
  st_unlock(held.c_str());
  EXPECT_EQ(optimize(1), 0);
  EXPECT_EQ(slices().size(), 1u);
}

TEST_F(Optimize, ValueInBothInputsAppearsOnce) {
  slice({{"x", 100, 7}, {"y", 90, 8}});
  slice({{"x", 100, 7}, {"x", 80, 9}, {"z", 70, 10}});
  ASSERT_EQ(optimize(0), 0);
  st_handle* h = st_open(dir_.c_str());
  st_tsval ans[8];
  ASSERT_EQ(st_get(h, "x", 0, 1000, ans, 8, 0), 2);
  EXPECT_EQ(ans[0].address, 7u);
  EXPECT_EQ(ans[1].address, 9u);
  st_meta_answer m;
  ASSERT_EQ(st_meta(h, "x", &m), 0);
  EXPECT_EQ(m.count, 3) << "term counts add up without folding the shared value";
  EXPECT_EQ(m.earliest, 80);
  EXPECT_EQ(m.latest, 100);
  ASSERT_EQ(st_meta(h, nullptr, &m), 0);
  EXPECT_EQ(m.count, 4) << "four distinct values";
  st_close(h);
}

// When the summed count of a term reaches the number of values, the query
// would take the term to be in every value; the merge stores the true count.
TEST_F(Optimize, OverstatedCountNeverMeansEveryValue) {
  slice({{"x", 100, 7}, {"y", 90, 8}});
  slice({{"x", 100, 7}, {"x", 80, 9}});
  ASSERT_EQ(optimize(0), 0);
  st_handle* h = st_open(dir_.c_str());
  st_tsval ans[8];
  ASSERT_EQ(st_get(h, "x", 0, 1000, ans, 8, 0), 2);
  EXPECT_EQ(ans[0].address, 7u);
  EXPECT_EQ(ans[1].address, 9u);
  st_close(h);
}

TEST_F(Optimize, CorruptInputIsSetAsideAndTheNextRunGoesOn) {
  slice({{"a", 10, 1}});
  slice({{"a", 20, 2}});
  slice({{"a", 30, 3}});
  std::vector<std::string> names = slices();
  std::string bad = dir_ + "/" + names[0];
  int fd = open(bad.c_str(), O_WRONLY);
  ASSERT_EQ(pwrite(fd, "NotASlc", 8, 0), 8);
  close(fd);
  // Forced: the two smallest; all three are the same size, so by name.
  EXPECT_EQ(optimize(1), -1);
  EXPECT_EQ(ScratchDir::countSuffix(dir_, "-invalid"), 1u);
  EXPECT_EQ(optimize(1), 0);
  EXPECT_EQ(slices().size(), 1u);
  st_handle* h = st_open(dir_.c_str());
  st_tsval ans[4];
  EXPECT_EQ(st_get(h, "a", 0, 100, ans, 8, 0), 2) << "the set-aside slice is never read again";
  st_close(h);
}

TEST_F(Optimize, LeftoverMergeFileBlocksThatPair) {
  slice({{"a", 10, 1}});
  slice({{"a", 20, 2}});
  std::vector<std::string> names = slices();
  int32_t l1, e1, l2, e2;
  long id1, id2;
  ASSERT_TRUE(st_tsidx_parse_name(names[0].c_str(), &l1, &e1, &id1));
  ASSERT_TRUE(st_tsidx_parse_name(names[1].c_str(), &l2, &e2, &id2));
  // The pair goes smallest first; equal sizes order by path.
  std::string leftover = dir_ + "/" + std::to_string(e1) + ":" + std::to_string(e2) + ":" + std::to_string(id1) +
                         "-" + std::to_string(l1) + ":" + std::to_string(l2) + ":" + std::to_string(id2) + ".merge";
  FILE* f = fopen(leftover.c_str(), "w");
  fclose(f);
  EXPECT_EQ(optimize(0), -1);
  EXPECT_EQ(slices(), names) << "nothing removed";
  EXPECT_EQ(ScratchDir::countSuffix(dir_, ".merge"), 1u);
  unlink(leftover.c_str());
  EXPECT_EQ(optimize(0), 0);
}

// Merging slices of random events, with deletions in one of them, keeps
// every answer, and the merged lists hash like the union of the inputs.
TEST_F(Optimize, MergeKeepsAnswersAndDeletions) {
  std::vector<ModelEvent> events = makeEvents(11, 400);
  st_handle* h = st_open(dir_.c_str());
  ASSERT_TRUE(putEvents(h, events, 200));
  auto none = [](void*, st_tsval) {};
  int deleted = st_delete(h, "kappa", 0, INT32_MAX, nullptr, none, nullptr);
  ASSERT_GT(deleted, 0);
  for (ModelEvent& e : events)
    if (hasTerm(e, "kappa")) e.deleted = true;
  ASSERT_EQ(slices().size(), 2u);

  std::string p1 = dir_ + "/" + slices()[0], p2 = dir_ + "/" + slices()[1];
  st_warm_slice* a = st_warm_slice_open(p1.c_str(), 0);
  st_warm_slice* b = st_warm_slice_open(p2.c_str(), 0);
  ASSERT_TRUE(a && b);
  int64_t estimate = st_warm_slice_merge_size_estimate(a, b);
  std::string out = scratch_.path() + "/merged.out";
  st_warm_slice* m = st_warm_slice_merge_log(out.c_str(), a, b, 0);
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(st_warm_slice_values(m), st_warm_slice_values(a) + st_warm_slice_values(b));
  EXPECT_EQ(st_warm_slice_blocksize(m), 64u);
  int64_t real = ospath_get_size(out.c_str());
  EXPECT_GT(estimate, real / 2);
  EXPECT_LT(estimate, real * 2);
  // A term's merged list holds the numbers of both inputs: compare counts.
  uint32_t c1 = 0, c2 = 0, cm = 0;
  int32_t e, l;
  st_warm_slice_meta(a, "alpha", &c1, &e, &l);
  st_warm_slice_meta(b, "alpha", &c2, &e, &l);
  st_warm_slice_meta(m, "alpha", &cm, &e, &l);
  EXPECT_EQ(cm, c1 + c2);
  st_warm_slice_close(m);
  st_warm_slice_close(a);
  st_warm_slice_close(b);

  ASSERT_EQ(optimize(0), 0);
  ModelQuery q;
  q.or_kw = {"alpha", "kappa", "omega"};
  SpecHolder spec(q);
  std::vector<st_tsval> want = modelAnswers(events, q), got(1000);
  int n = st_query(h, spec.get(), got.data(), 1000, 0);
  ASSERT_EQ(n, static_cast<int>(want.size()));
  EXPECT_EQ(memcmp(got.data(), want.data(), n * sizeof(st_tsval)), 0);
  st_close(h);
}

TEST_F(Optimize, VerboseMergePrintsProgress) {
  slice({{"a", 10, 1}});
  slice({{"a", 20, 2}});
  EnvGuard verbose("ST_VERBOSE", "1");
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(optimize(0), 0);
  std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("begin of merge\n"), std::string::npos);
  EXPECT_NE(err.find("merged forward lexicon: num_terms=1\n"), std::string::npos);
  EXPECT_NE(err.find("about to merge values: num_values=2\n"), std::string::npos);
  EXPECT_NE(err.find("merged postings lists\n"), std::string::npos);
}

}  // namespace
