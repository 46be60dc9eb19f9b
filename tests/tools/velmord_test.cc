// The service as users run it: its command line, start and stop, the
// promise that every line of a followed file is indexed exactly once
// whatever happens to the process (kill -9 or an orderly stop, at any
// moment of a write burst) or to the files (rotation by rename), and the
// shape events take on the way (merged lines, times from the text in the
// stanza's zone, a host and an index set by transforms).
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "ServiceFixture.h"

namespace {

const std::string kLoghub = VELMOR_SOURCE_DIR "/../shared/data/loghub/";

// A scratch installation following <home>/logs.
class ServiceHome : public ScratchHome {
 public:
  ServiceHome() : ScratchHome("velmord_test") { followLogs("sourcetype = app\n"); }
};

std::string tailOf(const std::string& text, size_t n) { return text.size() > n ? text.substr(text.size() - n) : text; }

// The numbers of "seq=<n>" of every event of the main index holding "burst".
std::multiset<long> indexedSeqs(const ServiceHome& home) {
  ToolRun r = runTool(kIndexTool, {"search", "main", "burst", "--count", "10000000"}, home.path(), home.env());
  std::multiset<long> out;
  std::istringstream in(r.out);
  std::string line;
  while (std::getline(in, line)) {
    size_t at = line.find("seq=");
    if (at != std::string::npos) out.insert(atol(line.c_str() + at + 4));
  }
  return out;
}

TEST(Velmord, CommandLineTextsAndStatuses) {
  ServiceHome home;
  auto env = home.env();
  struct Case {
    std::vector<std::string> args;
    int status;
    const char* says;
  } cases[] = {
      {{"--help"}, 0, "[OPTION...]\n  --nodaemon      causes the system not to daemonize\n"},
      {{"-?"}, 0, "Help options:\n  -?, --help      Show this help message\n"},
      {{"--bogus"}, 8, "Bad Option --bogus\n"},
      {{"-i", "x"}, 8, "Bad Option -i\n"},
      {{"-c"}, 8, "-c option requires an argument\n"},
      {{"--waitonpid=12"}, 1, "--waitonpid option not implemented for UNIX\n"},
  };
  for (const Case& c : cases) {
    ToolRun r = runTool(kVelmord, c.args, home.path(), env);
    EXPECT_EQ(r.status, c.status) << c.args[0];
    EXPECT_NE((r.out + r.err).find(c.says), std::string::npos) << c.args[0] << ": " << r.out << r.err;
  }
  ToolRun noHome = runTool(kVelmord, {"--nodaemon"}, home.path(), {{"VELMOR_HOME", ""}});
  EXPECT_EQ(noHome.status, 255);
  EXPECT_NE(noHome.err.find("VELMOR_HOME must be set.  Stopping.\n"), std::string::npos);
  ToolRun badHome = runTool(kVelmord, {"--nodaemon"}, home.path(), {{"VELMOR_HOME", home.path() + "/none"}, {"VELMOR_DB", ""}});
  EXPECT_EQ(badHome.status, 1);
  EXPECT_NE(badHome.err.find("The environment variable VELMOR_HOME must point to an existing path."),
            std::string::npos)
      << badHome.err;
}

TEST(Velmord, StartsOnceAndStopsByLevels) {
  ServiceHome home;
  ServiceProcess s(home);
  ASSERT_TRUE(s.start()) << "velmord did not start";
  ToolRun second = runTool(kVelmord, {"--nodaemon"}, home.path(), home.env());
  EXPECT_EQ(second.status, 1);
  EXPECT_NE(second.err.find("velmord is already running (pid " + std::to_string(s.pid()) + ")"), std::string::npos)
      << second.err;
  EXPECT_EQ(s.stop(), 0);
  struct stat st;
  EXPECT_NE(stat(home.pidFile().c_str(), &st), 0) << "the pid file is removed at exit";
  std::string log = home.log();
  size_t at = 0;
  for (const char* level : {"APIs", "Input", "Analysis", "Database1", "Database2", "Output", "Pipelines", "Queue"}) {
    size_t next = log.find(std::string("shutting down level \"") + level + "\"", at);
    ASSERT_NE(next, std::string::npos) << level << " missing or out of order";
    at = next;
  }
  EXPECT_EQ(log.find("timed out"), std::string::npos) << log;
}

TEST(Velmord, DetachesAndReportsTheStart) {
  ServiceHome home;
  ToolRun r = runTool(kVelmord, {"-p", "0"}, home.path(), home.env());
  ASSERT_EQ(r.status, 0) << r.err;
  std::ifstream f(home.pidFile());
  long pid = 0;
  f >> pid;
  ASSERT_GT(pid, 0);
  EXPECT_EQ(kill(pid_t(pid), 0), 0);
  kill(pid_t(pid), SIGTERM);
  auto deadline = Clock::now() + std::chrono::seconds(60);
  while (kill(pid_t(pid), 0) == 0 && Clock::now() < deadline) sleepMs(50);
  if (kill(pid_t(pid), 0) == 0) {
    kill(pid_t(pid), SIGKILL);
    FAIL() << "the detached service did not stop";
  }
}

// The first user comes from user-seed.conf; logins over HTTP open sessions
// whose key (or digest authentication) lets a caller in, and the password
// is neither stored nor logged in clear.
TEST(Velmord, LoginsOverHttp) {
  ServiceHome home;
  const std::string password = "Tr0ub4dor-and-3";
  home.seedUser("admin", password);
  const int port = freePort();
  ASSERT_GT(port, 0);
  const std::string base = "http://127.0.0.1:" + std::to_string(port) + "/services";
  ServiceProcess s(home);
  s.setPort(port);
  ASSERT_TRUE(s.start()) << "velmord did not start";

  ToolRun login = curl(home, {base + "/auth/login", "-d", "username=admin", "-d", "password=" + password});
  std::smatch m;
  ASSERT_TRUE(std::regex_search(login.out, m, std::regex("<sessionKey>([0-9a-f]{32})</sessionKey>\n</response>\n?\n200$")))
      << login.out << login.err;
  const std::string key = m[1];

  struct Call {
    std::vector<std::string> args;
    std::string status, bodyHolds;
  };
  const Call calls[] = {
      {{base + "/auth/login", "-d", "username=admin", "-d", "password=wrong"}, "401", "Login failed"},
      {{base + "/auth/login", "-d", "username=admin"}, "400", "<msg type=\"WARN\">"},
      {{base + "/server/info"}, "401", "No authentication provided"},
      {{"-H", "Authorization: Velmor " + key, base + "/server/info"}, "200", "<user>admin</user>"},
      {{"-H", "Authorization: Velmor " + key, base + "/server/info"}, "200", "<role>Admin</role>"},
      {{"-H", "Authorization: Velmor 0123456789abcdef0123456789abcdef", base + "/server/info"}, "401", ""},
      {{"--digest", "-u", "admin:" + password, base + "/server/info"}, "200", "<user>admin</user>"},
      {{"--digest", "-u", "admin:wrong", base + "/server/info"}, "401", ""},
      {{base}, "200", "auth/login"},
      {{base + "/no/such/path"}, "404", ""},
  };
  for (const Call& c : calls) {
    ToolRun r = curl(home, c.args);
    std::string last = c.args.back();
    ASSERT_GE(r.out.size(), 3u) << last << r.err;
    EXPECT_EQ(r.out.substr(r.out.size() - 3), c.status) << last << "\n" << r.out;
    EXPECT_NE(r.out.find(c.bodyHolds), std::string::npos) << last << "\n" << r.out;
  }

  EXPECT_EQ(s.stop(), 0);
  struct stat st;
  EXPECT_NE(stat((home.path() + "/etc/bundles/local/user-seed.conf").c_str(), &st), 0) << "the seed is used once";
  ASSERT_EQ(stat((home.path() + "/etc/passwd").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(slurp(home.path() + "/etc/passwd").find(password), std::string::npos);
  EXPECT_EQ(home.log().find(password), std::string::npos) << "a password reached the log";
}

// host -> count of the rows of a "stats count by host" report, from the
// XML velmor-search prints (countsFromCsv reads the CSV a job gives).
std::map<std::string, long> countsFromXml(const std::string& xml) {
  std::map<std::string, long> out;
  std::regex result("<result [^>]*>([\\s\\S]*?)</result>");
  std::regex host("<field k='host'>\\s*<value><text>([^<]*)</text>"), count("<field k='count'>\\s*<value><text>(\\d+)</text>");
  for (std::sregex_iterator it(xml.begin(), xml.end(), result), end; it != end; ++it) {
    std::string r = (*it)[1];
    std::smatch h, c;
    if (std::regex_search(r, h, host) && std::regex_search(r, c, count)) out[h[1]] += std::stol(c[1]);
  }
  return out;
}
// Three services each hold a third of a real log (spread over four hosts);
// a job posted to the first, with the other two as its peers, counts by
// host what one server holding every event counts. With one peer killed the
// job still finishes, with the rows of the others and a message naming the
// peer.
TEST(Velmord, JobsOverPeersCountAsOneServer) {
  std::ifstream log(kLoghub + "OpenSSH/OpenSSH_2k.log");
  if (!log) GTEST_SKIP() << "no loghub data at " << kLoghub;
  std::vector<std::string> lines;
  for (std::string l; std::getline(log, l);) lines.push_back(l);
  ASSERT_GT(lines.size(), 1000u);

  ServiceHome head, peer1, peer2, all;
  ServiceHome* servers[] = {&head, &peer1, &peer2};
  for (int s = 0; s < 3; ++s) {
    for (int h = 0; h < 4; ++h) {
      std::string file = servers[s]->path() + "/logs/h" + std::to_string(h) + ".txt";
      {
        std::ofstream out(file);
        for (size_t i = 0; i < lines.size(); ++i)
          if (int(i % 3) == s && int((i / 7) % 4) == h) out << lines[i] << "\n";
      }
      for (ServiceHome* home : {servers[s], &all}) {
        ToolRun add = runTool(kIndexTool, {"add", "main", file, "--host", "h" + std::to_string(h), "--sourcetype", "sshd"},
                              home->path(), home->env());
        ASSERT_EQ(add.status, 0) << add.err;
      }
    }
    // The followed directory holds the files just indexed: the services
    // must not read them again.
    std::ofstream(servers[s]->path() + "/etc/bundles/local/inputs.conf") << "";
  }
  const int ports[] = {freePort(), freePort(), freePort()};
  for (int s = 0; s < 3; ++s) {
    servers[s]->plainHttp(s != 0 ? "" :
                          "[distributedSearch]\nservers = http://127.0.0.1:" + std::to_string(ports[1]) +
                              ", http://127.0.0.1:" + std::to_string(ports[2]) +
                              "\nusername = searcher\npassword = peer-Secret-1\nconnectTimeout = 5\nreceiveTimeout = 30\n");
    servers[s]->seedUser(s == 0 ? "admin" : "searcher", s == 0 ? "head-Secret-1" : "peer-Secret-1");
  }
  ServiceProcess svc0(head), svc1(peer1), svc2(peer2);
  ServiceProcess* svcs[] = {&svc0, &svc1, &svc2};
  for (int s = 2; s >= 0; --s) {
    svcs[s]->setPort(ports[s]);
    ASSERT_TRUE(svcs[s]->start()) << "velmord did not start";
  }
  ToolRun one = runTool(kSearchTool, {"search index=main | stats count by host | outputxml"}, all.path(), all.env());
  const std::map<std::string, long> want = countsFromXml(one.out);
  ASSERT_EQ(want.size(), 4u) << one.out << one.err;

  const std::string base = "http://127.0.0.1:" + std::to_string(ports[0]) + "/services";
  ToolRun login = curl(head, {base + "/auth/login", "-d", "username=admin", "-d", "password=head-Secret-1"});
  std::smatch m;
  ASSERT_TRUE(std::regex_search(login.out, m, std::regex("<sessionKey>([0-9a-f]+)</sessionKey>"))) << login.out;
  const std::string auth = "Authorization: Velmor " + std::string(m[1]);
  // Posts the report and waits for it; its status entry and its rows.
  auto runJob = [&](std::string& entry) {
    ToolRun post = curl(head, {"-H", auth, base + "/search/jobs", "--data-urlencode",
                               "search=search index=main | stats count by host"});
    std::smatch sid;
    EXPECT_TRUE(std::regex_search(post.out, sid, std::regex("<sid>([^<]+)</sid>"))) << post.out;
    if (sid.empty()) return std::map<std::string, long>();
    const std::string job = base + "/search/jobs/" + std::string(sid[1]);
    for (int i = 0; i < 600; ++i) {
      entry = curl(head, {"-H", auth, job}).out;
      if (entry.find("done=1") != std::string::npos) break;
      sleepMs(100);
    }
    EXPECT_NE(entry.find("done=1"), std::string::npos) << entry;
    ToolRun rows = curl(head, {"-H", auth, job + "/results?output_mode=csv&count=0"});
    return countsFromCsv(rows.out.substr(0, rows.out.rfind('\n')));
  };
  std::string entry;
  EXPECT_EQ(runJob(entry), want) << entry;
  EXPECT_EQ(entry.find("message="), std::string::npos) << entry;

  svc2.kill9();
  std::map<std::string, long> partial;
  for (int h = 0; h < 4; ++h) partial["h" + std::to_string(h)] = 0;
  for (size_t i = 0; i < lines.size(); ++i)
    if (i % 3 != 2) partial["h" + std::to_string((i / 7) % 4)]++;
  EXPECT_EQ(runJob(entry), partial) << entry;
  EXPECT_NE(entry.find("Results from this peer were not returned"), std::string::npos) << entry;
  EXPECT_NE(entry.find(std::to_string(ports[2])), std::string::npos) << entry;
  for (ServiceProcess* s : {&svc0, &svc1}) EXPECT_EQ(s->stop(), 0);
}

// Writes `lines` numbered lines into <home>/logs/app.log in bursts while
// the service is killed (SIGKILL) or stopped (SIGTERM) and started again
// between them, with a rotation by rename halfway. Every line must be in
// the index exactly once at the end.
TEST(Velmord, EveryLineOnceThroughKillsStopsAndRotation) {
  ServiceHome home;
  ServiceProcess s(home);
  ASSERT_TRUE(s.start()) << "velmord did not start";
  const std::string file = home.path() + "/logs/app.log";
  const long kLines = 40000, kBursts = 10;
  long seq = 0;
  for (long b = 0; b < kBursts; ++b) {
    {
      std::ofstream out(file, std::ios::app);
      for (long i = 0; i < kLines / kBursts; ++i) {
        ++seq;
        out << "2026-11-24T10:" << (10 + b) << ":00Z host=web burst seq=" << seq << " padding-to-make-the-line-longer\n";
        if (i % 500 == 0) out.flush();
      }
    }
    if (b == kBursts / 2) {
      ASSERT_EQ(rename(file.c_str(), (file + ".1").c_str()), 0);
    }
    // Interrupt at a different moment of the reading each time.
    sleepMs(int(40 + 97 * b % 400));
    if (b % 3 == 2) {
      int status = s.stop();
      EXPECT_EQ(status, 0) << "burst " << b << "; the log ends:\n" << tailOf(home.log(), 3000);
    } else {
      s.kill9();
    }
    ASSERT_TRUE(s.start()) << "velmord did not start";
  }
  // Everything is read and indexed within a bounded time.
  std::multiset<long> seen;
  auto deadline = Clock::now() + std::chrono::seconds(90);
  while (Clock::now() < deadline) {
    seen = indexedSeqs(home);
    if (long(seen.size()) >= kLines) break;
    sleepMs(500);
  }
  sleepMs(2500);  // anything extra (a line indexed twice) shows up too
  seen = indexedSeqs(home);
  EXPECT_EQ(s.stop(), 0);
  std::set<long> distinct(seen.begin(), seen.end());
  EXPECT_EQ(long(distinct.size()), kLines) << "lines lost";
  std::string twice;
  for (long n : distinct)
    if (seen.count(n) > 1) twice += " " + std::to_string(n);
  EXPECT_EQ(long(seen.size()), kLines) << "lines indexed twice:" << twice;
  if (!distinct.empty()) {
    EXPECT_EQ(*distinct.begin(), 1);
    EXPECT_EQ(*distinct.rbegin(), kLines);
  }
  long grepCount = shellNumber("cat " + file + "* | grep -c burst");
  EXPECT_EQ(grepCount, kLines);
}

// The events velmor-index search prints for `terms` in `index`: each starts
// with its time and address; a merged event's further lines follow it.
std::vector<std::string> searchEvents(const ServiceHome& home, const std::string& index,
                                      std::vector<std::string> terms) {
  std::vector<std::string> args{"search", index};
  args.insert(args.end(), terms.begin(), terms.end());
  args.insert(args.end(), {"--count", "1000"});
  ToolRun r = runTool(kIndexTool, args, home.path(), home.env());
  static const std::regex kHead(R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ\t\d+:\d+\t.*)");
  std::vector<std::string> events;
  std::istringstream in(r.out);
  std::string line;
  while (std::getline(in, line)) {
    if (std::regex_match(line, kHead) || events.empty())
      events.push_back(line);
    else
      events.back() += "\n" + line;
  }
  return events;
}

TEST(Velmord, EventsTakeShapeOnTheWay) {
  ServiceHome home;
  const std::string logs = home.path() + "/logs";
  for (const char* sub : {"/java", "/relay", "/app"}) mkdir((logs + sub).c_str(), 0755);
  std::ofstream(home.path() + "/etc/bundles/local/inputs.conf")
      << "[tail:" << logs << "/java]\nsourcetype = java_log\n"
      << "[tail:" << logs << "/relay]\nsourcetype = syslog\n"
      << "[tail:" << logs << "/app]\nsourcetype = app\n";
  // Java stamps are local times of a zone an hour east of UTC; relayed
  // syslog lines name their own host; errors of the app go to "alerts".
  std::ofstream(home.path() + "/etc/bundles/local/props.conf")
      << "[java_log]\nTZ = CET-1CEST,M3.5.0,M10.5.0/3\n"
      << "[syslog]\nTRANSFORMS-host = host_from_text\n"
      << "[app]\nTRANSFORMS-routing = route_alerts\n";
  std::ofstream(home.path() + "/etc/bundles/local/indexes.conf", std::ios::app)
      << "\n[alerts]\nhomePath = $VELMOR_DB/alerts/db\ncoldPath = $VELMOR_DB/alerts/colddb\n"
      << "thawedPath = $VELMOR_DB/alerts/thaweddb\nfrozenTimePeriodInSecs = 2147483647\n";
  std::ofstream(logs + "/java/server.log")
      << "2026-11-20 09:15:30,123 INFO  [main] com.example.Shop - started jvmstart\n"
      << "2026-11-20 09:16:00,001 ERROR [exec-1] com.example.Orders - Unhandled exception jvmtrace\n"
      << "java.lang.IllegalStateException: Order 41 is already shipped\n"
      << "\tat com.example.Orders.ship(Orders.java:88)\n"
      << "\tat com.example.Dispatcher.handle(Dispatcher.java:141)\n"
      << "Caused by: java.sql.SQLException: Deadlock found\n"
      << "\tat com.example.Db.update(Db.java:12)\n"
      << "\t... 2 more\n"
      << "2026-11-20 09:17:45,500 INFO  [exec-2] com.example.Orders - shipped order 42 jvmlast\n";
  std::ofstream(logs + "/relay/syslog.log")
      << "Nov 20 08:00:01 web7 sshd[42]: Accepted publickey for deploy relayone\n"
      << "Nov 20 08:00:02 db3 cron[7]: job started relaytwo\n";
  std::ofstream(logs + "/app/app.log")
      << "2026-11-20T08:00:00.000Z level=INFO user=ann action=login appline\n"
      << "2026-11-20T08:00:01.000Z level=ERROR user=bob action=pay appline\n"
      << "\n"
      << "2026-11-20T08:00:02.000Z level=INFO user=cy action=logout appline\n"
      << "2026-11-20T08:00:03.000Z level=ERROR user=dee action=refund appline\n";

  ServiceProcess s(home);
  ASSERT_TRUE(s.start()) << "velmord did not start";
  auto deadline = Clock::now() + std::chrono::seconds(60);
  while (Clock::now() < deadline && (searchEvents(home, "main", {"jvmlast"}).empty() ||
                                     searchEvents(home, "main", {"relaytwo"}).empty() ||
                                     searchEvents(home, "alerts", {"appline"}).size() < 2)) {
    sleepMs(200);
  }
  sleepMs(1500);  // anything extra (a trace line indexed alone) shows up too

  // Three stamped Java blocks, three events; the trace stays with its line,
  // and each takes the time of its stamp, an hour west of the text.
  std::vector<std::string> java = searchEvents(home, "main", {"sourcetype::java_log"});
  ASSERT_EQ(java.size(), 3u);
  EXPECT_EQ(java[0].substr(0, 20), "2026-11-20T08:17:45Z");
  EXPECT_EQ(java[2].substr(0, 20), "2026-11-20T08:15:30Z");
  std::vector<std::string> trace = searchEvents(home, "main", {"deadlock"});
  ASSERT_EQ(trace.size(), 1u);
  EXPECT_EQ(trace[0].substr(0, 20), "2026-11-20T08:16:00Z");
  EXPECT_NE(trace[0].find("jvmtrace\njava.lang.IllegalStateException"), std::string::npos) << trace[0];
  EXPECT_NE(trace[0].find("\n\t... 2 more"), std::string::npos) << trace[0];

  // The host each relayed line names is a host:: term of its own event.
  std::vector<std::string> web7 = searchEvents(home, "main", {"host::web7"});
  ASSERT_EQ(web7.size(), 1u);
  EXPECT_NE(web7[0].find("relayone"), std::string::npos);
  EXPECT_EQ(searchEvents(home, "main", {"host::db3", "relaytwo"}).size(), 1u);

  // Errors were routed; the rest stayed; the blank line is no event.
  std::vector<std::string> alerts = searchEvents(home, "alerts", {"appline"});
  EXPECT_EQ(alerts.size(), 2u);
  for (const std::string& e : alerts) EXPECT_NE(e.find("level=ERROR"), std::string::npos) << e;
  std::vector<std::string> rest = searchEvents(home, "main", {"appline"});
  EXPECT_EQ(rest.size(), 2u);
  for (const std::string& e : rest) EXPECT_NE(e.find("level=INFO"), std::string::npos) << e;
  EXPECT_EQ(s.stop(), 0);
}

}  // namespace
