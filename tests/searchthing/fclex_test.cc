// Front-coded lexicon: exact bytes of small bodies, lookups and walks in both
// modes against a sorted set, 2047-byte terms, merge, and rejection of
// damaged bodies.
#include "searchthing/fclex.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "searchthing/codes.h"
#include "st_test_util.h"

namespace {

using Terms = std::vector<std::string>;

// A body built from terms, with a memory-mode handle over it.
struct Lex {
  std::vector<unsigned char> body;
  st_fclex_handle* h = nullptr;
  Lex(const Terms& terms, uint32_t tpb) {
    std::vector<const char*> p;
    uint64_t usize = 0;
    for (const std::string& t : terms) {
      p.push_back(t.c_str());
      usize += t.size() + 1;
    }
    body.assign(usize + 8 * terms.size() + 64, 0);
    h = st_fclex_create(body.data(), body.size(), p.data(), (uint32_t)p.size(), tpb, (uint32_t)usize);
  }
  ~Lex() { st_fclex_close(h); }
  std::string hex() const {
    std::string s;
    char b[4];
    for (uint64_t i = 0; i < st_fclex_size(h); ++i) {
      snprintf(b, sizeof b, "%02x", body[i]);
      s += b;
    }
    return s;
  }
};

// The same body written to a file at an offset, opened in descriptor mode.
struct FdLex {
  ScratchDir dir;
  int fd = -1;
  st_fclex_handle* h = nullptr;
  FdLex(const Lex& lex, uint64_t offset) {
    std::string path = dir.path() + "/lex";
    fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    std::vector<unsigned char> pad(offset, 0xEE);
    EXPECT_EQ(write(fd, pad.data(), pad.size()), (ssize_t)pad.size());
    uint64_t size = st_fclex_size(lex.h);
    EXPECT_EQ(write(fd, lex.body.data(), size), (ssize_t)size);
    EXPECT_EQ(st_fclex_check_fd(fd, offset, size), 0);
    h = st_fclex_open_fd(fd, offset);
  }
  ~FdLex() {
    st_fclex_close(h);
    close(fd);
  }
};

Terms randomTerms(std::mt19937& rng, size_t n) {
  static const char* stems[] = {"err", "error", "errors", "warn", "host", "hostname", "a", "b", "z", "zz"};
  std::set<std::string> s;
  while (s.size() < n) {
    std::string t = stems[rng() % 10];
    int extra = rng() % 4;
    for (int i = 0; i < extra; ++i) t += (char)('a' + rng() % 5);
    s.insert(t);
  }
  return Terms(s.begin(), s.end());
}

Terms collect(st_fclex_handle* h, const char* prefix) {
  Terms out;
  st_fclex_apply(
      h, prefix,
      [](uint32_t, const char* term, uint32_t len, void* ctx) {
        static_cast<Terms*>(ctx)->push_back(std::string(term, len));
        return 1;
      },
      &out);
  return out;
}

TEST(Fclex, SmallBodyExactBytes) {
  // One block of 8 holding three terms: first form, then two middle forms.
  Lex a({"apple", "applet", "apply"}, 8);
  EXPECT_EQ(a.hex(),
            "00000003" "00000008" "00000013" "0000000c"
            "056170706c65" "050174" "040179");
  // Two terms per block: a full block ends on the last form (suffix without
  // length), and the single-term block holds a first form.
  Lex b({"ab", "abc", "b"}, 2);
  EXPECT_EQ(b.hex(),
            "00000003" "00000002" "00000009" "00000005" "00000007"
            "02616202" "63" "0162");
  EXPECT_EQ(st_fclex_how_many_blocks(b.h), 2u);
  // A lexicon with one term: block_offsets[0] is the length word plus text.
  Lex c({"x"}, 8);
  EXPECT_EQ(c.hex(), "00000001" "00000008" "00000002" "00000002" "0178");
}

TEST(Fclex, LookupsAgreeWithSortedSetInBothModes) {
  std::mt19937 rng(11);
  for (uint32_t tpb : {2u, 3u, 8u, 64u}) {
    for (size_t n : {1u, 7u, 8u, 9u, 200u}) {
      SCOPED_TRACE("tpb " + std::to_string(tpb) + " n " + std::to_string(n));
      Terms terms = randomTerms(rng, n);
      Lex lex(terms, tpb);
      ASSERT_TRUE(lex.h);
      FdLex fdl(lex, 8);
      ASSERT_TRUE(fdl.h);
      for (st_fclex_handle* h : {lex.h, fdl.h}) {
        EXPECT_EQ(st_fclex_terms(h), n);
        EXPECT_EQ(st_fclex_size(h), st_fclex_size(lex.h));
        for (size_t i = 0; i < n; ++i) ASSERT_EQ(st_fclex_get(h, terms[i].c_str()), i) << terms[i];
        for (const char* absent : {"", "0", "erq", "errorz", "zzzzzzzz", "\x7f"}) {
          if (!std::binary_search(terms.begin(), terms.end(), absent)) {
            EXPECT_EQ(st_fclex_get(h, absent), ST_FCLEX_NONE) << absent;
          }
        }
        EXPECT_EQ(st_fclex_get(h, nullptr), ST_FCLEX_NONE);
        for (const char* prefix : {"", "e", "err", "error", "errors", "h", "hostn", "q", "zz"}) {
          Terms want;
          for (const std::string& t : terms)
            if (t.compare(0, strlen(prefix), prefix) == 0) want.push_back(t);
          EXPECT_EQ(collect(h, prefix), want) << prefix;
          uint32_t est = st_fclex_prefix_terms(h, prefix);
          EXPECT_GE(est, *prefix ? want.size() : n) << prefix;
          if (*prefix) {
            EXPECT_EQ(est % tpb, 0u);
          }
        }
      }
    }
  }
}

TEST(Fclex, ApplyCountsStopsAndEnumerates) {
  Terms terms = {"alpha", "beta", "betamax", "betty", "gamma"};
  Lex lex(terms, 2);
  FdLex fdl(lex, 4);
  for (st_fclex_handle* h : {lex.h, fdl.h}) {
    // A null prefix passes every term in id order; the sum is returned.
    std::vector<uint32_t> ids;
    int total = st_fclex_apply(
        h, nullptr,
        [](uint32_t id, const char*, uint32_t, void* ctx) {
          static_cast<std::vector<uint32_t>*>(ctx)->push_back(id);
          return 2;
        },
        &ids);
    EXPECT_EQ(total, 10);
    EXPECT_EQ(ids, (std::vector<uint32_t>{0, 1, 2, 3, 4}));
    // -1 from the callback stops the walk and is the result.
    int calls = 0;
    EXPECT_EQ(st_fclex_apply(
                  h, "bet",
                  [](uint32_t, const char*, uint32_t, void* ctx) {
                    ++*static_cast<int*>(ctx);
                    return -1;
                  },
                  &calls),
              -1);
    EXPECT_EQ(calls, 1);
    st_enum_answer ans[2];
    EXPECT_EQ(st_fclex_enum(h, "bet", ans, 2), 2u);
    EXPECT_STREQ(ans[0].term, "beta");
    EXPECT_EQ(ans[0].value, 1u);
    EXPECT_STREQ(ans[1].term, "betamax");
    EXPECT_EQ(st_fclex_enum(h, "x", ans, 2), 0u);
  }
  char b0[2048], b1[2048];
  char* dest[] = {b0, b1};
  EXPECT_EQ(st_fclex_dump_block(dest, lex.h, 1), 2u);
  EXPECT_STREQ(b0, "betamax");
  EXPECT_STREQ(b1, "betty");
  EXPECT_EQ(st_fclex_dump_block(dest, lex.h, 2), 1u);
  EXPECT_STREQ(b0, "gamma");
  EXPECT_EQ(st_fclex_dump_block(dest, lex.h, 3), 0u);
}

TEST(Fclex, FullLengthTermsMatchLongerSearches) {
  std::string base(ST_MAX_TERM_LEN, 'q');
  std::string other = std::string(ST_MAX_TERM_LEN - 1, 'q') + "r";
  Terms terms = {"a", base, other, "s"};
  Lex lex(terms, 2);
  FdLex fdl(lex, 0);
  for (st_fclex_handle* h : {lex.h, fdl.h}) {
    EXPECT_EQ(st_fclex_get(h, base.c_str()), 1u);
    EXPECT_EQ(st_fclex_get(h, (base + "tail").c_str()), 1u);
    EXPECT_EQ(st_fclex_get(h, other.c_str()), 2u);
    EXPECT_EQ(st_fclex_get(h, base.substr(0, 100).c_str()), ST_FCLEX_NONE);
  }
}

TEST(Fclex, MergeIsSortedUnionWithSourceMap) {
  std::mt19937 rng(5);
  for (int round = 0; round < 20; ++round) {
    Terms a = randomTerms(rng, 1 + rng() % 150), b = randomTerms(rng, 1 + rng() % 150);
    Lex la(a, 8), lb(b, 8);
    std::vector<unsigned char> body(st_fclex_merge_size_estimate(la.h, lb.h));
    std::vector<unsigned char> map(a.size() + b.size());
    st_fclex_handle* m = st_fclex_merge(body.data(), body.size(), 64, map.data(), la.h, lb.h);
    ASSERT_TRUE(m);
    std::set<std::string> sa(a.begin(), a.end()), sb(b.begin(), b.end()), u = sa;
    u.insert(b.begin(), b.end());
    Terms want(u.begin(), u.end());
    ASSERT_EQ(st_fclex_terms(m), want.size());
    uint64_t usize = 0;
    for (size_t i = 0; i < want.size(); ++i) {
      usize += want[i].size() + 1;
      ASSERT_EQ(st_fclex_get(m, want[i].c_str()), i);
      int expect = sa.count(want[i]) && sb.count(want[i]) ? 0 : sa.count(want[i]) ? 1 : 2;
      ASSERT_EQ(map[i], expect) << want[i];
    }
    EXPECT_EQ(st_fclex_uncompressed_size(m), usize);
    EXPECT_EQ(st_fclex_blocksize(m), 64u);
    // The blocks sit right behind the real offsets: the body checks out at
    // exactly its own size.
    EXPECT_EQ(st_fclex_check(body.data(), st_fclex_size(m)), 0);
    st_fclex_close(m);
  }
}

TEST(Fclex, DamagedBodiesAreRejected) {
  Lex lex({"ab", "abc", "b", "c", "d"}, 2);
  const uint64_t size = st_fclex_size(lex.h);
  EXPECT_EQ(st_fclex_check(lex.body.data(), size), 0);
  EXPECT_EQ(st_fclex_check(lex.body.data(), size - 1), -1);
  struct {
    size_t at;
    uint32_t word;
  } damage[] = {{0, 0}, {4, 0}, {4, 1}, {8, 0}, {12, 0}, {16, 2}, {16, 0x7FFFFFFF}, {0, 0xFFFFFFFF}};
  for (auto& d : damage) {
    std::vector<unsigned char> copy(lex.body.begin(), lex.body.begin() + size);
    st_put_be32(copy.data() + d.at, d.word);
    EXPECT_EQ(st_fclex_check(copy.data(), copy.size()), -1) << d.at << " " << d.word;
  }
  // Damage inside a block is caught by the walk, which stops instead of
  // reading past the block.
  std::vector<unsigned char> copy(lex.body.begin(), lex.body.begin() + size);
  copy[12 + 4 * 3] = 0x7F;  // first term of block 0 claims 127 bytes
  st_fclex_handle* h = st_fclex_open(copy.data());
  EXPECT_EQ(st_fclex_get(h, "ab"), ST_FCLEX_NONE);
  EXPECT_EQ(collect(h, nullptr).size(), 0u);
  st_fclex_close(h);
}

}  // namespace
