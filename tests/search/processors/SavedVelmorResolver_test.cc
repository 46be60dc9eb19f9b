// Event types, tags and saved searches resolved from the store and the
// `tags` file of a scratch installation: the text a search expands to, the
// warnings of what cannot be resolved, what each user sees; and, over a
// small real index, that `eventtype::x` counts what its text counts.
#include "search/processors/SavedVelmorResolver.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "framework/SavedVelmorManager.h"
#include "search/processors/StringSearchExpander.h"

namespace {

std::string gHome;

void write(const std::string& path, const std::string& text) {
  std::ofstream f(path);
  f << text;
}

class SavedVelmorResolverTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    char tmpl[] = "/tmp/velmor-resolver-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    gHome = tmpl;
    ASSERT_EQ(system(("mkdir -p " + gHome + "/etc/bundles/default " + gHome + "/etc/bundles/local").c_str()), 0);
    setenv("VELMOR_HOME", gHome.c_str(), 1);
    write(gHome + "/etc/bundles/default/eventtypes.conf",
          "[http_error]\nquery = sourcetype=web_access status>=500\ntags = web error\n"
          "[not_found]\nsearch = status=404\ntags = web\n"
          "[fail]\nquery = failed\n"
          "[any]\nquery = %http_error% OR %fail%\n"
          "[loop1]\nquery = %loop2%\n[loop2]\nquery = %loop1%\n"
          "[blank]\nquery =\n"
          "[private]\nquery = secret\nuserid = alice\nisGlobal = false\n");
    write(gHome + "/etc/bundles/default/savedsearches.conf",
          "[errs]\nquery = error fail\ntags = ops\n"
          "[report]\nquery = error | stats count\n"
          "[xmlform]\nquery = <keys><key>a</key><key>b</key></keys>\n");
    write(gHome + "/etc/bundles/default/tags.conf",
          "[host=web-01]\nprod = enabled\n[host=web-02]\nprod = enabled\n[host=db-01]\nprod = disabled\n"
          "[eventtype=fail]\nerror = enabled\n[source=/var/log/a b.log]\nspaced = enabled\n");
    // The local bundle switches db-01's tag on and web-02's off.
    write(gHome + "/etc/bundles/local/tags.conf", "[host=db-01]\nprod = enabled\n[host=web-02]\nprod = disabled\n");
    SavedVelmorManager::instance().reload();
    SavedVelmorResolver::installForProcess();
  }
  static void TearDownTestSuite() {
    ITagResolver::install(nullptr);
    ISavedSearchSource::install(nullptr);
    if (!gHome.empty() && system(("rm -rf " + gHome).c_str()) != 0) ADD_FAILURE() << "cleanup";
  }
};

struct Case {
  const char* user;
  const char* in;
  const char* out;
  std::vector<Str> warnings;
};

void runCases(const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    std::vector<Str> warnings;
    EXPECT_EQ(std::string(StringSearchExpander(c.user, 1000000).expandSearch(c.in, warnings)), std::string(c.out))
        << c.in;
    EXPECT_EQ(warnings, c.warnings) << c.in;
  }
}

TEST_F(SavedVelmorResolverTest, EventTypesExpandToTheirTextWithTemplates) {
  runCases({
      {"", "eventtype::http_error", "( ( sourcetype=web_access status>=500 ) )", {}},
      {"", "eventtype=not_found | stats count", "( status=404 ) | stats count", {}},
      {"", "eventtype::any", "( ( ( sourcetype=web_access status>=500 ) OR ( failed ) ) )", {}},
      {"", "error eventtype::fail", "error ( failed )", {}},
      // An empty text matches nothing rather than everything.
      {"", "eventtype::blank", "( __no_such_eventtype__::blank )", {}},
      {"", "eventtype::loop1", "eventtype::loop1", {"Unable to find an eventtype loop1"}},
      {"", "eventtype::nosuch", "eventtype::nosuch", {"Unable to find an eventtype nosuch"}},
      {"alice", "eventtype::private", "( secret )", {}},
      {"bob", "eventtype::private", "eventtype::private", {"Unable to find an eventtype private"}},
  });
}

TEST_F(SavedVelmorResolverTest, TagsComeFromTheTagsFileAndTheStore) {
  runCases({
      // local switches web-02 off and db-01 on.
      {"", "hosttag::prod", "( host=\"db-01\" OR host=\"web-01\" )", {}},
      {"", "tag::host::prod", "( host=\"db-01\" OR host=\"web-01\" )", {}},
      {"", "tag=spaced", "( source=\"/var/log/a b.log\" )", {}},
      // Event types carry tags in their own "tags" key and in the tags file.
      {"", "eventtypetag::error", "( ( failed ) OR ( ( sourcetype=web_access status>=500 ) ) )", {}},
      {"", "tag::savedsearch::ops", "( ( error fail ) )", {}},  // and then expanded
      {"", "hosttag::nosuch", "hosttag::nosuch", {"Unable to find tag nosuch on host"}},
  });
  SavedVelmorResolver r;
  std::vector<Str> terms;
  EXPECT_TRUE(r.resolveEventTypeTag("web", "", terms));
  EXPECT_EQ(terms, (std::vector<Str>{"eventtype::http_error", "eventtype::not_found"}));
  terms.clear();
  EXPECT_FALSE(r.resolveSourceType("web_access", "", terms));
  EXPECT_FALSE(r.resolveTag("", "prod", "", terms));
  EXPECT_TRUE(terms.empty());
}

TEST_F(SavedVelmorResolverTest, SavedSearches) {
  runCases({
      {"", "savedsearch::errs", "( error fail )", {}},
      {"", "savedvelmor=xmlform", "( a b )", {}},
      {"", "savedsearch::report", "savedsearch::report",
       {"Unable to run the saved search report as part of a search as it contains other non search commands. "
        "Please use the savedsearch command."}},
      {"", "savedsearch::nosuch", "savedsearch::nosuch", {"Unable to find  a saved search nosuch"}},
  });
  Str text;
  SavedVelmorResolver r;
  EXPECT_TRUE(r.lookup("report", "", text));
  EXPECT_EQ(text, "error | stats count");
  EXPECT_FALSE(r.lookup("http_error", "", text));  // an event type is not a saved search
}

// --- over a real index, through the tools ------------------------------------------

const std::string kSearch = VELMOR_BINARY_DIR "/bin/velmor-search";
const std::string kIndex = VELMOR_BINARY_DIR "/bin/velmor-index";

std::string slurp(const std::string& path) {
  std::ifstream f(path);
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

// Runs a tool with the installation's environment; its standard output.
std::string runTool(const std::string& home, const std::vector<std::string>& args, int* status) {
  const std::string out = home + "/tool.out";
  pid_t pid = fork();
  if (pid == 0) {
    freopen(out.c_str(), "w", stdout);
    freopen("/dev/null", "w", stderr);
    setenv("VELMOR_HOME", home.c_str(), 1);
    setenv("VELMOR_DB", (home + "/var/lib/velmor/db").c_str(), 1);
    std::vector<char*> argv{const_cast<char*>("timeout"), const_cast<char*>("120")};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execvp("timeout", argv.data());
    _exit(127);
  }
  int st = 0;
  waitpid(pid, &st, 0);
  *status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return slurp(out);
}

long countOf(const std::string& xml) {
  std::smatch m;
  std::regex re("<field k='count'>\\s*<value><text>([0-9]+)</text>");
  return std::regex_search(xml, m, re) ? std::stol(m[1]) : -1;
}

TEST(SavedVelmorOverAnIndex, EventTypeCountsWhatItsTextCounts) {
  if (access(kSearch.c_str(), X_OK) != 0 || access(kIndex.c_str(), X_OK) != 0)
    GTEST_SKIP() << "velmor-search or velmor-index not built";
  char tmpl[] = "/tmp/velmor-resolver-index-XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  const std::string dir = tmpl, home = dir + "/home";
  struct Cleanup {
    std::string dir;
    ~Cleanup() {
      if (system(("rm -rf " + dir).c_str()) != 0) ADD_FAILURE() << "cleanup";
    }
  } cleanup{dir};
  ASSERT_EQ(system((VELMOR_SOURCE_DIR "/scripts/mkhome.sh " + home + " >/dev/null").c_str()), 0);
  // 40 access lines: status 200, 404, 500, 503 in turn; and a user's event
  // type and saved search in the local bundle.
  std::ostringstream log;
  const int codes[] = {200, 404, 500, 503};
  for (int i = 0; i < 40; ++i)
    log << "10.0.0." << i % 7 << " - - [01/Nov/2026:00:" << (10 + i) << ":00 +0000] \"GET /p" << i
        << " HTTP/1.1\" " << codes[i % 4] << " 12 \"-\" \"agent\" 5\n";
  write(dir + "/access.log", log.str());
  write(home + "/etc/bundles/local/eventtypes.conf",
        "[server_error]\nquery = status>=500\n[odd_server_error]\nquery = %server_error% NOT status=500\n");
  write(home + "/etc/bundles/local/savedsearches.conf", "[by_status]\nquery = eventtype=server_error | stats count\n");
  int status = 0;
  runTool(home, {kIndex, "add", "main", dir + "/access.log", "--sourcetype", "web_access"}, &status);
  ASSERT_EQ(status, 0);

  struct Pair {
    const char* named;
    const char* plain;
    long want;
  };
  const Pair pairs[] = {
      {"search eventtype::server_error | stats count", "search status>=500 | stats count", 20},
      {"search eventtype=odd_server_error | stats count", "search (status>=500) NOT status=500 | stats count", 10},
      {"search eventtype::http_error | stats count", "search sourcetype=web_access status>=500 | stats count", 20},
      {"search eventtypetag::web | stats count", "search sourcetype=web_access status>=400 | stats count", 30},
      {"savedsearch by_status", "search status>=500 | stats count", 20},
  };
  for (const Pair& p : pairs) {
    long named = countOf(runTool(home, {kSearch, std::string(p.named) + " | outputxml"}, &status));
    EXPECT_EQ(status, 0) << p.named;
    long plain = countOf(runTool(home, {kSearch, std::string(p.plain) + " | outputxml"}, &status));
    EXPECT_EQ(named, plain) << p.named;
    EXPECT_EQ(named, p.want) << p.named;
  }
}

}  // namespace
