// The process runner: statuses of started commands, descriptor passing,
// the environment, the pid file, and the runner's end when its parent dies.
#include "util/ProcessRunner.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <atomic>
#include <string>
#include <thread>

#include "util/Exceptions.h"
#include "util/ExternalProcessGroup.h"

namespace {

std::string makeTempDir() {
  char tmpl[] = "/tmp/velmor_pr_XXXXXX";
  const char* d = mkdtemp(tmpl);
  EXPECT_NE(d, nullptr);
  return d;
}

std::string readFile(const std::string& path) {
  std::ifstream f(path);
  return std::string((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

// Gone or a zombie nobody reaped yet.
bool processGone(pid_t pid) {
  if (::kill(pid, 0) != 0) return true;
  std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
  size_t paren = stat.rfind(')');
  return paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] == 'Z';
}

bool waitUntil(bool (*pred)(pid_t), pid_t pid) {
  for (int i = 0; i < 1000; ++i) {
    if (pred(pid)) return true;
    usleep(20000);
  }
  return false;
}

// Runs first, before this process has a runner of its own: a forked parent
// starts a runner and a long sleep, then is killed; the runner must see the
// end of its command stream, and take the sleep with it.
TEST(ProcessRunner, DeathOfTheParentLeavesNoOrphan) {
  std::string dir = makeTempDir();
  std::string pidFile = dir + "/runner.pid";
  std::string runnerPidFile = dir + "/runner-self.pid";
  pid_t parent = fork();
  ASSERT_GE(parent, 0);
  if (parent == 0) {
    ProcessRunnerInit(nullptr, Pathname(Str(pidFile)));
    FILE* f = std::fopen(runnerPidFile.c_str(), "w");
    std::fprintf(f, "%d\n", ProcessRunnerPid());
    std::fclose(f);
    ExternalProcessGroup g;
    g.start({Str("sleep"), Str("1000")});
    for (;;) pause();
  }
  pid_t sleeper = 0, runner = 0;
  for (int i = 0; i < 1000 && (sleeper == 0 || runner == 0); ++i) {
    sleeper = std::atoi(readFile(pidFile).c_str());
    runner = std::atoi(readFile(runnerPidFile).c_str());
    if (sleeper == 0 || runner == 0) usleep(10000);
  }
  ASSERT_GT(sleeper, 0);
  ASSERT_GT(runner, 0);
  EXPECT_FALSE(processGone(sleeper));
  ::kill(parent, SIGKILL);
  int st;
  ASSERT_EQ(waitpid(parent, &st, 0), parent);
  EXPECT_TRUE(waitUntil(processGone, sleeper)) << "the runner's child outlived its parent";
  EXPECT_TRUE(waitUntil(processGone, runner)) << "the runner outlived its parent";
  EXPECT_FALSE(access(pidFile.c_str(), F_OK) == 0) << "pid file left behind";
  ::unlink(runnerPidFile.c_str());
  ::rmdir(dir.c_str());
}

TEST(ProcessRunner, CallsBeforeInitThrow) {
  ExternalProcessGroup g;
  try {
    g.start({Str("true")});
    FAIL() << "no exception";
  } catch (const ProcessRunnerException& e) {
    EXPECT_STREQ(e.what(), "ProcessRunner function called before calling ProcessRunnerInit()");
  }
}

class ProcessRunnerTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir = makeTempDir();
    pidFile = dir + "/children.pid";
    ProcessRunnerInit(nullptr, Pathname(Str(pidFile)));
  }
  static void TearDownTestSuite() {
    ProcessRunnerFini(nullptr);
    ::unlink(pidFile.c_str());
    ::rmdir(dir.c_str());
  }
  static std::string dir, pidFile;
};
std::string ProcessRunnerTest::dir, ProcessRunnerTest::pidFile;

TEST_F(ProcessRunnerTest, StatusesAndTheirTexts) {
  struct Row {
    const char* command;
    bool ok;
    int code;
    const char* text;
  };
  const Row rows[] = {
      {"exit 0", true, 0, "exited with code 0"},
      {"exit 3", false, 3, "exited with code 3"},
      {"kill -9 $$", false, -1, "killed by signal 9"},
      {"kill -TERM $$", false, -1, "killed by signal 15"},
  };
  ExternalProcessGroup g;
  for (const Row& r : rows) {
    ExternalProcessToken t = g.startViaShell(Str(r.command));
    ASSERT_TRUE(t.valid());
    EXPECT_NE(t.uniqueId(), 0u);
    ExternalProcessStatus s = t.getStatus(true);
    EXPECT_EQ(s.statusOk(), r.ok) << r.command;
    EXPECT_EQ(s.exitCode(), r.code) << r.command;
    EXPECT_EQ(s.describeStatus(), r.text) << r.command;
  }
  ExternalProcessToken bad = g.start({Str("/nonexistent/program")});
  EXPECT_EQ(bad.getStatus(true).describeStatus(), "child failed to start: No such file or directory");
  ExternalProcessToken running = g.start({Str("sleep"), Str("30")});
  EXPECT_EQ(running.getStatus(false).describeStatus(), "child is still running");
  running.kill(SIGKILL);
  EXPECT_EQ(running.getStatus(true).describeStatus(), "killed by signal 9");
}

// Standard input and output reach the child; an error stream that is the
// output descriptor is passed once and shared.
TEST_F(ProcessRunnerTest, DescriptorsArePassed) {
  int in[2], out[2];
  ASSERT_EQ(pipe(in), 0);
  ASSERT_EQ(pipe(out), 0);
  ExternalProcessGroup g;
  ExternalProcessToken t = g.startViaShell(Str("cat; echo err >&2"), FileDescriptor(in[0]), FileDescriptor(out[1]),
                                           FileDescriptor(out[1]));
  close(in[0]);
  close(out[1]);
  ASSERT_EQ(write(in[1], "hello\n", 6), 6);
  close(in[1]);
  std::string got;
  char buf[256];
  for (ssize_t n; (n = read(out[0], buf, sizeof buf)) > 0;) got.append(buf, static_cast<size_t>(n));
  close(out[0]);
  EXPECT_EQ(got, "hello\nerr\n");
  EXPECT_TRUE(t.getStatus(true).statusOk());
}

std::vector<Str> testEnvironment() { return {Str("VELMOR_TEST_VALUE=forty two")}; }

TEST_F(ProcessRunnerTest, EnvironmentFromItsSourceWithDefaultPath) {
  int out[2];
  ASSERT_EQ(pipe(out), 0);
  ProcessRunnerSetEnvironmentSource(testEnvironment);
  ExternalProcessGroup g;
  ExternalProcessToken t =
      g.start({Str("/bin/sh"), Str("-c"), Str("echo \"$VELMOR_TEST_VALUE|$PATH|$HOME\"")}, FileDescriptor(),
              FileDescriptor(out[1]));
  ProcessRunnerSetEnvironmentSource(nullptr);
  close(out[1]);
  char buf[256];
  ssize_t n = read(out[0], buf, sizeof buf);
  close(out[0]);
  ASSERT_GT(n, 0);
  EXPECT_EQ(std::string(buf, static_cast<size_t>(n)), "forty two|/usr/bin:/bin|\n");
  EXPECT_TRUE(t.getStatus(true).statusOk());
}

// The pid file lists the running children, one "%llu\n" line each, and
// forgets them when they end; terminateAll ends a group that ignores TERM.
TEST_F(ProcessRunnerTest, PidFileAndTerminateAll) {
  ExternalProcessGroup g;
  g.start({Str("sleep"), Str("30")});
  g.startViaShell(Str("trap '' TERM; exec sleep 30"));
  std::string text = readFile(pidFile);
  int lines = 0;
  for (size_t pos = 0; (pos = text.find('\n', pos)) != std::string::npos; ++pos) ++lines;
  EXPECT_EQ(lines, 2) << text;
  pid_t first = std::atoi(text.c_str());
  EXPECT_FALSE(processGone(first));
  g.terminateAll(1);
  EXPECT_TRUE(g.tokens().empty());
  EXPECT_EQ(readFile(pidFile), "");
}

TEST_F(ProcessRunnerTest, ManyShortChildrenFromSeveralThreads) {
  std::vector<std::thread> ths;
  std::atomic<int> ok{0};
  for (int t = 0; t < 4; ++t) {
    ths.emplace_back([&] {
      ExternalProcessGroup g;
      for (int i = 0; i < 25; ++i)
        if (g.start({Str("true")}).getStatus(true).statusOk()) ++ok;
    });
  }
  for (auto& t : ths) t.join();
  EXPECT_EQ(ok.load(), 100);
}

}  // namespace
