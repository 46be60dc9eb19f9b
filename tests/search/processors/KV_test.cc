// Field extraction by `kv`/`extract`: key cleaning, the REGEX/FORMAT and
// DELIMS/FIELDS rules, the command's options, and the rules of the props
// and transforms files of a test bundle. Search text in -> rows out.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "CatalogueHome.h"
#include "RowTestUtil.h"
#include "search/processors/KVParser.h"
#include "search/processors/KVRegex.h"
#include "search/processors/KVTransformer.h"
#include "search/processors/ResultInserter.h"

namespace {

using rowtest::Row;
using Case = rowtest::CommandCase;

TEST(KVCleanKeyTest, NamesFromFoundKeys) {
  struct {
    const char* in;
    bool lastWord;
    const char* want;
  } cases[] = {
      {"", true, ""},
      {"2nd value", true, "value"},
      {"2nd value", false, "nd_value"},
      {"__x", false, "x"},
      {"__x", true, "x"},
      {"9lives", false, "lives"},
      {"123", false, ""},
      {"___", false, ""},
      {"a-b.c", false, "a_b_c"},
      {"%CPU", false, "CPU"},
      {" \"user\" ", false, "user"},
      {"'quoted key'", false, "quoted_key"},
      {"host name", true, "name"},
      {"the total ", true, "total"},      // ends in a blank: step 3 finds the word
      {"the v2 ", true, "the_v2"},        // last word not all letters: kept whole
      {"caf\xc3\xa9", false, "caf__"},
  };
  for (const auto& c : cases) {
    Str k(c.in);
    KVTransformer::cleanKey(k, c.lastWord);
    EXPECT_EQ(k, c.want) << "'" << c.in << "' lastWord=" << c.lastWord;
  }
}

// Runs a rule over `text` into a fresh row and lists the row's fields.
template <typename Rule>
std::string applyRule(const Rule& rule, const std::string& text, int limit = 0) {
  SearchResults rs;
  SearchResult* row = rs.addNewResult();
  row->setValue("_raw", text);
  ResultInserter ins(row, false, limit);
  rule.matchAndInsert(StrSegment(text), ins);
  std::string out;
  for (const auto& kv : rs.getKeyMap()) {
    if (kv.first == "_raw" || !row->hasValue(kv.second)) continue;
    if (!out.empty()) out += ' ';
    out += kv.first + "=" + row->getValue(kv.second);
  }
  return out;
}

TEST(KVRegexTest, FormatFormsAndRepeatedMatching) {
  struct {
    const char* regex;
    const char* format;
    const char* text;
    const char* want;
  } cases[] = {
      // A fixed name with a group: the first match only.
      {"^(\\w+) (\\d+)", "method::$1 code::$2", "GET 200\nPUT 404", "code=200 method=GET"},
      // Names from the text: every match; the first value of a name wins.
      {"(\\w+)=(\\d+)", "$1::$2", "a=1 b=2 a=3 c=x", "a=1 b=2"},
      {"\"(\\w+)\":\"?([^\",}]*)", "$1::$2", "{\"service\":\"orders\",\"latency_ms\":42}",
       "latency_ms=42 service=orders"},
      // A fixed pair, given when the expression matches.
      {"(ERROR)", "kind::alert lvl::$1", "x ERROR y", "kind=alert lvl=ERROR"},
      {"(ERROR)", "kind::alert", "all fine", ""},
      // A group that took no part gives nothing.
      {"(a)|(b)", "x::$1 y::$2", "b", "y=b"},
      // Names caught with the text before them keep their last word.
      {"([\\w ]+): (\\d+)", "$1::$2", "the count: 3", "count=3"},
      // Items that fit no form are passed over.
      {"(\\d+)", "junk n::$1", "v 7", "n=7"},
  };
  for (const auto& c : cases) {
    KVRegex r;
    Str err;
    ASSERT_TRUE(r.init(c.regex, c.format, "t", &err)) << err;
    EXPECT_EQ(applyRule(r, c.text), c.want) << c.regex << " / " << c.format;
  }
}

TEST(KVRegexTest, RulesThatCannotWork) {
  struct {
    const char* regex;
    const char* format;
    const char* error;
  } cases[] = {
      {"", "a::$1", "Missing REGEX for: transform_name='t'"},
      {"(x)", "", "Missing FORMAT, transform_name='t'"},
      {"x", "a::$1", "Regex \"x\" has no capturing groups, transform_name='t'"},
      {"(x)", "a::$2", "IndexOutOfBounds invalid FORMAT capturing group id: id=2, transform_name='t'"},
      {"(x)(y)", "$3::$1", "IndexOutOfBounds invalid FORMAT capturing group id: id=3, transform_name='t'"},
      {"(x)", "nothing-usable", "No valid key names found in FORMAT for transform_name='t'"},
  };
  for (const auto& c : cases) {
    KVRegex r;
    Str err;
    EXPECT_FALSE(r.init(c.regex, c.format, "t", &err));
    EXPECT_EQ(err, c.error);
  }
  KVRegex bad;
  Str err;
  EXPECT_FALSE(bad.init("(x", "a::$1", "t", &err));
  EXPECT_TRUE(err.startswith("Cannot compile RE \"(x\" for transform_name='t': ")) << err;
}

TEST(KVParserTest, DelimsAndFields) {
  struct {
    const char* delims;
    const char* fields;
    const char* text;
    const char* want;
  } cases[] = {
      {"\"&\", \"=\"", "", "user=ann&id=3&flag&=x", "id=3 user=ann"},
      {"\" \", \":\"", "", "a:1  b:\"x y\" c:", "a=1 b=x y c="},
      {"\"|\"", "first, second, third", "x||z|extra", "first=x second= third=z"},
      {"\",\"", "a b", "1,2,", "a=1 b=2"},
      {"\"\\t\", \"=\"", "", "k=v\tw=x y", "k=v w=x y"},
      {"\" \", \"=\"", "pos", "lead k=v", "k=v pos=lead"},
      // Keys are cleaned with their last word kept.
      {"\";\", \"=\"", "", "the size=4;2x=5", "size=4 x=5"},
  };
  for (const auto& c : cases) {
    KVParser p;
    Str err;
    ASSERT_TRUE(p.init(c.delims, c.fields, "t", &err)) << err;
    EXPECT_EQ(applyRule(p, c.text), c.want) << c.delims << " / " << c.text;
  }
  KVParser none;
  Str err;
  EXPECT_FALSE(none.init("", "a", "t", &err));
  EXPECT_EQ(err, "Failed to properly initialize kv parser for transform_name='t'. At least one delimiter must be "
                 "defined.");
  EXPECT_EQ(applyRule(none, "a=1"), "");
}

TEST(KVCommandTest, OptionsAndMarker) {
  rowtest::runCommandCases({
      {"kv", {{{"_raw", "a=1 b=\"x y\" _c=2 9z=3"}}}, {"_kv=1 _raw=a=1 b=\"x y\" _c=2 9z=3 a=1 b=x y"}},
      {"extract", {{{"_raw", "a=1"}}}, {"_kv=1 _raw=a=1 a=1"}},
      // The first pairs of the text, in its order.
      {"kv limit=2", {{{"_raw", "c=3 a=1 b=2"}}}, {"_kv=1 _raw=c=3 a=1 b=2 a=1 c=3"}},
      {"kv maxchars=4", {{{"_raw", "a=1 b=2"}}}, {"_kv=1 _raw=a=1 b=2 a=1"}},
      // A field the row has keeps its value.
      {"kv", {{{"_raw", "host=evil x=1"}, {"host", "web1"}}}, {"_kv=1 _raw=host=evil x=1 host=web1 x=1"}},
      // A row already extracted is passed over.
      {"kv", {{{"_raw", "a=1"}, {"_kv", "1"}}}, {"_kv=1 _raw=a=1"}},
      {"kv | kv limit=1", {{{"_raw", "a=1 b=2"}}}, {"_kv=1 _raw=a=1 b=2 a=1 b=2"}},
      {"kv", {{{"x", "no raw"}}}, {"_kv=1 x=no raw"}},
      // Typed delimiters replace all other rules: no automatic pairs.
      {"kv pairdelim=\"|\" kvdelim=\":\"", {{{"_raw", "a:1|b:2 x|c=3"}}}, {"_kv=1 _raw=a:1|b:2 x|c=3 a=1 b=2 x"}},
      {"kv kvdelim=\":\"", {{{"_raw", "a:1 b=2"}}}, {"_kv=1 _raw=a:1 b=2 a=1"}},
      {"kv kvdelim=\"\"", {{{"_raw", "a=1"}}},
       {"Error in 'kv' command: Failed to parse key-value pair config: transform_name='cmd_delim_kv'"}},
      {"kv limit=x", {}, {"Error in 'kv' command: Invalid non-negative integer value for option 'limit'"}},
      {"kv nosuchtransform", {}, {"Error in 'kv' command: Invalid argument: 'nosuchtransform'"}},
  });
}

TEST(KVCommandTest, RenamedKeysAreReportedOnce) {
  SearchResultsInfo info;
  rowtest::runCommandCases(
      {{"kv pairdelim=\",\" kvdelim=:", {{{"_raw", "the count:3,x-y:4"}}, {{"_raw", "x-y:5"}}},
        {"_kv=1 _raw=the count:3,x-y:4 count=3 x_y=4", "_kv=1 _raw=x-y:5 x_y=5"}}},
      &info);
  ASSERT_EQ(info.messages[SearchResultsInfo::MSG_INFO].size(), 1u);
  EXPECT_EQ(info.messages[SearchResultsInfo::MSG_INFO][0],
            "2 field names were modified. The first 2 are (format 'old'='new'): 'the count'='count' "
            "'x-y'='x_y'....");
}

// Spilled rows are extracted one chunk at a time; each chunk is read back
// with a dictionary of its own, so cached key indices must not leak from
// one chunk to the next.
TEST(KVCommandTest, SpilledChunksGiveTheSameRows) {
  rowtest::CatalogueHome::ensure();
  std::vector<Row> rows;
  for (int i = 0; i < 250; ++i)
    rows.push_back({{"_raw", "k" + std::to_string(i % 7) + "=" + std::to_string(i) + " the a.b" +
                                 std::to_string(i % 3) + "=x" + (i % 2 ? " odd=1" : "")}});
  SearchResults whole, spilled;
  rowtest::addRows(whole, rows);
  rowtest::addRows(spilled, rows);
  rowtest::TempDir dir;
  rowtest::spill(spilled, dir.path, 40);
  SearchResultsInfo a, b;
  ASSERT_EQ(rowtest::runFresh("kv", whole, a), "");
  ASSERT_EQ(rowtest::runFresh("kv", spilled, b), "");
  EXPECT_EQ(rowtest::collect(spilled), rowtest::collect(whole));
  EXPECT_EQ(b.messages[SearchResultsInfo::MSG_INFO], a.messages[SearchResultsInfo::MSG_INFO]);
  EXPECT_EQ(a.messages[SearchResultsInfo::MSG_INFO],
            std::vector<Str>{"3 field names were modified. The first 3 are (format 'old'='new'): 'a.b0'='a_b0' "
                             "'a.b1'='a_b1' 'a.b2'='a_b2'...."});
}

// Rules of a test bundle, chosen by source type, source and host.
class KVRulesTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    auto& home = rowtest::CatalogueHome::ensure();
    home.writeConf("props",
                   "[st_json]\nREPORT-json = json_members\n"
                   "[st_req]\nREPORT-a = req_line\nREPORT-b = broken, pipe_fields\n"
                   "[source::/var/log/special.log]\nREPORT-req = req_line\n"
                   "[host::quiet*]\nKV_MODE = none\n"
                   "[st_off]\nKV_MODE = None\n"
                   "[st_pipe]\nREPORT-p = pipe_fields\n");
    home.writeConf("transforms",
                   "[json_members]\nREGEX = \"(\\w+)\":\"?([^\",}]*)\nFORMAT = $1::$2\n"
                   "[req_line]\nREGEX = ^(\\w+) (\\S+) (\\d{3})\nFORMAT = method::$1 uri::$2 status::$3 kind::web\n"
                   "[broken]\nREGEX = no groups\nFORMAT = x::$1\n"
                   "[pipe_fields]\nDELIMS = \"|\"\nFIELDS = first, second\nSOURCE_KEY = msg\n");
    KVTransformer::reload();
  }
};

TEST_F(KVRulesTest, ReportRulesBySourceTypeSourceAndHost) {
  rowtest::runCommandCases({
      {"kv",
       {{{"_raw", "{\"service\":\"orders\",\"latency_ms\":42,\"ok\":true}"}, {"sourcetype", "st_json"}}},
       {"_kv=1 _raw={\"service\":\"orders\",\"latency_ms\":42,\"ok\":true} latency_ms=42 ok=true service=orders "
        "sourcetype=st_json"}},
      // Rules in key order, the broken one left out, then automatic pairs.
      {"kv",
       {{{"_raw", "GET /a 200 user=ann"}, {"msg", "p|q|r"}, {"sourcetype", "st_req"}}},
       {"_kv=1 _raw=GET /a 200 user=ann first=p kind=web method=GET msg=p|q|r second=q sourcetype=st_req "
        "status=200 uri=/a user=ann"}},
      {"kv",
       {{{"_raw", "PUT /b 404"}, {"source", "/var/log/special.log"}}},
       {"_kv=1 _raw=PUT /b 404 kind=web method=PUT source=/var/log/special.log status=404 uri=/b"}},
      // KV_MODE none, by host pattern or source type: nothing, not even the marker.
      {"kv", {{{"_raw", "a=1"}, {"host", "quiet7"}}}, {"_raw=a=1 host=quiet7"}},
      {"kv", {{{"_raw", "a=1"}, {"sourcetype", "st_off"}}}, {"_raw=a=1 sourcetype=st_off"}},
      // A source field that is missing gives nothing.
      {"kv", {{{"_raw", "x"}, {"sourcetype", "st_pipe"}}}, {"_kv=1 _raw=x sourcetype=st_pipe"}},
      // Named transforms instead of the props rules: no automatic pairs.
      {"extract req_line", {{{"_raw", "GET / 301 a=1"}}}, {"_kv=1 _raw=GET / 301 a=1 kind=web method=GET status=301 uri=/"}},
  });
}

TEST_F(KVRulesTest, ReloadReadsChangedRules) {
  auto& home = rowtest::CatalogueHome::ensure();
  rowtest::runCommandCases({{"kv", {{{"_raw", "v7"}, {"sourcetype", "st_new"}}}, {"_kv=1 _raw=v7 sourcetype=st_new"}}});
  home.writeConf("props",
                 "[st_new]\nREPORT-v = version\n[st_json]\nREPORT-json = json_members\n"
                 "[st_req]\nREPORT-a = req_line\nREPORT-b = broken, pipe_fields\n"
                 "[source::/var/log/special.log]\nREPORT-req = req_line\n[host::quiet*]\nKV_MODE = none\n"
                 "[st_off]\nKV_MODE = None\n[st_pipe]\nREPORT-p = pipe_fields\n");
  home.writeConf("transforms",
                 "[version]\nREGEX = v(\\d+)\nFORMAT = version::$1\n"
                 "[json_members]\nREGEX = \"(\\w+)\":\"?([^\",}]*)\nFORMAT = $1::$2\n"
                 "[req_line]\nREGEX = ^(\\w+) (\\S+) (\\d{3})\nFORMAT = method::$1 uri::$2 status::$3 kind::web\n"
                 "[broken]\nREGEX = no groups\nFORMAT = x::$1\n"
                 "[pipe_fields]\nDELIMS = \"|\"\nFIELDS = first, second\nSOURCE_KEY = msg\n");
  // The cached list stays until reload.
  rowtest::runCommandCases({
      {"kv", {{{"_raw", "v7"}, {"sourcetype", "st_new"}}}, {"_kv=1 _raw=v7 sourcetype=st_new"}},
      {"kv reload=true", {{{"_raw", "v7"}, {"sourcetype", "st_new"}}}, {"_kv=1 _raw=v7 sourcetype=st_new version=7"}},
  });
}

// The rules shipped in the default bundle, over lines of the shapes the
// sample generator writes.
class ShippedRulesTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    auto& home = rowtest::CatalogueHome::ensure();
    for (const char* name : {"props", "transforms"}) {
      std::ifstream in(std::string(VELMOR_SOURCE_DIR) + "/etc/bundles/default/" + name + ".conf");
      std::stringstream text;
      text << in.rdbuf();
      home.writeConf(name, text.str());
    }
    KVTransformer::reload();
  }
  // The named fields of the one row `kv` leaves.
  static std::string fields(const char* sourcetype, const char* raw, const std::vector<std::string>& names) {
    SearchResults rs;
    SearchResultsInfo info;
    rowtest::addRows(rs, {{{"_raw", raw}, {"sourcetype", sourcetype}, {"host", "app-01"}}});
    std::string err = rowtest::runFresh("kv", rs, info);
    if (!err.empty()) return err;
    std::string out;
    for (const std::string& n : names) {
      Str v;
      if (!rs.front()->getValue(Str(n), v)) continue;
      out += (out.empty() ? "" : " ") + n + "=" + v;
    }
    return out;
  }
};

TEST_F(ShippedRulesTest, SampleSourceTypesGetTheirFields) {
  EXPECT_EQ(fields("app_json",
                   "{\"time\":\"2026-11-24T13:05:56.120Z\",\"level\":\"info\",\"host\":\"other\","
                   "\"service\":\"orders\",\"order_id\":40012,\"latency_ms\":38,\"success\":true,"
                   "\"tags\":[\"orders\",\"web\"],\"msg\":\"say \\\"hi\\\"\"}",
                   {"service", "latency_ms", "order_id", "success", "level", "host", "msg", "tags"}),
            "service=orders latency_ms=38 order_id=40012 success=true level=info host=app-01 msg=say \\\"hi\\\"");
  EXPECT_EQ(fields("web_access",
                   "10.1.2.3 - ann [24/Nov/2026:13:05:56 +0000] \"GET /cart?id=3 HTTP/1.1\" 200 512 \"-\" "
                   "\"curl/8.4\" 31",
                   {"clientip", "user", "method", "uri", "version", "status", "bytes", "referer", "useragent",
                    "duration_ms", "id"}),
            "clientip=10.1.2.3 user=ann method=GET uri=/cart?id=3 version=HTTP/1.1 status=200 bytes=512 referer=- "
            "useragent=curl/8.4 duration_ms=31 id=3");
  EXPECT_EQ(fields("syslog", "Nov 24 17:28:35 web7 sshd[4242]: Accepted publickey for deploy", {"process", "pid"}),
            "process=sshd pid=4242");
  EXPECT_EQ(fields("syslog", "Nov 24 17:28:35 web7 kernel: [  12.000001] eth0 up", {"process", "pid"}),
            "process=kernel");
  EXPECT_EQ(fields("java_log", "2026-11-24 13:05:56,123 WARN  [pool-2-thread-1] com.shop.Cart - slow key=v",
                   {"level", "thread", "logger", "key"}),
            "level=WARN thread=pool-2-thread-1 logger=com.shop.Cart key=v");
  EXPECT_EQ(fields("app_kv", "2026-11-24T13:05:56Z level=INFO component=orders duration_ms=61 error=\"a b\"",
                   {"level", "component", "duration_ms", "error"}),
            "level=INFO component=orders duration_ms=61 error=a b");
}

}  // namespace
