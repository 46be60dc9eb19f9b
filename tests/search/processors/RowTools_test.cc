// The tool commands folderize, delete, nokv, editinfo, collapse, tags and
// tagcreate/tagdelete/tagset: search text in, rows, info or messages out.
#include <gtest/gtest.h>

#include "CatalogueHome.h"
#include "RowTestUtil.h"

namespace {

using rowtest::Row;

using Case = rowtest::CommandCase;

void runCases(const std::vector<Case>& cases) { rowtest::runCommandCases(cases); }

std::vector<Row> numbered(int n) {
  std::vector<Row> rows;
  for (int i = 0; i < n; ++i) rows.push_back({{"n", std::to_string(i)}});
  return rows;
}

TEST(FolderizeTest, SearchTextToRows) {
  std::vector<Row> in = {{{"s", "a::b::c"}, {"totalCount", "1"}},
                         {{"s", "a::b::d"}, {"totalCount", "2"}},
                         {{"s", "a::e"}, {"totalCount", "3"}},
                         {{"s", "f"}, {"totalCount", "4"}},
                         {{"s", "f"}},  // no size counts 1
                         {{"x", "no attr"}}};
  runCases({
      {"folderize attr=s", in, {"memberCount=3 s=a::* size=6", "memberCount=1 s=f size=5"}},
      {"folderize attr=s minfolders=3", in,
       {"memberCount=2 s=a::b::* size=3", "memberCount=1 s=a::e size=3", "memberCount=1 s=f size=5"}},
      // One level deeper would give more than maxfolders: stay.
      {"folderize attr=s minfolders=3 maxfolders=2", in, {"memberCount=3 s=a::* size=6", "memberCount=1 s=f size=5"}},
      {"folderize attr=s sep=:: size=none minfolders=10", in,
       {"memberCount=1 s=a::b::c size=1", "memberCount=1 s=a::b::d size=1", "memberCount=1 s=a::e size=1",
        "memberCount=1 s=f size=2"}},
      {"folderize attr=s", {}, {}},
      {"folderize", in,
       {"Error in 'folderize' command: usage: folderize attr=<field> [sep=<text>] [size=<field>] [minfolders=<n>] "
        "[maxfolders=<n>]"}},
      {"folderize attr=s maxfolders=0", in, {"Error in 'folderize' command: maxfolders must be positive"}},
  });
}

TEST(NoKVTest, KeepsOnlyTheEventsOwnFields) {
  runCases({
      {"nokv", {{{"_raw", "a=1"}, {"a", "1"}, {"host", "h"}, {"sourcetype", "st"}, {"linecount", "1"}, {"b", "2"}}},
       {"_raw=a=1 host=h linecount=1 sourcetype=st"}},
      {"nokv a", {}, {"Error in 'nokv' command: Invalid argument: 'a'"}},
  });
}

TEST(DeleteTest, RefusesWithoutRightOrIndex) {
  rowtest::CatalogueHome::ensure();
  SearchResults rs;
  rowtest::addRows(rs, numbered(3));
  SearchResultsInfo info;
  EXPECT_EQ(rowtest::runFresh("delete", rs, info),
            "Error in 'delete' command: Permission denied: deleting events needs a user with the delete right.");
  info.userContext = "admin";
  EXPECT_EQ(rowtest::runFresh("delete", rs, info),
            "Error in 'delete' command: Events cannot be deleted: no index store is available to this search, "
            "nothing was deleted.");
  EXPECT_EQ(rs.size(), 3u);
  EXPECT_EQ(rowtest::runFresh("delete x", rs, info), "Error in 'delete' command: Invalid argument: 'x'");
}

TEST(EditInfoTest, ChangesTheInfoNotTheRows) {
  rowtest::CatalogueHome::ensure();
  SearchResults rs;
  rowtest::addRows(rs, numbered(250));
  rowtest::TempDir dir;
  rowtest::spill(rs, dir.path, 100);
  SearchResultsInfo info;
  ASSERT_EQ(rowtest::runFresh("editinfo keywords=\"a b\" searchtext=\"x y\" earliest=10.25 latest=20 "
                              "resultscomplete=f warn=careful",
                              rs, info),
            "");
  EXPECT_EQ(info.keywords, (std::set<Str>{"a", "b"}));
  EXPECT_EQ(info.searchText, "x y");
  EXPECT_EQ(info.earliestTime, Timeval(10, 250000));
  EXPECT_EQ(info.latestTime, Timeval(20, 0));
  EXPECT_FALSE(info.resultsComplete);
  // Three chunks, one message.
  EXPECT_EQ(info.messages[SearchResultsInfo::MSG_WARN], std::vector<Str>{"careful"});
  EXPECT_EQ(rowtest::collect(rs).size(), 250u);
  EXPECT_EQ(rowtest::runFresh("editinfo earliest=soon", rs, info),
            "Error in 'editinfo' command: Invalid numerical value for option 'earliest'");
}

TEST(CollapseTest, RechunksSpilledRows) {
  rowtest::CatalogueHome::ensure();
  rowtest::TempDir dir;
  SearchResults rs;
  rowtest::addRows(rs, numbered(250));
  rowtest::spill(rs, dir.path, 100);
  SearchResultsInfo info;
  ASSERT_EQ(rowtest::runFresh("collapse chunksize=1000", rs, info), "");
  EXPECT_FALSE(rs.hasFiles());  // fits in one chunk: back in memory
  EXPECT_EQ(rs.size(), 250u);

  SearchResults part;
  rowtest::addRows(part, numbered(250));
  rowtest::spill(part, dir.path, 100);
  ASSERT_EQ(rowtest::runFresh("collapse offset=10 maxrows=20", part, info), "");
  std::vector<std::string> got = rowtest::collect(part);
  ASSERT_EQ(got.size(), 20u);
  EXPECT_EQ(got.front(), "n=10");
  EXPECT_EQ(got.back(), "n=29");
  EXPECT_EQ(rowtest::runFresh("collapse chunksize=-1", part, info),
            "Error in 'collapse' command: Invalid non-negative integer value for option 'chunksize'");
}

TEST(TagsTest, AnnotateFromTheTagsFileAndEditIt) {
  searchtest::ScratchHome& home = rowtest::CatalogueHome::ensure();
  home.writeConf("tags",
                 "[host=web1]\nprod = enabled\nweb = enabled\nold = disabled\n"
                 "[sourcetype=syslog]\nos = enabled\n");
  std::vector<Row> rows = {{{"host", "web1"}, {"sourcetype", "syslog"}}, {{"host", "db"}}};
  runCases({
      {"tags", rows, {"host=web1 sourcetype=syslog tag=os prod web tag::host=prod web tag::sourcetype=os", "host=db"}},
      {"tags outputfield=t host", rows, {"host=web1 sourcetype=syslog t=prod web tag::host=prod web", "host=db"}},
      {"tags host host", rows, {"Error in 'tags' command: Field 'host' specified multiple times"}},
  });
  SearchResults rs;
  SearchResultsInfo info;
  ASSERT_EQ(rowtest::runFresh("tagset host=web1 b a", rs, info), "");
  EXPECT_EQ(info.messages[SearchResultsInfo::MSG_INFO], std::vector<Str>{"Tags of host=web1: a b"});
  ASSERT_EQ(rowtest::runFresh("tagcreate host=db x", rs, info), "");
  ASSERT_EQ(rowtest::runFresh("tagdelete host=web1 a", rs, info), "");
  runCases({
      {"tags host", rows, {"host=web1 sourcetype=syslog tag=b tag::host=b", "host=db tag=x tag::host=x"}},
      {"tagset host=db", {}, {}},
      {"tags host", rows, {"host=web1 sourcetype=syslog tag=b tag::host=b", "host=db"}},
      {"tagcreate host=db", {}, {"Error in 'tagcreate' command: usage: tagcreate <field>=<value> <tag>..."}},
      {"tagset a b", {}, {"Error in 'tagset' command: usage: tagset <field>=<value> <tag>..."}},
  });
}

}  // namespace
