// Hot slice: the four full-table results and that a refused put leaves no
// trace, the half-full probe, duplicate folding, truncation of long terms,
// and prepare against a model of the puts.
#include "searchthing/hotslice.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

struct Hot {
  st_hot_slice* h;
  Hot(uint64_t pool, uint32_t terms, uint32_t postings, uint32_t values)
      : h(st_hot_slice_create(pool, terms, postings, values)) {}
  ~Hot() { st_hot_slice_close(h); }
  int put(const std::string& term, int32_t time, uint32_t addr, uint32_t source = 1) {
    return st_hot_slice_put(h, term.c_str(), time, addr, 2, source, 3, 4);
  }
  // Counters that a refused put must leave alone.
  std::vector<uint64_t> usage() const { return {h->pool_used, h->terms_used, h->postings_used, h->values_used}; }
  // Posting list (value numbers) of each term after prepare.
  std::map<std::string, std::vector<uint32_t>> lists() const {
    std::map<std::string, std::vector<uint32_t>> out;
    uint32_t pos = 0;
    for (uint32_t t = 0; t < h->prep_terms; ++t) {
      std::vector<uint32_t>& l = out[h->sorted_terms[t]];
      for (uint32_t i = 0; i < h->postings_per_term[t]; ++i) l.push_back(h->flat_postings[pos + i]);
      pos += h->postings_per_term[t];
    }
    return out;
  }
  const st_hot_term_stats& stats(uint32_t sorted_slot) const {
    return h->stats[st_hot_slice_get_term_index(h, sorted_slot)];
  }
};

std::string term(int i) { return "t" + std::to_string(i); }

TEST(HotSlice, FullTablesRefuseWithTheirCodeAndLeaveNoTrace) {
  {  // terms full: -1
    Hot s(1 << 20, 258, 1000, 1000);
    for (int i = 0; i < 258; ++i) ASSERT_EQ(s.put(term(i), 1, 1), 0);
    auto before = s.usage();
    EXPECT_EQ(s.put("new", 1, 1), -1);
    EXPECT_EQ(s.usage(), before);
    EXPECT_EQ(s.put(term(3), 1, 2), -1) << "the test comes before the term is looked up";
  }
  {  // values full: -2
    Hot s(1 << 20, 258, 1000, 4);
    for (uint32_t a = 0; a < 4; ++a) ASSERT_EQ(s.put("x", 1, a), 0);
    auto before = s.usage();
    EXPECT_EQ(s.put("y", 1, 9), -2);
    EXPECT_EQ(s.usage(), before);
  }
  {  // postings full: -3, and the term that would have fitted isn't made
    Hot s(1 << 20, 258, 3, 100);
    for (uint32_t a = 0; a < 3; ++a) ASSERT_EQ(s.put("x", 1, a), 0);
    auto before = s.usage();
    EXPECT_EQ(s.put("fresh", 1, 7), -3);
    EXPECT_EQ(s.usage(), before);
  }
  {  // pool full: -4 when used plus length reaches the pool size
    Hot s(10, 258, 100, 100);
    ASSERT_EQ(s.put("abcd", 1, 1), 0);  // 5 bytes used
    EXPECT_EQ(s.put("abcde", 1, 1), -4);
    EXPECT_EQ(s.put("abcd", 1, 2), 0) << "an existing term of 4 bytes still passes 5 + 4 < 10";
  }
}

TEST(HotSlice, EmptyTermProbesHalfFull) {
  Hot s(1 << 20, 258, 10, 100);
  EXPECT_EQ(s.put("", 1, 1), 0);
  for (uint32_t a = 0; a < 5; ++a) ASSERT_EQ(s.put("x", 1, a), 0);
  EXPECT_EQ(s.put("", 1, 1), 0) << "5 postings of 10 is not above half";
  ASSERT_EQ(s.put("x", 1, 5), 0);
  auto before = s.usage();
  EXPECT_EQ(s.put("", 1, 1), -3);
  EXPECT_EQ(s.usage(), before);
}

TEST(HotSlice, DuplicatesFoldAtHeadAndInPrepare) {
  Hot s(1 << 20, 258, 100, 100);
  ASSERT_EQ(s.put("same", 10, 1), 0);
  ASSERT_EQ(s.put("same", 10, 1), 0);  // folded at once: one posting, count 1
  EXPECT_EQ(s.h->postings_used, 1u);
  ASSERT_EQ(s.put("aba", 5, 7), 0);
  ASSERT_EQ(s.put("aba", 6, 8), 0);
  ASSERT_EQ(s.put("aba", 7, 7), 0);  // A, B, A: three postings, count 3
  int32_t latest, earliest;
  uint32_t nv, nt, np;
  ASSERT_EQ(st_hot_slice_prepare(s.h, &latest, &earliest, &nv, &nt, &np), 0);
  EXPECT_EQ(nv, 3u);
  EXPECT_EQ(nt, 2u);
  // Values by time descending: addr 1 (10), addr 8 (6), addr 7 (5: first put wins).
  EXPECT_EQ(latest, 10);
  EXPECT_EQ(earliest, 5);
  auto lists = s.lists();
  EXPECT_EQ(lists["aba"], (std::vector<uint32_t>{1, 2}));
  EXPECT_EQ(lists["same"], (std::vector<uint32_t>{0}));
  EXPECT_EQ(s.stats(0).count, 3u);  // "aba" sorts first
  EXPECT_EQ(s.stats(0).earliest, 5);
  EXPECT_EQ(s.stats(0).latest, 7) << "statistics take the later time of a repeated address";
  EXPECT_EQ(s.stats(1).count, 1u);
  // The reported postings count takes the last term before deduplication.
  EXPECT_EQ(np, 2u + 1u);
}

TEST(HotSlice, TermsWithEqualHashesStaySeparate) {
  // "aA" and "b " hash alike (one more in the first byte is worth 33 in the
  // second); only the text tells them apart.
  Hot s(1 << 20, 258, 100, 100);
  const std::vector<std::string> words = {"aA", "b "};
  for (uint32_t i = 0; i < 3; ++i)
    for (const std::string& w : words) ASSERT_EQ(s.put(w, 1, 1000 * i + uint32_t(w[0])), 0);
  EXPECT_EQ(s.h->terms_used, 2u);
  ASSERT_EQ(st_hot_slice_prepare(s.h, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
  auto lists = s.lists();
  ASSERT_EQ(lists.size(), 2u);
  for (const std::string& w : words) EXPECT_EQ(lists[w].size(), 3u) << w;
}

TEST(HotSlice, LongTermsAreCutAndShareOneEntry) {
  Hot s(1 << 20, 258, 100, 100);
  std::string a(3000, 'k'), b = std::string(ST_MAX_TERM_LEN, 'k') + "different tail";
  ASSERT_EQ(s.put(a, 1, 1), 0);
  ASSERT_EQ(s.put(b, 2, 2), 0);
  EXPECT_EQ(s.h->terms_used, 1u);
  EXPECT_EQ(s.h->pool_used, (uint64_t)ST_MAX_TERM_LEN + 1);
  ASSERT_EQ(st_hot_slice_prepare(s.h, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(strlen(s.h->sorted_terms[0]), (size_t)ST_MAX_TERM_LEN);
}

TEST(HotSlice, PrepareMatchesModelAndResetReuses) {
  std::mt19937 rng(3);
  Hot s(1 << 20, 1000, 20000, 5000);
  for (int round = 0; round < 3; ++round) {
    std::map<uint32_t, int32_t> first_time;
    std::map<std::string, std::set<uint32_t>> model;
    for (int i = 0; i < 5000; ++i) {
      uint32_t addr = rng() % 700;
      // Hash collisions of the value table: times and addresses whose step is even.
      int32_t t = (int32_t)(rng() % 50) - 10;
      std::string w = term(rng() % 300);
      ASSERT_EQ(s.put(w, t, addr), 0);
      first_time.emplace(addr, t);
      model[w].insert(addr);
    }
    int32_t latest, earliest;
    uint32_t nv, nt, np;
    ASSERT_EQ(st_hot_slice_prepare(s.h, &latest, &earliest, &nv, &nt, &np), 0);
    ASSERT_EQ(nv, first_time.size());
    ASSERT_EQ(nt, model.size());
    // Value order: time descending then address descending.
    std::vector<std::pair<int32_t, uint32_t>> order;
    for (auto& [addr, t] : first_time) order.push_back({t, addr});
    std::sort(order.begin(), order.end(), [](auto& x, auto& y) { return x > y; });
    for (uint32_t v = 0; v < nv; ++v) {
      ASSERT_EQ(s.h->value_hash[v]->time, order[v].first);
      ASSERT_EQ(s.h->value_hash[v]->address, order[v].second);
    }
    EXPECT_EQ(latest, order.front().first);
    EXPECT_EQ(earliest, order.back().first);
    auto lists = s.lists();
    for (auto& [w, addrs] : model) {
      std::vector<uint32_t> want;
      for (uint32_t v = 0; v < nv; ++v)
        if (addrs.count(order[v].second)) want.push_back(v);
      ASSERT_EQ(lists[w], want) << w;
    }
    // A second prepare returns the saved results.
    uint32_t nv2 = 0;
    ASSERT_EQ(st_hot_slice_prepare(s.h, nullptr, nullptr, &nv2, nullptr, nullptr), 0);
    EXPECT_EQ(nv2, nv);
    st_hot_slice_reset(s.h);
    EXPECT_EQ(st_hot_slice_values(s.h), 0u);
    EXPECT_EQ(st_hot_slice_prepare(s.h, nullptr, nullptr, nullptr, nullptr, nullptr), -1);
  }
}

}  // namespace
