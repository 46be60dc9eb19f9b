// The live tail as users run it: velmord follows a file, a client opens
// /services/streams/tail with curl, lines are appended to the file, and
// exactly the lines the search keeps arrive, in order, with the host of
// the file's stanza; at the service's stop the reply ends cleanly.
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
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ToolProcess.h"

namespace {

const std::string kVelmord = VELMOR_BINARY_DIR "/bin/velmord";
using Clock = std::chrono::steady_clock;

void sleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

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

// A child process, killed (SIGKILL) if still running when the object goes.
class Child {
 public:
  ~Child() { kill9(); }
  // Runs `argv` with `env` set and its standard output (and error) in `out`.
  void start(const std::vector<std::string>& argv, const std::vector<std::pair<std::string, std::string>>& env,
             const std::string& out) {
    _pid = fork();
    if (_pid == 0) {
      int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      dup2(o, 1);
      dup2(o, 2);
      for (const auto& [k, v] : env) setenv(k.c_str(), v.c_str(), 1);
      std::vector<char*> args;
      for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
      args.push_back(nullptr);
      execv(args[0], args.data());
      _exit(127);
    }
  }
  // Sends `sig` and waits at most `seconds`; the exit status, 128 + the
  // signal when one ended it, -1 when it had to be killed.
  int stop(int sig, int seconds) {
    if (_pid <= 0) return -1;
    if (sig) kill(_pid, sig);
    auto deadline = Clock::now() + std::chrono::seconds(seconds);
    int st = 0;
    while (Clock::now() < deadline) {
      if (waitpid(_pid, &st, WNOHANG) == _pid) {
        _pid = -1;
        return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
      }
      sleepMs(20);
    }
    kill9();
    return -1;
  }
  void kill9() {
    if (_pid <= 0) return;
    kill(_pid, SIGKILL);
    waitpid(_pid, nullptr, 0);
    _pid = -1;
  }

 private:
  pid_t _pid = -1;
};

// A scratch installation following <home>/logs with host "web9", plain
// HTTP, and an admin.
class TailHome {
 public:
  TailHome() {
    char tmpl[] = "/tmp/velmord_tail_test.XXXXXX";
    _path = mkdtemp(tmpl);
    std::string cmd = "bash " VELMOR_SOURCE_DIR "/scripts/mkhome.sh " + _path + " >/dev/null";
    if (system(cmd.c_str()) != 0) ADD_FAILURE() << "mkhome failed";
    mkdir((_path + "/logs").c_str(), 0755);
    std::ofstream(_path + "/logs/app.log").flush();
    std::ofstream(_path + "/etc/bundles/local/inputs.conf")
        << "[tail:" << _path << "/logs]\nsourcetype = app\nhost = web9\n";
    std::ofstream(_path + "/etc/bundles/local/server.conf", std::ios::app) << "[sslConfig]\nenableSsl = false\n";
    std::ofstream(_path + "/etc/bundles/local/user-seed.conf") << "[seed]\nname = admin\npassword = Tail-Secret-1\n";
  }
  ~TailHome() {
    std::string cmd = "rm -rf " + _path;
    if (system(cmd.c_str()) != 0) fprintf(stderr, "could not remove %s\n", _path.c_str());
  }
  const std::string& path() const { return _path; }
  std::vector<std::pair<std::string, std::string>> env() const {
    return {{"VELMOR_HOME", _path}, {"VELMOR_DB", _path + "/var/lib/velmor/db"}, {"VELMOR_BINDIP", "127.0.0.1"}};
  }
  void append(const std::string& line) const {
    char stamp[32];
    time_t now = time(nullptr);
    strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", gmtime(&now));
    std::ofstream(_path + "/logs/app.log", std::ios::app) << stamp << " " << line << "\n";
  }

 private:
  std::string _path;
};

TEST(VelmordTail, ExactlyTheKeptLinesArriveAndTheReplyEndsAtStop) {
  TailHome home;
  const int port = freePort();
  ASSERT_GT(port, 0);
  const std::string base = "http://127.0.0.1:" + std::to_string(port) + "/services";
  Child service;
  service.start({kVelmord, "--nodaemon", "-p", std::to_string(port)}, home.env(), home.path() + "/velmord.out");

  ToolRun login = runTool("/usr/bin/curl",
                          {"-s", "--max-time", "20", "--retry", "40", "--retry-connrefused", "--retry-delay", "0",
                           base + "/auth/login", "-d", "username=admin", "-d", "password=Tail-Secret-1"},
                          home.path(), home.env());
  std::smatch m;
  ASSERT_TRUE(std::regex_search(login.out, m, std::regex("<sessionKey>([0-9a-f]{32})</sessionKey>"))) << login.out;
  const std::string key = m[1];

  // A search that a refused command spoils is answered at once.
  ToolRun refused = runTool("/usr/bin/curl",
                            {"-s", "--max-time", "20", "-w", "\n%{http_code}", "-H", "Authorization: Velmor " + key,
                             base + "/streams/tail", "--data-urlencode", "search=search error | stats count"},
                            home.path(), home.env());
  EXPECT_NE(std::string::npos, refused.out.find("The command 'stats' cannot be used in a live tail")) << refused.out;
  EXPECT_EQ("400", refused.out.substr(refused.out.size() - 3)) << refused.out;

  const std::string tailOut = home.path() + "/tail.out";
  Child tail;
  tail.start({"/usr/bin/curl", "-sN", "--max-time", "90", "-H", "Authorization: Velmor " + key, base + "/streams/tail",
              "--data-urlencode", "search=search error | where code>=500", "-d", "output_mode=json"},
             home.env(), tailOut);
  sleepMs(1000);  // the tail subscribes

  struct Line {
    const char* text;
    bool kept;
  } lines[] = {
      {"error code=503 first", true},  {"error code=404 second", false}, {"info code=500 third", false},
      {"warn code=502 fourth", false}, {"error code=500 fifth", true},
  };
  for (const Line& l : lines) home.append(l.text);

  // Bounded wait for the last kept line; the others were written before it.
  std::string got;
  for (auto deadline = Clock::now() + std::chrono::seconds(30);
       Clock::now() < deadline && got.find("fifth") == std::string::npos; sleepMs(100))
    got = slurp(tailOut);

  std::vector<std::string> raws;
  std::istringstream in(got);
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty()) continue;  // a keepalive
    EXPECT_NE(std::string::npos, line.find("\"host\":\"web9\"")) << line;
    EXPECT_NE(std::string::npos, line.find("\"sourcetype\":\"app\"")) << line;
    std::smatch r;
    if (std::regex_search(line, r, std::regex("\"_raw\":\"[0-9: -]+ ([^\"]*)\""))) raws.push_back(r[1]);
  }
  std::vector<std::string> want;
  for (const Line& l : lines)
    if (l.kept) want.push_back(l.text);
  EXPECT_EQ(want, raws) << got;

  // earliest_time sends first the kept events already indexed, oldest
  // first (they become searchable within the index's sync period).
  std::string history;
  for (int attempt = 0; attempt < 15 && history.find("fifth") == std::string::npos; ++attempt) {
    ToolRun h = runTool("/usr/bin/curl",
                        {"-sN", "--max-time", "20", "-H", "Authorization: Velmor " + key,
                         base + "/streams/tail?output_mode=json&earliest_time=-1h&max_time=1", "--data-urlencode",
                         "search=search error | where code>=500"},
                        home.path(), home.env());
    history = h.out;
  }
  size_t first = history.find("error code=503 first"), fifth = history.find("error code=500 fifth");
  EXPECT_NE(std::string::npos, first) << history;
  EXPECT_NE(std::string::npos, fifth) << history;
  EXPECT_LT(first, fifth) << history;
  EXPECT_EQ(std::string::npos, history.find("second")) << history;

  // The service's stop ends the reply cleanly: curl sees its end and exits 0.
  EXPECT_EQ(0, service.stop(SIGTERM, 60));
  EXPECT_EQ(0, tail.stop(0, 30)) << slurp(tailOut);
}

}  // namespace
