// What the tests that run the service and the command-line tools share: a
// scratch installation laid out by scripts/mkhome.sh (with its settings:
// followed logs, plain HTTP, a seeded user), velmord --nodaemon as a child
// of the test, any other child process with its output in files, curl with
// bounded time, a free loopback port, and the rows of a "stats count by
// host" CSV.
//
// Ownership: a ScratchHome owns its directory and removes it when it goes
// (kept, and its path printed, when VELMORD_TEST_KEEP is set). A
// ChildProcess or ServiceProcess owns the process it started: it is killed
// (SIGKILL) and reaped when the object goes, so a failing test never leaves
// one behind. A ServiceProcess refers to its home, which must outlive it.
//
// Header only; each test executable includes it once. One thread.
#pragma once

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
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ToolProcess.h"

const std::string kVelmord = VELMOR_BINARY_DIR "/bin/velmord";
const std::string kVelmor = VELMOR_BINARY_DIR "/bin/velmor";
const std::string kIndexTool = VELMOR_BINARY_DIR "/bin/velmor-index";
const std::string kSearchTool = VELMOR_BINARY_DIR "/bin/velmor-search";
const std::string kCurl = "/usr/bin/curl";

using Clock = std::chrono::steady_clock;
using Env = std::vector<std::pair<std::string, std::string>>;

inline void sleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// A loopback port nobody listens on at the moment of asking; 0 if none.
inline int freePort() {
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

// A scratch installation laid out by the shipped script under
// /tmp/<name>.XXXXXX; removed at the end.
class ScratchHome {
 public:
  explicit ScratchHome(const std::string& name) {
    std::string tmpl = "/tmp/" + name + ".XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    _path = mkdtemp(buf.data());
    std::string cmd = "bash " VELMOR_SOURCE_DIR "/scripts/mkhome.sh " + _path + " >/dev/null";
    if (system(cmd.c_str()) != 0) ADD_FAILURE() << "mkhome failed";
  }
  ~ScratchHome() {
    if (getenv("VELMORD_TEST_KEEP")) {
      fprintf(stderr, "kept %s\n", _path.c_str());
      return;
    }
    std::string cmd = "rm -rf " + _path;
    if (system(cmd.c_str()) != 0) fprintf(stderr, "could not remove %s\n", _path.c_str());
  }
  ScratchHome(const ScratchHome&) = delete;
  ScratchHome& operator=(const ScratchHome&) = delete;

  const std::string& path() const { return _path; }
  // A file of the site settings, etc/bundles/local/<file>.
  std::string local(const std::string& file) const { return _path + "/etc/bundles/local/" + file; }
  std::string dispatch() const { return _path + "/var/run/velmor/dispatch"; }
  std::string pidFile() const { return _path + "/var/run/velmor/velmord.pid"; }
  std::string log() const { return slurp(_path + "/var/log/velmor/velmord.log"); }

  // VELMOR_HOME, VELMOR_DB and what setEnv added (in that order); with
  // `user`, VELMOR_USER too.
  Env env(const std::string& user = "") const {
    Env e{{"VELMOR_HOME", _path}, {"VELMOR_DB", _path + "/var/lib/velmor/db"}};
    for (const auto& [k, v] : _extra) {
      bool replaced = false;
      for (auto& [ek, ev] : e)
        if (ek == k) ev = v, replaced = true;
      if (!replaced) e.emplace_back(k, v);
    }
    if (!user.empty()) e.emplace_back("VELMOR_USER", user);
    return e;
  }
  // Sets (or replaces) a variable of env().
  void setEnv(const std::string& name, const std::string& value) { _extra.emplace_back(name, value); }

  // Makes <home>/logs and has the service follow it with `stanza` (the
  // lines after the [tail:...] header).
  void followLogs(const std::string& stanza) const {
    mkdir((_path + "/logs").c_str(), 0755);
    std::ofstream(local("inputs.conf")) << "[tail:" << _path << "/logs]\n" << stanza;
  }
  // The service speaks plain HTTP; `more` follows in server.conf.
  void plainHttp(const std::string& more = "") const {
    std::ofstream(local("server.conf"), std::ios::app) << "[sslConfig]\nenableSsl = false\n" << more;
  }
  // The first user, made from user-seed.conf at the service's start.
  void seedUser(const std::string& name, const std::string& password) const {
    std::ofstream(local("user-seed.conf")) << "[seed]\nname = " << name << "\npassword = " << password << "\n";
  }

 private:
  std::string _path;
  Env _extra;
};

// A child process: `program args...` with `env` set, standard input from
// /dev/null, standard output and error in files ("" for /dev/null; the same
// path for both puts both in one file).
class ChildProcess {
 public:
  ChildProcess() = default;
  // Starts at once, output in <dir>/<name>.out and <dir>/<name>.err.
  ChildProcess(const std::string& program, const std::vector<std::string>& args, const std::string& dir, const Env& env,
               const std::string& name) {
    start(program, args, env, dir + "/" + name + ".out", dir + "/" + name + ".err");
  }
  ~ChildProcess() { kill9(); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  void start(const std::string& program, const std::vector<std::string>& args, const Env& env,
             const std::string& outPath, const std::string& errPath) {
    _out = outPath;
    _err = errPath;
    _pid = fork();
    if (_pid == 0) {
      int o = open(outPath.empty() ? "/dev/null" : outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      int e = errPath == outPath
                  ? o
                  : open(errPath.empty() ? "/dev/null" : errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      int in = open("/dev/null", O_RDONLY);
      dup2(o, 1);
      dup2(e, 2);
      dup2(in, 0);
      for (const auto& [k, v] : env) setenv(k.c_str(), v.c_str(), 1);
      std::vector<char*> argv{const_cast<char*>(program.c_str())};
      for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      execv(program.c_str(), argv.data());
      _exit(127);
    }
  }
  // The exit status within `seconds`, 128 + the signal when one ended it;
  // -1 when it had to be killed (or was not running).
  int wait(int seconds) {
    if (_pid <= 0) return -1;
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
  // Sends `sig` (none when 0), then wait(seconds).
  int stop(int sig, int seconds) {
    if (_pid <= 0) return -1;
    if (sig) kill(_pid, sig);
    return wait(seconds);
  }
  void signal(int sig) {
    if (_pid > 0) kill(_pid, sig);
  }
  void kill9() {
    if (_pid <= 0) return;
    kill(_pid, SIGKILL);
    waitpid(_pid, nullptr, 0);
    _pid = -1;
  }
  // Whether standard output holds `text` within `seconds`.
  bool outHolds(const std::string& text, int seconds) const {
    auto deadline = Clock::now() + std::chrono::seconds(seconds);
    while (Clock::now() < deadline) {
      if (out().find(text) != std::string::npos) return true;
      sleepMs(20);
    }
    return false;
  }
  std::string out() const { return _out.empty() ? "" : slurp(_out); }
  std::string err() const { return _err.empty() ? "" : slurp(_err); }
  pid_t pid() const { return _pid; }

 private:
  std::string _out, _err;
  pid_t _pid = -1;
};

// velmord --nodaemon -p <port> in `home` ("0": any free port), its output
// discarded unless captureOutput says where.
class ServiceProcess {
 public:
  explicit ServiceProcess(const ScratchHome& home, int port = 0) : _home(home), _port(port) {}
  void setPort(int port) { _port = port; }
  void captureOutput(const std::string& outPath, const std::string& errPath) {
    _outPath = outPath;
    _errPath = errPath;
  }
  // Whether it runs: it wrote its pid file within 30 s.
  [[nodiscard]] bool start() {
    if (_child.pid() > 0) {
      ADD_FAILURE() << "velmord is already running";
      return false;
    }
    unlink(_home.pidFile().c_str());
    _child.start(kVelmord, {"--nodaemon", "-p", std::to_string(_port)}, _home.env(), _outPath, _errPath);
    auto deadline = Clock::now() + std::chrono::seconds(30);
    struct stat st;
    while (stat(_home.pidFile().c_str(), &st) != 0 && Clock::now() < deadline) sleepMs(20);
    return stat(_home.pidFile().c_str(), &st) == 0;
  }
  void kill9() {
    if (_child.pid() <= 0) ADD_FAILURE() << "velmord is not running";
    _child.kill9();
  }
  // SIGTERM; the exit status, 128 + the signal when a signal ended it, or
  // -1 when it had to be killed after `seconds`.
  int stop(int seconds = 60) { return _child.stop(SIGTERM, seconds); }
  pid_t pid() const { return _child.pid(); }

 private:
  const ScratchHome& _home;
  int _port;
  std::string _outPath, _errPath;
  ChildProcess _child;
};

// curl with exactly `args`, in and with the environment of `home`.
inline ToolRun curlBare(const ScratchHome& home, const std::vector<std::string>& args) {
  return runTool(kCurl, args, home.path(), home.env());
}
// curl, bounded (20 s a try, retried while the service is not up yet); the
// body, then a line with the status code.
inline ToolRun curl(const ScratchHome& home, std::vector<std::string> args) {
  args.insert(args.begin(), {"-s", "--max-time", "20", "--retry", "40", "--retry-connrefused", "--retry-delay", "0",
                             "-w", "\n%{http_code}"});
  return curlBare(home, args);
}
// The status code curl() appended, or "".
inline std::string statusOf(const ToolRun& r) { return r.out.size() >= 3 ? r.out.substr(r.out.size() - 3) : ""; }

struct HttpReply {
  std::string body;
  std::string status;
};
// curl(), its body and status code apart.
inline HttpReply curlReply(const ScratchHome& home, std::vector<std::string> args) {
  ToolRun r = curl(home, std::move(args));
  size_t nl = r.out.rfind('\n');
  if (nl == std::string::npos) return {r.out, ""};
  return {r.out.substr(0, nl), r.out.substr(nl + 1)};
}

// host -> count from the CSV of "stats count by host" (either column first).
inline std::map<std::string, long> countsFromCsv(const std::string& csv) {
  std::map<std::string, long> out;
  std::istringstream in(csv);
  std::string line, header;
  std::getline(in, header);
  bool hostFirst = header.rfind("host", 0) == 0;
  while (std::getline(in, line)) {
    size_t comma = line.find(',');
    if (comma == std::string::npos) continue;
    std::string a = line.substr(0, comma), b = line.substr(comma + 1);
    if (hostFirst)
      out[a] += std::stol(b);
    else
      out[b] += std::stol(a);
  }
  return out;
}
