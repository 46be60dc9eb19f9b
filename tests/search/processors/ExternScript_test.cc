// script / run / script names, and load / save: rows through a real python3
// script started by the process runner, the refusals, the row limit, a
// failing script, and CSV on descriptors.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "FileTestUtil.h"
#include "search/processors/ExternProcessor.h"
#include "util/ProcessRunner.h"

namespace {

using filetest::Home;
using searchtest::Row;

class RunnerEnv : public ::testing::Environment {
 public:
  void SetUp() override { ProcessRunnerInit(nullptr, Pathname()); }
  void TearDown() override { ProcessRunnerFini(nullptr); }
};
const ::testing::Environment* const gRunner = ::testing::AddGlobalTestEnvironment(new RunnerEnv);

// A home with the shipped example script and two of the test's own.
class ScriptHome : public Home {
 public:
  explicit ScriptHome(size_t chunkRows = 100) : Home(chunkRows) {
    Pathname dir = home.path() / "etc/searchscripts";
    dir.mkdir_p();
    Pathname(Str(VELMOR_SOURCE_DIR "/etc/searchscripts/strlen.py")).copyTo(dir / "strlen.py");
    searchtest::writeAll(dir / "fail.py", "import sys\nsys.stderr.write('warming up\\nboom\\n')\nsys.exit(3)\n");
    searchtest::writeAll(dir / "other.pl", "print \"x\\n1\\n\";\n");
    Pathname local = home.path() / "etc/bundles/local/searchscripts";
    local.mkdir_p();
    // A site script of the same name wins over the shipped one.
    searchtest::writeAll(local / "count.py",
                         "import sys\nrows = sys.stdin.read().count('\\n')\nprint('rows')\nprint(rows)\n");
    searchtest::writeAll(dir / "count.py", "print('rows')\nprint(-1)\n");
  }
};

std::vector<Row> run(const std::string& search, const std::vector<Row>& rows, std::string* error = nullptr) {
  SearchResults rs;
  searchtest::addRows(rs, rows);
  std::string e = filetest::run(search, rs);
  if (error) *error = e;
  if (!e.empty()) return {{{"error", e}}};
  return filetest::allRows(rs);
}

TEST(ExternScriptTest, RowsGoThroughAPythonScriptAndBack) {
  ScriptHome home;
  std::vector<Row> rows = {
      {{"_raw", "say \"hi\", then\nleave"}, {"n", "1"}},
      {{"n", "2"}},
      {{"_raw", "plain"}, {"n", "3"}},
  };
  std::vector<Row> want = {
      {{"_raw", "say \"hi\", then\nleave"}, {"n", "1"}, {"len", "20"}},
      {{"n", "2"}},
      {{"_raw", "plain"}, {"n", "3"}, {"len", "5"}},
  };
  // The three ways of naming it give the same rows.
  for (const char* search : {"script python strlen _raw len", "run python strlen.py _raw len", "strlen _raw len",
                             "script:strlen _raw len", "STRLEN _raw len"})
    EXPECT_EQ(run(search, rows), want) << search;
  // maxinputs is ours, not the script's: only two rows go and come back.
  EXPECT_EQ(run("strlen maxinputs=2 _raw len", rows).size(), 2u);
  // The site directory comes first.
  EXPECT_EQ(run("count", {{{"a", "1"}}}), (std::vector<Row>{{{"rows", "2"}}}));

  // No temporary files are left behind.
  std::vector<Str> names;
  home.run().readDirectory(names);
  for (const Str& n : names) EXPECT_FALSE(n.startswith("run_script_")) << n;
}

TEST(ExternScriptTest, LookupAndRefusals) {
  ScriptHome home;
  Str lang;
  EXPECT_TRUE(ExternProcessor::isExternProcessor("strlen", lang));
  EXPECT_EQ(lang, "python");
  EXPECT_TRUE(ExternProcessor::isExternProcessor("other", lang));
  EXPECT_EQ(lang, "perl");
  EXPECT_FALSE(ExternProcessor::isExternProcessor("nosuch", lang));
  EXPECT_FALSE(ExternProcessor::isExternProcessor("../searchscripts/strlen", lang));

  std::string dirs = home.home.path() + "/etc/bundles/local/searchscripts:" + home.home.path() + "/etc/searchscripts";
  struct Case {
    const char* search;
    std::string error;
  } cases[] = {
      {"script python", "Error in 'script' command: usage: script <language> <script name> [<argument>...]"},
      {"run ruby strlen", "Error in 'run' command: The script language must be python or perl."},
      {"script python ../strlen",
       "Error in 'script' command: Refusing to run '../strlen': a script name may not contain a path."},
      {"script python nosuch", "Error in 'script' command: Cannot find the script 'nosuch' in '" + dirs + "'."},
      {"script perl strlen", "Error in 'script' command: Cannot find the script 'strlen' in '" + dirs + "'."},
      {"nosuch", "Unknown search operation: 'nosuch'"},
      {"script python fail",
       "Error in 'script' command: The script 'fail' failed: exited with code 3: boom"},
      {"fail", "Error in 'script:fail' command: The script 'fail' failed: exited with code 3: boom"},
      {"strlen maxinputs=x", "Error in 'script:strlen' command: Invalid non-negative integer value for option "
                             "'maxinputs'"},
  };
  for (auto& c : cases) EXPECT_EQ(run(c.search, {{{"a", "1"}}})[0].at("error"), c.error) << c.search;
}

TEST(ExternScriptTest, SpilledEqualsInMemory) {
  ScriptHome home(100);
  std::vector<Row> rows = filetest::numbered(10000);
  SearchResults mem, sp;
  searchtest::addRows(mem, rows);
  searchtest::addRows(sp, rows);
  searchtest::ScratchDir dir;
  filetest::spill(sp, dir.path(), 100);
  ASSERT_EQ(filetest::run("strlen _raw", mem), "");
  ASSERT_EQ(filetest::run("strlen _raw", sp), "");
  EXPECT_EQ(sp.getFiles().size(), 100u);
  std::vector<Row> a = filetest::allRows(mem), b = filetest::allRows(sp);
  ASSERT_EQ(a.size(), 10000u);
  EXPECT_EQ(a[9999].at("_raw_len"), "18");
  EXPECT_TRUE(a == b);
}

TEST(ExternScriptTest, SaveAndLoadThroughDescriptors) {
  Home home;
  std::vector<Row> rows = {{{"a", "x,y"}, {"b", ""}}, {{"a", "2\nlines"}}, {{"c", "c"}}};
  Pathname file = home / "pipe.csv";
  int w = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  ASSERT_GE(w, 0);
  SearchResults out;
  searchtest::addRows(out, rows);
  ASSERT_EQ(filetest::run("save fd=" + std::to_string(w), out), "");
  close(w);
  EXPECT_EQ(searchtest::rowsOf(out), rows);  // passed on unchanged
  EXPECT_EQ(home.read("pipe.csv"), "a,b,c\n\"x,y\",\"\",\n\"2\nlines\",,\n,,c\n");

  int r = open(file.c_str(), O_RDONLY);
  ASSERT_GE(r, 0);
  SearchResults in;
  searchtest::addRows(in, {{{"old", "row"}}});
  SearchResultsInfo info;
  ASSERT_EQ(filetest::run("load fd=" + std::to_string(r), in, info), "");
  close(r);
  EXPECT_EQ(searchtest::rowsOf(in), rows);
  EXPECT_EQ(in.keyIndex("old"), SearchResults::nkeyindex);

  EXPECT_EQ(filetest::run("load fd=-1", in), "Error in 'load' command: Invalid descriptor -1");
}

}  // namespace
