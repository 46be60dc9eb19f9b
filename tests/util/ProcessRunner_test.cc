// The process runner: statuses of started commands, descriptor passing,
// the environment, the pid file, and the runner's end when its parent dies.
#include "util/ProcessRunner.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
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

// Without a runner, startOrSpawn spawns directly and its token still
// tells statuses and passes descriptors; the engine helper refuses.
TEST(ProcessRunner, WithoutARunnerStartOrSpawnFallsBack) {
  ASSERT_EQ(ProcessRunnerPid(), -1);
  ExternalProcessGroup g;
  EXPECT_EQ(g.startOrSpawn({Str("sh"), Str("-c"), Str("exit 5")}).getStatus(true).exitCode(), 5);
  EXPECT_EQ(g.startOrSpawn({Str("/nonexistent/program")}).getStatus(true).describeStatus(),
            "child failed to start: No such file or directory");
  int out[2];
  ASSERT_EQ(pipe(out), 0);
  ExternalProcessToken t = g.startOrSpawn({Str("echo"), Str("spawned")}, FileDescriptor(), FileDescriptor(out[1]));
  close(out[1]);
  char buf[64];
  ssize_t n = read(out[0], buf, sizeof buf);
  close(out[0]);
  EXPECT_EQ(std::string(buf, n > 0 ? static_cast<size_t>(n) : 0), "spawned\n");
  EXPECT_TRUE(t.getStatus(true).statusOk());
  const Str stdoutIsNull("[ \"$(readlink /proc/$$/fd/1)\" = /dev/null ]");
  EXPECT_TRUE(g.startOrSpawn({Str("sh"), Str("-c"), stdoutIsNull}).getStatus(true).statusOk());
  ExternalProcessToken sleeper = g.startOrSpawn({Str("sleep"), Str("30")});
  EXPECT_TRUE(sleeper.getStatus(false).isRunning());
  sleeper.kill(SIGKILL);
  EXPECT_EQ(sleeper.getStatus(true).termSignal(), SIGKILL);

  errno = 0;
  EXPECT_EQ(ProcessRunnerForkHelper(0, nullptr, nullptr, 0), -1);
  EXPECT_EQ(errno, ENOSYS);
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
  // A descriptor not given is the runner's /dev/null, as without a runner.
  const Str stdoutIsNull("[ \"$(readlink /proc/$$/fd/1)\" = /dev/null ]");
  EXPECT_TRUE(g.startOrSpawn({Str("sh"), Str("-c"), stdoutIsNull}).getStatus(true).statusOk());
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

// A routine of this image run in a child of the runner: it gets its data,
// sees its targets and nothing else, and its result is the exit status.
int routineReport(const void* data, size_t size) {
  std::string msg(static_cast<const char*>(data), size);
  // Descriptor 3 and up must be closed: the child holds only its targets.
  for (int fd = 3; fd < 64; ++fd)
    if (fcntl(fd, F_GETFD) != -1) msg += " leaked:" + std::to_string(fd);
  msg += "\n";
  if (write(1, msg.data(), msg.size()) != static_cast<ssize_t>(msg.size())) return 2;
  return size == 0 ? 3 : 0;
}

TEST_F(ProcessRunnerTest, RoutinesRunInAChildWithOnlyTheirTargets) {
  struct Row {
    std::string data;
    std::string expect;
    int code;
  };
  const Row rows[] = {{"routine data", "routine data\n", 0}, {"", "\n", 3}};
  ExternalProcessGroup g;
  for (const Row& r : rows) {
    int out[2];
    ASSERT_EQ(pipe(out), 0);
    ExternalProcessToken t =
        g.startRoutine(routineReport, r.data.data(), r.data.size(), {FileDescriptor(), FileDescriptor(out[1])});
    close(out[1]);
    std::string got;
    char buf[256];
    for (ssize_t n; (n = read(out[0], buf, sizeof buf)) > 0;) got.append(buf, static_cast<size_t>(n));
    close(out[0]);
    EXPECT_EQ(got, r.expect);
    EXPECT_EQ(t.getStatus(true).exitCode(), r.code) << r.data;
  }
}

// The engine-shaped helpers: the child serves on descriptors 0 and 1, both
// the one socket end; the wait helper gives the wait status once, and 0
// (as for a reaped child) after that.
int routineEcho(const void* data, size_t size) {
  char buf[64];
  ssize_t n = read(0, buf, sizeof buf);
  if (n <= 0) return 4;
  std::string reply(static_cast<const char*>(data), size);
  reply.append(buf, static_cast<size_t>(n));
  return write(1, reply.data(), reply.size()) == static_cast<ssize_t>(reply.size()) ? 0 : 8;
}

TEST_F(ProcessRunnerTest, ForkAndWaitHelpersServeOverOneSocket) {
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
  long token = ProcessRunnerForkHelper(sv[1], routineEcho, "echo:", 5);
  close(sv[1]);
  ASSERT_GT(token, 0);
  ASSERT_EQ(write(sv[0], "ping", 4), 4);
  char buf[64];
  std::string got;
  for (ssize_t n; got.size() < 9 && (n = read(sv[0], buf, sizeof buf)) > 0;) got.append(buf, static_cast<size_t>(n));
  EXPECT_EQ(got, "echo:ping");
  close(sv[0]);
  int st = ProcessRunnerWaitHelper(token);
  EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << st;
  EXPECT_EQ(ProcessRunnerWaitHelper(token), 0);

  // A child whose peer closes at once ends with its own code.
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
  token = ProcessRunnerForkHelper(sv[1], routineEcho, "", 0);
  close(sv[1]);
  close(sv[0]);
  ASSERT_GT(token, 0);
  st = ProcessRunnerWaitHelper(token);
  EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 4) << st;
}

}  // namespace
