// The text commands: abstract/excerpt, highlight/hilite and format, as
// search text over rows in and rows or messages out, and their spilled runs.
#include <gtest/gtest.h>

#include "CatalogueHome.h"
#include "RowTestUtil.h"
#include "search/Subsearch.h"
#include "search/processors/AbstractOperator.h"

namespace {

using rowtest::Row;

// "l1\nl2\n...\ln" with the given words appended to chosen lines.
std::string lines(int n, std::map<int, std::string> extra = {}) {
  std::string s;
  for (int i = 1; i <= n; ++i) {
    if (i > 1) s += '\n';
    s += "l" + std::to_string(i);
    if (extra.count(i)) s += " " + extra[i];
  }
  return s;
}

using Case = rowtest::CommandCase;

void runCases(const std::vector<Case>& cases) { rowtest::runCommandCases(cases); }

TEST(AbstractTest, SearchTextToRows) {
  std::string twenty = lines(20, {{12, "an ERROR here"}});
  runCases({
      // Short events keep their text and only get the counts.
      {"abstract", {{{"_raw", "a\nbb"}}}, {"_fullcharcount=4 _fulllinecount=2 _raw=a\nbb"}},
      // The keyword line wins, its earlier neighbour next, the first line
      // has its bonus; gaps are counted on both sides.
      {"editinfo keywords=error | abstract maxlines=3",
       {{{"_raw", twenty}}},
       {"_fullcharcount=" + std::to_string(twenty.size()) +
        " _fulllinecount=20 _raw=l1\n... 9 lines omitted ...\nl11\nl12 an ERROR here\n... 8 lines omitted ..."}},
      // Without keywords the first lines are kept; one omitted line is "line".
      {"excerpt maxlines=2", {{{"_raw", lines(3)}}},
       {"_fullcharcount=8 _fulllinecount=3 _raw=l1\nl2\n... 1 line omitted ..."}},
      // maxterms cuts the best line when not even it fits.
      {"abstract maxterms=2", {{{"_raw", "a-b c.d\ne"}}},
       {"_fullcharcount=9 _fulllinecount=2 _raw=a-b\n... 1 line omitted ..."}},
      {"abstract maxterms=3", {{{"_raw", "a b\nc d\ne"}}},
       {"_fullcharcount=9 _fulllinecount=3 _raw=a b\n... 2 lines omitted ..."}},
      // Rows without _raw pass untouched.
      {"abstract", {{{"x", "1"}}}, {"x=1"}},
      {"abstract maxlines=0", {{{"_raw", "a"}}},
       {"Error in 'abstract' command: Invalid value for option 'maxlines': 0. It must be between 1 and 500."}},
      {"abstract maxterms=1001", {{{"_raw", "a"}}},
       {"Error in 'abstract' command: Invalid value for option 'maxterms': 1001. It must be between 1 and 1000."}},
      {"abstract maxlines=x", {}, {"Error in 'abstract' command: Invalid integer value for option 'maxlines'"}},
      {"abstract 3", {}, {"Error in 'abstract' command: Invalid argument: '3'"}},
  });
}

TEST(AbstractTest, ScoringSpreadsToNeighboursAndBreaksWordsAtBreakers) {
  std::vector<double> s;
  AbstractOperator::scoreLines({"x=Error;", "no", "error_code error"}, {"error"}, s);
  EXPECT_EQ(s, (std::vector<double>{1, 0, 2}));  // "_" is a breaker too
  AbstractOperator::improveLineScores(s);
  EXPECT_EQ(s, (std::vector<double>{1.5, 0.5, 2}));
}

TEST(HighlightTest, SearchTextToRows) {
  runCases({
      {"highlight Error foo",
       {{{"_raw", "an error: here"}}, {{"_raw", "errors only"}}, {{"_raw", "FOO and error"}}},
       {"_hilite=error _raw=an error: here", "_raw=errors only", "_hilite=error foo _raw=FOO and error"}},
      // Without terms the search's keywords are marked.
      {"editinfo keywords=here | hilite", {{{"_raw", "here"}}, {{"x", "1"}}}, {"_hilite=here _raw=here", "x=1"}},
      {"highlight", {{{"_raw", "here"}}}, {"_raw=here"}},
  });
  SearchResults rs;
  SearchResultsInfo info;
  ASSERT_EQ(rowtest::run("highlight a B", rs, info), "");
  EXPECT_EQ(info.keywords, (std::set<Str>{"a", "b"}));  // the renderers mark these
}

TEST(FormatTest, SearchTextToRows) {
  std::vector<Row> rows = {{{"a", "1"}, {"b", "x\"y\\"}, {"_t", "hidden"}}, {{"_t", "only"}}, {{"a", "2"}}};
  runCases({
      {"format", rows, {"_query=( ( a=\"1\" AND b=\"x\\\"y\\\\\" ) OR ( a=\"2\" ) )"}},
      {"format \"[\" \"{\" \"&&\" \"}\" \"||\" \"]\"", rows,
       {"_query=[ { a=\"1\" && b=\"x\\\"y\\\\\" } || { a=\"2\" } ]"}},
      {"format", {}, {"_query="}},
      {"format a b c", rows,
       {"Error in 'format' command: Either no arguments or 6 arguments are required: <resultstart> <colstart> "
        "<colseparator> <colend> <rowseparator> <resultend>."}},
  });
}

// A subsearch that leaves `format` out gets what `format` gives by default.
TEST(FormatTest, SubsearchWithoutFormatGetsTheDefault) {
  rowtest::CatalogueHome::ensure();
  SearchResults rs;
  rowtest::addRows(rs, {{{"host", "a b"}, {"n", "1"}}, {{"host", "c"}}});
  SearchResults copy(rs);
  SearchResultsInfo info;
  ASSERT_EQ(rowtest::run("format", copy, info), "");
  Str q;
  copy.front()->getValue("_query", q);
  EXPECT_EQ(Subsearch::rowsToSearch(rs), q);
  EXPECT_EQ(q, "( ( host=\"a b\" AND n=\"1\" ) OR ( host=\"c\" ) )");
}

}  // namespace
