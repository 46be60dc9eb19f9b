// Warm slices: the file format byte for byte, both writers and all three
// handle kinds answering every query form like a model of the data, older
// magics and escaped lists, deletion bits, and damaged files failing cleanly.
#include "searchthing/warmslice.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "searchthing/codes.h"
#include "st_test_util.h"

namespace {

using Bytes = std::vector<unsigned char>;

struct Posting {
  std::string term;
  int32_t time;
  uint32_t addr;
  uint32_t type, source, stype, host;
};

Bytes readFile(const std::string& path) {
  Bytes b;
  int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0) return b;
  struct stat sb;
  fstat(fd, &sb);
  b.resize(sb.st_size);
  EXPECT_EQ(pread(fd, b.data(), b.size(), 0), (ssize_t)b.size());
  close(fd);
  return b;
}

void writeFile(const std::string& path, const Bytes& b, size_t n) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, b.data(), n), (ssize_t)n);
  close(fd);
}

std::string hex(const Bytes& b, size_t from, size_t n) {
  std::string s;
  char buf[4];
  for (size_t i = from; i < from + n && i < b.size(); ++i) {
    snprintf(buf, sizeof buf, "%02x", b[i]);
    s += buf;
  }
  return s;
}

std::string reversed(std::string s) {
  std::reverse(s.begin(), s.end());
  return s;
}

// Writes the postings through a hot slice with the chosen writer; returns the
// file's path ("" on failure).
std::string writeSlice(const ScratchDir& dir, const std::vector<Posting>& ps, bool by_fd) {
  st_hot_slice* hot = st_hot_slice_create(1 << 20, 4096, 1 << 16, 1 << 14);
  for (const Posting& p : ps)
    EXPECT_EQ(st_hot_slice_put(hot, p.term.c_str(), p.time, p.addr, p.type, p.source, p.stype, p.host), 0);
  char name[4096];
  std::string out;
  if (by_fd) {
    st_warm_slice_fd_record* rec = st_warm_slice_create_by_fd(hot, name, sizeof name, dir.path().c_str(), ".pre-tsidx");
    if (rec) out = name;
    free(rec);
  } else {
    st_warm_slice* ws = st_warm_slice_create(hot, name, sizeof name, dir.path().c_str(), ".pre-tsidx");
    if (ws) out = name;
    st_warm_slice_close(ws);
  }
  st_hot_slice_close(hot);
  return out;
}

// ---------------------------------------------------------------------------
// Format

TEST(WarmSlice, SmallSliceExactBytes) {
  ScratchDir dir;
  std::vector<Posting> ps = {{"b", 100, 1, 2, 1, 3, 4}, {"a", 100, 1, 2, 1, 3, 4},
                             {"a", 200, 2, 2, 1, 3, 4}, {"c", 150, 3, 2, 1, 3, 4}};
  Bytes mem = readFile(writeSlice(dir, ps, false));
  Bytes fd = readFile(writeSlice(dir, ps, true));
  // Header: magic, 3 values, 4 postings, 3 terms, array sizes, then widths
  // log2n(2)=2, log2n(1)=1, log2n(3)=2, log2n(4)=3 and 1 for deletions.
  EXPECT_EQ(hex(mem, 0, 64),
            "56656c6d6f723500" "00000003" "00000004" "00000003"
            "00000002" "00000001" "00000002" "00000003" "00000001"
            "00000002" "00000001" "00000002" "00000003" "00000001" "00000000");
  // The descriptor writer sizes its arrays as (x>>3)-(x&7)+8 for x = bits*n.
  EXPECT_EQ(hex(fd, 20, 20), "00000002" "00000005" "00000002" "00000008" "00000005");
  // Values newest first: (200, 2), (150, 3), (100, 1).
  EXPECT_EQ(hex(mem, 64, 24), "000000c800000002" "0000009600000003" "0000006400000001");
  // Sections: et 96, s 104, st 112, h 120, d 128, list ends 136, metadata 168,
  // rf_map 208, forward lexicon 220, reversed 244, postings 268.
  EXPECT_EQ(hex(mem, 136, 24), "0000000000000002" "0000000000000003" "0000000000000004");
  EXPECT_EQ(hex(mem, 168, 36), "00000002000000640000" "00c8" "000000010000006400000064" "000000010000009600000096");
  EXPECT_EQ(hex(mem, 208, 12), "000000000000000100000002");
  EXPECT_EQ(hex(mem, 220, 24), "00000003" "00000008" "00000006" "00000008" "0161" "000162" "000163");
  EXPECT_EQ(hex(mem, 244, 24), hex(mem, 220, 24));
  // "a" holds values 0 and 2 (first word 0 is a plain zero), "b" 2, "c" 1.
  EXPECT_EQ(hex(mem, 268, 4), "00020201");
  EXPECT_EQ(mem.size(), 272u);
  // The descriptor writer's file differs only in its larger arrays.
  ASSERT_EQ(fd.size(), 280u);
  EXPECT_EQ(hex(fd, 228, 52), hex(mem, 220, 52));
}

TEST(WarmSlice, NamesCarryTimesAndGrowingCounter) {
  st_warm_slice_fd_record rec = {300, -5};
  char a[256], b[256];
  st_warm_slice_fd_filename(a, sizeof a, "/x/db", ".tsidx", &rec);
  st_warm_slice_fd_filename(b, sizeof b, "/x/db", ".tsidx", &rec);
  std::string prefix = "/x/db/300--5-" + std::to_string(getpid());
  EXPECT_EQ(std::string(a).rfind(prefix, 0), 0u) << a;
  EXPECT_NE(std::string(a), std::string(b));
  EXPECT_EQ(std::string(a).substr(std::string(a).size() - 6), ".tsidx");
}

// ---------------------------------------------------------------------------
// A hand-made slice writer, independent of the library's, for the older
// magic (32-bit list ends) and for escaped runs, which only merges write.

Bytes handMadeSlice(const char* magic, bool escapes, const std::vector<st_tsval>& vals,
                    const std::vector<std::string>& terms, const std::vector<std::vector<uint32_t>>& lists) {
  const uint32_t nv = vals.size(), nt = terms.size();
  const bool off64 = std::string(magic) != "Velmor3";
  uint32_t bits[5] = {1, 1, 1, 1, 1};
  for (const st_tsval& v : vals) {
    bits[0] = std::max(bits[0], log2n(v.type));
    bits[1] = std::max(bits[1], log2n(v.source));
    bits[2] = std::max(bits[2], log2n(v.source_type));
    bits[3] = std::max(bits[3], log2n(v.host));
  }
  uint32_t sizes[5];
  uint64_t off[5], prev = 64, prev_size = 8ull * nv;
  for (int a = 0; a < 5; ++a) {
    sizes[a] = ((nv >> 3) + 1) * bits[a];
    off[a] = prev + (prev_size & ~7ull) + 8;
    prev = off[a];
    prev_size = sizes[a];
  }
  uint64_t pl = prev + (prev_size & ~7ull) + 8;
  uint64_t meta = pl + (((off64 ? 8ull : 4ull) * nt) & ~7ull) + 8;
  uint64_t rf = meta + ((12ull * nt) & ~7ull) + 8;
  uint64_t flex = rf + 4ull * nt;
  Bytes f(flex, 0);
  memcpy(f.data(), magic, 8);
  st_put_be32(&f[8], 0);
  st_put_be32(&f[12], 0);
  st_put_be32(&f[16], nt);
  for (int a = 0; a < 5; ++a) {
    st_put_be32(&f[20 + 4 * a], sizes[a]);
    st_put_be32(&f[40 + 4 * a], bits[a]);
  }
  st_put_be32(&f[8], nv);
  unsigned char* arr[5];
  for (int a = 0; a < 5; ++a) arr[a] = &f[off[a]];
  for (uint32_t i = 0; i < nv; ++i) st_warm_slice_encode_tsval(&f[64], arr, bits, i, &vals[i]);
  // Lexicons.
  // The forward lexicon is padded to a multiple of 4; the postings follow
  // the reversed one directly.
  auto lexicon = [&](const std::vector<std::string>& ts, bool pad) {
    std::vector<const char*> p;
    for (auto& t : ts) p.push_back(t.c_str());
    Bytes body(4096 + 16 * ts.size(), 0);
    st_fclex_handle* h = st_fclex_create(body.data(), body.size(), p.data(), p.size(), 8, 1);
    body.resize(st_fclex_size(h));
    st_fclex_close(h);
    while (pad && body.size() % 4) body.push_back(0);
    return body;
  };
  std::vector<std::pair<std::string, uint32_t>> rterms;
  for (uint32_t t = 0; t < nt; ++t) rterms.push_back({reversed(terms[t]), t});
  std::sort(rterms.begin(), rterms.end());
  std::vector<std::string> rtexts;
  for (uint32_t r = 0; r < nt; ++r) {
    rtexts.push_back(rterms[r].first);
    st_put_be32(&f[rf + 4 * r], rterms[r].second);
  }
  Bytes fl = lexicon(terms, true), rl = lexicon(rtexts, false);
  f.insert(f.end(), fl.begin(), fl.end());
  f.insert(f.end(), rl.begin(), rl.end());
  // Postings.
  Bytes post;
  for (uint32_t t = 0; t < nt; ++t) {
    const std::vector<uint32_t>& l = lists[t];
    unsigned char w[8];
    for (size_t i = 0; i < l.size(); ++i) {
      if (i == 0) {
        post.insert(post.end(), w, w + st_encode_to_vbe(w, l[0]));
        continue;
      }
      size_t run = 0;
      while (escapes && i + run < l.size() && l[i + run] == l[i - 1] + run + 1) ++run;
      if (run >= 2) {
        post.push_back(0);
        post.insert(post.end(), w, w + st_encode_to_vbe(w, run));
        i += run - 1;
      } else {
        post.insert(post.end(), w, w + st_encode_to_vbe(w, l[i] - l[i - 1]));
      }
    }
    if (off64)
      st_put_be64(&f[pl + 8 * t], post.size());
    else
      st_put_be32(&f[pl + 4 * t], post.size());
    st_put_be32(&f[meta + 12 * t], l.size());
    int32_t lo = INT32_MAX, hi = INT32_MIN;
    for (uint32_t v : l) {
      lo = std::min(lo, vals[v].time);
      hi = std::max(hi, vals[v].time);
    }
    st_put_be32(&f[meta + 12 * t + 4], lo);
    st_put_be32(&f[meta + 12 * t + 8], hi);
  }
  f.insert(f.end(), post.begin(), post.end());
  return f;
}

// ---------------------------------------------------------------------------
// Model of a slice's data and queries

struct Query {
  int32_t start = INT32_MIN, end = INT32_MAX;
  std::vector<std::string> lists[9];  // in st_query_spec order
};

struct Model {
  std::vector<st_tsval> vals;                  // value order, newest first
  std::vector<std::set<std::string>> terms;    // terms of each value
  std::set<std::string> vocab;

  explicit Model(const std::vector<Posting>& ps) {
    std::map<std::pair<int32_t, uint32_t>, std::set<std::string>, std::greater<>> byval;
    std::map<std::pair<int32_t, uint32_t>, st_tsval, std::greater<>> rows;
    for (const Posting& p : ps) {
      byval[{p.time, p.addr}].insert(p.term);
      rows.emplace(std::make_pair(p.time, p.addr), st_tsval{p.time, p.addr, p.type, p.source, p.stype, p.host});
      vocab.insert(p.term);
    }
    for (auto& [k, ts] : byval) {
      vals.push_back(rows[k]);
      terms.push_back(ts);
    }
  }
  static bool prefixOf(const std::string& p, const std::string& t) { return t.compare(0, p.size(), p) == 0; }
  bool has(size_t v, const std::string& kw) const {
    if (kw.find('*') == std::string::npos) return terms[v].count(kw) > 0;
    void* m = createMatcher(kw.c_str());
    bool hit = false;
    for (auto& t : terms[v]) hit = hit || isMatch(m, t.c_str());
    freeOpaqueMatcher(m);
    return hit;
  }
  bool hasPrefix(size_t v, const std::string& p) const {
    for (auto& t : terms[v])
      if (prefixOf(p, t)) return true;
    return false;
  }
  bool hasSuffix(size_t v, const std::string& rs) const {
    for (auto& t : terms[v])
      if (prefixOf(rs, reversed(t))) return true;
    return false;
  }
  bool group(size_t v, const Query& q, int kw, int pre, int suf) const {
    for (auto& s : q.lists[kw])
      if (has(v, s)) return true;
    for (auto& s : q.lists[pre])
      if (hasPrefix(v, s)) return true;
    for (auto& s : q.lists[suf])
      if (hasSuffix(v, s)) return true;
    return false;
  }
  std::vector<st_tsval> answer(const Query& q, const std::set<uint32_t>& deleted = {}) const {
    std::vector<st_tsval> out;
    for (size_t v = 0; v < vals.size(); ++v) {
      if (vals[v].time < q.start || vals[v].time > q.end || deleted.count(vals[v].address)) continue;
      bool ok = true;
      for (auto& s : q.lists[0]) ok = ok && has(v, s);
      for (auto& s : q.lists[3]) ok = ok && hasPrefix(v, s);
      for (auto& s : q.lists[6]) ok = ok && hasSuffix(v, s);
      bool any_or = !q.lists[1].empty() || !q.lists[4].empty() || !q.lists[7].empty();
      if (any_or) ok = ok && group(v, q, 1, 4, 7);
      ok = ok && !group(v, q, 2, 5, 8);
      if (ok) out.push_back(vals[v]);
    }
    return out;
  }
};

// Runs a Query through st_warm_slice_query.
struct Spec {
  std::vector<std::vector<char*>> ptrs;
  st_query_spec spec;
  explicit Spec(const Query& q) : ptrs(9) {
    memset(&spec, 0, sizeof spec);
    spec.start = q.start;
    spec.end = q.end;
    // st_query_spec order: AND, OR, NOT keywords; AND, OR, NOT prefixes; suffixes.
    st_strlist* lists[9] = {&spec.and_keywords, &spec.or_keywords,   &spec.not_keywords,
                            &spec.and_prefixes, &spec.or_prefixes,   &spec.not_prefixes,
                            &spec.and_suffixes, &spec.or_suffixes,   &spec.not_suffixes};
    for (int i = 0; i < 9; ++i) {
      for (auto& s : q.lists[i]) ptrs[i].push_back(const_cast<char*>(s.c_str()));
      lists[i]->strs = ptrs[i].data();
      lists[i]->count = ptrs[i].size();
    }
  }
};

// The model's list indices in Query: 0 AND kw, 1 OR kw, 2 NOT kw, 3 AND prefix,
// 4 OR prefix, 5 NOT prefix, 6 AND suffix, 7 OR suffix, 8 NOT suffix.
std::string describe(const Query& q) {
  static const char* names[9] = {"and", "or", "not", "and-pre", "or-pre", "not-pre", "and-suf", "or-suf", "not-suf"};
  std::string s = "[" + std::to_string(q.start) + "," + std::to_string(q.end) + "]";
  for (int i = 0; i < 9; ++i)
    for (auto& x : q.lists[i]) s += std::string(" ") + names[i] + ":" + x;
  return s;
}

std::vector<Posting> randomPostings(std::mt19937& rng, int nvalues, int vocab) {
  static const char* stems[] = {"err", "error", "errno", "host", "hostname", "ssh", "sshd", "kernel", "k", "user"};
  std::vector<std::string> words;
  for (int i = 0; i < vocab; ++i) words.push_back(std::string(stems[i % 10]) + (i < 10 ? "" : std::to_string(i)));
  std::vector<Posting> ps;
  for (int v = 0; v < nvalues; ++v) {
    int32_t t = 1000 + (int32_t)(rng() % 400);
    uint32_t addr = v * 7 + 1;
    uint32_t src = rng() % 5;
    int n = 1 + rng() % 5;
    ps.push_back({"everywhere", t, addr, (uint32_t)(rng() % 9), src, 2, (uint32_t)(rng() % 3)});
    for (int i = 0; i < n; ++i) {
      // Skew: low words are common, high ones rare.
      uint32_t w = std::min<uint32_t>(rng() % vocab, rng() % vocab);
      ps.push_back({words[w], t, addr, ps.back().type, src, 2, ps.back().host});
    }
  }
  return ps;
}

Query randomQuery(std::mt19937& rng, const Model& m) {
  std::vector<std::string> vocab(m.vocab.begin(), m.vocab.end());
  vocab.push_back("absent");
  auto pick = [&]() { return vocab[rng() % vocab.size()]; };
  auto cut = [&](const std::string& s) { return s.substr(0, 1 + rng() % s.size()); };
  Query q;
  if (rng() % 2) {
    q.start = 1000 + rng() % 400;
    q.end = q.start + rng() % 200;
  }
  int forms = 1 + rng() % 3;
  for (int f = 0; f < forms; ++f) {
    int kind = rng() % 12;
    switch (kind) {
      case 0: case 1: q.lists[0].push_back(pick()); break;
      case 2: q.lists[1].push_back(pick()); q.lists[1].push_back(pick()); break;
      case 3: q.lists[2].push_back(pick()); break;
      case 4: q.lists[3].push_back(cut(pick())); break;
      case 5: q.lists[4].push_back(cut(pick())); break;
      case 6: q.lists[5].push_back(cut(pick())); break;
      case 7: q.lists[6].push_back(cut(reversed(pick()))); break;
      case 8: q.lists[7].push_back(cut(reversed(pick()))); break;
      case 9: q.lists[8].push_back(cut(reversed(pick()))); break;
      case 10: q.lists[0].push_back(cut(pick()) + "*"); break;
      default: q.lists[rng() % 2].push_back("*" + pick().substr(1)); break;
    }
  }
  return q;
}

void expectSame(const std::vector<st_tsval>& want, const st_tsval* got, int n, const std::string& what) {
  ASSERT_EQ((size_t)n, want.size()) << what;
  for (int i = 0; i < n; ++i) {
    ASSERT_EQ(got[i].time, want[i].time) << what << " #" << i;
    ASSERT_EQ(got[i].address, want[i].address) << what << " #" << i;
    ASSERT_EQ(got[i].type, want[i].type) << what;
    ASSERT_EQ(got[i].source, want[i].source) << what;
    ASSERT_EQ(got[i].source_type, want[i].source_type) << what;
    ASSERT_EQ(got[i].host, want[i].host) << what;
  }
}

// Checks one handle against the model over many random queries.
void checkQueries(st_warm_slice* ws, const Model& m, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<st_tsval> ans(m.vals.size() + 1);
  for (int i = 0; i < 300; ++i) {
    Query q = randomQuery(rng, m);
    Spec s(q);
    std::vector<st_tsval> want = m.answer(q);
    int n = st_warm_slice_query(ws, &s.spec, ans.data(), ans.size(), nullptr);
    expectSame(want, ans.data(), n, describe(q));
    // Capacity cuts from the newest end; capacity 0 counts less one.
    uint32_t cap = 1 + rng() % 4;
    n = st_warm_slice_query(ws, &s.spec, ans.data(), cap, nullptr);
    std::vector<st_tsval> head(want.begin(), want.begin() + std::min<size_t>(cap, want.size()));
    expectSame(head, ans.data(), n, "capacity " + describe(q));
    n = st_warm_slice_query(ws, &s.spec, nullptr, 0, nullptr);
    if (!want.empty()) {
      EXPECT_EQ(n, (int)want.size() - 1) << describe(q);
    } else {
      EXPECT_LE(n, 0) << describe(q);
    }
  }
}

TEST(WarmSlice, EveryQueryFormAgreesWithModel) {
  ScratchDir dir;
  std::mt19937 rng(1234);
  std::vector<Posting> ps = randomPostings(rng, 300, 60);
  Model m(ps);
  for (bool by_fd : {false, true}) {
    std::string path = writeSlice(dir, ps, by_fd);
    ASSERT_FALSE(path.empty());
    st_warm_slice* mapped = st_warm_slice_open(path.c_str(), 0);
    st_warm_slice* desc = st_warm_slice_open_fd(path.c_str(), 0);
    ASSERT_TRUE(mapped && desc);
    EXPECT_EQ(st_warm_slice_values(desc), m.vals.size());
    EXPECT_EQ(st_warm_slice_terms(desc), m.vocab.size());
    EXPECT_EQ(st_warm_slice_latest(desc), m.vals.front().time);
    EXPECT_EQ(st_warm_slice_blocksize(desc), 8u);
    checkQueries(mapped, m, 77);
    checkQueries(desc, m, 78);
    st_warm_slice_close(mapped);
    st_warm_slice_close(desc);
  }
  // The in-memory writer's own handle answers too.
  st_hot_slice* hot = st_hot_slice_create(1 << 20, 4096, 1 << 16, 1 << 14);
  for (const Posting& p : ps) st_hot_slice_put(hot, p.term.c_str(), p.time, p.addr, p.type, p.source, p.stype, p.host);
  char name[4096];
  st_warm_slice* ws = st_warm_slice_create(hot, name, sizeof name, dir.path().c_str(), ".pre-tsidx");
  ASSERT_TRUE(ws);
  checkQueries(ws, m, 79);
  st_warm_slice_close(ws);
  st_hot_slice_close(hot);
}

TEST(WarmSlice, GetMetaAndEnum) {
  ScratchDir dir;
  std::mt19937 rng(99);
  std::vector<Posting> ps = randomPostings(rng, 120, 30);
  Model m(ps);
  st_warm_slice* ws = st_warm_slice_open_fd(writeSlice(dir, ps, true).c_str(), 0);
  ASSERT_TRUE(ws);
  std::vector<st_tsval> ans(200);
  for (const std::string& w : m.vocab) {
    Query q;
    q.lists[0].push_back(w);
    std::vector<st_tsval> want = m.answer(q);
    expectSame(want, ans.data(), st_warm_slice_get(ws, w.c_str(), INT32_MIN, INT32_MAX, ans.data(), 200, nullptr), w);
    uint32_t count;
    int32_t lo, hi;
    ASSERT_EQ(st_warm_slice_meta(ws, w.c_str(), &count, &lo, &hi), 0);
    EXPECT_EQ(count, want.size());
    EXPECT_EQ(hi, want.front().time);
    EXPECT_EQ(lo, want.back().time);
  }
  uint32_t count;
  int32_t lo, hi;
  EXPECT_EQ(st_warm_slice_meta(ws, "nothere", &count, &lo, &hi), 1);
  // A null or empty term gets every value.
  EXPECT_EQ(st_warm_slice_get(ws, nullptr, INT32_MIN, INT32_MAX, ans.data(), 200, nullptr), (int)m.vals.size());
  EXPECT_EQ(st_warm_slice_get(ws, "", INT32_MIN, INT32_MAX, ans.data(), 200, nullptr), (int)m.vals.size());
  // Enumeration: numbers are posting counts; the reversed form maps back
  // through rf_map.
  std::vector<st_enum_answer> e(64);
  int n = st_warm_slice_enum(ws, "host", 1, e.data(), e.size());
  std::vector<std::string> want;
  for (auto& w : m.vocab)
    if (w.rfind("host", 0) == 0) want.push_back(w);
  ASSERT_EQ((size_t)n, want.size());
  for (int i = 0; i < n; ++i) {
    EXPECT_EQ(e[i].term, want[i]);
    st_warm_slice_meta(ws, want[i].c_str(), &count, &lo, &hi);
    EXPECT_EQ(e[i].value, count);
  }
  n = st_warm_slice_enum(ws, "eman", 2, e.data(), e.size());  // terms ending in "name"
  ASSERT_GT(n, 0);
  for (int i = 0; i < n; ++i) {
    std::string fwd = reversed(e[i].term);
    ASSERT_EQ(fwd.substr(fwd.size() - 4), "name");
    st_warm_slice_meta(ws, fwd.c_str(), &count, &lo, &hi);
    EXPECT_EQ(e[i].value, count) << fwd;
  }
  st_warm_slice_close(ws);
}

TEST(WarmSlice, TimeWindowEdges) {
  ScratchDir dir;
  std::vector<Posting> ps = {{"x", 10, 1, 0, 0, 0, 0}, {"x", 20, 2, 0, 0, 0, 0}, {"x", 30, 3, 0, 0, 0, 0}};
  st_warm_slice* ws = st_warm_slice_open_fd(writeSlice(dir, ps, false).c_str(), 0);
  ASSERT_TRUE(ws);
  st_tsval ans[4];
  struct {
    int32_t start, end;
    int count;
  } rows[] = {{15, 15, 0}, {11, 19, 0}, {10, 10, 1}, {20, 30, 2}, {31, 99, 0}, {0, 9, 0}, {0, 99, 3}, {25, 20, 0}};
  for (auto& r : rows) {
    EXPECT_EQ(st_warm_slice_get(ws, "x", r.start, r.end, ans, 4, nullptr), r.count) << r.start << ".." << r.end;
    EXPECT_EQ(st_warm_slice_get(ws, nullptr, r.start, r.end, ans, 4, nullptr), r.count) << r.start << ".." << r.end;
  }
  uint32_t skip = 1;
  ASSERT_EQ(st_warm_slice_get(ws, "x", 0, 99, ans, 4, &skip), 2);
  EXPECT_EQ(ans[0].time, 20);
  EXPECT_EQ(skip, 0u);
  st_warm_slice_close(ws);
  // One value: first and last coincide, the count is 0.
  std::vector<Posting> one = {{"solo", 5, 1, 0, 0, 0, 0}};
  ws = st_warm_slice_open(writeSlice(dir, one, true).c_str(), 0);
  ASSERT_TRUE(ws);
  EXPECT_EQ(st_warm_slice_get(ws, "solo", 0, 9, nullptr, 0, nullptr), 0);
  EXPECT_EQ(st_warm_slice_get(ws, "solo", 0, 9, ans, 4, nullptr), 1);
  st_warm_slice_close(ws);
}

TEST(WarmSlice, OlderMagicsAndEscapedListsReadAlike) {
  ScratchDir dir;
  std::vector<st_tsval> vals;
  for (uint32_t i = 0; i < 40; ++i) vals.push_back({(int32_t)(500 - i), 1000 - i, i % 3, i % 2, 1, 0});
  std::vector<std::string> terms = {"alpha", "beta", "gamma"};
  std::vector<std::vector<uint32_t>> lists = {{0, 1, 2, 3, 4, 9, 10, 11, 30}, {5, 6, 7, 8, 39}, {0, 20, 21, 22, 23, 24, 25}};
  std::vector<std::vector<st_tsval>> reference;
  for (const char* magic : {"Velmor5", "Velmor4", "Velmor3"}) {
    for (bool esc : {false, true}) {
      SCOPED_TRACE(std::string(magic) + (esc ? " escaped" : " plain"));
      Bytes f = handMadeSlice(magic, esc, vals, terms, lists);
      std::string path = dir.path() + "/hand.tsidx";
      writeFile(path, f, f.size());
      for (int mode = 0; mode < 2; ++mode) {
        st_warm_slice* ws = mode ? st_warm_slice_open_fd(path.c_str(), 0) : st_warm_slice_open(path.c_str(), 0);
        ASSERT_TRUE(ws);
        for (size_t t = 0; t < terms.size(); ++t) {
          st_tsval ans[64];
          int n = st_warm_slice_get(ws, terms[t].c_str(), INT32_MIN, INT32_MAX, ans, 64, nullptr);
          ASSERT_EQ((size_t)n, lists[t].size());
          for (int i = 0; i < n; ++i) {
            EXPECT_EQ(ans[i].address, vals[lists[t][i]].address);
            EXPECT_EQ(ans[i].type, vals[lists[t][i]].type);
          }
        }
        st_warm_slice_close(ws);
      }
    }
  }
  // Anything but the three magics is refused.
  for (const char* magic : {"Velmor2", "Velmor6", "velmor5"}) {
    Bytes f = handMadeSlice("Velmor5", false, vals, terms, lists);
    memcpy(f.data(), magic, 8);
    std::string path = dir.path() + "/bad.tsidx";
    writeFile(path, f, f.size());
    EXPECT_EQ(st_warm_slice_open(path.c_str(), 0), nullptr) << magic;
    EXPECT_EQ(st_warm_slice_open_fd(path.c_str(), 0), nullptr) << magic;
  }
}

// ---------------------------------------------------------------------------
// Deletion

struct Collected {
  std::vector<st_tsval> vals;
  static void cb(void* ctx, st_tsval v) { static_cast<Collected*>(ctx)->vals.push_back(v); }
};

TEST(WarmSlice, DeletionMarksPersistAndHideValues) {
  ScratchDir dir;
  std::mt19937 rng(42);
  std::vector<Posting> ps = randomPostings(rng, 100, 20);
  Model m(ps);
  std::string path = writeSlice(dir, ps, true);
  // Delete "err" within a window, for source 1 only.
  st_warm_slice* ws = st_warm_slice_open(path.c_str(), 1);
  ASSERT_TRUE(ws);
  st_tsval filter = {0, 0, 0, 1, 0, 0};
  Collected c;
  int marked = st_warm_slice_delete(ws, "err", 1100, 1300, &c, Collected::cb, &filter);
  std::set<uint32_t> deleted;
  Query q;
  q.lists[0] = {"err"};
  for (const st_tsval& v : m.answer(q))
    if (v.time >= 1100 && v.time <= 1300 && v.source == 1) deleted.insert(v.address);
  ASSERT_GT(deleted.size(), 0u);
  EXPECT_EQ((size_t)marked, deleted.size());
  for (const st_tsval& v : c.vals) EXPECT_TRUE(deleted.count(v.address));
  // Deleting again marks nothing.
  EXPECT_EQ(st_warm_slice_delete(ws, "err", 1100, 1300, &c, Collected::cb, &filter), 0);
  EXPECT_EQ(st_warm_slice_delete(ws, "nothere", INT32_MIN, INT32_MAX, &c, Collected::cb, nullptr), 0);
  EXPECT_EQ(st_warm_slice_close(ws), 0);

  ws = st_warm_slice_open_fd(path.c_str(), 0);
  ASSERT_TRUE(ws);
  std::vector<st_tsval> ans(200);
  for (const char* w : {"err", "everywhere", "host"}) {
    Query qq;
    qq.lists[0] = {w};
    Spec s(qq);
    int n = st_warm_slice_query(ws, &s.spec, ans.data(), ans.size(), nullptr);
    expectSame(m.answer(qq, deleted), ans.data(), n, w);
  }
  st_warm_slice_close(ws);
}

TEST(WarmSlice, DeletingLastValueAndNeighbours) {
  ScratchDir dir;
  std::vector<Posting> ps;
  for (uint32_t i = 0; i < 16; ++i) ps.push_back({i % 2 ? "odd" : "even", (int32_t)(100 - i), i + 1, 0, 0, 0, 0});
  ps.push_back({"last", 1, 99, 0, 0, 0, 0});
  ps.push_back({"v15", 85, 16, 0, 0, 0, 0});
  ps.push_back({"v14", 86, 15, 0, 0, 0, 0});
  std::string path = writeSlice(dir, ps, false);
  st_warm_slice* ws = st_warm_slice_open(path.c_str(), 1);
  ASSERT_TRUE(ws);
  // The last value's mark spills one bit past the array's last slot.
  EXPECT_EQ(st_warm_slice_delete(ws, "last", INT32_MIN, INT32_MAX, nullptr, nullptr, nullptr), 1);
  EXPECT_TRUE(st_warm_slice_is_deleted(ws, st_warm_slice_values(ws) - 1));
  // Value numbers ascend with age: marking the older of two neighbours first
  // and the newer one second loses the first mark to the second's spill.
  EXPECT_EQ(st_warm_slice_delete(ws, "v15", INT32_MIN, INT32_MAX, nullptr, nullptr, nullptr), 1);
  EXPECT_EQ(st_warm_slice_delete(ws, "v14", INT32_MIN, INT32_MAX, nullptr, nullptr, nullptr), 1);
  st_tsval ans[4];
  EXPECT_EQ(st_warm_slice_get(ws, "v14", INT32_MIN, INT32_MAX, ans, 4, nullptr), 0);
  EXPECT_EQ(st_warm_slice_get(ws, "v15", INT32_MIN, INT32_MAX, ans, 4, nullptr), 1) << "mark lost to the spill";
  EXPECT_EQ(st_warm_slice_close(ws), 0);
}

// ---------------------------------------------------------------------------
// Damage

// Opens in every way and runs a spread of queries; must neither crash nor
// read outside the file (the sanitizer build checks the latter).
void pokeAt(const std::string& path, const std::vector<std::string>& words, bool for_update) {
  for (int mode = 0; mode < (for_update ? 3 : 2); ++mode) {
    st_warm_slice* ws = mode == 0 ? st_warm_slice_open(path.c_str(), 0)
                        : mode == 1 ? st_warm_slice_open_fd(path.c_str(), 0)
                                    : st_warm_slice_open(path.c_str(), 1);
    if (!ws) continue;
    st_tsval ans[16];
    for (const std::string& w : words) {
      st_warm_slice_get(ws, w.c_str(), INT32_MIN, INT32_MAX, ans, 16, nullptr);
      uint32_t c;
      int32_t lo, hi;
      st_warm_slice_meta(ws, w.c_str(), &c, &lo, &hi);
    }
    Query q;
    q.lists[3] = {"e"};
    q.lists[7] = {"t"};
    q.lists[2] = {"*o*"};
    Spec s(q);
    st_warm_slice_query(ws, &s.spec, ans, 16, nullptr);
    st_enum_answer e[4];
    st_warm_slice_enum(ws, nullptr, 1, e, 4);
    st_warm_slice_enum(ws, "", 2, e, 4);
    if (mode == 2) st_warm_slice_delete(ws, words[0].c_str(), INT32_MIN, INT32_MAX, nullptr, nullptr, nullptr);
    st_warm_slice_close(ws);
  }
}

TEST(WarmSlice, DamagedFilesFailCleanly) {
  ScratchDir dir;
  std::mt19937 rng(8);
  std::vector<Posting> ps = randomPostings(rng, 12, 12);
  Model m(ps);
  std::vector<std::string> words(m.vocab.begin(), m.vocab.end());
  Bytes good = readFile(writeSlice(dir, ps, false));
  // Variants live in an anonymous memory file, reached through its /proc name.
  int mfd = memfd_create("damaged", 0);
  ASSERT_GE(mfd, 0);
  std::string path = "/proc/self/fd/" + std::to_string(mfd);
  auto put = [&](const Bytes& b, size_t n) {
    ASSERT_EQ(ftruncate(mfd, 0), 0);
    ASSERT_EQ(pwrite(mfd, b.data(), n, 0), (ssize_t)n);
  };
  // Every truncation leaves the postings short of their stated end.
  for (size_t n = 0; n < good.size(); ++n) {
    put(good, n);
    ASSERT_EQ(st_warm_slice_open(path.c_str(), 0), nullptr) << n;
    ASSERT_EQ(st_warm_slice_open_fd(path.c_str(), 0), nullptr) << n;
  }
  // Every byte of the header and the start of the fixed part flipped, every
  // third byte beyond, and some random rewrites.
  for (size_t i = 0; i < good.size(); i += i < 256 ? 1 : 3) {
    Bytes bad = good;
    bad[i] ^= 0xFF;
    put(bad, bad.size());
    pokeAt(path, words, i % 16 == 0);
  }
  for (int k = 0; k < 100; ++k) {
    Bytes bad = good;
    for (int j = 0; j < 4; ++j) bad[64 + rng() % (bad.size() - 64)] = (unsigned char)rng();
    put(bad, bad.size());
    pokeAt(path, words, k % 16 == 0);
  }
  close(mfd);
  EXPECT_EQ(st_warm_slice_open("/nonexistent/x.tsidx", 0), nullptr);
  EXPECT_EQ(st_warm_slice_open(dir.path().c_str(), 0), nullptr) << "a directory isn't a slice";
}

// Opening for a query checks only what costs the same for any size of slice;
// a list or lexicon block damaged in the middle is found by the query that
// reads it (an error, not a crash) and by the full walk of
// st_warm_slice_verify, while the mapped forms still refuse the file.
TEST(WarmSlice, QueryOpenLeavesDamageToWhatReadsIt) {
  ScratchDir dir;
  std::vector<Posting> ps;
  char name[16];
  for (uint32_t i = 0; i < 200; ++i) {
    snprintf(name, sizeof name, "t%03u", i);  // forward id i
    ps.push_back({name, (int32_t)(5000 - i), i + 1, 0, 0, 0, 0});
    ps.push_back({name, (int32_t)(4000 - i), i + 1001, 0, 0, 0, 0});
  }
  Bytes good = readFile(writeSlice(dir, ps, false));
  st_warm_layout L;
  ASSERT_EQ(st_warm_slice_layout(good.data(), &L), 0);
  ASSERT_EQ(L.num_terms, 200u);
  std::string path = dir.path() + "/damaged.tsidx";

  st_tsval ans[8];
  {
    writeFile(path, good, good.size());
    st_warm_slice* ws = st_warm_slice_open_fd(path.c_str(), 0);
    ASSERT_TRUE(ws);
    EXPECT_EQ(st_warm_slice_verify(ws), 0);
    st_warm_slice_close(ws);
  }
  // The end of list 100 points far past the postings: lists 100 and 101 are
  // unreadable, their neighbours are not.
  {
    Bytes bad = good;
    st_put_be64(bad.data() + L.pl_offsets_off + 8 * 100, 0x7FFFFFFFull);
    writeFile(path, bad, bad.size());
    EXPECT_EQ(st_warm_slice_open(path.c_str(), 0), nullptr);
    st_warm_slice* ws = st_warm_slice_open_fd(path.c_str(), 0);
    ASSERT_TRUE(ws);
    EXPECT_EQ(st_warm_slice_get(ws, "t099", INT32_MIN, INT32_MAX, ans, 8, nullptr), 2);
    EXPECT_EQ(st_warm_slice_get(ws, "t102", INT32_MIN, INT32_MAX, ans, 8, nullptr), 2);
    for (const char* t : {"t100", "t101"}) {
      errno = 0;
      EXPECT_EQ(st_warm_slice_get(ws, t, INT32_MIN, INT32_MAX, ans, 8, nullptr), -1) << t;
      EXPECT_EQ(errno, EBADMSG) << t;
    }
    // A wildcard walks every list, the damaged ones too.
    Query q;
    q.lists[0] = {"t*"};
    Spec sp(q);
    EXPECT_EQ(st_warm_slice_query(ws, &sp.spec, ans, 8, nullptr), -1);
    EXPECT_EQ(st_warm_slice_verify(ws), -1);
    st_warm_slice_close(ws);
  }
  // Block 10 of the forward lexicon ends far past the lexicon: blocks 10 and
  // 11 are unreadable; lookups stop short of them.
  {
    Bytes bad = good;
    const uint32_t tpb = st_get_be32(good.data() + L.flex_off + 4);
    ASSERT_GT(st_get_be32(good.data() + L.flex_off), 12 * tpb);
    st_put_be32(bad.data() + L.flex_off + 12 + 4 * 10, 0xFFFFFF00u);
    writeFile(path, bad, bad.size());
    EXPECT_EQ(st_warm_slice_open(path.c_str(), 0), nullptr);
    st_warm_slice* ws = st_warm_slice_open_fd(path.c_str(), 0);
    ASSERT_TRUE(ws);
    EXPECT_EQ(st_warm_slice_get(ws, "t000", INT32_MIN, INT32_MAX, ans, 8, nullptr), 2);
    for (uint32_t i = 10 * tpb; i < 12 * tpb; ++i) {
      snprintf(name, sizeof name, "t%03u", i);
      EXPECT_LE(st_warm_slice_get(ws, name, INT32_MIN, INT32_MAX, ans, 8, nullptr), 0) << name;
    }
    st_enum_answer e[256];
    EXPECT_LT(st_warm_slice_enum(ws, nullptr, 1, e, 256), 200);
    EXPECT_EQ(st_warm_slice_verify(ws), -1);
    st_warm_slice_close(ws);
  }
}

// ---------------------------------------------------------------------------
// Wildcards

TEST(WarmSlice, MatcherTable) {
  struct Row {
    const char* pattern;
    const char* term;
    bool match;
  } rows[] = {
      {"abc", "abc", true},     {"abc", "abcd", false},  {"ab*", "abc", true},     {"ab*", "xab", false},
      {"*bc", "abc", true},     {"*bc", "abcd", false},  {"a*c", "abbbc", true},   {"a*c", "ac", true},
      {"a*b*c", "aXbYc", true}, {"a*b*c", "acb", false}, {"*", "anything", true},  {"**", "", true},
      {"*mid*", "amidb", true}, {"*mid*", "mi", false},  {"*aa", "aaa", false},    {"*aa", "baa", true},
      {"x*y*z", "xyzyz", true}, {"*a*", "b", false},     {"a**b", "ab", true},     {"*ab", "abab", true},
  };
  for (const Row& r : rows) {
    void* m = createMatcher(r.pattern);
    ASSERT_TRUE(m);
    EXPECT_EQ(isMatch(m, r.term) != 0, r.match) << r.pattern << " ~ " << r.term;
    freeOpaqueMatcher(m);
  }
  struct Kind {
    const char* pattern;
    int type;
    const char* hard_start;
  } kinds[] = {{"word", 4, "word"}, {"ab*", 3, "ab"}, {"*ab", 3, nullptr}, {"*", -1, nullptr}, {"a*b", 3, "a"}};
  for (const Kind& k : kinds) {
    void* m = createMatcher(k.pattern);
    EXPECT_EQ(getMatcherType(m), k.type) << k.pattern;
    if (k.hard_start) {
      EXPECT_STREQ(getHardStart(m), k.hard_start);
    } else {
      EXPECT_EQ(getHardStart(m), nullptr) << k.pattern;
    }
    freeOpaqueMatcher(m);
  }
  std::string many;
  for (int i = 0; i < 300; ++i) many += "a*";
  EXPECT_EQ(createMatcher(many.c_str()), nullptr) << "more parts than a matcher holds";
}

}  // namespace
