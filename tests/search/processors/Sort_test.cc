#include <gtest/gtest.h>

#include <algorithm>

#include "search/processors/SortCompValue.h"
#include "search/processors/SortProcessor.h"
#include "search/processors/SortSpec.h"
#include "RowTestUtil.h"

namespace {

SortCompValue key(const char* text, sort_type t, bool asc = true) {
  SortCompValue v;
  if (text == nullptr) {
    v.set(nullptr, t, asc);
  } else {
    Str s(text);
    v.set(&s, t, asc);
  }
  return v;
}

// Sorts single-key rows and gives back the texts in order ("-" = missing).
std::vector<std::string> order(std::vector<const char*> texts, sort_type t, bool asc) {
  std::vector<rescomp_t> rows;
  for (size_t i = 0; i < texts.size(); ++i) {
    rescomp_t r;
    r.vals.push_back(key(texts[i], t, asc));
    r.pos = i;
    rows.push_back(r);
  }
  std::sort(rows.begin(), rows.end());
  std::vector<std::string> out;
  for (auto& r : rows) out.push_back(r.vals[0].missing ? "-" : r.vals[0].text);
  return out;
}

using V = std::vector<std::string>;

TEST(SortCompValueTest, OrderByTypeAndDirection) {
  struct Case {
    std::vector<const char*> in;
    sort_type type;
    bool asc;
    V want;
  } cases[] = {
      // numbers compare as numbers, and come before words in both directions
      {{"10", "b", "9", "a", "-1.5"}, number_stype, true, {"-1.5", "9", "10", "a", "b"}},
      {{"10", "b", "9", "a", "-1.5"}, number_stype, false, {"10", "9", "-1.5", "b", "a"}},
      // missing values go last in both directions
      {{nullptr, "2", "1"}, auto_stype, true, {"1", "2", "-"}},
      {{nullptr, "2", "1"}, auto_stype, false, {"2", "1", "-"}},
      // str is bytes: case matters, "10" < "9"
      {{"b", "B", "9", "10"}, string_stype, true, {"10", "9", "B", "b"}},
      // ip by octets, not text; addresses before text
      {{"10.0.0.10", "host", "10.0.0.9", "9.1.1.1"}, ip_stype, true,
       {"9.1.1.1", "10.0.0.9", "10.0.0.10", "host"}},
      // auto: numbers numerically, a number against a word by bytes
      {{"10", "9", "a", "1e1"}, auto_stype, true, {"9", "10", "1e1", "a"}},
  };
  for (auto& c : cases) EXPECT_EQ(order(c.in, c.type, c.asc), c.want);
}

TEST(SortCompValueTest, EqualKeysKeepInputOrder) {
  std::vector<rescomp_t> rows;
  for (size_t i = 0; i < 50; ++i) {
    rescomp_t r;
    r.vals.push_back(key(i % 2 ? "x" : "y", auto_stype));
    r.pos = i;
    rows.push_back(r);
  }
  std::sort(rows.begin(), rows.end());
  for (size_t i = 1; i < 25; ++i) EXPECT_LT(rows[i - 1].pos, rows[i].pos);
  // numerically equal texts ("1" and "1.0") fall through to the next key
  rescomp_t a, b;
  a.vals = {key("1", number_stype), key("b", string_stype)};
  b.vals = {key("1.0", number_stype), key("a", string_stype)};
  a.pos = 0;
  b.pos = 1;
  EXPECT_TRUE(b < a);
}

TEST(SortCompValueTest, Parsers) {
  std::array<uint32_t, 4> ip;
  EXPECT_TRUE(SortCompValue::parseIp("255.0.1.2", ip));
  for (const char* bad : {"256.1.1.1", "1.2.3", "1.2.3.4.5", "1..2.3", "a.b.c.d", "1.2.3.4 "})
    EXPECT_FALSE(SortCompValue::parseIp(bad, ip)) << bad;
  double d;
  EXPECT_TRUE(SortCompValue::parseNumber(" 3.5 ", d));
  EXPECT_EQ(d, 3.5);
  for (const char* bad : {"", "3x", "nan", "-"}) EXPECT_FALSE(SortCompValue::parseNumber(bad, d)) << bad;
}

TEST(SortSpecTest, Parse) {
  struct Case {
    V words;
    const char* want;  // toString(), or the failure text
  } cases[] = {
      {{"x"}, "+auto(x)"},
      {{"5", "-", "num(x)", "y", "+str(z)"}, "limit=5 -num(x) -auto(y) +str(z)"},
      {{"-ip(a)", "b", "desc"}, "+ip(a) +auto(b)"},
      {{"x", "DOWN"}, "-auto(x)"},
      {{"num(x"}, "Mismatched parenthesis in field specifier: 'num(x'"},
      {{"foo(x)"}, "Mismatched parenthesis in field specifier: 'foo(x)'"},
      {{"num()"}, "Invalid empty field name in argument: 'num()'"},
      {{"x", ""}, "Invalid empty string argument"},
      {{"-"}, "No fields to sort by have been specified!"},
      {{"desc"}, "No fields to sort by have been specified!"},
  };
  for (auto& c : cases) {
    SortSpec spec;
    std::vector<Str> words(c.words.begin(), c.words.end());
    try {
      spec.parse(words, std::vector<bool>(words.size(), false));
      EXPECT_EQ(spec.toString(), c.want);
      // what toString() gives parses back to the same specification
      SortSpec again;
      std::vector<Str> w2;
      std::vector<bool> q2;
      std::vector<Str> toks;
      Str s = spec.toString();
      size_t p = 0;
      while (p < s.size()) {
        size_t e = s.find(' ', p);
        if (e == Str::npos) e = s.size();
        Str t = s.substr(p, e - p);
        if (!t.startswith("limit=")) w2.push_back(t);
        p = e + 1;
      }
      again.parse(w2, std::vector<bool>(w2.size(), false));
      again.limit = spec.limit;
      EXPECT_EQ(again.toString(), spec.toString());
    } catch (const SortSpecException& e) {
      EXPECT_EQ(Str(e.what()), c.want);
    }
  }
}


using rowtest::Row;

std::vector<Row> xs(std::vector<const char*> vals) {
  std::vector<Row> rows;
  int n = 0;
  for (const char* v : vals) {
    Row r{{"n", std::to_string(n++)}};
    if (v) r.push_back({"x", v});
    rows.push_back(r);
  }
  return rows;
}

TEST(SortCommandTest, SearchTextToRows) {
  struct Case {
    const char* search;
    std::vector<const char*> in;
    V want;  // the `n` of the rows in order, or {failure text}
  } cases[] = {
      {"sort x", {"b", nullptr, "a"}, {"2", "0", "1"}},
      {"sort -x", {"b", nullptr, "a"}, {"0", "2", "1"}},  // missing still last
      {"sort num(x)", {"w", "10", "9"}, {"2", "1", "0"}},
      {"sort x desc", {"a", "b", "a"}, {"1", "0", "2"}},  // stable on ties
      {"sort 2 x", {"c", "b", "a"}, {"2", "1"}},
      {"sort limit=1 -num(x)", {"1", "3", "2"}, {"1"}},
      {"sort", {"a"}, {"Error in 'sort' command: No fields to sort by have been specified!"}},
      {"sort num(x", {"a"}, {"Error in 'sort' command: Mismatched parenthesis in field specifier: 'num(x'"}},
  };
  for (auto& c : cases) {
    SearchResults rs;
    SearchResultsInfo info;
    rowtest::addRows(rs, xs(c.in));
    std::string err = rowtest::run(c.search, rs, info);
    V got;
    if (!err.empty()) {
      got.push_back(err);
    } else {
      sr_index_t n = rs.keyIndex("n");
      for (SearchResult* r : rs) got.push_back(r->getValue(n));
    }
    EXPECT_EQ(got, c.want) << c.search;
  }
}

TEST(SortCommandTest, MissingEverywhereWarnsAndStreamingOp) {
  SearchResults rs;
  SearchResultsInfo info;
  rowtest::addRows(rs, xs({"a"}));
  EXPECT_EQ(rowtest::run("sort nosuch", rs, info), "");
  ASSERT_EQ(info.messages[SearchResultsInfo::MSG_WARN].size(), 1u);
  EXPECT_EQ(info.messages[SearchResultsInfo::MSG_WARN][0], "Specified field(s) missing from results: 'nosuch'");
  SortProcessor p("sort");
  std::vector<Str> w = {"-", "num(x)", "y"};
  p.parseSpec(w, {false, false, false});
  EXPECT_EQ(p.getStreamingOp(), "presort -num(x) -auto(y)");
  EXPECT_TRUE(p.isStreamingOpRequired());
  EXPECT_FALSE(p.isStreamable());
  EXPECT_TRUE(SortProcessor("presort").isStreamable());
}

// Spilled rows: presort each chunk, then the merge, give the rows that the
// in-memory sort gives, in the same (stable) order.
TEST(SortCommandTest, SpilledMergeEqualsInMemory) {
  std::vector<const char*> vals;
  std::vector<std::string> store;
  for (int i = 0; i < 10000; ++i) store.push_back(std::to_string((i * 7919) % 613));
  for (int i = 0; i < 10000; ++i) vals.push_back(i % 50 == 0 ? nullptr : store[i].c_str());
  SearchResults mem;
  SearchResultsInfo info1;
  rowtest::addRows(mem, xs(vals));
  ASSERT_EQ(rowtest::run("sort -num(x)", mem, info1), "");

  rowtest::TempDir dir;
  SearchResults sp;
  SearchResultsInfo info2;
  rowtest::addRows(sp, xs(vals));
  rowtest::spill(sp, dir.path, 100);
  ASSERT_EQ(sp.getFiles().size(), 100u);
  ASSERT_EQ(rowtest::run("presort -num(x)", sp, info2), "");
  ASSERT_EQ(rowtest::run("sort -num(x)", sp, info2), "");
  EXPECT_EQ(rowtest::collect(sp), rowtest::collect(mem));
  // a second merge over the output of the first must not clobber its inputs
  SearchResultsInfo info3;
  ASSERT_EQ(rowtest::run("presort -num(x)", sp, info3), "");
  ASSERT_EQ(rowtest::run("sort -num(x)", sp, info3), "");
  EXPECT_EQ(rowtest::collect(sp), rowtest::collect(mem));
}

}  // namespace
