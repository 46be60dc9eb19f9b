// Saved searches and event types over REST through the real handler and the
// real store in a scratch home: create, list, edit, rename and delete with
// their texts and statuses, the store's refusals mapped to statuses, output
// modes, dispatch through the jobs handler (a recording starter, and a real
// job whose rows equal those of posting the text), and the history of
// scheduled runs.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <cstring>
#include <functional>
#include <sstream>

#include "../../framework/rest/RestTestSupport.h"
#include "../SearchTestUtil.h"
#include "framework/SavedVelmor.h"
#include "framework/SavedVelmorManager.h"
#include "framework/http/FdConnectionData.h"
#include "framework/http/HTTPReply.h"
#include "search/SearchResults.h"
#include "search/dispatch/DispatchDirs.h"
#include "search/dispatch/DispatchSearch.h"
#include "search/dispatch/DispatchThread.h"
#include "search/dispatch/SavedSearchScheduler.h"
#include "search/dispatch/SavedSearchesHandler.h"
#include "search/processors/SearchCommands.h"
#include "util/MainThread.h"

using resttest::makeRequest;

namespace {

searchtest::ScratchHome& home() {
  static searchtest::ScratchHome* h = [] {
    auto* s = new searchtest::ScratchHome;
    std::ifstream in(VELMOR_SOURCE_DIR "/etc/bundles/default/strings.conf");
    std::stringstream text;
    text << in.rdbuf();
    s->writeConf("strings", text.str());
    s->writeConf("limits", "[search]\nstatus_buckets = 0\nttl = 50\nmax_count = 20\n");
    (s->path() / "etc/bundles/local").mkdir_p();
    return s;
  }();
  return *h;
}

// The text of an XML body with its entities resolved.
std::string unescaped(const std::string& xml) {
  static const std::pair<const char*, const char*> kEntities[] = {
      {"&apos;", "'"}, {"&quot;", "\""}, {"&lt;", "<"}, {"&gt;", ">"}, {"&amp;", "&"}};
  std::string out = xml;
  for (const auto& [entity, ch] : kEntities)
    for (size_t at = out.find(entity); at != std::string::npos; at = out.find(entity, at + 1))
      out.replace(at, strlen(entity), ch);
  return out;
}

class SavedSearchesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    home();
    for (const char* f : {"savedsearches.conf", "eventtypes.conf"}) (home().path() / "etc/bundles/local" / f).unlink();
    SavedVelmorManager::instance().reload();
    root = home().path() / "var/run/velmor/dispatch";
    root.removeRecursive();
    root.mkdir_p();
    SearchCommands::registerAll();
  }

  std::unique_ptr<HTTPReply> call(const Str& method, const Str& target, const Str& body = "",
                                  const Str& user = "alice") {
    auto req = makeRequest(method, "/services" + target, {}, body);
    req->setUser(user);
    FdConnectionData conn;
    return std::unique_ptr<HTTPReply>(saved.handleRequest(conn, req.get(), req->path().substr(9), *stanza));
  }

  struct Step {
    const char* method;
    const char* target;
    const char* body;
    const char* user;
    int status;
    const char* fragment;
  };
  void run(const std::vector<Step>& steps) {
    for (const Step& s : steps) {
      auto r = call(s.method, s.target, s.body, s.user);
      EXPECT_EQ(r->status(), s.status) << s.method << " " << s.target << " " << s.body << "\n" << r->body();
      EXPECT_NE(unescaped(r->body()).find(s.fragment), Str::npos)
          << s.method << " " << s.target << " " << s.body << "\nwants: " << s.fragment << "\n" << r->body();
    }
  }

  resttest::PermissionsGuard perms;
  Pathname root;
  std::vector<DispatchSearch::JobRequest> started;
  DispatchSearch jobs{home().path() / "var/run/velmor/dispatch",
                      [this](const DispatchSearch::JobRequest& j, Str&) {
                        started.push_back(j);
                        return true;
                      }};
  SavedSearchesHandler saved{jobs, home().path() / "var/run/velmor/dispatch"};
  std::shared_ptr<RestMapData> stanza = [] {
    PropertiesMap props;
    props.put("match", "^/saved/");
    Str err;
    return RestMapData::fromStanza("saved:searches", props, err);
  }();
};

TEST_F(SavedSearchesTest, CreateListEditRenameDeleteWithTextsAndStatuses) {
  run({
      {"POST", "/saved/searches", "query=x", "alice", 400, "No name specified"},
      {"POST", "/saved/searches", "name=errs&query=search%20error&tags=web%20ops", "alice", 201, "<title>errs</title>"},
      {"POST", "/saved/searches", "name=errs&query=again", "alice", 409, "A saved search named 'errs' already exists"},
      {"POST", "/saved/searches", "name=nq", "alice", 400, "No query specified"},
      {"POST", "/saved/searches", "name=b&query=x&enableSched=1&schedule=61%20*%20*%20*%20*", "alice", 400,
       "Invalid schedule '61 * * * *'"},
      {"POST", "/saved/searches", "name=b&query=x&enableSched=1", "alice", 400, "Invalid schedule '': it is empty"},
      {"POST", "/saved/searches", "name=b&query=x&enableSched=maybe", "alice", 400,
       "Invalid value for 'enableSched'; use true or false."},
      {"POST", "/saved/searches", "name=b&query=x&colour=red", "alice", 400, "Unknown parameter 'colour'."},
      {"POST", "/saved/searches", "name=b&query=x&userid=bob", "alice", 400, "The field 'userid' is kept by the store"},
      {"GET", "/saved/searches/errs", "", "alice", 200, "query=search error\n"},
      {"GET", "/saved/searches/errs", "", "alice", 200, "tags=web ops\n"},
      {"GET", "/saved/searches/nosuch", "", "alice", 404, "Could not find a saved search named 'nosuch'."},
      {"POST", "/saved/searches/errs", "description=mine", "alice", 200, "description=mine\n"},
      {"POST", "/saved/searches/errs", "query=", "alice", 400, "No query specified"},
      {"POST", "/saved/searches/nosuch", "description=x", "alice", 404, "Could not find a saved search"},
      {"POST", "/saved/searches", "name=other&search=search%20b", "alice", 201, "query=search b\n"},
      {"POST", "/saved/searches/errs/rename", "newName=other", "alice", 409,
       "Saved search with name 'other' already exists, failed to rename search"},
      {"POST", "/saved/searches/errs/rename", "", "alice", 400, "No newName specified"},
      {"POST", "/saved/searches/nosuch/rename", "newName=z", "alice", 404, "named 'nosuch'"},
      {"POST", "/saved/searches/errs/rename", "newName=errors", "alice", 200, "description=mine\n"},
      {"GET", "/saved/searches/errs", "", "alice", 404, "named 'errs'"},
      {"GET", "/saved/searches/errors", "", "alice", 200, "<author><name>alice</name></author>"},
      {"DELETE", "/saved/searches/errors", "", "alice", 200, "Saved search 'errors' deleted."},
      {"DELETE", "/saved/searches/errors", "", "alice", 404, "named 'errors'"},
      {"GET", "/saved/searches?output_mode=raw", "", "alice", 400, "Invalid output_mode"},
      {"GET", "/saved", "", "alice", 200, "sample forms"},
      {"GET", "/saved/bogus", "", "alice", 404, "Unknown endpoint."},
      {"PUT", "/saved/searches/other", "", "alice", 404, "Unknown endpoint."},
      {"GET", "/saved/searches/other/rename", "", "alice", 404, "Unknown endpoint."},
      {"GET", "/saved/searches/other/history/x", "", "alice", 404, "Unknown endpoint."},
  });
  auto made = call("POST", "/saved/searches", "name=with%20blank&query=search%20x");
  EXPECT_EQ(resttest::headerOf(*made, "Location"), "/services/saved/searches/with%20blank");
  EXPECT_EQ(std::string(call("GET", "/saved/searches?output_mode=csv")->body()),
            "name,query,description,schedule,enableSched,nextrun,owner,tags,isGlobal\n"
            "other,\"search b\",\"\",\"\",false,\"\",alice,\"\",false\n"
            "\"with blank\",\"search x\",\"\",\"\",false,\"\",alice,\"\",false\n");
  Str feed = call("GET", "/saved/searches")->body();
  EXPECT_NE(feed.find("<title>Saved searches</title>"), Str::npos) << feed;
  EXPECT_NE(feed.find("<id>http://127.0.0.1/services/saved/searches/with%20blank</id>"), Str::npos) << feed;
}

TEST_F(SavedSearchesTest, ScheduledSearchShowsItsNextRun) {
  auto r = call("POST", "/saved/searches", "name=s&query=x&schedule=*/5%20*%20*%20*%20*&enableSched=yes");
  ASSERT_EQ(r->status(), 201) << r->body();
  Str json = call("GET", "/saved/searches/s?output_mode=json")->body();
  EXPECT_NE(json.find("\"enableSched\": \"true\""), Str::npos) << json;
  EXPECT_NE(json.find("\"schedule\": \"*/5 * * * *\""), Str::npos) << json;
  size_t at = json.find("\"nextrun\": \"");
  ASSERT_NE(at, Str::npos) << json;
  long next = atol(json.c_str() + at + 12);
  time_t now = time(nullptr);
  EXPECT_GT(next, now);
  EXPECT_LE(next, now + 5 * 60);
  EXPECT_EQ(next % 300, 0);
}

// The store's permission texts come back word for word, as 401 like the
// dispatcher's own refusals; other users' private searches are not seen.
TEST_F(SavedSearchesTest, RefusalsOfTheStoreKeepTheirWords) {
  run({
      {"POST", "/saved/searches", "name=mine&query=x", "alice", 201, "<title>mine</title>"},
      {"POST", "/saved/searches", "name=shared&query=y&isGlobal=true", "alice", 201, "isGlobal=true"},
      {"GET", "/saved/searches/mine", "", "bob", 404, "named 'mine'"},
      {"DELETE", "/saved/searches/mine", "", "bob", 404, "named 'mine'"},
      {"POST", "/saved/searches/mine/dispatch", "", "bob", 404, "named 'mine'"},
      {"GET", "/saved/searches/shared", "", "bob", 200, "query=y\n"},
  });
  EXPECT_EQ(call("GET", "/saved/searches?output_mode=csv", "", "bob")->body().find("mine"), Str::npos);

  perms.perms->denied = {SavedVelmorManager::kCapEditLocalSearch};
  auto r = call("POST", "/saved/searches/shared", "description=z", "bob");
  EXPECT_EQ(r->status(), 401) << r->body();
  EXPECT_NE(unescaped(r->body()).find("<msg type=\"WARN\">You don't have permission  to "), Str::npos) << r->body();

  perms.perms->denied = {SavedVelmorManager::kCapScheduleSearch};
  r = call("POST", "/saved/searches/mine", "schedule=*%20*%20*%20*%20*&enableSched=true");
  EXPECT_EQ(r->status(), 401) << r->body();
  EXPECT_NE(unescaped(r->body()).find("You do not have sufficient privileges to change search schedules."), Str::npos)
      << r->body();

  perms.perms->denied = {SavedVelmorManager::kCapEditUserSearches};
  r = call("POST", "/saved/searches", "name=new&query=x");
  EXPECT_EQ(r->status(), 401) << r->body();
  r = call("DELETE", "/saved/searches/mine");
  EXPECT_EQ(r->status(), 401) << r->body();
  perms.perms->denied.clear();
  EXPECT_EQ(call("GET", "/saved/searches/mine")->status(), 200);
}

TEST_F(SavedSearchesTest, EventTypesHaveTheirOwnSpace) {
  run({
      {"POST", "/saved/eventtypes", "name=http_error&search=status%3E%3D500", "alice", 201, "query=status>=500\n"},
      {"POST", "/saved/eventtypes", "name=http_error&search=x", "alice", 409, "An event type named 'http_error'"},
      // The same name is free among saved searches.
      {"POST", "/saved/searches", "name=http_error&query=search%20x", "alice", 201, "<title>http_error</title>"},
      {"GET", "/saved/eventtypes/nosuch", "", "alice", 404, "Could not find an event type named 'nosuch'."},
      {"POST", "/saved/eventtypes/http_error/dispatch", "", "alice", 404, "Unknown endpoint."},
      {"GET", "/saved/eventtypes/http_error/history", "", "alice", 404, "Unknown endpoint."},
      {"POST", "/saved/eventtypes/http_error/rename", "newName=server_error", "alice", 200, "<title>server_error</title>"},
      {"DELETE", "/saved/eventtypes/server_error", "", "alice", 200, "Event type 'server_error' deleted."},
  });
  perms.perms->denied = {SavedVelmorManager::kCapEditEventtype};
  auto r = call("POST", "/saved/eventtypes", "name=e&search=x");
  EXPECT_EQ(r->status(), 401) << r->body();
  perms.perms->denied.clear();
  call("POST", "/saved/eventtypes", "name=e&search=x&description=d");
  EXPECT_EQ(std::string(call("GET", "/saved/eventtypes?output_mode=csv")->body()),
            "name,query,description,owner,tags,isGlobal\ne,x,d,alice,\"\",false\n");
  EXPECT_NE(call("GET", "/saved/searches?output_mode=csv")->body().find("http_error"), Str::npos);
}

TEST(SavedSearchesStatus, RefusalTextsMapToStatuses) {
  const std::pair<const char*, int> table[] = {
      {"No name specified", 400},
      {"No isEventType specified", 400},
      {"You don't have permission  to edit the saved search 'x' belongs to another user", 401},
      {"You do not have sufficient privileges to change search schedules.", 401},
      {"Saved search with name 'b' already exists, failed to rename search", 409},
      {"Could not find search='a' to rename", 404},
      {"Could not find search='a' to delete", 404},
      {"Unable to save search: 'a'.  It was not saved.", 500},
      {"Unable to delete search='a'", 500},
      {"The search='a' is shipped with the system and cannot be deleted", 400},
      {"something new", 400},
  };
  for (const auto& [text, status] : table) EXPECT_EQ(SavedSearchesHandler::statusOfError(text), status) << text;
}

TEST_F(SavedSearchesTest, DispatchPostsTheQueryAsTheCallersJob) {
  call("POST", "/saved/searches", "name=errs&query=error%20host%3Da&isGlobal=1");
  call("POST", "/saved/searches", "name=piped&query=%7C%20inputcsv%20x.csv&isGlobal=true");
  struct Case {
    const char* target;
    const char* body;
    int status;
    const char* fragment;
    const char* search;  // what the job runs, when one starts
    const char* setStart;
  };
  const Case cases[] = {
      {"/saved/searches/errs/dispatch", "", 201, "<sid>", "search error host=a", ""},
      {"/saved/searches/piped/dispatch", "", 201, "<sid>", "| inputcsv x.csv", ""},
      {"/saved/searches/errs/dispatch", "dispatch.earliest_time=100&dispatch.latest_time=200", 201, "<sid>",
       "search error host=a", "100"},
      {"/saved/searches/errs/dispatch", "dispatch.earliest_time=yesterday", 400, "Invalid start_time.", nullptr, ""},
      {"/saved/searches/errs/dispatch", "dispatch.max_count=0", 400, "Invalid max_count", nullptr, ""},
      {"/saved/searches/errs/dispatch", "earliest_time=1", 400, "Unknown parameter 'earliest_time'.", nullptr, ""},
      {"/saved/searches/nosuch/dispatch", "", 404, "named 'nosuch'", nullptr, ""},
  };
  for (const Case& c : cases) {
    started.clear();
    auto r = call("POST", c.target, c.body, "bob");
    EXPECT_EQ(r->status(), c.status) << c.target << " " << c.body << "\n" << r->body();
    EXPECT_NE(unescaped(r->body()).find(c.fragment), Str::npos) << c.body << "\n" << r->body();
    if (c.search == nullptr) {
      EXPECT_TRUE(started.empty()) << c.body;
      continue;
    }
    ASSERT_EQ(started.size(), 1u) << c.body;
    EXPECT_EQ(started[0].search, c.search);
    EXPECT_EQ(started[0].user, "bob");
    EXPECT_EQ(started[0].setStart, c.setStart);
    EXPECT_EQ(started[0].ttl, 50);
    EXPECT_EQ(resttest::headerOf(*r, "Location"), "/services/search/jobs/" + started[0].sid);
  }
}

TEST(SavedSearchesJobText, StoredQueriesBecomeJobTexts) {
  SearchCommands::registerAll();
  const std::pair<const char*, const char*> table[] = {
      {"search error", "search error"},
      {"error", "search error"},
      {"index=main error | stats count", "search index=main error | stats count"},
      {"| inputcsv x.csv", "| inputcsv x.csv"},
      {"  stats count  ", "stats count"},
      {"Search error", "Search error"},
      {"", "search "},
  };
  for (const auto& [query, want] : table) EXPECT_EQ(SavedSearchScheduler::jobText(query), want) << query;
}

// A dispatched saved search counts what posting its text counts.
TEST_F(SavedSearchesTest, DispatchedJobEqualsPostedText) {
  if (MainThread::instance() == nullptr) new MainThread();  // lives until exit
  searchtest::writeAll(home().path() / "var/run/velmor/rows.csv", "host,n\na,1\nb,2\na,3\nc,4\na,5\n");
  DispatchSearch real;
  SavedSearchesHandler handler(real, DispatchDirs::dispatchRoot());
  FdConnectionData conn;
  auto send = [&](MRestHandler& h, const Str& method, const Str& target, const Str& body = "") {
    auto req = makeRequest(method, "/services" + target, {}, body);
    req->setUser("alice");
    return std::unique_ptr<HTTPReply>(h.handleRequest(conn, req.get(), req->path().substr(9), *stanza));
  };
  const Str text = "| inputcsv rows.csv | where n > 1 | stats count by host";
  ASSERT_EQ(send(handler, "POST", "/saved/searches", "name=r&query=" + HTTPRequest::urlEncode(text))->status(), 201);
  auto resultsOf = [&](const HTTPReply& made) {
    Str sid = resttest::headerOf(made, "Location").substr(std::string("/services/search/jobs/").size());
    Str entry;
    for (int i = 0; i < 3000 && entry.find("done=1\n") == Str::npos; ++i) {
      usleep(10000);
      entry = send(real, "GET", "/search/jobs/" + sid)->body();
    }
    EXPECT_NE(entry.find("done=1\n"), Str::npos) << entry;
    return std::string(send(real, "GET", "/search/jobs/" + sid + "/results?output_mode=csv")->body());
  };
  auto posted = send(real, "POST", "/search/jobs", "search=" + HTTPRequest::urlEncode(text));
  ASSERT_EQ(posted->status(), 201) << posted->body();
  auto dispatched = send(handler, "POST", "/saved/searches/r/dispatch");
  ASSERT_EQ(dispatched->status(), 201) << dispatched->body();
  std::string want = resultsOf(*posted);
  EXPECT_EQ(want, "count,host\n2,a\n1,b\n1,c\n");
  EXPECT_EQ(resultsOf(*dispatched), want);
  DispatchThread::stopAll(30);
  MainThread::instance()->reapFinished();
}

TEST_F(SavedSearchesTest, HistoryListsTheScheduledRunsOnDisk) {
  call("POST", "/saved/searches", "name=h&query=x");
  const char* header = "user,start,count,cursor,keywords,ttl,done,search,streaming,error,setStart,setEnd,startTime,endTime\n";
  struct Dir {
    Str sid;
    const char* status;  // null: no status file
  };
  const Dir dirs[] = {
      {SavedSearchScheduler::sidFor("alice", "h", 1000), "alice,1,7,,*,60,1,x,x,,,,,\n"},
      {SavedSearchScheduler::sidFor("alice", "h", 1060), "alice,1,0,,*,60,0,x,x,,,,,\n"},
      {SavedSearchScheduler::sidFor("alice", "h", 990), nullptr},
      {SavedSearchScheduler::sidFor("bob", "h", 1100), "bob,1,1,,*,60,1,x,x,,,,,\n"},  // another owner
      {SavedSearchScheduler::sidFor("alice", "h2", 1100), "alice,1,1,,*,60,1,x,x,,,,,\n"},
      {"1000.1", "alice,1,1,,*,60,1,x,x,,,,,\n"},
  };
  for (const Dir& d : dirs) {
    (root / d.sid).mkdir_p();
    if (d.status) searchtest::writeAll(root / d.sid / "status.csv", std::string(header) + d.status);
  }
  EXPECT_EQ(std::string(call("GET", "/saved/searches/h/history?output_mode=csv")->body()),
            "sid,time,done,count\n"
            "\"scheduler__alice__h_1060\",1060,0,0\n"
            "\"scheduler__alice__h_1000\",1000,1,7\n"
            "\"scheduler__alice__h_990\",990,0,\"\"\n");
  Str feed = call("GET", "/saved/searches/h/history")->body();
  EXPECT_NE(feed.find("<id>http://127.0.0.1/services/search/jobs/scheduler__alice__h_1060</id>"), Str::npos) << feed;
  EXPECT_EQ(call("GET", "/saved/searches/nosuch/history")->status(), 404);
}

}  // namespace
