// Roles over the running service: users made over REST by the admin, the
// same search job run by each of them over the service and a peer holding
// the same events, and what each one gets: the admin every event, a user
// whose role filters by host only that host's events, from the peer too (and
// a message saying so), a user whose role may not read the index a refusal
// naming it; the users list is the admin's alone.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <string>

#include "ServiceFixture.h"

TEST(VelmordRoles, EachUserSeesWhatItsRolesAllow) {
  ScratchHome home("velmord_roles_test"), peerHome("velmord_roles_test");
  // 30 events of web1 and 20 of web2 in the index main, on both servers.
  for (const ScratchHome* h : {&home, &peerHome}) {
    for (auto [host, n] : {std::pair<std::string, int>{"web1", 30}, {"web2", 20}}) {
      std::string file = h->path() + "/" + host + ".log";
      {
        std::ofstream out(file);
        for (int i = 0; i < n; ++i) out << "2026-01-02 03:" << (10 + i) << ":00 GET /page id=" << i << " from " << host << "\n";
      }
      ToolRun add = runTool(kIndexTool, {"add", "main", file, "--host", host, "--sourcetype", "access"}, h->path(), h->env());
      ASSERT_EQ(add.status, 0) << add.err;
    }
  }
  const int peerPort = freePort();
  peerHome.plainHttp();
  peerHome.seedUser("searcher", "Peer-pass1");
  ServiceProcess peer(peerHome, peerPort);
  ASSERT_TRUE(peer.start());
  home.plainHttp("[distributedSearch]\nservers = http://127.0.0.1:" + std::to_string(peerPort) +
                 "\nusername = searcher\npassword = Peer-pass1\nconnectTimeout = 5\nreceiveTimeout = 30\n");
  home.seedUser("admin", "Adm1n-pass");
  std::ofstream(home.local("authorize.conf"))
      << "[role_webonly]\nimportRoles = user\nsrchFilter = host=web1\n\n"
         "[role_elsewhere]\nimportRoles = user\nsrchIndexesAllowed = other*\n";

  const int port = freePort();
  ASSERT_GT(port, 0);
  ServiceProcess svc(home, port);
  ASSERT_TRUE(svc.start());
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
    ToolRun r = runTool(kSearchTool, {"search index=main | stats count by host | outputxml"}, home.path(), home.env(t.user));
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
