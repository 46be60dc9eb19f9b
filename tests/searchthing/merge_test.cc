#include "searchthing/warmslice_merge.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <sys/stat.h>

#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "searchthing/codes.h"
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

// Whole lists in memory decode by the list reader's rules: a damaged word
// ends the list, keeping what came before, and marks it bad.
TEST(MergeListCoding, DecodeStopsAtTheFirstBadWord) {
  struct Row {
    const char* what;
    std::vector<unsigned char> bytes;
    uint32_t nv;
    std::vector<uint32_t> values;
    int bad;
  } rows[] = {
      {"run", {5, 0, 3}, 100, {5, 6, 7, 8}, 0},
      {"first word 0 is a value", {0, 0, 2}, 100, {0, 1, 2}, 0},
      {"two-byte difference", {3, 0xA9, 0x02}, 1000, {3, 300}, 0},
      {"empty", {}, 100, {}, 0},
      {"word cut off", {3, 0x80}, 100, {3}, 1},
      {"run of 0", {3, 0, 0}, 100, {3}, 1},
      {"difference of 0 written long", {3, 0x80, 0x00, 1}, 100, {3}, 1},
      {"first value 0 written long", {0x80, 0x00, 1}, 100, {0, 1}, 0},
      {"run word cut off", {3, 0}, 100, {3}, 1},
      {"run reaches past the values", {90, 0, 20}, 100, {90, 91, 92, 93, 94, 95, 96, 97, 98, 99}, 1},
      {"difference past the values", {99, 1}, 100, {99}, 1},
      {"first value past the values", {100}, 100, {}, 1},
      {"more than 32 bits", {0x80, 0x80, 0x80, 0x80, 0x10, 1, 1, 1}, 100, {}, 1},
      {"fifth byte flagged", {2, 0x80, 0x80, 0x80, 0x80, 0x81, 1, 1, 1}, 100, {2}, 1},
      {"largest word, above nv", {0xFF, 0xFF, 0xFF, 0xFF, 0x0F, 1, 1, 1}, 100, {}, 1},
      {"long words with room to spare", {0x81, 0x01, 0x80, 0x01, 0x90, 0x4E, 1, 1, 1, 1}, 200000,
       {129, 257, 10257, 10258, 10259, 10260, 10261}, 0},
  };
  for (const Row& r : rows) {
    std::vector<uint32_t> out(r.nv + 1, 0xDEAD);
    int bad = -1;
    uint32_t n = st_merge_decode_list(r.bytes.data(), r.bytes.size(), r.nv, out.data(), &bad);
    out.resize(n);
    EXPECT_EQ(out, r.values) << r.what;
    EXPECT_EQ(bad, r.bad) << r.what;
  }
}

// Lists of every density (single values, short runs, long gaps) come back
// from their encoding unchanged.
TEST(MergeListCoding, DecodeUndoesEncode) {
  std::mt19937 rng(7);
  for (uint32_t gap_max : {1u, 2u, 3u, 200u, 40000u, 3000000u}) {
    for (uint32_t len : {1u, 2u, 9u, 500u}) {
      if ((uint64_t)gap_max * len > (20u << 20)) continue;  // out holds nv numbers
      std::vector<uint32_t> v;
      uint32_t cur = rng() % 50;
      for (uint32_t k = 0; k < len; ++k) {
        v.push_back(cur);
        cur += 1 + rng() % gap_max;
      }
      std::vector<unsigned char> buf = encode(v);
      std::vector<uint32_t> out(cur + 1);
      int bad = -1;
      out.resize(st_merge_decode_list(buf.data(), buf.size(), cur, out.data(), &bad));
      EXPECT_EQ(out, v) << "gaps up to " << gap_max << ", " << len << " values";
      EXPECT_EQ(bad, 0);
    }
  }
}

// Two slices written from hot slices, their events interleaved in time and
// sharing a few (time, address) pairs, with lists of every shape: in every
// value, every other, rare, runs in one input, terms of one input only, and
// gaps needing long words. The first holds deletion marks.
struct SlicePair {
  std::string a, b;
};

SlicePair writePair(const std::string& dir, uint32_t scale = 6000) {
  SlicePair out;
  for (int half = 0; half < 2; ++half) {
    st_hot_slice* hot = st_hot_slice_create(8 << 20, 1 << 14, 1 << 20, 1 << 17);
    EXPECT_NE(hot, nullptr);
    const uint32_t n = half == 0 ? 5 * scale : 4 * scale;
    auto put = [&](const std::string& term, uint32_t i) {
      int32_t time = 1000000 + 2 * (int32_t)i + half;
      uint32_t addr = 10 * i + half;
      if (half == 1 && i % 997 == 0) {  // the same event as in the first slice
        time -= 1;
        addr -= 1;
      }
      ASSERT_EQ(st_hot_slice_put(hot, term.c_str(), time, addr, 0, i % 3, i % 5 + 1, i % 9 + 2), 0);
    };
    for (uint32_t i = 0; i < n; ++i) {
      put("meta::all", i);
      if (i % 2 == 0) put("even", i);
      if (i % 7 == 0) put("seven", i);
      if (i % 4093 == 0) put("far", i);
      if (i >= 1000 && i < 1400 && half == 0) put("block", i);
      if (i % 61 == 0) put(half == 0 ? "only::a" : "only::b", i);
      put("t" + std::to_string(i % 1500), i);
      if (i % 11 == 0) put("w" + std::to_string(i % 397) + "-" + std::to_string(half), i);
    }
    char name[4096];
    free(st_warm_slice_create_by_fd(hot, name, sizeof name, dir.c_str(), ".tsidx"));
    st_hot_slice_close(hot);
    (half == 0 ? out.a : out.b) = name;
  }
  st_warm_slice* ws = st_warm_slice_open(out.a.c_str(), 1);
  EXPECT_NE(ws, nullptr);
  auto none = [](void*, st_tsval) {};
  EXPECT_GT(st_warm_slice_delete(ws, "seven", 0, INT32_MAX, nullptr, none, nullptr), 0);
  st_warm_slice_close(ws);
  return out;
}

uint64_t fnv1a(const std::string& path) {
  std::vector<unsigned char> b;
  int fd = open(path.c_str(), O_RDONLY);
  struct stat sb;
  if (fd < 0 || fstat(fd, &sb) != 0) return 0;
  b.resize(sb.st_size);
  if (pread(fd, b.data(), b.size(), 0) != (ssize_t)b.size()) b.clear();
  close(fd);
  uint64_t h = 14695981039346656037ull;
  for (unsigned char c : b) h = (h ^ c) * 1099511628211ull;
  return h;
}

// (time, address) of every value in a term's list.
std::set<std::pair<int32_t, uint32_t>> listOf(st_warm_slice* ws, const char* term) {
  std::set<std::pair<int32_t, uint32_t>> out;
  uint32_t id = st_fclex_get(ws->flex, term);
  if (id == ST_FCLEX_NONE) return out;
  st_pl_reader* r = new st_pl_reader;
  st_pl_reader_init(r, ws);
  st_pl_reader_seek(r, id);
  for (int64_t v; (v = st_pl_reader_next(r)) >= 0;) {
    st_tsval t;
    st_warm_slice_decode_tsval(ws, (uint32_t)v, &t);
    out.insert({t.time, t.address});
  }
  EXPECT_EQ(r->bad, 0) << term;
  delete r;
  return out;
}

// The merged file of a fixed pair is pinned byte for byte (the hashes were
// taken from the merge as first written, which walked both lists value by
// value), and every merged list is the union of the inputs' lists.
TEST(MergeBytes, MergedFileIsPinned) {
  ScratchDir scratch;
  SlicePair p = writePair(scratch.path(), 6000);
  // The inputs are pinned too, so that a change in the slice writer shows as
  // such rather than as a change in the merge.
  EXPECT_EQ(fnv1a(p.a), 0x47ddf98608cb363cull) << "input a changed: the writer's bytes differ";
  EXPECT_EQ(fnv1a(p.b), 0xc077855ca02305ffull) << "input b changed: the writer's bytes differ";
  // The smaller slice (b) goes first, as the optimiser orders a pair.
  st_warm_slice* a = st_warm_slice_open(p.b.c_str(), 0);
  st_warm_slice* b = st_warm_slice_open(p.a.c_str(), 0);
  ASSERT_TRUE(a && b);
  ASSERT_LT(ospath_get_size(p.b.c_str()), ospath_get_size(p.a.c_str()));
  std::string out = scratch.path() + "/merged.merge";
  st_warm_slice* m = st_warm_slice_merge(out.c_str(), a, b);
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(fnv1a(out), 0xe981966c53f94ed3ull);
  for (const char* term : {"meta::all", "even", "seven", "far", "block", "only::a", "only::b", "t7", "w5-0"}) {
    std::set<std::pair<int32_t, uint32_t>> want = listOf(a, term), more = listOf(b, term);
    want.insert(more.begin(), more.end());
    EXPECT_EQ(listOf(m, term), want) << term;
  }
  st_warm_slice_close(m);
  st_warm_slice_close(a);
  st_warm_slice_close(b);
}

// Damaged posting bytes in an input end that input's list where the list
// reader would stop; the merge goes on and writes a sound slice.
TEST(MergeBytes, DamagedListEndsWhereTheReaderStops) {
  ScratchDir scratch;
  SlicePair p = writePair(scratch.path());
  st_warm_slice* a = st_warm_slice_open(p.a.c_str(), 0);
  ASSERT_NE(a, nullptr);
  uint32_t id = st_fclex_get(a->flex, "even");
  uint64_t start = st_warm_slice_pl_offset(a, (int64_t)id - 1), end = st_warm_slice_pl_offset(a, id);
  uint64_t at = a->postings_base + start + (end - start) / 2;
  st_warm_slice_close(a);
  int fd = open(p.a.c_str(), O_WRONLY);
  ASSERT_GE(fd, 0);
  const unsigned char junk[] = {0, 0};  // a run of 0: the reader stops there
  ASSERT_EQ(pwrite(fd, junk, 2, (off_t)at), 2);
  close(fd);

  a = st_warm_slice_open(p.a.c_str(), 0);
  st_warm_slice* b = st_warm_slice_open(p.b.c_str(), 0);
  ASSERT_TRUE(a && b);
  std::set<std::pair<int32_t, uint32_t>> want;
  {
    st_pl_reader* r = new st_pl_reader;
    st_pl_reader_init(r, a);
    st_pl_reader_seek(r, st_fclex_get(a->flex, "even"));
    for (int64_t v; (v = st_pl_reader_next(r)) >= 0;) {
      st_tsval t;
      st_warm_slice_decode_tsval(a, (uint32_t)v, &t);
      want.insert({t.time, t.address});
    }
    EXPECT_EQ(r->bad, 1);
    delete r;
  }
  EXPECT_GT(want.size(), 100u);
  std::set<std::pair<int32_t, uint32_t>> more = listOf(b, "even");
  want.insert(more.begin(), more.end());
  std::string out = scratch.path() + "/merged.merge";
  st_warm_slice* m = st_warm_slice_merge(out.c_str(), a, b);
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(listOf(m, "even"), want);
  EXPECT_EQ(st_warm_slice_verify(m), 0);
  st_warm_slice_close(m);
  st_warm_slice_close(a);
  st_warm_slice_close(b);
}

// Random damage anywhere in either input (header, values, tables,
// lexicons, postings) either makes it fail to open or leaves a merge that
// finishes and writes a slice that opens.
TEST(MergeBytes, RandomDamageNeverCrashesTheMerge) {
  ScratchDir scratch;
  SlicePair p = writePair(scratch.path(), 60);
  std::vector<unsigned char> orig[2];
  const std::string* paths[2] = {&p.a, &p.b};
  for (int k = 0; k < 2; ++k) {
    int fd = open(paths[k]->c_str(), O_RDONLY);
    struct stat sb;
    ASSERT_EQ(fstat(fd, &sb), 0);
    orig[k].resize(sb.st_size);
    ASSERT_EQ(pread(fd, orig[k].data(), orig[k].size(), 0), (ssize_t)orig[k].size());
    close(fd);
  }
  std::mt19937 rng(11);
  std::string out = scratch.path() + "/merged.merge";
  int merged = 0;
  for (int round = 0; round < 300; ++round) {
    int k = round & 1;
    std::vector<unsigned char> bytes = orig[k];
    // Half the rounds hit the postings (the tail of the file) only.
    size_t from = round % 4 < 2 ? bytes.size() - bytes.size() / 8 : 0;
    for (int hits = 1 + (int)(rng() % 4); hits > 0; --hits) bytes[from + rng() % (bytes.size() - from)] = (unsigned char)rng();
    int fd = open(paths[k]->c_str(), O_WRONLY | O_TRUNC);
    ASSERT_EQ(write(fd, bytes.data(), bytes.size()), (ssize_t)bytes.size());
    close(fd);
    st_warm_slice* a = st_warm_slice_open(p.a.c_str(), 0);
    st_warm_slice* b = st_warm_slice_open(p.b.c_str(), 0);
    if (a && b) {
      st_warm_slice* m = st_warm_slice_merge(out.c_str(), a, b);
      if (m) ++merged;
      st_warm_slice_close(m);
      unlink(out.c_str());
    }
    st_warm_slice_close(a);
    st_warm_slice_close(b);
    fd = open(paths[k]->c_str(), O_WRONLY | O_TRUNC);
    ASSERT_EQ(write(fd, orig[k].data(), orig[k].size()), (ssize_t)orig[k].size());
    close(fd);
  }
  EXPECT_GT(merged, 50) << "most damage to postings still merges";
  unlink(p.a.c_str());
  unlink(p.b.c_str());
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
