// Saved searches through a running service, with curl: create, list, edit,
// rename and delete with their statuses and texts, an event type, a saved
// search dispatched as a job counting what posting its text counts, and the
// scheduler running a turn missed while the service was down once at start,
// as a job of the search's owner listed in the search's history.
#include <gtest/gtest.h>

#include <ctime>
#include <fstream>
#include <regex>
#include <string>

#include "ServiceFixture.h"

namespace {

std::string unescaped(std::string s) {
  for (size_t at = s.find("&apos;"); at != std::string::npos; at = s.find("&apos;")) s.replace(at, 6, "'");
  return s;
}

const char* const kCountSearch = "search index=main error | stats count";

TEST(VelmordSaved, SavedSearchesOverHttp) {
  ScratchHome home("velmord_saved_test");
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
  home.plainHttp();
  home.seedUser("admin", "saved-Secret-1");
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
  ServiceProcess svc(home, port);
  ASSERT_TRUE(svc.start()) << "velmord did not start";

  HttpReply login = curlReply(home, {base + "/auth/login", "-d", "username=admin", "-d", "password=saved-Secret-1"});
  std::smatch m;
  ASSERT_TRUE(std::regex_search(login.body, m, std::regex("<sessionKey>([0-9a-f]+)</sessionKey>"))) << login.body;
  const std::vector<std::string> auth = {"-H", "Authorization: Velmor " + std::string(m[1])};
  auto call = [&](std::vector<std::string> args) {
    args.insert(args.begin(), auth.begin(), auth.end());
    return curlReply(home, args);
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
    HttpReply r = s.args.front() == "--digest" ? curlReply(home, s.args) : call(s.args);
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
  HttpReply posted = call({base + "/search/jobs", "--data-urlencode", std::string("search=") + kCountSearch});
  ASSERT_EQ(posted.status, "201") << posted.body;
  HttpReply dispatched = call({saved + "/errs/dispatch", "-X", "POST"});
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
