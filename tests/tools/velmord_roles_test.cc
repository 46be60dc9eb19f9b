// Roles over the running service: users made over REST by the admin, the
// same search job run by each of them over the service and a peer holding
// the same events, and what each one gets: the admin every event, a user
// whose role filters by host only that host's events, from the peer too (and
// a message saying so), a user whose role may not read the index a refusal
// naming it; the users list is the admin's alone.
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
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

#include "ToolProcess.h"

namespace {

const std::string kVelmord = VELMOR_BINARY_DIR "/bin/velmord";
const std::string kIndexTool = VELMOR_BINARY_DIR "/bin/velmor-index";
const std::string kSearchTool = VELMOR_BINARY_DIR "/bin/velmor-search";

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

// A scratch installation laid out by the shipped script; removed at the end.
struct Home {
  std::string path;
  Home() {
    char tmpl[] = "/tmp/velmord_roles_test.XXXXXX";
    path = mkdtemp(tmpl);
    std::string cmd = "bash " VELMOR_SOURCE_DIR "/scripts/mkhome.sh " + path + " >/dev/null";
    if (system(cmd.c_str()) != 0) ADD_FAILURE() << "mkhome failed";
  }
  ~Home() {
    if (getenv("VELMORD_TEST_KEEP")) return;
    if (system(("rm -rf " + path).c_str()) != 0) fprintf(stderr, "could not remove %s\n", path.c_str());
  }
  std::vector<std::pair<std::string, std::string>> env(const std::string& user = "") const {
    std::vector<std::pair<std::string, std::string>> e{{"VELMOR_HOME", path}, {"VELMOR_DB", path + "/var/lib/velmor/db"}};
    if (!user.empty()) e.emplace_back("VELMOR_USER", user);
    return e;
  }
};

// velmord --nodaemon on `port`; killed if still running when it goes.
struct Service {
  pid_t pid = -1;
  ~Service() {
    if (pid > 0) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  }
  bool start(const Home& home, int port) {
    std::string pidFile = home.path + "/var/run/velmor/velmord.pid";
    unlink(pidFile.c_str());
    pid = fork();
    if (pid == 0) {
      int null = open("/dev/null", O_WRONLY);
      dup2(null, 1);
      dup2(null, 2);
      for (const auto& [k, v] : home.env()) setenv(k.c_str(), v.c_str(), 1);
      execl(kVelmord.c_str(), kVelmord.c_str(), "--nodaemon", "-p", std::to_string(port).c_str(), (char*)nullptr);
      _exit(127);
    }
    auto deadline = Clock::now() + std::chrono::seconds(30);
    struct stat st;
    while (stat(pidFile.c_str(), &st) != 0 && Clock::now() < deadline) sleepMs(20);
    return stat(pidFile.c_str(), &st) == 0;
  }
  int stop() {
    if (pid <= 0) return -1;
    kill(pid, SIGTERM);
    auto deadline = Clock::now() + std::chrono::seconds(60);
    int st = 0;
    while (Clock::now() < deadline) {
      if (waitpid(pid, &st, WNOHANG) == pid) {
        pid = -1;
        return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
      }
      sleepMs(20);
    }
    return -1;
  }
};

// curl: the body, then a line with the status code.
ToolRun curl(const Home& home, std::vector<std::string> args) {
  args.insert(args.begin(), {"-s", "--max-time", "20", "--retry", "40", "--retry-connrefused", "--retry-delay",
                             "0", "-w", "\n%{http_code}"});
  return runTool("/usr/bin/curl", args, home.path, home.env());
}
std::string statusOf(const ToolRun& r) { return r.out.size() >= 3 ? r.out.substr(r.out.size() - 3) : ""; }

// host -> count from the CSV of "stats count by host".
std::map<std::string, long> countsFromCsv(const std::string& csv) {
  std::map<std::string, long> out;
  std::istringstream in(csv);
  std::string line, header;
  std::getline(in, header);
  bool hostFirst = header.rfind("host", 0) == 0;
  while (std::getline(in, line)) {
    size_t comma = line.find(',');
    if (comma == std::string::npos) continue;
    std::string a = line.substr(0, comma), b = line.substr(comma + 1);
    if (hostFirst) out[a] += std::stol(b); else out[b] += std::stol(a);
  }
  return out;
}

}  // namespace

TEST(VelmordRoles, EachUserSeesWhatItsRolesAllow) {
  Home home, peerHome;
  // 30 events of web1 and 20 of web2 in the index main, on both servers.
  for (const Home* h : {&home, &peerHome}) {
    for (auto [host, n] : {std::pair<std::string, int>{"web1", 30}, {"web2", 20}}) {
      std::string file = h->path + "/" + host + ".log";
      {
        std::ofstream out(file);
        for (int i = 0; i < n; ++i) out << "2026-01-02 03:" << (10 + i) << ":00 GET /page id=" << i << " from " << host << "\n";
      }
      ToolRun add = runTool(kIndexTool, {"add", "main", file, "--host", host, "--sourcetype", "access"}, h->path, h->env());
      ASSERT_EQ(add.status, 0) << add.err;
    }
  }
  const int peerPort = freePort();
  std::ofstream(peerHome.path + "/etc/bundles/local/server.conf") << "[sslConfig]\nenableSsl = false\n";
  std::ofstream(peerHome.path + "/etc/bundles/local/user-seed.conf") << "[seed]\nname = searcher\npassword = Peer-pass1\n";
  Service peer;
  ASSERT_TRUE(peer.start(peerHome, peerPort));
  std::ofstream(home.path + "/etc/bundles/local/server.conf")
      << "[sslConfig]\nenableSsl = false\n[distributedSearch]\nservers = http://127.0.0.1:" << peerPort
      << "\nusername = searcher\npassword = Peer-pass1\nconnectTimeout = 5\nreceiveTimeout = 30\n";
  std::ofstream(home.path + "/etc/bundles/local/user-seed.conf") << "[seed]\nname = admin\npassword = Adm1n-pass\n";
  std::ofstream(home.path + "/etc/bundles/local/authorize.conf")
      << "[role_webonly]\nimportRoles = user\nsrchFilter = host=web1\n\n"
         "[role_elsewhere]\nimportRoles = user\nsrchIndexesAllowed = other*\n";

  const int port = freePort();
  ASSERT_GT(port, 0);
  Service svc;
  ASSERT_TRUE(svc.start(home, port));
  const std::string base = "http://127.0.0.1:" + std::to_string(port) + "/services";
  auto login = [&](const std::string& user, const std::string& password) {
    ToolRun r = curl(home, {base + "/auth/login", "-d", "username=" + user, "-d", "password=" + password});
    std::smatch m;
    EXPECT_TRUE(std::regex_search(r.out, m, std::regex("<sessionKey>([0-9a-f]+)</sessionKey>"))) << user << r.out;
    return m.empty() ? std::string() : "Authorization: Velmor " + std::string(m[1]);
  };
  const std::string admin = login("admin", "Adm1n-pass");

  // The admin makes the users over REST.
  struct Create {
    std::string name, role, status;
  } creates[] = {{"alice", "webonly", "201"}, {"bob", "elsewhere", "201"}, {"mallory", "wizard", "400"}};
  for (const Create& c : creates) {
    ToolRun r = curl(home, {"-H", admin, base + "/authentication/users", "-d", "name=" + c.name, "-d",
                            "password=" + c.name + "-Pass1", "-d", "roles=" + c.role});
    EXPECT_EQ(statusOf(r), c.status) << c.name << "\n" << r.out;
  }
  const std::string alice = login("alice", "alice-Pass1"), bob = login("bob", "bob-Pass1");
  ToolRun list = curl(home, {"-H", admin, base + "/authentication/users?output_mode=json"});
  EXPECT_EQ(statusOf(list), "200");
  EXPECT_NE(list.out.find("{\"name\":\"alice\",\"realname\":\"\",\"roles\":[\"webonly\"]}"), std::string::npos) << list.out;
  EXPECT_EQ(statusOf(curl(home, {"-H", alice, base + "/authentication/users"})), "401");

  // The same job for each user: its status entry and its rows.
  auto runJob = [&](const std::string& auth, std::string& entry) {
    ToolRun post = curl(home, {"-H", auth, base + "/search/jobs", "--data-urlencode",
                               "search=search index=main | stats count by host"});
    std::smatch sid;
    entry = post.out;  // a job refused at once: the refusal
    if (!std::regex_search(post.out, sid, std::regex("<sid>([^<]+)</sid>"))) return std::map<std::string, long>();
    const std::string job = base + "/search/jobs/" + std::string(sid[1]);
    for (int i = 0; i < 600; ++i) {
      entry = curl(home, {"-H", auth, job}).out;
      if (entry.find("done=1") != std::string::npos) break;
      sleepMs(100);
    }
    EXPECT_NE(entry.find("done=1"), std::string::npos) << entry;
    ToolRun rows = curl(home, {"-H", auth, job + "/results?output_mode=csv&count=0"});
    return countsFromCsv(rows.out.substr(0, rows.out.rfind('\n')));
  };
  std::string entry;
  const std::map<std::string, long> every{{"web1", 60}, {"web2", 40}}, web1Only{{"web1", 60}}, none;
  EXPECT_EQ(runJob(admin, entry), every) << entry;
  EXPECT_EQ(entry.find("restricted"), std::string::npos) << entry;
  EXPECT_EQ(runJob(alice, entry), web1Only) << entry;
  EXPECT_NE(entry.find("Your search was restricted by"), std::string::npos) << entry;
  EXPECT_NE(entry.find("host=web1"), std::string::npos) << entry;
  EXPECT_EQ(runJob(bob, entry), none) << entry;
  EXPECT_EQ(entry.find("<sid>"), std::string::npos) << entry;
  EXPECT_NE(entry.find("Your roles do not allow searching the index main"), std::string::npos) << entry;

  // The command-line tool runs as VELMOR_USER with the same roles.
  struct ToolCase {
    std::string user, holds, lacks;
  } tools[] = {
      {"", "web2", ""},  // no VELMOR_USER: the admin
      {"alice", "web1", "web2"},
      {"bob", "Your roles do not allow searching the index main", "web1"},
  };
  for (const ToolCase& t : tools) {
    ToolRun r = runTool(kSearchTool, {"search index=main | stats count by host | outputxml"}, home.path, home.env(t.user));
    EXPECT_NE((r.out + r.err).find(t.holds), std::string::npos) << t.user << "\n" << r.out << r.err;
    if (!t.lacks.empty()) {
      EXPECT_EQ(r.out.find(t.lacks), std::string::npos) << t.user << "\n" << r.out;
    }
  }

  // Once deleted, a user cannot log in again.
  EXPECT_EQ(statusOf(curl(home, {"-X", "DELETE", "-H", admin, base + "/authentication/users/bob"})), "200");
  ToolRun gone = curl(home, {base + "/auth/login", "-d", "username=bob", "-d", "password=bob-Pass1"});
  EXPECT_EQ(statusOf(gone), "401") << gone.out;
  EXPECT_EQ(svc.stop(), 0);
  EXPECT_EQ(peer.stop(), 0);
}
