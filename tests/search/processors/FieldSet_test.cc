// fields / rename / fillnull / regex: search text in, rows out.
#include <gtest/gtest.h>

#include "RowTestUtil.h"
#include "search/processors/ConversionProcessor.h"
#include "search/processors/FieldPattern.h"

namespace {

using rowtest::Row;
using V = std::vector<std::string>;

V runRows(const char* search, const std::vector<Row>& rows, SearchResultsInfo* infoOut = nullptr) {
  SearchResults rs;
  SearchResultsInfo info;
  rowtest::addRows(rs, rows);
  std::string err = rowtest::run(search, rs, info);
  if (infoOut) *infoOut = info;
  if (!err.empty()) return {err};
  return rowtest::collect(rs);
}

const std::vector<Row> kRows = {{{"a1", "x"}, {"a2", "y"}, {"b", "z"}, {"_raw", "GET /index"}},
                                {{"b", "w"}, {"_raw", "POST /form"}}};

TEST(FieldSetTest, SearchTextToRows) {
  struct Case {
    const char* search;
    V want;
  } cases[] = {
      {"fields a1", {"_raw=GET /index a1=x", "_raw=POST /form"}},
      {"fields + a*", {"_raw=GET /index a1=x a2=y", "_raw=POST /form"}},
      {"fields - a* _raw", {"b=z", "b=w"}},
      {"fields x x", {"Error in 'fields' command: Field 'x' specified multiple times"}},
      {"rename a1 AS c", {"_raw=GET /index a2=y b=z c=x", "_raw=POST /form b=w"}},
      {"rename a* to c*", {"_raw=GET /index b=z c1=x c2=y", "_raw=POST /form b=w"}},
      {"rename a1 -> b", {"_raw=GET /index a2=y b=x", "_raw=POST /form"}},  // b's old values drop out of view
      {"rename a* AS b", {"Error in 'rename' command: Wildcard mismatch: 'a*' as 'b'"}},
      {"rename a1 b", {"Error in 'rename' command: USAGE: rename [old_name AS/TO/-> new_name]+"}},
      {"fillnull", {"_raw=GET /index a1=x a2=y b=z", "_raw=POST /form a1=0 a2=0 b=w"}},
      {"fillnull value=NA a1 q", {"_raw=GET /index a1=x a2=y b=z q=NA", "_raw=POST /form a1=NA b=w q=NA"}},
      {"fillnull a1 a1", {"Error in 'fillnull' command: Field 'a1' specified multiple times"}},
      {"regex GET", {"_raw=GET /index a1=x a2=y b=z"}},
      {"regex _raw!=\"^GET \"", {"_raw=POST /form b=w"}},
      {"regex field=b \"[wz]\"", {"_raw=GET /index a1=x a2=y b=z", "_raw=POST /form b=w"}},
      {"regex a1=x", {"_raw=GET /index a1=x a2=y b=z"}},
      {"regex a1!=x", {"_raw=POST /form b=w"}},  // no field: not a match
      {"regex (", {"Error in 'regex' command: Invalid regex '(': Regex: missing closing parenthesis"}},
      {"regex", {"Error in 'regex' command: usage: regex [field=<field>] <regex>"}},
      {"replace x WITH q, *z WITH *y IN a1 b", {"_raw=GET /index a1=q a2=y b=y", "_raw=POST /form b=w"}},
      {"replace G*T* WITH *-* IN _raw", {"_raw=E- /index a1=x a2=y b=z", "_raw=POST /form b=w"}},
      {"replace x WITH q", {"_raw=GET /index a1=q a2=y b=z", "_raw=POST /form b=w"}},
      {"replace a** WITH b", {"Error in 'replace' command: Wildcards may not have consequtive *'s"}},
      {"replace a* WITH b**", {"Error in 'replace' command: Wildcards may not have consequtive *'s"}},
      {"replace a* WITH *b*", {"Error in 'replace' command: Wildcards and their replacements must have matching number of *'s"}},
      {"strcat a1 \"-\" b c", {"_raw=GET /index a1=x a2=y b=z c=x-z", "_raw=POST /form b=w c=-w"}},
      {"strcat allrequired=t a1 b c", {"_raw=GET /index a1=x a2=y b=z c=xz", "_raw=POST /form b=w"}},
      {"strcat a1", {"Error in 'strcat' command: Not enough fields, USAGE: strcat srcfield1 srcfield2 ... srcfieldn dest_field"}},
      {"strcat a1 \"c\"", {"Error in 'strcat' command: Last field must be the destination field name"}},
  };
  for (auto& c : cases) EXPECT_EQ(runRows(c.search, kRows), c.want) << c.search;
}

TEST(FieldSetTest, AddTotals) {
  std::vector<Row> rows = {{{"a", "1"}, {"b", "2.5"}, {"c", "x"}, {"_t", "9"}}, {{"c", "y"}}, {{"a", "-3"}, {"b", "3"}}};
  EXPECT_EQ(runRows("addtotals", rows), (V{"Total=3.5 _t=9 a=1 b=2.5 c=x", "c=y", "Total=0 a=-3 b=3"}));
  EXPECT_EQ(runRows("addtotals fieldname=s a", rows), (V{"_t=9 a=1 b=2.5 c=x s=1", "c=y", "a=-3 b=3 s=-3"}));
}

TEST(FieldSetTest, Convert) {
  std::vector<Row> rows = {{{"a", "10kb"}, {"b", "1,234"}, {"m", "2m"}, {"d", "1+01:00:05"}, {"t", "86400"}},
                           {{"a", "x"}, {"m", "3q"}, {"d", "00:01:01"}}};
  struct Case {
    const char* search;
    V want;
  } cases[] = {
      {"convert rmunit(a) rmcomma(b)", {"a=10 b=1234 d=1+01:00:05 m=2m t=86400", "a=x d=00:01:01 m=3q"}},
      {"convert memk(m) dur2sec(d)", {"a=10kb b=1,234 d=90005 m=2048 t=86400", "a=x d=61 m=3q"}},
      {"convert timeformat=%Y-%m-%d ctime(t) AS day", {"a=10kb b=1,234 d=1+01:00:05 day=1970-01-02 m=2m t=86400", "a=x d=00:01:01 m=3q"}},
      {"convert none(a) num(**)", {"a=10kb b=1 d=1 m=2 t=86400", "a=x d=00 m=3"}},  // leading numbers; "x" stays
      {"convert foo(a)", {"Error in 'convert' command: Unknown conversion function 'foo'"}},
  };
  for (auto& c : cases) EXPECT_EQ(runRows(c.search, rows), c.want) << c.search;
  Str out;
  EXPECT_TRUE(ConversionProcessor::convert(CONV_MKTIME, "1970-01-02", "%Y-%m-%d", out));
  EXPECT_EQ(out, "86400");
}

TEST(FieldSetTest, FieldsSetsColumnOrder) {
  SearchResultsInfo info;
  runRows("fields b a*", kRows, &info);
  EXPECT_EQ(info.columnOrder, (std::vector<Str>{"b", "a1", "a2"}));
}

TEST(FieldSetTest, PatternStars) {
  FieldPattern p("a*b*");
  std::vector<Str> stars;
  ASSERT_TRUE(p.match("axxbyb", &stars));
  EXPECT_EQ(stars, (std::vector<Str>{"xx", "yb"}));
  EXPECT_EQ(FieldPattern("c*d*").fill(stars), "cxxdyb");
  EXPECT_FALSE(p.match("bab"));
  EXPECT_TRUE(FieldPattern("*").match(""));
}

// Chunks with different fields: fillnull with no names fills the union of
// every chunk's keys; the streamable commands give what memory gives.
TEST(FieldSetTest, SpilledEqualsInMemory) {
  std::vector<Row> rows;
  for (int i = 0; i < 10000; ++i) {
    Row r{{"n", std::to_string(i)}};
    if (i % 1000 == 7) r.push_back({"rare" + std::to_string(i / 1000), "v"});
    r.push_back({"_raw", i % 2 ? "odd" : "even"});
    rows.push_back(r);
  }
  for (const char* search : {"fillnull", "regex od+ | rename n AS m | fields m rare*", "fillnull value=- rare3"}) {
    SearchResults mem, sp;
    SearchResultsInfo i1, i2;
    rowtest::addRows(mem, rows);
    rowtest::addRows(sp, rows);
    rowtest::TempDir dir;
    rowtest::spill(sp, dir.path, 100);
    ASSERT_EQ(rowtest::run(search, mem, i1), "");
    ASSERT_EQ(rowtest::run(search, sp, i2), "");
    V a = rowtest::collect(sp), b = rowtest::collect(mem);
    EXPECT_EQ(a, b) << search;
  }
}

}  // namespace
