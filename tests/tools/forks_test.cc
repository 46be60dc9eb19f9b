// Every process the tools create comes from the process runner: the tools
// are run under strace, which records each clone, clone3, fork and vfork;
// the tool itself may create only the runner (and threads), and everything
// else must be created by the runner. Skipped when strace is not installed
// or may not trace.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

const std::string kTsidx = VELMOR_BINARY_DIR "/bin/velmor-tsidx";
const std::string kSearch = VELMOR_BINARY_DIR "/bin/velmor-search";
const std::string kIndex = VELMOR_BINARY_DIR "/bin/velmor-index";

// One process or thread creation seen in a trace.
struct Creation {
  long parent;
  long child;  // -1 when the call failed
  bool thread;
};

// Reads "strace -f -o" output: "PID name(args) = result" lines, where a call
// interrupted by another process's output is split into "<unfinished ...>"
// and "<... name resumed> rest" lines. Threads carry CLONE_THREAD.
std::vector<Creation> parseTrace(const std::string& text) {
  std::vector<Creation> out;
  std::map<long, std::string> pending;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    size_t sp = line.find(' ');
    if (sp == std::string::npos) continue;
    long pid = std::atol(line.c_str());
    std::string rest = line.substr(line.find_first_not_of(' ', sp));
    const std::string unfinished = " <unfinished ...>";
    if (rest.size() >= unfinished.size() && rest.compare(rest.size() - unfinished.size(), unfinished.size(),
                                                         unfinished) == 0) {
      pending[pid] = rest.substr(0, rest.size() - unfinished.size());
      continue;
    }
    if (rest.rfind("<... ", 0) == 0) {
      size_t close = rest.find("resumed>");
      if (close == std::string::npos || !pending.count(pid)) continue;
      rest = pending[pid] + rest.substr(close + 8);
      pending.erase(pid);
    }
    bool known = false;
    for (const char* name : {"clone(", "clone3(", "fork(", "vfork("})
      known = known || rest.rfind(name, 0) == 0;
    if (!known) continue;
    size_t eq = rest.rfind(") = ");
    if (eq == std::string::npos) continue;
    long result = std::atol(rest.c_str() + eq + 4);
    out.push_back({pid, result > 0 ? result : -1, rest.find("CLONE_THREAD") != std::string::npos});
  }
  return out;
}

TEST(TraceParser, ProcessesThreadsAndSplitCalls) {
  struct Row {
    const char* text;
    std::vector<Creation> expect;
  };
  const Row rows[] = {
      {"10 clone(child_stack=NULL, flags=CLONE_CHILD_CLEARTID|CLONE_CHILD_SETTID|SIGCHLD, child_tidptr=0x1) = 11\n",
       {{10, 11, false}}},
      {"10 clone3({flags=CLONE_VM|CLONE_FS|CLONE_THREAD|CLONE_SETTLS, child_tid=0x1} => {parent_tid=[12]}, 88) = 12\n",
       {{10, 12, true}}},
      {"11 clone(child_stack=NULL, flags=SIGCHLD <unfinished ...>\n"
       "10 +++ exited with 0 +++\n"
       "11 <... clone resumed>, child_tidptr=0x1) = 13\n",
       {{11, 13, false}}},
      {"10 vfork() = 14\n10 fork() = -1 EAGAIN (Resource temporarily unavailable)\n",
       {{10, 14, false}, {10, -1, false}}},
      {"10 --- SIGCHLD {si_signo=SIGCHLD, si_pid=11} ---\n10 write(1, \"clone() = 3\", 11) = 11\n", {}},
  };
  for (const Row& r : rows) {
    std::vector<Creation> got = parseTrace(r.text);
    ASSERT_EQ(got.size(), r.expect.size()) << r.text;
    for (size_t i = 0; i < got.size(); ++i) {
      EXPECT_EQ(got[i].parent, r.expect[i].parent) << r.text;
      EXPECT_EQ(got[i].child, r.expect[i].child) << r.text;
      EXPECT_EQ(got[i].thread, r.expect[i].thread) << r.text;
    }
  }
}

// strace is installed and allowed to trace here (a container may forbid
// ptrace).
bool haveStrace() { return system("strace -qq -o /dev/null true >/dev/null 2>&1") == 0; }

std::string slurp(const std::string& path) {
  std::ifstream f(path);
  return std::string(std::istreambuf_iterator<char>(f), {});
}

class ForksTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!haveStrace()) GTEST_SKIP() << "strace is not installed or may not trace";
    char tmpl[] = "/tmp/velmor-forks-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = tmpl;
  }
  void TearDown() override {
    if (!dir.empty() && system(("rm -rf " + dir).c_str()) != 0) ADD_FAILURE() << "cleanup";
  }

  // Runs argv (under strace when traced) with the given extra environment;
  // returns the exit status and fills out with standard output.
  int run(std::vector<std::string> argv, bool traced, const std::vector<std::string>& env, std::string* out) {
    if (traced)
      argv.insert(argv.begin(), {"strace", "-f", "-qq", "-e", "trace=clone,clone3,fork,vfork", "-o", dir + "/trace"});
    const std::string outPath = dir + "/out";
    pid_t pid = fork();
    if (pid == 0) {
      int o = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      int e = open((dir + "/err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      dup2(o, 1);
      dup2(e, 2);
      unsetenv("VELMOR_ST_NEVER_FORK");
      unsetenv("VELMOR_ST_ALWAYS_FORK");
      for (const std::string& kv : env) putenv(const_cast<char*>(kv.c_str()));
      // The leak checker of sanitised builds cannot run under ptrace.
      if (traced) setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
      std::vector<char*> av;
      for (std::string& a : argv) av.push_back(a.data());
      av.push_back(nullptr);
      execvp(av[0], av.data());
      _exit(127);
    }
    int st = 0;
    waitpid(pid, &st, 0);
    if (out) *out = slurp(outPath);
    return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  }

  // Checks the trace: the traced tool (the first pid) creates exactly one
  // process, the runner; every other process is created by the runner.
  // Returns the number of processes the runner created.
  int checkOnlyTheRunnerForks(int* threads) {
    const std::string text = slurp(dir + "/trace");
    std::vector<Creation> all = parseTrace(text);
    long tool = std::atol(text.c_str());
    long runner = -1;
    int fromRunner = 0;
    *threads = 0;
    for (const Creation& c : all) {
      EXPECT_NE(c.child, -1) << "a creation failed:\n" << text;
      if (c.thread) {
        ++*threads;
        continue;
      }
      if (c.parent == tool) {
        EXPECT_EQ(runner, -1) << "the tool created a second process:\n" << text;
        runner = c.child;
      } else {
        EXPECT_EQ(c.parent, runner) << "a process not created by the runner:\n" << text;
        ++fromRunner;
      }
    }
    EXPECT_NE(runner, -1) << "no runner was started:\n" << text;
    return fromRunner;
  }

  std::string dir;
};

// A forked engine handle (a query opens one; ALWAYS_FORK makes the writes
// fork too) is started by the runner, and the answers still come back.
TEST_F(ForksTest, ForkedEngineHandlesStartThroughTheRunner) {
  if (access(kTsidx.c_str(), X_OK) != 0) GTEST_SKIP() << "velmor-tsidx not built";
  const std::string idx = dir + "/idx";
  ASSERT_EQ(mkdir(idx.c_str(), 0755), 0);
  std::string out;
  ASSERT_EQ(run({kTsidx, "put", idx, "100", "1", "alpha", "beta"}, true, {"VELMOR_ST_ALWAYS_FORK=1"}, &out), 0);
  int threads = 0;
  EXPECT_EQ(checkOnlyTheRunnerForks(&threads), 1);
  ASSERT_EQ(run({kTsidx, "put", idx, "200", "2", "alpha"}, false, {}, &out), 0);

  ASSERT_EQ(run({kTsidx, "query", idx, "alpha"}, true, {}, &out), 0);
  EXPECT_EQ(out, "200 2 0 0 0 0\n100 1 0 0 0 0\n");
  EXPECT_EQ(checkOnlyTheRunnerForks(&threads), 1);
  EXPECT_EQ(threads, 0);

  // Direct handles create no engine process at all.
  ASSERT_EQ(run({kTsidx, "query", idx, "beta"}, true, {"VELMOR_ST_NEVER_FORK=1"}, &out), 0);
  EXPECT_EQ(out, "100 1 0 0 0 0\n");
  EXPECT_EQ(checkOnlyTheRunnerForks(&threads), 0);
}

// The search tool runs a thread beside its main one: that thread is told
// apart from processes, and the tool's only process is the runner.
TEST_F(ForksTest, SearchToolCreatesOnlyTheRunnerAndThreads) {
  if (access(kSearch.c_str(), X_OK) != 0) GTEST_SKIP() << "velmor-search not built";
  const std::string home = dir + "/home";
  ASSERT_EQ(system((VELMOR_SOURCE_DIR "/scripts/mkhome.sh " + home + " >/dev/null").c_str()), 0);
  std::string out;
  ASSERT_EQ(run({kSearch, "search alpha"}, true, {"VELMOR_HOME=" + home}, &out), 0);
  int threads = 0;
  EXPECT_EQ(checkOnlyTheRunnerForks(&threads), 0);
  EXPECT_GE(threads, 1);
}


// The indexing tool: what it starts in the background (the optimiser) goes
// through the runner, and raw data is compressed on a thread of its own; a
// search, which opens the index read-only, starts no process.
TEST_F(ForksTest, IndexToolForksThroughTheRunnerAndSearchesInProcess) {
  if (access(kIndex.c_str(), X_OK) != 0) GTEST_SKIP() << "velmor-index not built";
  const std::string home = dir + "/home";
  ASSERT_EQ(system((VELMOR_SOURCE_DIR "/scripts/mkhome.sh " + home + " >/dev/null").c_str()), 0);
  const std::string log = dir + "/big.log";
  {
    std::ofstream f(log);
    for (int i = 0; i < 60000; ++i)
      f << "user=u" << i % 97 << " action=read object=/data/file" << i << " status=ok "
        << std::string(150, 'x') << "\n";
  }
  const std::vector<std::string> env = {"VELMOR_HOME=" + home, "VELMOR_DB=" + home + "/var/lib/velmor/db"};
  std::string out;
  ASSERT_EQ(run({kIndex, "add", "main", log}, true, env, &out), 0) << slurp(dir + "/err");
  int threads = 0;
  EXPECT_GE(checkOnlyTheRunnerForks(&threads), 1);  // at least the optimiser

  ASSERT_EQ(run({kIndex, "search", "main", "u42", "--count", "100000"}, true, env, &out), 0) << slurp(dir + "/err");
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 60000 / 97 + 1);
  // A read-only search reads the slices in process: no query child at all.
  EXPECT_EQ(checkOnlyTheRunnerForks(&threads), 0);
}

}  // namespace
