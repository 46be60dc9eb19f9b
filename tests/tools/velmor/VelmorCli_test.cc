// The velmor command as people run it: command lines in, standard output,
// standard error and exit status out, against a scratch home filled by
// `velmor add` itself; a live tail in process; and the same commands with
// --server against a velmord started by the test.
#include <poll.h>
#include <pty.h>

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "../ServiceFixture.h"

namespace {

// A scratch installation laid out by the shipped script.
class Home : public ScratchHome {
 public:
  Home() : ScratchHome("velmor_cli_test") {
    std::ofstream(local("inputs.conf")) << "";
    setEnv("VELMOR_DB", "");
    setEnv("TZ", "UTC");
    setEnv("NO_COLOR", "1");
  }
  ToolRun velmor(const std::vector<std::string>& args, Env extra = {}) const {
    Env e = env();
    e.insert(e.end(), extra.begin(), extra.end());
    return runTool(kVelmor, args, path(), e);
  }
  // Writes `lines` to <home>/<name> and adds the file to main as `host`.
  void add(const std::string& name, const std::string& host, const std::string& lines) const {
    std::ofstream(path() + "/" + name) << lines;
    ToolRun r = velmor({"add", path() + "/" + name, "--index", "main", "--host", host, "--sourcetype", "app"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("velmor: " + path() + "/" + name + ": "), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("velmor-index"), std::string::npos) << r.err;
  }
};

const char* const kWeb1 =
    "2026-11-20T10:00:00Z level=ERROR user=ann msg=disk_full\n"
    "2026-11-20T10:00:01Z level=INFO user=bob msg=all_fine\n"
    "2026-11-20T10:00:02Z level=ERROR user=bob msg=disk_again\n";
const char* const kWeb2 =
    "2026-11-20T10:00:03Z level=ERROR user=cid msg=timeout\n"
    "2026-11-20T10:00:04Z level=INFO user=ann msg=done\n";

// The three error lines, newest first.
const std::string kErrorsRaw =
    "2026-11-20T10:00:03Z level=ERROR user=cid msg=timeout\n"
    "2026-11-20T10:00:02Z level=ERROR user=bob msg=disk_again\n"
    "2026-11-20T10:00:00Z level=ERROR user=ann msg=disk_full\n";

// Waits (at most 60 s: start-up is slow under the sanitizers) until the
// process catches SIGINT, so that a signal tests its handler, not how fast
// it starts. False when it never does or is gone.
bool catchesSigint(pid_t pid) {
  auto deadline = Clock::now() + std::chrono::seconds(60);
  while (Clock::now() < deadline) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    if (!status) return false;
    std::string line;
    while (std::getline(status, line)) {
      if (line.compare(0, 7, "SigCgt:") != 0) continue;
      unsigned long long mask = std::stoull(line.substr(7), nullptr, 16);
      if (mask & (1ull << (SIGINT - 1))) return true;
    }
    sleepMs(20);
  }
  return false;
}

void fill(const Home& home) {
  home.add("web1.log", "web1", kWeb1);
  home.add("web2.log", "web2", kWeb2);
  std::ofstream(home.path() + "/etc/bundles/local/eventtypes.conf") << "[bob_errors]\nquery = error user=bob\n";
}

struct Case {
  std::vector<std::string> args;
  int status;
  std::string out;      // exact, unless outHas
  bool outHas = false;  // out is a part of standard output
  std::string errHas = "";
};

void check(const Home& home, const std::vector<Case>& cases, const std::vector<std::string>& prefix = {}) {
  for (const Case& c : cases) {
    std::vector<std::string> args = prefix;
    args.insert(args.end(), c.args.begin(), c.args.end());
    ToolRun r = home.velmor(args);
    std::string what;
    for (const std::string& a : c.args) what += a + " ";
    EXPECT_EQ(r.status, c.status) << what << "\n" << r.err;
    if (c.outHas)
      EXPECT_NE(r.out.find(c.out), std::string::npos) << what << "\n" << r.out;
    else
      EXPECT_EQ(r.out, c.out) << what;
    EXPECT_NE(r.err.find(c.errHas), std::string::npos) << what << "\n" << r.err;
  }
}

TEST(VelmorCli, SearchesInProcess) {
  Home home;
  fill(home);
  const std::vector<Case> cases = {
      {{"search", "error", "-o", "raw"}, 0, kErrorsRaw},
      // The leading "search" may be left out, or written.
      {{"search", "search error", "-o", "raw"}, 0, kErrorsRaw},
      {{"search", "error", "user=bob", "-o", "raw"}, 0, "2026-11-20T10:00:02Z level=ERROR user=bob msg=disk_again\n"},
      // event types of the home's configuration stand for their text
      {{"search", "eventtype=bob_errors", "-o", "raw"}, 0, "2026-11-20T10:00:02Z level=ERROR user=bob msg=disk_again\n"},
      {{"search", "error"},
       0,
       "2026-11-20 10:00:03 web2 2026-11-20T10:00:03Z level=ERROR user=cid msg=timeout\n"
       "2026-11-20 10:00:02 web1 2026-11-20T10:00:02Z level=ERROR user=bob msg=disk_again\n"
       "2026-11-20 10:00:00 web1 2026-11-20T10:00:00Z level=ERROR user=ann msg=disk_full\n"},
      {{"search", "error", "-n", "1", "-o", "raw"},
       0,
       "2026-11-20T10:00:03Z level=ERROR user=cid msg=timeout\n",
       false,
       "velmor: showing the newest 1 events; more match (-n N shows more)"},
      {{"search", "error", "--earliest", "2026-11-20T10:00:01Z", "--latest", "2026-11-20T10:00:03Z", "-o", "raw"},
       0,
       "2026-11-20T10:00:02Z level=ERROR user=bob msg=disk_again\n"},
      {{"search", "error", "--earliest=-15m"}, 0, ""},
      {{"search", "nosuchword"}, 0, ""},
      // Reports: every row, whatever -n would be for events.
      {{"search", "error | stats count by host"}, 0, "host  count\n----  -----\nweb1      2\nweb2      1\n"},
      {{"search", "error | stats count by host", "-o", "csv"}, 0, "host,count\nweb1,2\nweb2,1\n"},
      {{"search", "error | stats count by host", "-o", "raw"}, 0, "web1\t2\nweb2\t1\n"},
      {{"search", "error | stats count by host", "-o", "json"},
       0,
       "[\n\t{\n\t\t\"host\": \"web1\",\n\t\t\"count\": \"2\"\n\t},\n\t{\n\t\t\"host\": \"web2\",\n\t\t\"count\": \"1\"\n"
       "\t}\n]\n"},
      {{"search", "* | stats count by user | sort -count", "-n", "1", "-o", "csv"}, 0, "user,count\nann,2\n"},
      {{"search", "error user=ann | fields host user", "-o", "csv"},
       0,
       "\"_raw\",\"_time\",host,user\n\"2026-11-20T10:00:00Z level=ERROR user=ann msg=disk_full\",1795168800,web1,ann\n"},
      {{"search", "error user=ann", "-o", "json"}, 0, "\t\t\"_raw\": \"2026-11-20T10:00:00Z level=ERROR user=ann "
                                                     "msg=disk_full\",\n\t\t\"_time\": \"1795168800\",\n", true},
      // Failed searches: 1, the search's own message.
      {{"search", "error | bogus"}, 1, "", false, "velmor: Unknown search operation: 'bogus'"},
      {{"search", "error | stats"}, 1, "", false, "No aggregation functions specified"},
      {{"search", "error OR"}, 1, "", false, "Missing RHS for OR"},
  };
  check(home, cases);

  ToolRun status = home.velmor({"status"});
  EXPECT_EQ(status.status, 0) << status.err;
  EXPECT_NE(status.out.find("home     " + home.path() + "\n"), std::string::npos) << status.out;
  EXPECT_NE(status.out.find("service  not running (no pid file)"), std::string::npos) << status.out;
  EXPECT_TRUE(std::regex_search(status.out,
                                std::regex("\nmain +1 +0 +0 +0 +5 +[0-9.]+ [KM]?B +2026-11-20 10:00:00  2026-11-20 10:00:04\n")))
      << status.out;
  EXPECT_TRUE(std::regex_search(status.out, std::regex("\nindex +hot +warm +cold +thawed +events +size +earliest +latest\n")))
      << status.out;
}

TEST(VelmorCli, UsageAndHelp) {
  Home home;
  const std::vector<Case> cases = {
      {{}, 2, "", false, "A subcommand is required"},
      {{"search"}, 2, "", false, "search is required"},
      {{"search", "x", "-o", "xml"}, 2, "", false, "--output: xml not in {table,raw,json,csv}"},
      {{"search", "x", "--earliest", "whenever"}, 2, "", false, "velmor: --earliest: 'whenever' is no time"},
      {{"search", "x", "--latest", "2026-13-45"}, 2, "", false, "velmor: --latest: '2026-13-45' is no time"},
      {{"search", "x", "-n", "-1"}, 2, "", false, ""},
      {{"search", "x", "-n", "many"}, 2, "", false, ""},
      {{"search", "x", "--bogus"}, 2, "", false, ""},
      {{"tail", "x", "-o", "csv"}, 2, "", false, "--output: csv not in {table,raw,json}"},
      {{"tail", "x", "--interval", "0"}, 2, "", false, "--interval"},
      {{"add"}, 2, "", false, "files is required"},
      {{"add", "/no/such/file"}, 2, "", false, "/no/such/file"},
      {{"--server", "http://127.0.0.1:1", "add", VELMOR_SOURCE_DIR "/README.md"}, 2, "", false,
       "velmor: add works on the indexes of VELMOR_HOME in this process, not over --server"},
      {{"search", "--help"}, 0, "Usage: velmor search [OPTIONS] search...", true},
      {{"tail", "--help"}, 0, "--max-events", true},
      {{"add", "--help"}, 0, "--sourcetype", true},
      {{"status", "--help"}, 0, "Usage: velmor status", true},
      {{"--help"}, 0, "Exit status: 0 done, 1 failed, 2 bad usage.", true},
      // A tail must read events one by one.
      {{"tail", "error | stats count"}, 1, "", false, "tail takes a search that works event by event"},
      {{"tail", "| inputcsv x.csv"}, 1, "", false, "tail takes a search that starts with terms or with `search`"},
  };
  check(home, cases);

  ToolRun noHome = runTool(kVelmor, {"search", "x"}, home.path(), {{"VELMOR_HOME", ""}});
  EXPECT_EQ(noHome.status, 1);
  EXPECT_EQ(noHome.err, "velmor: VELMOR_HOME is not set\n");
  // A home whose indexes cannot be opened fails the search, not the process.
  ToolRun badHome = runTool(kVelmor, {"search", "x"}, home.path(),
                            {{"VELMOR_HOME", home.path() + "/var"}, {"VELMOR_DB", ""}});
  EXPECT_EQ(badHome.status, 1) << badHome.err;
  EXPECT_NE(badHome.err.find("velmor: "), std::string::npos) << badHome.err;
}

// Events added while the tail runs show once each, oldest first; those
// before it only with --earliest.
TEST(VelmorCli, TailsInProcess) {
  Home home;
  fill(home);
  Env env = home.env();
  ChildProcess tail(kVelmor,
             {"tail", "error", "--earliest", "2026-11-20T10:00:02Z", "--window", "-3650d", "--interval", "0.1",
              "--max-events", "4", "-o", "raw"},
             home.path(), env, "tail");
  // The first poll shows what is there since --earliest.
  ASSERT_TRUE(tail.outHolds("msg=timeout\n", 60)) << tail.err();
  home.add("later.log", "web3",
           "2026-11-20T10:00:05Z level=ERROR user=dan msg=late\n"
           "2026-11-20T10:00:06Z level=INFO user=dan msg=quiet\n"
           "2026-11-20T09:00:00Z level=ERROR user=eve msg=old_stamp\n");
  EXPECT_EQ(tail.wait(60), 0) << tail.err();
  std::string out = tail.out();
  const std::string first =
      "2026-11-20T10:00:02Z level=ERROR user=bob msg=disk_again\n"
      "2026-11-20T10:00:03Z level=ERROR user=cid msg=timeout\n";
  ASSERT_EQ(out.substr(0, first.size()), first) << out;
  // The two new error events come in one poll or two, each once; the one
  // stamped before the others is still new.
  std::string rest = out.substr(first.size());
  EXPECT_TRUE(rest ==
                  "2026-11-20T09:00:00Z level=ERROR user=eve msg=old_stamp\n"
                  "2026-11-20T10:00:05Z level=ERROR user=dan msg=late\n" ||
              rest ==
                  "2026-11-20T10:00:05Z level=ERROR user=dan msg=late\n"
                  "2026-11-20T09:00:00Z level=ERROR user=eve msg=old_stamp\n")
      << out;

  // Without --earliest nothing old shows; SIGINT ends the tail with 0.
  ChildProcess quiet(kVelmor, {"tail", "error", "--window", "-3650d", "--interval", "0.1"}, home.path(), env, "quiet");
  ASSERT_TRUE(catchesSigint(quiet.pid())) << quiet.err();
  sleepMs(300);
  quiet.signal(SIGINT);
  EXPECT_EQ(quiet.wait(60), 0) << quiet.err();
  EXPECT_EQ(quiet.out(), "");
}

// Runs velmor on a terminal (a pseudo-terminal is its standard input,
// output and error); `answer` is typed once `prompt` appears (if given).
// The exit status and everything the terminal showed.
std::pair<int, std::string> onTerminal(const Home& home, const std::vector<std::string>& args, const Env& extra,
                                       const std::string& prompt = "", const std::string& answer = "") {
  int master = -1;
  pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
  if (pid == 0) {
    for (const auto& [k, v] : home.env()) setenv(k.c_str(), v.c_str(), 1);
    unsetenv("NO_COLOR");
    for (const auto& [k, v] : extra) setenv(k.c_str(), v.c_str(), 1);
    std::vector<char*> argv{const_cast<char*>(kVelmor.c_str())};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(kVelmor.c_str(), argv.data());
    _exit(127);
  }
  std::string shown;
  bool answered = prompt.empty();
  auto deadline = Clock::now() + std::chrono::seconds(60);
  int st = 0;
  bool done = false, drained = false;
  while (Clock::now() < deadline && !(done && drained)) {
    pollfd p{master, POLLIN, 0};
    drained = true;
    if (poll(&p, 1, 50) == 1) {
      char buf[4096];
      ssize_t n = read(master, buf, sizeof buf);
      if (n > 0) {
        shown.append(buf, size_t(n));
        drained = false;
      }
    }
    if (!answered && shown.find(prompt) != std::string::npos) {
      if (write(master, answer.data(), answer.size()) < 0) break;
      answered = true;
    }
    if (!done && waitpid(pid, &st, WNOHANG) == pid) done = true;
  }
  if (!done) {
    kill(pid, SIGKILL);
    waitpid(pid, &st, 0);
  }
  close(master);
  return {WIFEXITED(st) ? WEXITSTATUS(st) : -1, shown};
}

// On a terminal the terms are coloured (unless NO_COLOR is set) and a
// password is asked for without echo.
TEST(VelmorCli, OnATerminal) {
  Home home;
  fill(home);
  const std::string R = "\033[1;31m", E = "\033[0m";
  struct Case {
    std::vector<std::string> args;
    Env env;
    std::string shows;
    bool coloured;
  } cases[] = {
      {{"search", "error user=bob"}, {}, "level=" + R + "ERROR" + E + " user=bob", true},
      {{"search", "error user=bob"}, {{"NO_COLOR", "1"}}, "2026-11-20 10:00:02 web1 2026-11-20T10:00:02Z level=ERROR", false},
      {{"search", "error | stats count by host"}, {}, "host  count\r\n----  -----\r\nweb1      2", false},
  };
  for (const Case& c : cases) {
    auto [status, shown] = onTerminal(home, c.args, c.env);
    EXPECT_EQ(status, 0) << shown;
    EXPECT_NE(shown.find(c.shows), std::string::npos) << shown;
    EXPECT_EQ(shown.find("\033[32m") != std::string::npos, c.coloured) << shown;
  }
  const std::string secret = "typed-Secret-7";
  auto [status, shown] = onTerminal(home, {"--server", "http://127.0.0.1:1", "status"}, {},
                                    "Password for admin at http://127.0.0.1:1: ", secret + "\n");
  EXPECT_EQ(status, 1) << shown;
  EXPECT_EQ(shown.find(secret), std::string::npos) << "the password was echoed: " << shown;
  EXPECT_NE(shown.find("velmor: cannot reach http://127.0.0.1:1"), std::string::npos) << shown;
}

// The same searches through a velmord: a job per search, its rows paged as
// JSON; the report's columns come in the service's order (by name).
TEST(VelmorCli, SearchesThroughTheService) {
  Home home;
  fill(home);
  const std::string password = "Cli-Secret-42";
  home.plainHttp();
  home.seedUser("admin", password);
  const int port = freePort();
  ASSERT_GT(port, 0);
  const std::string url = "http://127.0.0.1:" + std::to_string(port);
  Env env = home.env();
  env.emplace_back("VELMOR_DB", home.path() + "/var/lib/velmor/db");
  ChildProcess service(kVelmord, {"--nodaemon", "-p", std::to_string(port)}, home.path(), env, "velmord");
  // Up once it answers a login.
  bool up = false;
  for (int i = 0; i < 300 && !up; ++i) {
    ToolRun s = home.velmor({"--server", url, "--password", password, "status"});
    up = s.status == 0;
    if (!up) sleepMs(100);
  }
  ASSERT_TRUE(up) << service.err();

  const std::vector<Case> cases = {
      {{"search", "error", "-o", "raw"}, 0, kErrorsRaw},
      {{"search", "error", "-n", "2", "-o", "raw"},
       0,
       "2026-11-20T10:00:03Z level=ERROR user=cid msg=timeout\n"
       "2026-11-20T10:00:02Z level=ERROR user=bob msg=disk_again\n"},
      {{"search", "error", "--earliest", "2026-11-20T10:00:01Z", "--latest", "2026-11-20T10:00:03Z", "-o", "raw"},
       0,
       "2026-11-20T10:00:02Z level=ERROR user=bob msg=disk_again\n"},
      {{"search", "error | stats count by host", "-o", "csv"}, 0, "count,host\n2,web1\n1,web2\n"},
      {{"search", "error | stats count by host"}, 0, "count  host\n-----  ----\n    2  web1\n    1  web2\n"},
      {{"search", "error user=bob"},
       0,
       "2026-11-20 10:00:02 web1 2026-11-20T10:00:02Z level=ERROR user=bob msg=disk_again\n"},
      {{"search", "error | bogus"}, 1, "", false, "Unknown search operation: 'bogus'"},
      {{"status"}, 0, "user     admin (Admin)\n", true},
      {{"status"}, 0, "server   " + url + " (", true},
  };
  check(home, cases, {"--server", url + "/services/", "--user", "admin", "--password", password});

  // The password may come from the environment; a wrong one is refused.
  ToolRun byEnv = home.velmor({"--server", url, "search", "error", "-n", "1", "-o", "raw"},
                              {{"VELMOR_USER", "admin"}, {"VELMOR_PASSWORD", password}});
  EXPECT_EQ(byEnv.status, 0) << byEnv.err;
  EXPECT_EQ(byEnv.out, "2026-11-20T10:00:03Z level=ERROR user=cid msg=timeout\n");
  const std::vector<Case> refused = {
      {{"--server", url, "--password", "wrong", "search", "error"}, 1, "", false,
       "velmor: login as 'admin' refused by " + url + " (HTTP 401)"},
      {{"--server", url, "search", "error"}, 1, "", false, "a password is needed for " + url},
      {{"--server", "http://127.0.0.1:1", "--password", "x", "status"}, 1, "", false,
       "velmor: cannot reach http://127.0.0.1:1"},
      {{"--server", "127.0.0.1:1", "--password", "x", "status"}, 1, "", false, "not a server URL"},
  };
  check(home, refused);

  // The live tail over REST: the indexed events since --earliest, then the
  // end at --max-events.
  ChildProcess tail(kVelmor,
             {"--server", url, "--password", password, "tail", "error", "--earliest", "2026-11-20T00:00:00Z",
              "--max-events", "3", "-o", "raw"},
             home.path(), env, "rest-tail");
  int tailStatus = tail.wait(120);
  std::string tailErr = tail.err();
  bool noTail = tailStatus == 1 && tailErr.find("has no live tail") != std::string::npos;
  if (!noTail) {
    EXPECT_EQ(tailStatus, 0) << tailErr;
    std::string out = tail.out();
    for (const char* msg : {"msg=timeout\n", "msg=disk_again\n", "msg=disk_full\n"})
      EXPECT_NE(out.find(msg), std::string::npos) << out;
  }
  service.signal(SIGTERM);
  EXPECT_EQ(service.wait(60), 0);
  if (noTail) GTEST_SKIP() << "the service has no /services/streams/tail yet; the tail --server case waits for it";
}

}  // namespace
