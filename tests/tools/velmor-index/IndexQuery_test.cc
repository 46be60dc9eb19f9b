// velmor-index query against a scratch installation: counts of AND, OR, NOT,
// group, phrase, prefix, source type and time-range queries over indexes
// filled from real logs equal what grep (or the generator) says; the ten
// newest matching events come back newest first; bad queries end in the
// document's error element and never leave a half-written document.
#include <gtest/gtest.h>

#include "../ToolProcess.h"

#include <stdlib.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

namespace {

const std::string kTool = VELMOR_BINARY_DIR "/bin/velmor-index";
const std::string kLoghub = VELMOR_SOURCE_DIR "/../shared/data/loghub/";

class IndexQueryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (access(kTool.c_str(), X_OK) != 0) GTEST_SKIP() << "velmor-index not built";
    char tmpl[] = "/tmp/velmor-index-query-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = tmpl;
    home = dir + "/home";
    db = home + "/var/lib/velmor/db";
    ASSERT_EQ(system((std::string(VELMOR_SOURCE_DIR "/scripts/mkhome.sh ") + home + " >/dev/null").c_str()), 0);
    std::ofstream conf(home + "/etc/bundles/local/indexes.conf");
    conf << "[default]\ndefaultDatabase = lh\n\n";
    for (const char* name : {"lh", "gen"})
      conf << "[" << name << "]\nhomePath = $VELMOR_DB/" << name << "/db\ncoldPath = $VELMOR_DB/" << name
           << "/colddb\nthawedPath = $VELMOR_DB/" << name << "/thaweddb\nmaxResults = 1000000\n"
           << "compressRawdata = true\nmaxDataSize = 750\nmaxTotalDataSizeMB = 500000\n"
           << "frozenTimePeriodInSecs = 2147483647\nmaxWarmDBCount = 1000\n\n";
  }
  void TearDown() override {
    if (!dir.empty() && system(("rm -rf " + dir).c_str()) != 0) ADD_FAILURE() << "cleanup";
  }

  ToolRun run(const std::vector<std::string>& args) {
    return runTool(kTool, args, dir, {{"VELMOR_HOME", home}, {"VELMOR_DB", db}, {"TZ", "UTC"}});
  }

  // The result document of a query, which must exit 0.
  std::string query(const std::string& text) {
    ToolRun r = run({"query", text});
    EXPECT_EQ(r.status, 0) << text << "\n" << r.err;
    return r.out;
  }

  // The total count of events a query found (the tc attribute of its
  // events list), or -1 when the document has none.
  long total(const std::string& search, const std::string& index = "lh") {
    std::string doc = query("SEARCH " + search + " index::" + index + " maxresults::1000000 GET events::0-0 "
                            "OUTPUT velmorui::2.2");
    std::smatch m;
    if (!std::regex_search(doc, m, std::regex("<results type=\"events\" c=\"\\d+\" tc=\"(\\d+)\"")))
      return -1;
    return atol(m[1].str().c_str());
  }

  std::string dir, home, db;
};

TEST_F(IndexQueryTest, BooleanCountsOverLoghubMatchGrep) {
  std::vector<std::string> logs;
  for (const char* s : {"Linux", "OpenSSH", "Zookeeper", "Apache"}) {
    std::string log = kLoghub + s + "/" + s + "_2k.log";
    if (access(log.c_str(), R_OK) != 0) GTEST_SKIP() << "no sample logs under " << kLoghub;
    ToolRun add = run({"add", "lh", log, "--sourcetype", s});
    ASSERT_EQ(add.status, 0) << add.err;
    logs.push_back(log);
  }
  std::string all;
  for (const std::string& l : logs) all += " '" + l + "'";
  // awk 1 ends each file's last line (the logs lack a final newline).
  std::string cat = "awk 1" + all + " | ";
  struct Case {
    std::string search;
    std::string grep;  // a pipeline over all lines printing one count
  };
  const std::vector<Case> cases = {
      {"failed", "grep -ciw failed"},
      {"FAILED", "grep -ciw failed"},
      {"failed password", "grep -iw failed | grep -ciw password"},
      {"failed AND password", "grep -iw failed | grep -ciw password"},
      {"failed OR invalid", "grep -ciwE 'failed|invalid'"},
      {"session NOT closed", "grep -iw session | grep -civw closed"},
      {"NOT info", "grep -civw info"},
      {"( failed OR invalid ) password", "grep -iwE 'failed|invalid' | grep -ciw password"},
      {"password ( failed OR invalid )", "grep -iwE 'failed|invalid' | grep -ciw password"},
      {"error NOT ( warn OR info )", "grep -iw error | grep -civwE 'warn|info'"},
      // A phrase is its words as terms, confirmed in the text: "failures"
      // holds the text but not the word.
      {"\"authentication failure\"", "grep -iF 'authentication failure' | grep -ciw failure"},
      {"\"Authentication Failure\" root", "grep -iF 'authentication failure' | grep -iw failure | grep -ciw root"},
      {"authent*", "grep -ciE '(^|[^a-z0-9_])authent'"},
      {"sourcetype::openssh failed", "awk 1 '" + logs[1] + "' | grep -iw failed | wc -l"},
      {"sourcetype::openssh OR sourcetype::linux", "awk 1 '" + logs[0] + "' '" + logs[1] + "' | wc -l"},
      {"*", "wc -l"},
  };
  for (const Case& c : cases) {
    bool own = c.grep.find("' | wc") != std::string::npos || c.grep.find("awk 1 '") == 0;
    long expected = shellNumber(own ? c.grep : cat + c.grep);
    ASSERT_GE(expected, 0) << c.grep;
    EXPECT_EQ(total(c.search), expected) << c.search;
  }
}

TEST_F(IndexQueryTest, TimeRangesCountExactly) {
  // 7200 events, one a second from 2026-11-20T00:00:00Z.
  std::string log = dir + "/gen.log";
  {
    std::ofstream f(log);
    for (int i = 0; i < 7200; ++i) {
      char buf[128];
      snprintf(buf, sizeof buf, "2026-11-20T%02d:%02d:%02dZ evt%05d kind%d\n", i / 3600, (i / 60) % 60, i % 60, i,
               i % 3);
      f << buf;
    }
  }
  ToolRun add = run({"add", "gen", log});
  ASSERT_EQ(add.status, 0) << add.err;
  const long t0 = 1795132800;  // 2026-11-20T00:00:00Z
  struct Case {
    std::string range;
    long expected;
  };
  const std::vector<Case> cases = {
      {"", 7200},
      {"starttimeu::" + std::to_string(t0 + 600) + " endtimeu::" + std::to_string(t0 + 1199), 600},
      {"starttime::11/20/2026:01:00:00", 3600},
      {"endtime::11/20/2026:00:00:59", 60},
      {"starttime::11/20/2026:00:30:00 endtime::11/20/2026:00:59:59 kind0", 600},
      {"starttime::2026-11-20T01:59:00Z", 60},
      {"endtimeu::" + std::to_string(t0 - 1), 0},
  };
  for (const Case& c : cases) EXPECT_EQ(total("meta::all " + c.range, "gen"), c.expected) << c.range;

  // The ten newest events of a search, newest first.
  std::string doc = query("SEARCH kind1 NOT evt07198 index::gen GET events::0-9 OUTPUT velmorui::2.2");
  std::vector<std::string> found;
  std::regex evt("evt(\\d{5})");
  std::string events = doc.substr(0, doc.find("</results>"));
  for (auto it = std::sregex_iterator(events.begin(), events.end(), evt); it != std::sregex_iterator(); ++it)
    if (found.empty() || found.back() != (*it)[0].str()) found.push_back((*it)[0].str());
  std::vector<std::string> want;
  for (int i = 7199; want.size() < 10; --i)
    if (i % 3 == 1 && i != 7198) {
      char buf[16];
      snprintf(buf, sizeof buf, "evt%05d", i);
      want.push_back(buf);
    }
  EXPECT_EQ(found, want) << doc;
}

TEST_F(IndexQueryTest, BadQueriesEndInTheErrorElement) {
  struct Case {
    std::string text;
    std::string error;
  };
  const std::vector<Case> cases = {
      {"foo GET events::0-9", "Search Parse failed because Found token with no control 'foo'"},
      {"SEARCH a ( b", "Mismatched parens"},
      {"SEARCH NOT NOT a", "Query parse failure : NOT NOT"},
      {"SEARCH a index::nosuch", "nosuch"},
      {"SEARCH a GET events::x", "Events malformed. Must be events::start-end"},
      {"SEARCH \"a b", "Search Parse failed because  unable to parse search string. Expected &quot;, got end of input"},
  };
  for (const Case& c : cases) {
    std::string doc = query(c.text);
    EXPECT_EQ(doc.rfind("<queryResult>", 0), 0u) << doc;
    EXPECT_NE(doc.find("</queryResult>"), std::string::npos) << doc;
    std::smatch m;
    ASSERT_TRUE(std::regex_search(doc, m, std::regex("<error>([^<]*)</error>"))) << c.text << "\n" << doc;
    EXPECT_NE(m[1].str().find(c.error), std::string::npos) << c.text << ": " << m[1].str();
  }
  // No temporary document is left behind.
  EXPECT_EQ(shellNumber("ls '" + db + "/searches' | grep -vc '\\.xml$'"), 0);
  EXPECT_EQ(run({"query"}).status, 2);
  EXPECT_EQ(run({"query", "  "}).status, 2);
}

}  // namespace
