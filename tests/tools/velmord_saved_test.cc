// Saved searches through a running service, with curl: create, list, edit,
// rename and delete with their statuses and texts, an event type, a saved
// search dispatched as a job counting what posting its text counts, and the
// scheduler running a turn missed while the service was down once at start,
// as a job of the search's owner listed in the search's history.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <fstream>
#include <regex>
#include <string>
#include <thread>

#include "ToolProcess.h"

namespace {

const std::string kVelmord = VELMOR_BINARY_DIR "/bin/velmord";
const std::string kIndexTool = VELMOR_BINARY_DIR "/bin/velmor-index";
using Clock = std::chrono::steady_clock;

void sleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// A scratch installation laid out by the shipped script.
class Home {
 public:
  Home() {
    char tmpl[] = "/tmp/velmord_saved_test.XXXXXX";
    _path = mkdtemp(tmpl);
    std::string cmd = "bash " VELMOR_SOURCE_DIR "/scripts/mkhome.sh " + _path + " >/dev/null";
    if (system(cmd.c_str()) != 0) ADD_FAILURE() << "mkhome failed";
  }
  ~Home() {
    std::string cmd = "rm -rf " + _path;
    if (system(cmd.c_str()) != 0) fprintf(stderr, "could not remove %s\n", _path.c_str());
  }
  const std::string& path() const { return _path; }
  std::string local(const std::string& file) const { return _path + "/etc/bundles/local/" + file; }
  std::string dispatch() const { return _path + "/var/run/velmor/dispatch"; }
  std::vector<std::pair<std::string, std::string>> env() const {
    return {{"VELMOR_HOME", _path}, {"VELMOR_DB", _path + "/var/lib/velmor/db"}};
  }
  std::string pidFile() const { return _path + "/var/run/velmor/velmord.pid"; }
  std::string log() const { return slurp(_path + "/var/log/velmor/velmord.log"); }

 private:
  std::string _path;
};

// velmord --nodaemon on `port`; killed if still running when it goes.
class Service {
 public:
  Service(const Home& home, int port) : _home(home), _port(std::to_string(port)) {}
  ~Service() {
    if (_pid > 0) {
      kill(_pid, SIGKILL);
      waitpid(_pid, nullptr, 0);
    }
  }
  void start() {
    _pid = fork();
    if (_pid == 0) {
      int null = open("/dev/null", O_WRONLY);
      dup2(null, 1);
      dup2(null, 2);
      for (const auto& [k, v] : _home.env()) setenv(k.c_str(), v.c_str(), 1);
      execl(kVelmord.c_str(), kVelmord.c_str(), "--nodaemon", "-p", _port.c_str(), (char*)nullptr);
      _exit(127);
    }
    auto deadline = Clock::now() + std::chrono::seconds(30);
    struct stat st;
    while (stat(_home.pidFile().c_str(), &st) != 0 && Clock::now() < deadline) sleepMs(20);
    ASSERT_EQ(stat(_home.pidFile().c_str(), &st), 0) << "velmord did not start";
  }
  // SIGTERM; the exit status, or -1 when it had to be killed after 60 s.
  int stop() {
    if (_pid <= 0) return -1;
    kill(_pid, SIGTERM);
    auto deadline = Clock::now() + std::chrono::seconds(60);
    int st = 0;
    while (Clock::now() < deadline) {
      if (waitpid(_pid, &st, WNOHANG) == _pid) {
        _pid = -1;
        return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
      }
      sleepMs(20);
    }
    kill(_pid, SIGKILL);
    waitpid(_pid, nullptr, 0);
    _pid = -1;
    return -1;
  }

 private:
  const Home& _home;
  std::string _port;
  pid_t _pid = -1;
};

int freePort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  int port = 0;
  if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0)
    port = ntohs(a.sin_port);
  close(fd);
  return port;
}

// curl; the body, then a line with the status code.
struct Reply {
  std::string body;
  std::string status;
};
Reply curl(const Home& home, std::vector<std::string> args) {
  args.insert(args.begin(), {"-s", "--max-time", "20", "--retry", "40", "--retry-connrefused", "--retry-delay",
                             "0", "-w", "\n%{http_code}"});
  ToolRun r = runTool("/usr/bin/curl", args, home.path(), home.env());
  size_t nl = r.out.rfind('\n');
  if (nl == std::string::npos) return {r.out, ""};
  return {r.out.substr(0, nl), r.out.substr(nl + 1)};
}

std::string unescaped(std::string s) {
  for (size_t at = s.find("&apos;"); at != std::string::npos; at = s.find("&apos;")) s.replace(at, 6, "'");
  return s;
}

const char* const kCountSearch = "search index=main error | stats count";

TEST(VelmordSaved, SavedSearchesOverHttp) {
  Home home;
  // 40 events, every third an error.
  const std::string logFile = home.path() + "/app.log";
  {
    std::ofstream out(logFile);
    for (int i = 0; i < 40; ++i) {
      char line[128];
      snprintf(line, sizeof line, "2026-11-24 10:%02d:%02d worker=%d request %s\n", i / 60, i % 60, i,
               i % 3 == 0 ? "error" : "ok");
      out << line;
    }
  }
  ToolRun add = runTool(kIndexTool, {"add", "main", logFile, "--host", "h1", "--sourcetype", "app"}, home.path(),
                        home.env());
  ASSERT_EQ(add.status, 0) << add.err;
  std::ofstream(home.local("server.conf")) << "[sslConfig]\nenableSsl = false\n";
  std::ofstream(home.local("user-seed.conf")) << "[seed]\nname = admin\npassword = saved-Secret-1\n";
  std::ofstream(home.local("limits.conf")) << "[scheduler]\nperiod = 1\nkeep_runs = 2\n";
  // A scheduled search whose last run (an hour ago) is on disk: the turns
  // missed since run once when the service starts.
  std::ofstream(home.local("savedsearches.conf"))
      << "[sched]\nquery = " << kCountSearch << "\nenableSched = true\nschedule = * * * * *\nuserid = admin\n";
  const long lastRun = static_cast<long>(time(nullptr)) - 3600;
  const std::string oldSid = "scheduler__admin__sched_" + std::to_string(lastRun);
  ASSERT_EQ(system(("mkdir -p " + home.dispatch() + "/" + oldSid).c_str()), 0);
  std::ofstream(home.dispatch() + "/" + oldSid + "/status.csv")
      << "user,start,count,cursor,keywords,ttl,done,search,streaming,error,setStart,setEnd,startTime,endTime\n"
      << "admin,1,0,,*,604800,1,x,x,,,,,\n";
  std::ofstream(home.dispatch() + "/" + oldSid + "/savedsearch") << "admin\nsched\n";

  const int port = freePort();
  ASSERT_GT(port, 0);
  const std::string base = "http://127.0.0.1:" + std::to_string(port) + "/services";
  Service svc(home, port);
  svc.start();

  Reply login = curl(home, {base + "/auth/login", "-d", "username=admin", "-d", "password=saved-Secret-1"});
  std::smatch m;
  ASSERT_TRUE(std::regex_search(login.body, m, std::regex("<sessionKey>([0-9a-f]+)</sessionKey>"))) << login.body;
  const std::vector<std::string> auth = {"-H", "Authorization: Velmor " + std::string(m[1])};
  auto call = [&](std::vector<std::string> args) {
    args.insert(args.begin(), auth.begin(), auth.end());
    return curl(home, args);
  };

  struct Step {
    std::vector<std::string> args;
    const char* status;
    const char* holds;
  };
  const std::string saved = base + "/saved/searches";
  const Step steps[] = {
      {{saved, "-d", "query=x"}, "400", "No name specified"},
      {{saved, "-d", "name=errs", "--data-urlencode", std::string("query=") + kCountSearch}, "201", "<title>errs</title>"},
      {{saved, "-d", "name=errs", "-d", "query=x"}, "409", "already exists"},
      {{saved, "-d", "name=other", "-d", "query=search ok"}, "201", "<title>other</title>"},
      {{saved + "/errs", "-d", "description=the errors"}, "200", "description=the errors"},
      {{saved + "/errs/rename", "-d", "newName=other"}, "409",
       "Saved search with name 'other' already exists, failed to rename search"},
      {{"-X", "DELETE", saved + "/other"}, "200", "Saved search 'other' deleted."},
      {{saved + "/other"}, "404", "Could not find a saved search named 'other'."},
      {{saved + "?output_mode=csv"}, "200", "errs,"},
      {{base + "/saved/eventtypes", "-d", "name=failure", "-d", "search=error"}, "201", "query=error"},
      {{base + "/saved/eventtypes/failure"}, "200", "<title>failure</title>"},
      {{"--digest", "-u", "admin:wrong", saved}, "401", ""},
  };
  for (const Step& s : steps) {
    Reply r = s.args.front() == "--digest" ? curl(home, s.args) : call(s.args);
    EXPECT_EQ(r.status, s.status) << s.args.back() << "\n" << r.body;
    EXPECT_NE(unescaped(r.body).find(s.holds), std::string::npos) << s.args.back() << "\n" << r.body;
  }

  // The count of a finished job, by sid.
  auto countOf = [&](const std::string& sid) -> long {
    const std::string job = base + "/search/jobs/" + sid;
    std::string entry;
    for (int i = 0; i < 600 && entry.find("done=1") == std::string::npos; ++i) {
      entry = call({job}).body;
      if (entry.find("done=1") == std::string::npos) sleepMs(100);
    }
    EXPECT_NE(entry.find("done=1"), std::string::npos) << entry;
    std::string csv = call({job + "/results?output_mode=csv"}).body;
    std::smatch c;
    if (!std::regex_search(csv, c, std::regex("count\n\"?(\\d+)"))) return -1;
    return std::stol(c[1]);
  };
  auto sidOf = [](const std::string& body) {
    std::smatch s;
    return std::regex_search(body, s, std::regex("<sid>([^<]+)</sid>")) ? std::string(s[1]) : std::string();
  };
  Reply posted = call({base + "/search/jobs", "--data-urlencode", std::string("search=") + kCountSearch});
  ASSERT_EQ(posted.status, "201") << posted.body;
  Reply dispatched = call({saved + "/errs/dispatch", "-X", "POST"});
  ASSERT_EQ(dispatched.status, "201") << dispatched.body;
  const long want = countOf(sidOf(posted.body));
  EXPECT_EQ(want, 14);
  EXPECT_EQ(countOf(sidOf(dispatched.body)), want);

  // The missed turn ran at start as admin's job, and is in the history.
  std::string history, newSid;
  for (int i = 0; i < 600 && newSid.empty(); ++i) {
    history = call({saved + "/sched/history?output_mode=csv"}).body;
    std::smatch h;
    if (std::regex_search(history, h, std::regex("\"?(scheduler__admin__sched_(\\d+))\"?,"))) {
      if (std::stol(h[2]) > lastRun) newSid = h[1];
    }
    if (newSid.empty()) sleepMs(100);
  }
  ASSERT_FALSE(newSid.empty()) << history;
  EXPECT_EQ(countOf(newSid), want);
  EXPECT_NE(call({base + "/search/jobs/" + newSid}).body.find("<author><name>admin</name></author>"),
            std::string::npos);
  EXPECT_EQ(svc.stop(), 0);
  const std::string log = home.log();
  EXPECT_NE(log.find("Scheduled run of saved search 'sched' (owner 'admin'"), std::string::npos) << log.substr(0, 4000);
  // The first pass waited for the index reader instead of failing.
  EXPECT_EQ(log.find("could not start"), std::string::npos) << log.substr(0, 4000);
  // At most two runs are kept.
  ToolRun runs = runTool("/bin/sh", {"-c", "ls " + home.dispatch() + " | grep -c '^scheduler__admin__sched_'"},
                         home.path(), home.env());
  EXPECT_LE(std::stol("0" + runs.out), 2);
}

}  // namespace
