// The commands that make or pick whole result sets: set, map, page and
// localize, as search text in and rows or messages out.
#include <gtest/gtest.h>

#include "CatalogueHome.h"
#include "RowTestUtil.h"
#include "search/SearchFactory.h"

namespace {

using rowtest::Row;

// `mkrows <row> <row>...`, test-only: each argument is a row written as
// "k=v;k=v"; the input rows are replaced.
class MkRows : public SearchProcessor {
 public:
  explicit MkRows(const Str& n) : SearchProcessor(n) {}
  static SearchProcessor* create(const Str& n) { return new MkRows(n); }
  void processArguments() override {
    for (size_t i = 0; i < args.size(); ++i)
      if (StringArg* a = unconsumedString(i)) {
        rows.push_back(a->getText());
        a->setConsumed();
      }
  }
  void execute(SearchResults& r, SearchResultsInfo&) override {
    r.free(false);
    for (const Str& text : rows) {
      SearchResult* row = r.addNewResult();
      size_t s = 0;
      while (s < text.size()) {
        size_t e = text.find(';', s);
        if (e == Str::npos) e = text.size();
        Str kv = text.substr(s, e - s);
        size_t eq = kv.find('=');
        row->setValue(Str(kv.substr(0, eq)), Str(kv.substr(eq + 1)));
        s = e + 1;
      }
    }
  }
  std::vector<Str> rows;
};

using Case = rowtest::CommandCase;

void runCases(const std::vector<Case>& cases, SearchResultsInfo* lastInfo = nullptr) {
  rowtest::CatalogueHome::ensure();
  SearchFactory::registerBuiltin("mkrows", &MkRows::create, false);
  rowtest::runCommandCases(cases, lastInfo);
}

std::vector<Row> numbered(int n) {
  std::vector<Row> rows;
  for (int i = 0; i < n; ++i) rows.push_back({{"n", std::to_string(i)}});
  return rows;
}

TEST(SetTest, SearchTextToRows) {
  std::vector<Row> input = {{{"x", "9"}}};  // never part of the answer
  runCases({
      {"set union [mkrows a=1 a=2;b=1 a=1] [mkrows a=2;b=1 a=3]", input, {"a=1", "a=2 b=1", "a=3"}},
      {"set diff [mkrows a=1 a=2 a=1] [mkrows a=2 a=3]", input, {"a=1", "a=3"}},
      {"set INTERSECT [mkrows a=1 a=2 a=2] [mkrows a=2 a=3]", input, {"a=2"}},
      // Same value under another name is another row.
      {"set intersect [mkrows a=1] [mkrows b=1]", input, {}},
      {"set union [mkrows a=1] [mkrows]", input, {"a=1"}},
      {"set union [mkrows a=1]", input, {"Error in 'set' command: usage: set (union|diff|intersect) <subsearch> <subsearch>"}},
      {"set union", input, {"Error in 'set' command: usage: set (union|diff|intersect) <subsearch> <subsearch>"}},
      {"set union x [mkrows a=1] [mkrows a=1]", input,
       {"Error in 'set' command: usage: set (union|diff|intersect) <subsearch> <subsearch>"}},
      {"set xor [mkrows a=1] [mkrows a=2]", input,
       {"Error in 'set' command: The set operator must be union, diff or intersect."}},
  });
}

TEST(MapTest, SearchTextToRows) {
  std::vector<Row> hosts = {{{"host", "a"}}, {{"n", "1"}}, {{"host", "b c"}}};
  SearchResultsInfo info;
  // Values go in as they are; the template quotes where blanks may come.
  runCases({{"map search=\"| mkrows \\\"h=$host$;cost=$$5\\\"\"", hosts, {"cost=$5 h=a", "cost=$5 h=b c"}},
            {"map search=\"| mkrows h=$host$\"", hosts, {"h=a", "h=b", "c=c"}}},
           &info);
  ASSERT_EQ(info.messages[SearchResultsInfo::MSG_WARN].size(), 1u);
  EXPECT_EQ(info.messages[SearchResultsInfo::MSG_WARN][0],
            "The field 'host' named in the search has no value in this row.");
  runCases({
      {"map", hosts, {"Error in 'map' command: usage: map (search=\"<search with $field$ tokens>\" | <saved search name>)"}},
      {"map search=\" \"", hosts,
       {"Error in 'map' command: usage: map (search=\"<search with $field$ tokens>\" | <saved search name>)"}},
      {"map mysaved", hosts, {"Error in 'map' command: Unable to find a saved search named 'mysaved'."}},
      {"map search=\"| nosuch $host$\"", hosts,
       {"Error in 'map' command: Unable to run the search 'nosuch a'. Unknown search operation: 'nosuch'"}},
      {"map", {}, {"Error in 'map' command: usage: map (search=\"<search with $field$ tokens>\" | <saved search name>)"}},
  });
}

TEST(PageTest, SearchTextToRows) {
  std::vector<Row> ten = numbered(10);
  runCases({
      {"page 2 5", ten, {"n=2", "n=3", "n=4"}},
      {"page 2 5 maxresults=2", ten, {"n=2", "n=3"}},
      {"page 8 20", ten, {"n=8", "n=9"}},
      {"page 3 3", ten, {}},
      // The subsearch runs over the page only.
      {"page 0 3 [reverse]", ten, {"n=2", "n=1", "n=0"}},
      {"page 0 3 [reverse | head 1]", ten, {"n=2"}},
      {"page", ten, {"Error in 'page' command: usage: page <start> <end> [<subsearch>]"}},
      {"page 1", ten, {"Error in 'page' command: usage: page <start> <end> [<subsearch>]"}},
      {"page a 2", ten, {"Error in 'page' command: The start and end of page must be non-negative integers."}},
      {"page -1 2", ten, {"Error in 'page' command: The start and end of page must be non-negative integers."}},
      {"page 5 2", ten, {"Error in 'page' command: Invalid page bounds: the start (5) is greater than the end (2)."}},
      {"page 1 99999999999", ten,
       {"Error in 'page' command: Invalid page bounds: the start must not be greater than the end."}},
      {"page 1 2 x", ten, {"Error in 'page' command: The last argument of page must be a subsearch in square brackets."}},
      {"page 1 2 [head 1] x", ten,
       {"Error in 'page' command: The last argument of page must be a subsearch in square brackets."}},
      {"page 1 2 maxresults=0", ten,
       {"Error in 'page' command: Invalid maxresults value '0'; it must be a positive integer."}},
  });
}

TEST(LocalizeTest, SearchTextToRows) {
  std::vector<Row> times;
  for (const char* t : {"2000", "1205", "1200", "1030", "1010", "1000"}) times.push_back({{"_time", t}});
  times.push_back({{"x", "no time"}});
  runCases({
      {"localize", times,
       {"_time=2000 count=1 duration=0 endtime=2000 starttime=2000",
        "_time=1200 count=2 duration=5 endtime=1205 starttime=1200",
        "_time=1000 count=3 duration=30 endtime=1030 starttime=1000"}},
      // A region may not outgrow maxspan; a pause beyond maxpause ends it.
      {"localize maxspan=20s maxpause=3m", times,
       {"_time=2000 count=1 duration=0 endtime=2000 starttime=2000",
        "_time=1200 count=2 duration=5 endtime=1205 starttime=1200",
        "_time=1030 count=1 duration=0 endtime=1030 starttime=1030",
        "_time=1000 count=2 duration=10 endtime=1010 starttime=1000"}},
      {"localize maxpause=1h maxspan=1d", times, {"_time=1000 count=6 duration=1000 endtime=2000 starttime=1000"}},
      // Only the first rows count.
      {"localize maxresults=2", times, {"_time=2000 count=1 duration=0 endtime=2000 starttime=2000",
                                        "_time=1205 count=1 duration=0 endtime=1205 starttime=1205"}},
      {"localize", {}, {}},
      {"localize maxspan=5x", times, {"Error in 'localize' command: Invalid time span '5x' for option 'maxspan'"}},
      {"localize maxresults=0", times,
       {"Error in 'localize' command: Invalid value for option 'maxresults': it must be positive"}},
      {"localize 5m", times, {"Error in 'localize' command: Invalid argument: '5m'"}},
  });
}

}  // namespace
