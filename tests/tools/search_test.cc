// The command-line search tool, run as a program: its modes, texts and exit
// statuses against a scratch installation laid out by scripts/mkhome.sh.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

namespace {

const std::string kTool = VELMOR_BINARY_DIR "/bin/velmor-search";

struct ToolRun {
  int status = -1;  // exit status, or -1 for death by signal
  std::string out, err;
};

std::string slurp(const std::string& path) {
  std::ifstream f(path);
  return std::string(std::istreambuf_iterator<char>(f), {});
}

class SearchToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (access(kTool.c_str(), X_OK) != 0) GTEST_SKIP() << "velmor-search not built";
    char tmpl[] = "/tmp/velmor-search-tool-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = tmpl;
    home = dir + "/home";
    std::string cmd = std::string(VELMOR_SOURCE_DIR "/scripts/mkhome.sh ") + home + " >/dev/null";
    ASSERT_EQ(system(cmd.c_str()), 0);
  }
  void TearDown() override {
    if (!dir.empty()) if (system(("rm -rf " + dir).c_str()) != 0) ADD_FAILURE() << "cleanup";
  }

  // Runs the tool with `args`; stdout_fd overrides standard output.
  ToolRun run(const std::vector<std::string>& args, const char* velmorHome = nullptr, int stdoutFd = -1) {
    std::string outPath = dir + "/out", errPath = dir + "/err";
    pid_t pid = fork();
    if (pid == 0) {
      int o = stdoutFd >= 0 ? stdoutFd : open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      int e = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      dup2(o, 1);
      dup2(e, 2);
      setenv("VELMOR_HOME", velmorHome ? velmorHome : home.c_str(), 1);
      std::vector<char*> argv{const_cast<char*>(kTool.c_str())};
      for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      execv(kTool.c_str(), argv.data());
      _exit(127);
    }
    int st = 0;
    waitpid(pid, &st, 0);
    ToolRun r;
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    if (stdoutFd < 0) r.out = slurp(outPath);
    r.err = slurp(errPath);
    return r;
  }

  std::string dir, home;
};

TEST_F(SearchToolTest, UsageAndMissingHome) {
  ToolRun r = run({});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "usage: " + kTool + " 'search'\n");
  EXPECT_EQ(r.out, "");

  r = run({"searchps"}, "");
  EXPECT_EQ(r.status, 255);
  EXPECT_EQ(r.err, "VELMOR_HOME must be set.  Stopping.\n");
}

TEST_F(SearchToolTest, PlainSearchTextsAndStatuses) {
  struct Case {
    std::vector<std::string> args;
    std::string out;
  } cases[] = {
      // Blank search: an empty pipeline prints nothing.
      {{"   "}, ""},
      // The first word must be a command; "test" without "cat" is a search.
      {{"test", "other"}, "search processor exception: Unknown search operation: 'test'\n"},
      {{"error"}, "search processor exception: Unknown search operation: 'error'\n"},
      // "nointernal" is tested before "file": this runs the command "file"
      // (with no path), it does not open a file called nointernal.
      {{"file", "nointernal"}, "search processor exception: Error in 'file' command: A file path is required\n"},
      {{"nopartial | searchps", "myqid"}, ""},
      {{"searchps | | nopartial"},
       "search processor exception: You must follow a pipe ('|') with a command., while parsing "
       "query:\"searchps | | nopartial\"\n"},
      // The search cancels its own id: reported, still status 0.
      {{"cancelps searchtest"}, "search cancelled\n"},
  };
  for (const Case& c : cases) {
    ToolRun r = run(c.args);
    EXPECT_EQ(r.status, 0) << c.args[0];
    EXPECT_EQ(r.out, c.out) << c.args[0];
  }
}

TEST_F(SearchToolTest, FileModeEchoesEachLineOnly) {
  std::string q = dir + "/queries";
  std::ofstream(q) << "nopartial\nbogus x\n[broken\nsearchps\n";
  ToolRun r = run({"FILE", q});  // mode words ignore case
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "query1\t nopartial\nquery2\t bogus x\nquery3\t [broken\nquery4\t searchps\n");

  r = run({"file", dir + "/absent"});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.err.find("Unable to open " + dir + "/absent.\n"), std::string::npos);
  EXPECT_EQ(r.out, "");
}

TEST_F(SearchToolTest, ClosedReaderDoesNotKillTheTool) {
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  close(p[0]);  // nobody will read: every write fails with EPIPE
  ToolRun r = run({"bogus"}, nullptr, p[1]);
  close(p[1]);
  EXPECT_EQ(r.status, 0);
}

}  // namespace
