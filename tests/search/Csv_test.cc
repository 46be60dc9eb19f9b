#include <gtest/gtest.h>

#include "search/SearchResults.h"
#include "search/StringLineReader.h"
#include "util/Exceptions.h"
#include "SearchTestUtil.h"

using searchtest::Row;
using searchtest::rowsOf;

namespace {

struct ReadCase {
  const char* name;
  const char* text;
  std::vector<Row> rows;
  size_t badLines;
};

// Text in, rows out: the leniencies of the reader.
TEST(CsvRead, Table) {
  const std::vector<ReadCase> cases = {
      {"plain", "a,b\n1,2\n", {{{"a", "1"}, {"b", "2"}}}, 0},
      {"absent vs empty", "a,b\n1,\n,\"\"\n", {{{"a", "1"}}, {{"b", ""}}}, 0},
      {"doubled quotes", "a,b\n\"x\"\"y\",2\n", {{{"a", "x\"y"}, {"b", "2"}}}, 0},
      {"newline in value", "a,b\n\"one\ntwo\",2\n3,4\n", {{{"a", "one\ntwo"}, {"b", "2"}}, {{"a", "3"}, {"b", "4"}}}, 0},
      {"quote then newline", "a\n\"say \"\"hi\"\"\nbye\"\n", {{{"a", "say \"hi\"\nbye"}}}, 0},
      {"blanks trimmed", "a,b\n  1  ,  2 x  \n", {{{"a", "1"}, {"b", "2 x"}}}, 0},
      {"quoted keeps blanks", "a\n\" 1 \"\n", {{{"a", " 1 "}}}, 0},
      {"junk after closing quote", "a,b\n\"x\"junk,2\n", {{{"a", "x"}, {"b", "2"}}}, 0},
      {"ragged lines cost only themselves", "a,b\n1\n2,3\n4,5,6\n7,8\n",
       {{{"a", "2"}, {"b", "3"}}, {{"a", "7"}, {"b", "8"}}}, 2},
      {"trailing comma is an absent last cell", "a,b\n1,\n", {{{"a", "1"}}}, 0},
      {"trailing comma with too few columns", "a,b,c\n1,\n", {}, 1},
      {"one column, empty line", "a\n\nx\n", {{}, {{"a", "x"}}}, 0},
      {"unclosed quote at end drops the row", "a\n1\n\"abc\n", {{{"a", "1"}}}, 0},
      {"duplicate header: first wins", "a,a,b\n1,2,3\n", {{{"a", "1"}, {"b", "3"}}}, 0},
      {"empty header name ignored", "a,,b\n1,2,3\n", {{{"a", "1"}, {"b", "3"}}}, 0},
      {"internal header ignored", "a,__x\n1,2\n", {{{"a", "1"}}}, 0},
      {"quoted header with newline", "\"x\ny\",b\n1,2\n", {{{"x\ny", "1"}, {"b", "2"}}}, 0},
      {"quoted header with comma", "\"a,b\",c\n1,2\n", {{{"a,b", "1"}, {"c", "2"}}}, 0},
      {"blank header names trimmed", " a , b \n1,2\n", {{{"a", "1"}, {"b", "2"}}}, 0},
      {"CRLF lines", "a,b\r\n1,2\r\n", {{{"a", "1"}, {"b", "2"}}}, 0},
      {"header only", "a,b\n", {}, 0},
      {"nothing", "", {}, 0},
  };
  for (const ReadCase& c : cases) {
    SCOPED_TRACE(c.name);
    SearchResults rs;
    rs.fromCSV(Str(c.text));
    EXPECT_EQ(rowsOf(rs), c.rows);
    EXPECT_EQ(rs.getBadLineCount(), c.badLines);
  }
}

TEST(CsvRead, InternalColumnsOnlyWhenAllowed) {
  SearchResults rs;
  rs.fromCSV(Str("a,__x\n1,2\n"), 0, SearchResults::kAllRows, true);
  ASSERT_EQ(rs.size(), 1u);
  sr_index_t x = rs.internalKeyIndex("__x");
  ASSERT_NE(x, SearchResults::nkeyindex);
  EXPECT_EQ(rs.front()->getValue(x), "2");
}

TEST(CsvRead, StartAndCountWindow) {
  const Str text("a\n0\n1\n2\n3\n4\n");
  struct {
    size_t start, count;
    std::vector<std::string> want;
    size_t passed;
  } cases[] = {
      {0, SearchResults::kAllRows, {"0", "1", "2", "3", "4"}, 5},
      {2, 2, {"2", "3"}, 4},
      {4, 10, {"4"}, 5},
      {0, 0, {}, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.start);
    SearchResults rs;
    EXPECT_EQ(rs.fromCSV(text, c.start, c.count), c.passed);
    std::vector<std::string> got;
    for (const SearchResult* r : rs) got.push_back(r->getValue(rs.keyIndex("a")));
    EXPECT_EQ(got, c.want);
    EXPECT_NE(rs.keyIndex("a"), SearchResults::nkeyindex);  // header read even with count 0
  }
}

TEST(CsvWrite, Escaping) {
  const struct {
    const char* in;
    bool stripCR;
    const char* out;
  } cases[] = {
      {"", false, "\"\""},
      {"abc123", false, "abc123"},
      {"a b", false, "\"a b\""},
      {"x\"y", false, "\"x\"\"y\""},
      {"\"", false, "\"\"\"\""},
      {"a\r\nb", false, "\"a\r\nb\""},
      {"a\r\nb", true, "\"a\nb\""},
      {"a,b", false, "\"a,b\""},
      {"_raw", false, "\"_raw\""},
  };
  for (const auto& c : cases) {
    Str out("prefix:");
    SearchResults::csvEscape(Str(c.in), out, c.stripCR);
    EXPECT_EQ(out, Str("prefix:") + c.out) << c.in;
  }
}

TEST(CsvWrite, AbsentAndEmptyDiffer) {
  SearchResults rs;
  searchtest::addRows(rs, {{{"a", "1"}, {"b", ""}}, {{"a", "2"}}});
  Str out;
  ASSERT_TRUE(rs.toCSV(out));
  EXPECT_EQ(out, "a,b\n1,\"\"\n2,\n");
}

TEST(CsvWrite, NoColumnsWritesNothing) {
  SearchResults rs;
  Str out("stale");
  EXPECT_FALSE(rs.toCSV(out));
  EXPECT_TRUE(out.empty());
  rs.addNewResult();
  EXPECT_FALSE(rs.toCSV(out));
}

TEST(CsvWrite, ColumnChoice) {
  SearchResults rs;
  searchtest::addRows(rs, {{{"z", "1"}, {"b", "2"}, {"m", "3"}}});
  rs.front()->setValue(rs.internalKeyIndex("__i", true), Str("4"));
  const struct {
    std::vector<Str> fields;
    bool onlyListed, withInternal;
    const char* want;
  } cases[] = {
      {{}, false, false, "b,m,z\n2,3,1\n"},
      {{"z", "nope"}, false, false, "z,nope,b,m\n1,,2,3\n"},
      {{"z", "nope"}, true, false, "z,nope\n1,\n"},
      {{}, true, false, "b,m,z\n2,3,1\n"},
      {{"m"}, false, true, "m,\"__i\",b,z\n3,4,2,1\n"},
      {{"m", "m"}, false, false, "m,m,b,z\n3,3,2,1\n"},
  };
  for (const auto& c : cases) {
    Str out;
    rs.toCSV(out, c.fields, c.onlyListed, c.withInternal);
    EXPECT_EQ(out, c.want);
  }
}

// Awkward values survive write + read unchanged, absent stays absent.
TEST(CsvRoundTrip, AwkwardValues) {
  searchtest::ScratchDir dir;
  const std::vector<Row> rows = {
      {{"a", ""}, {"b", "plain"}},
      {{"b", "with \"quotes\" and, commas"}},
      {{"a", "multi\nline\n\nvalue"}, {"c", "  padded  "}},
      {{"a", "\""}, {"b", "\"\""}, {"c", "\"\n\""}},
      {{"c", "tab\there"}},
      {},
  };
  SearchResults rs;
  searchtest::addRows(rs, rows);
  Pathname p = dir / "rt.csv";
  FileStar f(fopen(p.c_str(), "w+"));
  ASSERT_TRUE(f.isValid());
  EXPECT_GT(rs.toCSV(f), 0u);
  f.close();

  SearchResults back;
  EXPECT_EQ(back.fromCSV(p), rows.size());
  EXPECT_EQ(rowsOf(back), rows);
  EXPECT_EQ(back.getBadLineCount(), 0u);

  // And once more through a string.
  Str text;
  ASSERT_TRUE(back.toCSV(text));
  SearchResults again;
  again.fromCSV(text);
  EXPECT_EQ(rowsOf(again), rows);
}

TEST(CsvFile, AtomicWriteAndFailures) {
  searchtest::ScratchHome home;
  home.writeConf("limits", "[searchresults]\ntocsv_maxretry = 2\ntocsv_retryperiod_ms = 1\n");
  SearchResults rs;
  searchtest::addRows(rs, {{{"a", "1"}}});

  Pathname good = home.path() / "results.csv";
  EXPECT_EQ(rs.toCSV(good), 4u);
  EXPECT_EQ(searchtest::readAll(good), "a\n1\n");

  // A target in a missing directory: nothing appears, no temporary is left.
  Pathname bad = home.path() / "missing/dir/results.csv";
  EXPECT_EQ(rs.toCSV(bad), 0u);
  EXPECT_FALSE(bad.exists());
  std::vector<Str> left;
  ASSERT_TRUE((home.path() / "var/run/velmor").readDirectory(left));
  EXPECT_TRUE(left.empty());

  // Unopenable input is zero rows, silently.
  SearchResults none;
  EXPECT_EQ(none.fromCSV(Pathname(home.path() / "nope.csv")), 0u);
  EXPECT_THROW(none.openAndReadHeader(home.path() / "nope.csv"), SearchResultsException);
}

TEST(CsvFile, BadLinesCountedPerFile) {
  searchtest::ScratchDir dir;
  Pathname p = dir / "r.csv";
  searchtest::writeAll(p, "a,b\n1,2\n3\n4,5\n");
  SearchResults rs;
  EXPECT_EQ(rs.fromCSV(p), 3u);
  EXPECT_EQ(rs.size(), 2u);
  EXPECT_EQ(rs.getBadLineCount(), 1u);
  searchtest::writeAll(p, "a,b\n1,2\n");
  EXPECT_EQ(rs.fromCSV(p), 1u);
  EXPECT_EQ(rs.getBadLineCount(), 0u);
}

TEST(CsvFile, OpenAndReadLinesInSteps) {
  searchtest::ScratchDir dir;
  Pathname p = dir / "r.csv";
  searchtest::writeAll(p, "a\n1\n2\n3\n");
  SearchResults rs;
  rs.openAndReadHeader(p);
  EXPECT_EQ(rs.readLines(2), 2u);
  EXPECT_EQ(rs.readLines(5), 1u);
  rs.closeFile();
  EXPECT_EQ(rs.size(), 3u);
}

TEST(CsvFile, AppendWritesRowsOnly) {
  searchtest::ScratchDir dir;
  Pathname p = dir / "r.csv";
  SearchResults rs;
  searchtest::addRows(rs, {{{"a", "x y"}}});
  FileStar f(fopen(p.c_str(), "w"));
  rs.toCSV(f);
  rs.appendCSV(f, {}, false);
  f.close();
  EXPECT_EQ(searchtest::readAll(p), "a\n\"x y\"\n\"x y\"\n");
}

}  // namespace

#include "search/SearchStatusFile.h"

namespace {

TEST(StatusFile, RoundTripKeepsColumnOrderAndText) {
  searchtest::ScratchHome home;
  SearchStatusFile st;
  st.user = "admin";
  st.start = -5;
  st.count = 12;
  st.search = "search error | head 10";
  st.error = "a \"bad\" thing,\nhappened";
  st.done = true;
  st.endTime = 1700000000;
  Pathname p = home.path() / "status.csv";
  ASSERT_GT(st.write(p), 0u);
  const std::string text = searchtest::readAll(p);
  EXPECT_EQ(text.substr(0, text.find('\n')),
            "user,start,count,cursor,keywords,ttl,done,search,streaming,error,setStart,setEnd,startTime,endTime");
  SearchStatusFile back;
  ASSERT_TRUE(back.read(p));
  EXPECT_EQ(back.user, "admin");
  EXPECT_EQ(back.start, -5);
  EXPECT_EQ(back.count, 12u);
  EXPECT_EQ(back.search, st.search);
  EXPECT_EQ(back.error, st.error);
  EXPECT_TRUE(back.done);
  EXPECT_FALSE(back.streaming);
  EXPECT_EQ(back.endTime, 1700000000);
  EXPECT_FALSE(back.read(home.path() / "missing.csv"));
}

}  // namespace
