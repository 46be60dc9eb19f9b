// The `rex` command: named groups of one typed expression become fields.
// Search text in -> rows (or the refusal) out.
#include <gtest/gtest.h>

#include "CatalogueHome.h"
#include "RowTestUtil.h"

namespace {

using rowtest::Row;

TEST(RexTest, NamedGroupsSetFields) {
  std::vector<Row> in = {{{"_raw", "user=ann took 12 ms"}},
                         {{"_raw", "user=bob took 7 ms, then 9 ms"}},
                         {{"_raw", "no match here"}},
                         {{"other", "no _raw"}}};
  rowtest::runCommandCases({
      {"rex \"user=(?<user>\\w+) took (?<ms>\\d+)\"", in,
       {"_raw=user=ann took 12 ms ms=12 user=ann", "_raw=user=bob took 7 ms, then 9 ms ms=7 user=bob",
        "_raw=no match here", "other=no _raw"}},
      // Unquoted, with blanks and a comma: the text is read whole.
      {"rex (?<a>\\d+) ms, then (?<b>\\d+)", in,
       {"_raw=user=ann took 12 ms", "_raw=user=bob took 7 ms, then 9 ms a=7 b=9", "_raw=no match here",
        "other=no _raw"}},
      // A group that takes no part leaves its field alone; unnamed groups set nothing.
      {"rex \"(?<x>ann)|(?<y>bob)|(no)\"", {{{"_raw", "bob"}, {"x", "keep"}}, {{"_raw", "no"}}},
       {"_raw=bob x=keep y=bob", "_raw=no"}},
      // A field the rows lack: nothing happens, no column is made.
      {"rex field=missing \"(?<v>.)\"", {{{"_raw", "a"}}}, {"_raw=a"}},
      {"rex field=msg \"^(?<first>\\S+)\"", {{{"_raw", "r"}, {"msg", "hello world"}}, {{"_raw", "s"}}},
       {"_raw=r first=hello msg=hello world", "_raw=s"}},
      // A group may write the field it reads.
      {"rex field=path \"^/(?<path>[^/]+)/(?<rest>.*)\"", {{{"path", "/usr/local/bin"}}}, {"path=usr rest=local/bin"}},
  });
}

TEST(RexTest, RefusedAtArgumentTime) {
  // Rows are given so that a per-row failure would show up too.
  std::vector<Row> in = {{{"_raw", "abc"}}};
  rowtest::runCommandCases({
      {"rex \"(\\w+)\"", in,
       {"Error in 'rex' command: The regex '(\\w+)' will not extract anything.  It should specify at least one "
        "named group, format: (?<name>...)."}},
      {"rex", in, {"Error in 'rex' command: usage: regex [field=<field>] <regex>"}},
      {"rex field=x", in, {"Error in 'rex' command: usage: regex [field=<field>] <regex>"}},
      {"rex \"(?<a>x)\" \"(?<b>y)\"", in, {"Error in 'rex' command: Invalid argument: '(?<b>y)'"}},
  });
  SearchResults rs;
  rowtest::addRows(rs, in);
  SearchResultsInfo info;
  std::string err = rowtest::runFresh("rex \"(?<a>[x\"", rs, info);
  EXPECT_EQ(err.rfind("Error in 'rex' command: ", 0), 0u) << err;
}

}  // namespace
