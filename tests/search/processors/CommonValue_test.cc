// top, rare and their map halves: option faults, ordering, limits, percent,
// corrupt map-half rows, and `pre... | ...` over chunks against the plain
// command.
#include <gtest/gtest.h>

#include "CatalogueHome.h"
#include "RowTestUtil.h"
#include "search/SearchFactory.h"
#include "search/processors/CommonValueProcessor.h"

namespace {

using rowtest::CommandCase;
using rowtest::Row;

// One command made from its text, arguments processed.
std::unique_ptr<SearchProcessor> command(const std::string& text) {
  std::vector<Str> words;
  std::vector<bool> quoted;
  SearchProcessor::tokenizeString(text, words, quoted, " ");
  std::unique_ptr<SearchProcessor> p(SearchFactory::getProcessor(words.at(0), true));
  for (size_t i = 1; i < words.size(); ++i) p->addArgument(new StringArg(words[i], quoted[i], false));
  p->processArguments();
  return p;
}

std::vector<Row> hosts(std::vector<const char*> values) {
  std::vector<Row> rows;
  for (const char* v : values) rows.push_back(v ? Row{{"host", v}, {"n", "1"}} : Row{{"n", "1"}});
  return rows;
}

TEST(CommonValueTest, Faults) {
  std::vector<CommandCase> cases = {
      {"top", {}, {"Error in 'top' command: No fields specified"}},
      {"rare limit=3", {}, {"Error in 'rare' command: No fields specified"}},
      {"top a b a", {}, {"Error in 'top' command: Field specified multiple times: a"}},
      {"top a by a", {}, {"Error in 'top' command: Field specified multiple times: a"}},
      {"top limit=50001 a", {}, {"Error in 'top' command: limit must be <= 50000"}},
      {"top a by", {}, {"Error in 'top' command: No fields specified"}},
      {"top a showcount=maybe", {}, {"Error in 'top' command: Invalid boolean value for option 'showcount'"}},
      {"top a countfield=x percentfield=x", {}, {"Error in 'top' command: Field specified multiple times: x"}},
  };
  rowtest::runCommandCases(cases);
}

TEST(CommonValueTest, OrderLimitAndPercent) {
  std::vector<Row> in = hosts({"b", "a", "c", "b", "a", "b", nullptr, "", "d"});
  std::vector<CommandCase> cases = {
      // rows without the field, or with it empty, are not counted
      {"top host", in,
       {"count=3 host=b percent=42.857143", "count=2 host=a percent=28.571429",
        "count=1 host=c percent=14.285714", "count=1 host=d percent=14.285714"}},
      // equal counts keep ascending value order for rare too
      {"rare host", in,
       {"count=1 host=c percent=14.285714", "count=1 host=d percent=14.285714",
        "count=2 host=a percent=28.571429", "count=3 host=b percent=42.857143"}},
      {"top 2 host", in, {"count=3 host=b percent=42.857143", "count=2 host=a percent=28.571429"}},
      {"top limit=1 showperc=false host", in, {"count=3 host=b"}},
      {"rare limit=1 showcount=false percentfield=p host", in, {"host=c p=14.285714"}},
      {"top limit=1 countfield=hits host", in, {"hits=3 host=b percent=42.857143"}},
      {"top limit=0 host", in,
       {"count=3 host=b percent=42.857143", "count=2 host=a percent=28.571429",
        "count=1 host=c percent=14.285714", "count=1 host=d percent=14.285714"}},
      // a single number is a field name, not a limit
      {"top 5", {{{"5", "x"}}}, {"5=x count=1 percent=100.000000"}},
      {"top host", {}, {}},
  };
  rowtest::runCommandCases(cases);
}

TEST(CommonValueTest, CombinationsAndGroups) {
  std::vector<Row> in = {
      {{"a", "1"}, {"b", "x"}, {"g", "G2"}}, {{"a", "1"}, {"b", "x"}, {"g", "G1"}},
      {{"a", "1"}, {"b", "y"}, {"g", "G1"}}, {{"a", "2"}, {"b", "x"}, {"g", "G1"}},
      {{"a", "1"}, {"b", "x"}, {"g", "G1"}}, {{"a", "1"}, {"b", "x"}},
  };
  std::vector<CommandCase> cases = {
      {"top a b showperc=f", in, {"a=1 b=x count=4", "a=1 b=y count=1", "a=2 b=x count=1"}},
      // groups in ascending order; a row without the by field is skipped
      {"top limit=1 a by g", in, {"a=1 count=3 g=G1 percent=75.000000", "a=1 count=1 g=G2 percent=100.000000"}},
      {"rare limit=1 a by g", in, {"a=2 count=1 g=G1 percent=25.000000", "a=1 count=1 g=G2 percent=100.000000"}},
  };
  rowtest::runCommandCases(cases);
}

TEST(CommonValueTest, CorruptMapHalfRows) {
  std::vector<CommandCase> cases = {
      {"top a", {{{"a", "x"}, {"_cvcount", "0"}}}, {"Error in 'top' command: Corrupt output from pretop or prerare (zero count)"}},
      {"top a", {{{"a", "x"}, {"_cvcount", "many"}}}, {"Error in 'top' command: Corrupt output from pretop or prerare (zero count)"}},
      {"rare a", {{{"a", "x"}, {"_cvcount", "2"}}, {{"_cvcount", "3"}}},
       {"Error in 'rare' command: Corrupt output from pretop or prerare (missing fields)"}},
      {"top a by g", {{{"a", "x"}, {"_cvcount", "2"}}},
       {"Error in 'top' command: Corrupt output from pretop or prerare (missing fields)"}},
      {"top a", {{{"a", "x"}, {"_cvcount", "2"}, {"_cvtotal", "2"}}},
       {"Error in 'top' command: Corrupt output from pretop or prerare (zero count)"}},
      {"top a by g", {{{"_cvtotal", "2"}}}, {"Error in 'top' command: Corrupt output from pretop or prerare (missing fields)"}},
      // the group's total comes from its total rows
      {"top a", {{{"_cvtotal", "15"}}, {{"a", "x"}, {"_cvcount", "5"}}, {{"_cvtotal", "5"}}},
       {"a=x count=5 percent=25.000000"}},
      // well-formed map-half rows add up
      {"top a", {{{"a", "x"}, {"_cvcount", "2"}}, {{"a", "y"}, {"_cvcount", "5"}}, {{"a", "x"}, {"_cvcount", "4"}}},
       {"a=x count=6 percent=54.545455", "a=y count=5 percent=45.454545"}},
  };
  rowtest::runCommandCases(cases);
}

// Each element of a multi-value field counts; the row counts once.
TEST(CommonValueTest, MultiValueElementsCountEach) {
  rowtest::CatalogueHome::ensure();
  for (bool split : {false, true}) {
    SearchResults rs;
    SearchResultsInfo info;
    sr_index_t mv = rs.internalKeyIndex("__mv_tags", true);
    const char* tags[][2] = {{"a b", "$a$;$b$"}, {"a", nullptr}, {"b c", "$b$;$c$;$$"}, {"a", nullptr}};
    for (auto& t : tags) {
      SearchResult* r = rs.addNewResult();
      r->setValue(Str("tags"), Str(t[0]));
      if (t[1]) r->setValue(mv, Str(t[1]));
    }
    rowtest::TempDir dir;
    if (split) rowtest::spill(rs, dir.path, 1);
    ASSERT_EQ(rowtest::runFresh(split ? "pretop tags | top tags" : "top tags", rs, info), "");
    EXPECT_EQ(rowtest::collect(rs), (std::vector<std::string>{"count=3 percent=75.000000 tags=a",
                                                              "count=2 percent=50.000000 tags=b",
                                                              "count=1 percent=25.000000 tags=c"}))
        << split;
  }
}

TEST(CommonValueTest, MissingFieldsAreWarned) {
  SearchResultsInfo info;
  rowtest::runCommandCases({{"top a by nosuch", {{{"a", "1"}}}, {}}}, &info);
  ASSERT_EQ(info.messages[SearchResultsInfo::MSG_WARN].size(), 1u);
  EXPECT_NE(info.messages[SearchResultsInfo::MSG_WARN][0].find("nosuch"), std::string::npos);
  rowtest::runCommandCases({{"top a", {{{"a", "1"}}}, {"a=1 count=1 percent=100.000000"}}}, &info);
  EXPECT_TRUE(info.messages[SearchResultsInfo::MSG_WARN].empty());
}

TEST(CommonValueTest, LongValuesAreCutAndWarned) {
  std::string longer(1500, 'v');
  std::vector<Row> in = {{{"a", longer}}, {{"a", longer + "w"}}};
  SearchResultsInfo info;
  rowtest::runCommandCases({{"top a showperc=f", in, {"a=" + std::string(1000, 'v') + " count=2"}}}, &info);
  ASSERT_EQ(info.messages[SearchResultsInfo::MSG_WARN].size(), 1u);
  EXPECT_NE(info.messages[SearchResultsInfo::MSG_WARN][0].find("Limit for field 'a' reached."), std::string::npos);
}

TEST(CommonValueTest, StreamingOpNamesTheMapHalf) {
  rowtest::CatalogueHome::ensure();
  struct {
    const char* search;
    const char* op;
  } cases[] = {
      {"top limit=3 a b", "pretop a b"},
      {"rare a by g h", "prerare a by g h"},
      {"top 4 a", "pretop a"},
  };
  for (auto& c : cases) EXPECT_EQ(command(c.search)->getStreamingOp(), c.op);
  EXPECT_EQ(static_cast<CommonValueProcessor*>(command("top 4 a").get())->getLimit(), 4u);
  EXPECT_EQ(static_cast<CommonValueProcessor*>(command("top limit=0 a").get())->getLimit(), 50000u);
}

// The map half run chunk by chunk, then the reduce half, equals the plain
// command over the same rows in memory.
TEST(CommonValueTest, MapHalfOverChunksEqualsPlain) {
  rowtest::CatalogueHome::ensure();
  std::vector<Row> rows;
  for (int n = 0; n < 2000; ++n) {
    Row r = {{"n", std::to_string(n)}, {"host", "h" + std::to_string((n * n) % 17)}};
    if (n % 5) r.push_back({"code", std::to_string(200 + (n % 7) * (n % 3))});
    if (n % 11) r.push_back({"g", n % 2 ? "odd" : "even"});
    rows.push_back(r);
  }
  const char* plains[] = {"top host", "rare host", "top limit=4 host code", "rare limit=3 code by g",
                          "top limit=0 showperc=false host by g"};
  for (const char* plain : plains) {
    SearchResults mem, sp, sp2;
    SearchResultsInfo i1, i2, i3;
    rowtest::addRows(mem, rows);
    rowtest::addRows(sp, rows);
    rowtest::addRows(sp2, rows);
    rowtest::TempDir dir, dir2;
    rowtest::spill(sp, dir.path, 97);
    rowtest::spill(sp2, dir2.path, 97);
    std::string split = std::string(command(plain)->getStreamingOp()) + " | " + plain;
    ASSERT_EQ(rowtest::runFresh(plain, mem, i1), "") << plain;
    ASSERT_EQ(rowtest::runFresh(split, sp, i2), "") << split;
    ASSERT_EQ(rowtest::runFresh(plain, sp2, i3), "") << plain;
    std::vector<std::string> a = rowtest::collect(mem), b = rowtest::collect(sp);
    EXPECT_FALSE(a.empty()) << plain;
    EXPECT_EQ(b, a) << split;
    EXPECT_EQ(rowtest::collect(sp2), a) << plain << " over spill files";
  }
}

}  // namespace
