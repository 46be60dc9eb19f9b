#include "search/processors/Evaluation.h"

#include <gtest/gtest.h>

#include <map>

#include "RowTestUtil.h"
#include "search/processors/EvalOperator.h"
#include "search/processors/WhereOperator.h"

namespace {

// Evaluates `expr` once with the named values (absent names are missing).
// Gives the answer, "<null>" for no value, or "!" + the failure text.
std::string eval(const char* expr, const std::map<std::string, std::string>& row) {
  try {
    Evaluation e{Str(expr)};
    e.prepare();
    std::vector<Str> store;
    store.reserve(e.fields().size());
    std::vector<const Str*> vals;
    for (const Str& f : e.fields()) {
      auto it = row.find(f);
      if (it == row.end()) {
        vals.push_back(nullptr);
      } else {
        store.push_back(it->second);
        vals.push_back(&store.back());
      }
    }
    Str out;
    return e.evaluateValues(vals, out) ? out : Str("<null>");
  } catch (const EvaluationException& ex) {
    return std::string("!") + ex.what();
  }
}

TEST(EvaluationTest, Expressions) {
  struct Case {
    const char* expr;
    std::map<std::string, std::string> row;
    const char* want;
  } cases[] = {
      {"x > 3", {{"x", "5"}}, "1"},
      {"x > 3", {{"x", "10"}}, "1"},  // bound as a number, not compared as text
      {"x > 3", {{"x", "2.5"}}, "0"},
      {"x > 3", {}, "<null>"},  // a missing field is NULL
      {"\"a\" || x", {{"x", "b"}}, "ab"},
      {"\"a\" || x", {}, "<null>"},
      {"x + y * 2", {{"x", "1"}, {"y", "4"}}, "9"},
      {"x = y", {{"x", "abc"}, {"y", "abc"}}, "1"},
      {"x = \"abc\" and not y in (1, 2)", {{"x", "abc"}, {"y", "3"}}, "1"},
      {"upper(host)", {{"host", "web1"}}, "WEB1"},  // function names are not fields
      {"x IS NULL", {}, "1"},
      {"'it''s' || \"q\"\"q\" || \"b\\\"c\"", {}, "it'sq\"qb\"c"},
      {"\"don't\"", {}, "don't"},  // a single quote inside double quotes
      {"_time.x + 1", {{"_time.x", "1"}}, "2"},
      {"x + 1.5e1", {{"x", "1"}}, "16.0"},
      {"   \t\n", {}, "!Empty expression is not allowed!"},
      {"x >", {{"x", "1"}}, "!Query preparation failed for: 'SELECT ?1 >' "},
  };
  for (auto& c : cases) EXPECT_EQ(eval(c.expr, c.row), c.want) << c.expr;
}

TEST(EvaluationTest, SameFieldIsOneParameterAndReuseAcrossRows) {
  Evaluation e{Str("x * x + y")};
  ASSERT_EQ(e.fields().size(), 2u);
  EXPECT_EQ(e.sql(), "SELECT ?1 * ?1 + ?2");
  Str out;
  EXPECT_THROW(e.evaluateValues({}, out), EvaluationException);  // before prepare
  e.prepare();
  Str three("3"), one("1");
  EXPECT_TRUE(e.evaluateValues({&three, &one}, out));
  EXPECT_EQ(out, "10");
  EXPECT_TRUE(e.evaluateValues({&one, &one}, out));
  EXPECT_EQ(out, "2");
  EXPECT_FALSE(e.evaluateValues({&one, nullptr}, out));  // bindings do not leak between rows
  EXPECT_EQ(out, "");
}


using rowtest::Row;

std::vector<std::string> runRows(const char* search, std::vector<Row> rows) {
  SearchResults rs;
  SearchResultsInfo info;
  rowtest::addRows(rs, rows);
  std::string err = rowtest::run(search, rs, info);
  if (!err.empty()) return {err};
  return rowtest::collect(rs);
}

TEST(WhereEvalCommandTest, SearchTextToRows) {
  std::vector<Row> rows = {{{"n", "0"}, {"x", "5"}}, {{"n", "1"}}, {{"n", "2"}, {"x", "2"}}};
  struct Case {
    const char* search;
    std::vector<std::string> want;
  } cases[] = {
      {"where x > 3", {"n=0 x=5"}},  // the row without x is dropped (NULL)
      {"where x - 2", {"n=0 x=5"}},  // "0" drops the row
      {"where n = 1 or x = 2", {"n=1", "n=2 x=2"}},
      {"where n = \"1\"", {}},  // an integer is bound as a number, never equal to text
      {"eval y = \"a\" . x", {"Error in 'eval' command: Query preparation failed for: 'SELECT 'a' . ?1' "}},
      {"eval \"y\" = x * 2", {"n=0 x=5 y=10", "n=1", "n=2 x=2 y=4"}},
      {"eval x = x + 1", {"n=0 x=6", "n=1", "n=2 x=3"}},  // NULL removes the field
      {"where", {"Error in 'where' command: Empty expression is not allowed!"}},
      {"where x >", {"Error in 'where' command: Query preparation failed for: 'SELECT ?1 >' "}},
      {"eval", {"Error in 'eval' command: Eval arguments missing. eval usage: eval dest_key = expression"}},
      {"eval y", {"Error in 'eval' command: Failed to parse arguments. eval usage: eval dest_key = expression"}},
  };
  for (auto& c : cases) EXPECT_EQ(runRows(c.search, rows), c.want) << c.search;
}

TEST(WhereEvalCommandTest, ConcatenationWithMissingFieldRemovesDestination) {
  SearchResults rs;
  SearchResultsInfo info;
  rowtest::addRows(rs, {{{"x", "b"}, {"y", "old"}}, {{"y", "old"}}});
  ASSERT_EQ(rowtest::run("eval y = \"a\" || x | eval z = \"|\" || \"|\"", rs, info), "");
  EXPECT_EQ(rowtest::collect(rs), (std::vector<std::string>{"x=b y=ab z=||", "z=||"}));
  EXPECT_EQ(EvalOperator::cleanFieldName(" \"a'b\x01\" "), "ab_");
}

// Names the expression cannot read as one word are rewritten to aliases;
// quoted text, even when it spells such a name, must come through as it is.
TEST(WhereEvalCommandTest, FieldNameRewriteLeavesQuotedTextAlone) {
  std::vector<Row> rows = {{{"bytes-in", "5"}, {"msg", "bytes-in > 3"}},
                           {{"bytes-in", "2"}, {"msg", "x"}},
                           {{"bytes-in", "9"}, {"msg", "bytes-in"}}};
  struct Case {
    const char* search;
    std::vector<std::string> want;
  } cases[] = {
      {"where bytes-in > 3 AND msg != \"bytes-in\"", {"bytes-in=5 msg=bytes-in > 3"}},
      {"where msg = \"bytes-in > 3\"", {"bytes-in=5 msg=bytes-in > 3"}},
      {"where msg = 'bytes-in' and bytes-in>8", {"bytes-in=9 msg=bytes-in"}},
      {"where msg = \"bytes-\" || \"in\"", {"bytes-in=9 msg=bytes-in"}},
  };
  for (const Case& c : cases) {
    SearchResults rs;
    SearchResultsInfo info;
    rowtest::addRows(rs, rows);
    ASSERT_EQ(rowtest::run(c.search, rs, info), "") << c.search;
    EXPECT_EQ(rowtest::collect(rs), c.want) << c.search;
  }
}

TEST(WhereEvalCommandTest, QuoteMarkersRoundTrip) {
  struct Case {
    const char* text;
    const char* is;
  } cases[] = {
      {"a = \"x\" or b = 'y'", "a = XxX\"x\"YyY or b = XxX'y'YyY"},
      {"\"a\\\"b\" \"\"", "XxX\"a\\\"b\"YyY XxX\"\"YyY"},
      {"x = \"q\"\"YyY\"", "x = XxX\"q\"\"YyY\"YyY"},
      {"'it''s'", "XxX'it''s'YyY"},
      {"\"open", "XxX\"open"},
      {"\"", "XxX\""},
      {"\"\\\"", "XxX\"\\\""},
      {"XxX = 1", "XxX = 1"},
  };
  for (const Case& c : cases) {
    Str is = WhereOperator::protectQuoted(c.text);
    EXPECT_EQ(is, c.is) << c.text;
    EXPECT_EQ(WhereOperator::unprotectQuoted(is), c.text) << c.text;
  }
  Str t = WhereOperator::protectQuoted("c-ip = \"c-ip\" || c-ipx || a.c-ip || c-ip");
  EXPECT_TRUE(WhereOperator::rewriteFieldNames(t, {"c-ip"}));
  EXPECT_EQ(WhereOperator::unprotectQuoted(t), "__where_f0 = \"c-ip\" || c-ipx || a.c-ip || __where_f0");
  Str none = WhereOperator::protectQuoted("x = \"c-ip\"");
  EXPECT_FALSE(WhereOperator::rewriteFieldNames(none, {"c-ip"}));
}

TEST(WhereEvalCommandTest, SpilledEqualsInMemory) {
  std::vector<Row> rows;
  for (int i = 0; i < 10000; ++i) rows.push_back({{"n", std::to_string(i)}, {"x", std::to_string(i % 17)}});
  SearchResults mem, sp;
  SearchResultsInfo i1, i2;
  rowtest::addRows(mem, rows);
  rowtest::addRows(sp, rows);
  rowtest::TempDir dir;
  rowtest::spill(sp, dir.path, 100);
  const char* search = "where x > 10 | eval y = x * n";
  ASSERT_EQ(rowtest::run(search, mem, i1), "");
  ASSERT_EQ(rowtest::run(search, sp, i2), "");
  EXPECT_EQ(rowtest::collect(sp), rowtest::collect(mem));
  EXPECT_EQ(rowtest::collect(mem).size(), 3528u);
}

}  // namespace
