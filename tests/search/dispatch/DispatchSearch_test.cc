// The REST side of search jobs over hand-written job directories: routing
// and its 404/401 answers, the jobs feed and status entries, control actions
// and their markers, rows with paging, time ranges and output modes, the
// parameter checks with their texts, the timeline and summary documents, and
// POST with a recording starter (limits, validation, 201 body and header).
#include <gtest/gtest.h>
#include <sys/time.h>

#include <fstream>
#include <sstream>

#include "../../framework/rest/RestTestSupport.h"
#include "../SearchTestUtil.h"
#include "framework/http/FdConnectionData.h"
#include "framework/http/HTTPServer.h"
#include "framework/rest/HTTPAuthManager.h"
#include "framework/rest/HTTPRestDispatcher.h"
#include "libbundle/PropertyPages.h"
#include "util/EventLoopThread.h"
#include "framework/http/HTTPReply.h"
#include "search/SearchResults.h"
#include "search/dispatch/DispatchSearch.h"
#include "search/dispatch/DispatchThread.h"
#include "search/processors/SearchCommands.h"
#include "util/MainThread.h"

using resttest::makeRequest;

namespace {

// One home per process: the catalogue is read once.
searchtest::ScratchHome& home() {
  static searchtest::ScratchHome* h = [] {
    auto* s = new searchtest::ScratchHome;
    std::ifstream in(VELMOR_SOURCE_DIR "/etc/bundles/default/strings.conf");
    std::stringstream text;
    text << in.rdbuf();
    s->writeConf("strings", text.str());
    s->writeConf("limits", "[search]\nstatus_buckets = 7\nttl = 50\nmax_count = 20\n[restapi]\nmaxresultrows = 5\n");
    return s;
  }();
  return *h;
}

void write(const Pathname& p, const std::string& text) { std::ofstream(p.c_str(), std::ios::trunc) << text; }

const char* const kStatusHeader =
    "user,start,count,cursor,keywords,ttl,done,search,streaming,error,setStart,setEnd,startTime,endTime\n";

class DispatchSearchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    home();
    root = home().path() / "var/run/velmor/dispatch";
    root.removeRecursive();
    Pathname a = job("100.1");
    write(a / "status.csv", std::string(kStatusHeader) +
                                "alice,100.5,4,970,*,60,1,search error,search error,,,,1000,970\n");
    write(a / "results.csv", "_raw,host,n\nr0,a,1\nr1,b,2\nr2,a,3\n");
    write(a / "0.csv", "_raw,_time,host\ne1000,1000,a\ne990,990,b\n");
    write(a / "2.csv", "_raw,_time,host\ne980,980,a\ne970,970,c\n");
    write(a / "notevents.csv", "_raw\nnever\n");
    write(a / "timeline.csv", "et,lt,count,complete\n960,980,1,1\n980,1000.5,3,0\n");
    write(a / "summary.csv",
          "key,value,count,min,max,sum,sumsq,dc\n"
          "host,,4,,,,,3\nhost,b,1,,,,,\nhost,a,2,,,,,\nhost,c,1,,,,,\n"
          "n,,4,1,7,12,54,4\n"
          "tag::host,web,3,,,,,\n");
    write(job("100.2") / "status.csv",
          std::string(kStatusHeader) + "bob,100.9,0,,*,60,0,search x,search x,,,,,\n");
    write(job(".hidden") / "status.csv", std::string(kStatusHeader) + "alice,1,0,,*,60,1,s,s,,,,,\n");
    job("100.3");  // no status yet
  }

  Pathname job(const std::string& sid) {
    Pathname d = root / sid;
    d.mkdir_p();
    return d;
  }

  // `target` below /services; `body` a form.
  std::unique_ptr<HTTPReply> call(const Str& method, const Str& target, const Str& body = "",
                                  const Str& user = "alice") {
    auto req = makeRequest(method, "/services" + target, {}, body);
    req->setUser(user);
    FdConnectionData conn;
    return std::unique_ptr<HTTPReply>(handler.handleRequest(conn, req.get(), req->path().substr(9), *stanza));
  }

  resttest::PermissionsGuard perms;
  Pathname root;
  std::vector<DispatchSearch::JobRequest> started;
  Str refuse;  // when set, the starter refuses with this text
  DispatchSearch handler{home().path() / "var/run/velmor/dispatch", [this](const DispatchSearch::JobRequest& j, Str& err) {
                           started.push_back(j);
                           err = refuse;
                           return refuse.empty();
                         }};
  std::shared_ptr<RestMapData> stanza = [] {
    PropertiesMap props;
    props.put("match", "^/search");
    Str err;
    return RestMapData::fromStanza("search:jobs", props, err);
  }();
  void denyAdmin() { perms.perms->denied.insert(DispatchSearch::kAdminCapability); }
};

struct Expect {
  const char* method;
  const char* target;
  const char* body;
  int status;
  const char* fragment;
};

void check(DispatchSearchTest* t, const std::vector<Expect>& table,
           std::function<std::unique_ptr<HTTPReply>(const Expect&)> run) {
  (void)t;
  for (const Expect& e : table) {
    auto r = run(e);
    EXPECT_EQ(r->status(), e.status) << e.method << " " << e.target << " " << e.body << "\n" << r->body();
    EXPECT_NE(r->body().find(e.fragment), Str::npos) << e.method << " " << e.target << " " << e.body << "\n"
                                                      << r->body();
  }
}

TEST_F(DispatchSearchTest, RoutesUnknownPlacesAndOtherUsersJobs) {
  denyAdmin();
  check(this,
        {
            {"GET", "/search", "", 200, "sample forms"},
            {"GET", "/search/other", "", 404, "Unknown endpoint."},
            {"GET", "/search/jobs/100.1/bogus", "", 404, "Unknown endpoint."},
            {"GET", "/search/jobs/100.1/events/more", "", 404, "Unknown endpoint."},
            {"PUT", "/search/jobs/100.1", "", 404, "Unknown endpoint."},
            {"POST", "/search/jobs/100.1/events", "", 404, "Unknown endpoint."},
            {"GET", "/search/jobs/100.1/control", "", 404, "Unknown endpoint."},
            {"GET", "/search/jobs/999.9", "", 404, "Unknown search id."},
            {"GET", "/search/jobs/100.3", "", 404, "Unknown search id."},
            {"GET", "/search/jobs/%2E%2E", "", 404, "Unknown search id."},
            {"GET", "/search/jobs/.hidden", "", 404, "Unknown search id."},
            {"GET", "/search/jobs/100.2", "", 401, "Permission denied."},
            {"DELETE", "/search/jobs/100.2", "", 401, "Permission denied."},
            {"GET", "/search/jobs/100.2/results", "", 401, "Permission denied."},
        },
        [this](const Expect& e) { return call(e.method, e.target, e.body); });
  EXPECT_FALSE((root / "100.2/cancel").exists());
}

TEST_F(DispatchSearchTest, FeedShowsOwnJobsOrAllForAdminNewestFirst) {
  denyAdmin();
  auto own = call("GET", "/search/jobs");
  EXPECT_EQ(own->status(), 200);
  EXPECT_NE(own->body().find("<id>http://127.0.0.1/services/search/jobs/100.1</id>"), Str::npos) << own->body();
  EXPECT_EQ(own->body().find("100.2"), Str::npos);
  EXPECT_EQ(own->body().find("hidden"), Str::npos);
  EXPECT_EQ(own->body().find("100.3"), Str::npos);
  // POST without "search" is the feed as well.
  auto post = call("POST", "/search/jobs", "count=1");
  EXPECT_EQ(post->status(), 200);
  EXPECT_NE(post->body().find("jobs/100.1</id>"), Str::npos);
  EXPECT_TRUE(started.empty());
  perms.perms->denied.clear();
  Str all = call("GET", "/search/jobs")->body();
  size_t newer = all.find("jobs/100.2</id>"), older = all.find("jobs/100.1</id>");
  ASSERT_NE(newer, Str::npos);
  ASSERT_NE(older, Str::npos);
  EXPECT_LT(newer, older);
  EXPECT_EQ(call("GET", "/search/jobs/100.2", "", "alice")->status(), 200);
}

TEST_F(DispatchSearchTest, StatusEntryReportsMarkersAndExpiry) {
  Str body = call("GET", "/search/jobs/100.1")->body();
  for (const char* line : {"ttl=60\n", "expired=0\n", "start=100.500\n", "cursor=970\n", "sid=100.1\n", "paused=0\n",
                           "finalized=0\n", "done=1\n", "count=4\n", "error=\n"})
    EXPECT_NE(body.find(line), Str::npos) << line << body;
  EXPECT_NE(body.find("<title>search error</title>"), Str::npos);
  EXPECT_NE(body.find("<author><name>alice</name></author>"), Str::npos);

  // Quiet for longer than its ttl: expired, unless saved.
  struct timeval old[2] = {{1000, 0}, {1000, 0}};
  ASSERT_EQ(utimes((root / "100.1/status.csv").c_str(), old), 0);
  body = call("GET", "/search/jobs/100.1")->body();
  EXPECT_NE(body.find("expired=1\n"), Str::npos) << body;
  EXPECT_NE(body.find("mtime=1000\n"), Str::npos) << body;
  call("POST", "/search/jobs/100.1/control", "action=save");
  call("POST", "/search/jobs/100.1/control", "action=pause");
  call("POST", "/search/jobs/100.1/control", "action=finalize");
  body = call("GET", "/search/jobs/100.1")->body();
  for (const char* line : {"expired=0\n", "paused=1\n", "finalized=1\n"})
    EXPECT_NE(body.find(line), Str::npos) << line << body;
  // touch starts the ttl clock again.
  EXPECT_NE(call("POST", "/search/jobs/100.1/control", "action=touch")->body().find("touched"), Str::npos);
  EXPECT_EQ(call("GET", "/search/jobs/100.1")->body().find("mtime=1000\n"), Str::npos);
}

TEST_F(DispatchSearchTest, ControlActionsSetAndClearMarkers) {
  struct Step {
    const char* body;
    int status;
    const char* text;
    const char* marker;
    bool present;
  };
  const Step steps[] = {
      {"action=pause", 200, "Search job paused.", "pause", true},
      {"action=pause", 200, "Search job paused.", "pause", true},
      {"action=unpause", 200, "Search job resumed.", "pause", false},
      {"action=unpause", 200, "Search job resumed.", "pause", false},
      {"action=save", 200, "Search job saved.", "save", true},
      {"action=unsave", 200, "Search job no longer saved.", "save", false},
      {"action=finalize", 200, "Search job finalized.", "finalize", true},
      {"action=cancel", 200, "Search job cancelled.", "cancel", true},
      {"", 400, "Missing action.", "", false},
      {"action=pause&action=save", 400, "Only one action may be given.", "", false},
      {"action=explode", 400, "Unknown action;", "", false},
  };
  for (const Step& s : steps) {
    auto r = call("POST", "/search/jobs/100.1/control", s.body);
    EXPECT_EQ(r->status(), s.status) << s.body;
    EXPECT_NE(r->body().find(s.text), Str::npos) << s.body << r->body();
    if (*s.marker) {
      EXPECT_EQ((root / "100.1" / s.marker).exists(), s.present) << s.body;
    }
  }
  // An action in the query and another in the body are two actions.
  EXPECT_EQ(call("POST", "/search/jobs/100.1/control?action=pause", "action=save")->status(), 400);
  auto del = call("DELETE", "/search/jobs/100.1");
  EXPECT_EQ(del->status(), 200);
  EXPECT_NE(del->body().find("<msg type=\"INFO\">Search job cancelled.</msg>"), Str::npos) << del->body();
}

TEST_F(DispatchSearchTest, RowParametersAreCheckedWithTheirTexts) {
  check(this,
        {
            {"GET", "/search/jobs/100.1/results?output_mode=yaml", "", 400, "Invalid output_mode"},
            {"GET", "/search/jobs/100.1/results?offset=x", "", 400, "Invalid offset"},
            {"GET", "/search/jobs/100.1/results?count=-1", "", 400, "Invalid count"},
            {"GET", "/search/jobs/100.1/results?count=6", "", 400,
             "Requested count (6) exceeds limit specified in limits.conf (5)"},
            {"GET", "/search/jobs/100.1/results?field_list=a,,b", "", 400, "Invalid field_list"},
            {"GET", "/search/jobs/100.1/events?segmentation=words", "", 400, "Invalid segmentation"},
            {"GET", "/search/jobs/100.1/events?time_format=plain", "", 400, "Invalid time_format"},
            {"GET", "/search/jobs/100.1/events?start_time=soon", "", 400, "Invalid start_time"},
            {"GET", "/search/jobs/100.1/events?end_time=1x", "", 400, "Invalid end_time"},
            {"GET", "/search/jobs/100.1/timeline?time_format=", "", 400, "Invalid time_format"},
            {"GET", "/search/jobs/100.1/summary?top_count=0", "", 400, "Invalid top_count"},
        },
        [this](const Expect& e) { return call(e.method, e.target, e.body); });
}

TEST_F(DispatchSearchTest, ResultsAndEventsPageAcrossFilesAndTimes) {
  // target -> raw output (204 when empty)
  const std::vector<std::pair<const char*, const char*>> table = {
      {"results?output_mode=raw", "r0\nr1\nr2\n"},
      {"results?output_mode=raw&offset=1&count=1", "r1\n"},
      {"results?output_mode=raw&offset=-2", "r1\nr2\n"},
      {"results?output_mode=raw&count=0", "r0\nr1\nr2\n"},
      {"results?output_mode=raw&offset=3", ""},
      {"events?output_mode=raw", "e1000\ne990\ne980\ne970\n"},
      {"events?output_mode=raw&offset=1&count=2", "e990\ne980\n"},
      {"events?output_mode=raw&offset=-1", "e970\n"},
      {"events?output_mode=raw&start_time=975&end_time=990", "e980\n"},
      {"events?output_mode=raw&time_format=%25Y&start_time=1970", "e1000\ne990\ne980\ne970\n"},
      {"events?output_mode=raw&start_time=2000", ""},
  };
  for (const auto& [target, expected] : table) {
    auto r = call("GET", Str("/search/jobs/100.1/") + target);
    EXPECT_EQ(r->status(), *expected ? 200 : 204) << target;
    EXPECT_EQ(std::string(r->body()), expected) << target;
  }
  EXPECT_EQ(call("GET", "/search/jobs/100.1/results?output_mode=csv&field_list=n,host&count=2")->body(),
            "n,host\n1,a\n2,b\n");
  auto json = call("GET", "/search/jobs/100.1/events?output_mode=json&count=1&field_list=host");
  EXPECT_EQ(json->body(), "[\n\t{\n\t\t\"host\": \"a\"\n\t}\n]");
  EXPECT_EQ(json->contentType(), "application/json");
  // A job that has not finished has no results yet.
  EXPECT_EQ(call("GET", "/search/jobs/100.2/results", "", "bob")->status(), 204);
  EXPECT_EQ(call("GET", "/search/jobs/100.2/events", "", "bob")->status(), 204);
}

TEST_F(DispatchSearchTest, TimelineAndSummaryDocuments) {
  EXPECT_EQ(call("GET", "/search/jobs/100.1/timeline")->body(),
            "<timeline c='4' cursor='970'>\n"
            "\t<bucket c='1' t='960' d='20' f='1'>1</bucket>\n"
            "\t<bucket c='3' t='980' d='20.500' f='0'>3</bucket>\n"
            "</timeline>\n");
  EXPECT_EQ(call("GET", "/search/jobs/100.1/summary?top_count=2")->body(),
            "<summary start_time='970' end_time='1000'>\n"
            "\t<field k='host' c='4' dc='3' exact='1'>\n"
            "\t\t<tags>\n\t\t\t<tag c='3'>web</tag>\n\t\t</tags>\n"
            "\t\t<modes>\n"
            "\t\t\t<value c='2' exact='1'><text>a</text></value>\n"
            "\t\t\t<value c='1' exact='1'><text>b</text></value>\n"
            "\t\t</modes>\n\t</field>\n"
            "\t<field k='n' c='4' dc='4' exact='1'>\n"
            "\t\t<min>1</min>\n\t\t<max>7</max>\n\t\t<mean>3.000000</mean>\n\t\t<stdev>2.449490</stdev>\n"
            "\t\t<modes>\n\t\t</modes>\n\t</field>\n"
            "</summary>\n");
  // A job without a timeline file yet has an empty timeline.
  EXPECT_EQ(call("GET", "/search/jobs/100.2/timeline", "", "bob")->body(), "<timeline c='0' cursor='0'>\n</timeline>\n");
}

TEST_F(DispatchSearchTest, PostStartsAJobWithLimitsReplacedByParameters) {
  auto r = call("POST", "/search/jobs", "search=search%20error");
  ASSERT_EQ(r->status(), 201) << r->body();
  ASSERT_EQ(started.size(), 1u);
  const DispatchSearch::JobRequest& j = started[0];
  EXPECT_EQ(r->body(), "<?xml version='1.0'?>\n<response><sid>" + j.sid + "</sid></response>");
  EXPECT_EQ(resttest::headerOf(*r, "Location"), "/services/search/jobs/" + j.sid);
  EXPECT_EQ(j.dir, root / j.sid);
  EXPECT_TRUE(j.dir.isDir());
  EXPECT_EQ(j.search, "search error");
  EXPECT_EQ(j.user, "alice");
  EXPECT_EQ(std::make_tuple(j.statusBuckets, j.ttl, j.maxCount, j.eventTyping), std::make_tuple(7L, 50L, 20L, false));
  EXPECT_EQ(j.setStart + "|" + j.setEnd, "|");

  call("POST", "/search/jobs",
       "search=x&status_buckets=0&timeout=9&max_count=3&with_event_types=1&start_time=10&end_time=20.5");
  ASSERT_EQ(started.size(), 2u);
  EXPECT_EQ(std::make_tuple(started[1].statusBuckets, started[1].ttl, started[1].maxCount, started[1].eventTyping),
            std::make_tuple(0L, 9L, 3L, true));
  EXPECT_EQ(started[1].setStart + "|" + started[1].setEnd, "10|20.500");
  EXPECT_NE(started[0].sid, started[1].sid);

  // The starter's refusal is the reply and leaves no directory behind.
  refuse = "Unknown search command: nosuch.";
  auto bad = call("POST", "/search/jobs", "search=nosuch");
  EXPECT_EQ(bad->status(), 400);
  EXPECT_NE(bad->body().find(refuse), Str::npos);
  EXPECT_FALSE(started.back().dir.exists());
}

TEST_F(DispatchSearchTest, PostParametersAreCheckedBeforeAnyJobStarts) {
  check(this,
        {
            {"POST", "/search/jobs", "search=x&time_format=none", 400, "Invalid time_format"},
            {"POST", "/search/jobs", "search=x&start_time=yesterday", 400, "Invalid start_time"},
            {"POST", "/search/jobs", "search=x&end_time=", 400, "Invalid end_time"},
            {"POST", "/search/jobs", "search=x&status_buckets=-1", 400, "Invalid status_buckets"},
            {"POST", "/search/jobs", "search=x&timeout=ten", 400, "Invalid timeout"},
            {"POST", "/search/jobs", "search=x&max_count=0", 400, "Invalid max_count"},
            {"POST", "/search/jobs", "search=x&with_event_types=yes", 400, "Invalid with_event_types"},
        },
        [this](const Expect& e) { return call(e.method, e.target, e.body); });
  EXPECT_TRUE(started.empty());
}

// The service's handler: a real job over a CSV file, followed through its
// status entry to its results, then steered and listed.
TEST_F(DispatchSearchTest, RealJobRunsToItsResults) {
  if (MainThread::instance() == nullptr) new MainThread();  // lives until exit
  SearchCommands::registerAll();
  write(home().path() / "var/run/velmor/jobrows.csv", "host,n\na,1\nb,2\na,3\n");
  DispatchSearch service;
  auto run = [&](const Str& method, const Str& target, const Str& body = "") {
    auto req = makeRequest(method, "/services" + target, {}, body);
    req->setUser("alice");
    FdConnectionData conn;
    return std::unique_ptr<HTTPReply>(service.handleRequest(conn, req.get(), req->path().substr(9), *stanza));
  };
  auto bad = run("POST", "/search/jobs", "search=%7C%20nosuchcommand");
  EXPECT_EQ(bad->status(), 400) << bad->body();

  auto made = run("POST", "/search/jobs", "search=%7C%20inputcsv%20jobrows.csv%20%7C%20stats%20count%20by%20host");
  ASSERT_EQ(made->status(), 201) << made->body();
  Str sid = resttest::headerOf(*made, "Location").substr(std::string("/services/search/jobs/").size());
  // Bounded wait for the job's own thread to finish.
  Str entry;
  for (int i = 0; i < 3000 && entry.find("done=1\n") == Str::npos; ++i) {
    usleep(10000);
    entry = run("GET", "/search/jobs/" + sid)->body();
  }
  ASSERT_NE(entry.find("done=1\n"), Str::npos) << entry;
  EXPECT_NE(entry.find("error=\n"), Str::npos) << entry;
  EXPECT_EQ(std::string(run("GET", "/search/jobs/" + sid + "/results?output_mode=csv")->body()),
            "count,host\n2,a\n1,b\n");
  EXPECT_EQ(run("POST", "/search/jobs/" + sid + "/control", "action=save")->status(), 200);
  EXPECT_NE(run("GET", "/search/jobs")->body().find("jobs/" + sid + "</id>"), Str::npos);
  DispatchThread::stopAll(30);
  MainThread::instance()->reapFinished();
}

std::string shell(const std::string& cmd) {
  std::string out;
  if (FILE* f = popen(cmd.c_str(), "r")) {
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
    pclose(f);
  }
  return out;
}

// Over the wire with the shipped restmap stanza: a logged-in client gets the
// help, a 201 with its Location header, a 204, a 404 and a control message.
TEST_F(DispatchSearchTest, ShippedStanzaServesJobsOverHttp) {
  if (MainThread::instance() == nullptr) new MainThread();  // lives until exit
  std::ifstream in(VELMOR_SOURCE_DIR "/etc/bundles/default/restmap.conf");
  std::stringstream restmap;
  restmap << in.rdbuf();
  home().writeConf("restmap", restmap.str());
  auto backend = std::make_shared<resttest::FakeBackend>();
  HTTPAuthManager auth(3600);
  auth.setBackend(backend);
  HTTPRestDispatcher disp(auth);
  disp.registerHandler("search", &handler);
  PropertyPages pages("restmap");
  pages.updateConfigs();
  ASSERT_TRUE(disp.loadConfig("restmap", &pages));
  struct ServerGuard {
    EventLoopThread loop{"jobs-test-loop"};
    HTTPServer server;
    ~ServerGuard() {
      server.handleShutdown();
      loop.stop();
    }
  } g;
  g.loop.start();
  g.server.setRequestHandler(&disp);
  HTTPServerConfig cfg;
  cfg.ports.push_back(HTTPServerPort{0, false});
  ASSERT_TRUE(g.server.init(cfg));
  ASSERT_TRUE(g.server.go(&g.loop));
  const std::string base = "http://127.0.0.1:" + std::to_string(g.server.boundPort(0)) + "/services";
  const std::string curl = "curl -s -m 10 -w ' HTTP%{http_code}' ";
  std::string login =
      shell(curl + "-d username=alice --data-urlencode 'password=wonder land' " + base + "/auth/login");
  size_t at = login.find("<sessionKey>");
  ASSERT_NE(at, std::string::npos) << login;
  const std::string authed = curl + "-H 'Authorization: Velmor " + login.substr(at + 12, 32) + "' ";

  EXPECT_NE(shell(authed + base + "/search").find("sample forms"), std::string::npos);
  std::string made = shell(authed + "-D - -d search=x " + base + "/search/jobs");
  ASSERT_EQ(started.size(), 1u) << made;
  EXPECT_NE(made.find("Location: /services/search/jobs/" + started[0].sid + "\r\n"), std::string::npos) << made;
  EXPECT_NE(made.find("<sid>" + started[0].sid + "</sid></response> HTTP201"), std::string::npos) << made;
  EXPECT_EQ(started[0].user, "alice");
  EXPECT_NE(shell(authed + "'" + base + "/search/jobs/100.1/results?offset=3'").find(" HTTP204"), std::string::npos);
  std::string unknown = shell(authed + base + "/search/jobs/999.1");
  EXPECT_NE(unknown.find("Unknown search id."), std::string::npos) << unknown;
  EXPECT_NE(unknown.find(" HTTP404"), std::string::npos) << unknown;
  EXPECT_NE(shell(authed + "-d action=pause " + base + "/search/jobs/100.1/control").find("paused.</msg>"),
            std::string::npos);
  EXPECT_TRUE((root / "100.1/pause").exists());
  EXPECT_NE(shell(curl + base + "/search/jobs").find("HTTP401"), std::string::npos);
}

}  // namespace
