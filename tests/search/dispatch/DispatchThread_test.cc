// Search jobs: a job's results equal the same search run straight through
// the streaming driver; status.csv tells the job's progress and end (also
// after faults); the markers pause, finalize and cancel steer it between
// chunks; the maximum time ends the reading; the job's user must have a
// valid session; a concurrent reader never sees a partial status.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <thread>

#include "../processors/CatalogueHome.h"
#include "../processors/RowTestUtil.h"
#include "framework/UserManager.h"
#include "search/SearchCancel.h"
#include "search/SearchFactory.h"
#include "search/SearchParser.h"
#include "search/dispatch/DispatchDirs.h"
#include "search/dispatch/DispatchThread.h"
#include "search/dispatch/StreamingSearch.h"
#include "search/dispatch/Timeliner.h"
#include "util/MainThread.h"
#include "util/ScopedFileStar.h"

namespace {

using rowtest::Row;

// What the producer gives and does, per test.
std::vector<Row> gRows;
size_t gChunk = 10;
Pathname gJobDir;                          // where the producer drops markers
std::map<size_t, std::string> gMarkerAt;   // chunk number -> marker file made after it
size_t gThrowAt = 0;                       // chunk number that fails (0: none)
double gFakeNow = 0;                       // advanced by one per chunk
std::vector<std::string> gUsersSeen;       // the thread's user at each chunk

// `jobrows`: gives gRows gChunk at a time, as the index reader does.
class JobRows : public SearchProcessor {
 public:
  explicit JobRows(const Str& n) : SearchProcessor(n) {}
  static SearchProcessor* create(const Str& n) { return new JobRows(n); }
  void parseArguments() override {}
  void execute(SearchResults& results, SearchResultsInfo& info) override {
    ++_calls;
    gFakeNow += 1;
    const UserContext* ctx = UserContext::current();
    gUsersSeen.push_back(ctx ? std::string(ctx->user) : "<none>");
    if (gThrowAt && _calls == gThrowAt) throw SearchProcessorException("the disk went away");
    results.free(false);
    size_t end = std::min(gRows.size(), _next + gChunk);
    rowtest::addRows(results, std::vector<Row>(gRows.begin() + long(_next), gRows.begin() + long(end)));
    _next = end;
    info.resultsComplete = _next >= gRows.size();
    auto m = gMarkerAt.find(_calls);
    if (m != gMarkerAt.end()) (gJobDir / m->second).openCreateOrReplace();
  }

 private:
  size_t _next = 0, _calls = 0;
};

// `typer` as the index side gives it: here it marks every row.
class TestTyper : public SearchProcessor {
 public:
  explicit TestTyper(const Str& n) : SearchProcessor(n) {}
  static SearchProcessor* create(const Str& n) { return new TestTyper(n); }
  void parseArguments() override {}
  void execute(SearchResults& results, SearchResultsInfo&) override {
    sr_index_t k = results.keyIndex("eventtype", true);
    for (SearchResult* r : results) r->setValue(k, Str("typed"));
  }
};

// Newest first, as read from an index: group g, number x, word w (not on
// every row), an hour between every 7 rows.
std::vector<Row> makeRows(size_t n) {
  std::mt19937 rng(5);
  std::vector<Row> rows;
  for (size_t i = 0; i < n; ++i) {
    long t = 1795000000 - long(i) * 3600 / 7;
    Row r = {{"g", "g" + std::to_string(rng() % 9)},
             {"x", std::to_string(static_cast<int>(rng() % 1000) - 300)},
             {"_time", std::to_string(t)}};
    if (i % 4 != 0) r.push_back({"w", "w" + std::to_string(rng() % 13)});
    rows.push_back(r);
  }
  return rows;
}

void setUp(size_t rows = 700, size_t chunk = 10) {
  rowtest::CatalogueHome::ensure();
  static bool registered = false;
  if (!registered) {
    SearchFactory::registerProcessor("jobrows", &JobRows::create, false);
    SearchFactory::registerProcessor("typer", &TestTyper::create, false);
    registered = true;
  }
  gRows = makeRows(rows);
  gChunk = chunk;
  gMarkerAt.clear();
  gThrowAt = 0;
  gFakeNow = 1000;
  gUsersSeen.clear();
}

Str newSid() {
  static int n = 0;
  return Str::fromFormat("test.%d", ++n);
}

Pathname makeJobDir(const Str& sid) {
  Pathname dir = DispatchDirs::dispatchDir(sid);
  dir.removeRecursive();
  dir.mkdir_p();
  gJobDir = dir;
  return dir;
}

std::map<std::string, std::string> statusOf(const Pathname& dir) {
  SearchResults st;
  std::map<std::string, std::string> out;
  if (!DispatchThread::readStatus(dir, st) || st.size() != 1) return out;
  for (const auto& [name, k] : st.getKeyMap()) out[name] = st.front()->getValue(k);
  return out;
}

std::vector<std::string> rowsOf(const Pathname& file) {
  SearchResults rs;
  rs.fromCSV(file);
  return rowtest::collect(rs);
}

struct Job {
  Pathname dir;
  bool evaluated = false;
  std::string error;
  std::map<std::string, std::string> status;
  std::vector<std::string> results;
  bool hasResults = false;
  SearchResultsInfo info;
  size_t pauseWaits = 0;
};

// Runs one job on the calling thread. `pauseCheck` is what a paused job
// does between looks at the marker (the default lifts the pause).
Job runJob(const std::string& search, DispatchOptions opts = {}, std::function<void(const Pathname&)> pauseCheck = {}) {
  Job job;
  Str sid = newSid();
  job.dir = makeJobDir(sid);
  DispatchThread t(job.dir, sid, search, opts);
  t.setClock([] { return gFakeNow; });
  t.setPauseWait([&] {
    ++job.pauseWaits;
    if (pauseCheck) pauseCheck(job.dir);
    (job.dir / "pause").unlink();
  });
  job.evaluated = t.evaluate();
  job.error = t.error();
  t.run();
  job.info = t.info();
  job.status = statusOf(job.dir);
  job.hasResults = (job.dir / "results.csv").exists();
  job.results = rowsOf(job.dir / "results.csv");
  return job;
}

// The same search through the streaming driver alone.
std::vector<std::string> runStraight(const std::string& search) {
  SearchResultsInfo info;
  info.cancelId = "straight";
  SearchCancel::instance()->start(info.cancelId);
  SearchResults rs;
  StreamingSearch s(SearchParser::parse(search, false), info);
  s.run(rs, info);
  SearchCancel::instance()->stop(info.cancelId);
  return rowtest::collect(rs);
}

TEST(DispatchThreadTest, ResultsEqualTheSameSearchRunStraight) {
  const char* searches[] = {
      "| jobrows",
      "| jobrows | stats count avg(x) dc(w) by g",
      "| jobrows | eval y=x*2 | where y > 0 | top limit=3 g",
      "| jobrows | sort -x | head 4",
      "| jobrows | head 25",
      "| inputcsv jobrows.csv | stats count by g",
  };
  for (long buckets : {0L, 30L}) {
    for (const char* search : searches) {
      setUp();
      // The same rows as a CSV file for `inputcsv`.
      SearchResults file;
      rowtest::addRows(file, gRows);
      file.toCSV(rowtest::CatalogueHome::ensure().path() / "var/run/velmor/jobrows.csv");
      std::vector<std::string> straight = runStraight(search);
      EXPECT_FALSE(straight.empty()) << search;
      setUp();
      DispatchOptions o;
      o.statusBuckets = buckets;
      Job job = runJob(search, o);
      ASSERT_TRUE(job.evaluated) << search << ": " << job.error;
      EXPECT_TRUE(job.hasResults) << search;
      EXPECT_EQ(job.results, straight) << search << " buckets " << buckets;
      EXPECT_EQ(job.status["done"], "1") << search;
      EXPECT_EQ(job.status["error"], "") << search;
      EXPECT_EQ(job.status["search"], search);
    }
  }
}

TEST(DispatchThreadTest, StatusTellsTheJobInItsFourteenColumns) {
  setUp(70, 10);
  DispatchOptions o;
  o.ttl = 77;
  o.setStart = "1794000000";
  Job job = runJob("| jobrows | stats count by g", o);
  // The header, in the order every reader relies on.
  ScopedFileStar f(fopen((job.dir / "status.csv").c_str(), "r"));
  Str header;
  ASSERT_TRUE(f.readline(header));
  EXPECT_EQ(header, "user,start,count,cursor,keywords,ttl,done,search,streaming,error,setStart,setEnd,startTime,endTime");
  EXPECT_EQ(job.status["count"], "70");
  EXPECT_EQ(job.status["ttl"], "77");
  EXPECT_EQ(job.status["keywords"], "*");
  EXPECT_EQ(job.status["setStart"], "1794000000");
  EXPECT_EQ(job.status["setEnd"], "");
  EXPECT_EQ(job.status["streaming"], "jobrows | prestats count by g");
  // Newest and oldest event read; the cursor is the oldest.
  EXPECT_EQ(job.status["startTime"], "1795000000");
  EXPECT_EQ(job.status["endTime"], std::to_string(1795000000 - 69L * 3600 / 7));
  EXPECT_EQ(job.status["cursor"], job.status["endTime"]);
  EXPECT_NE(job.status["start"], "");
}

// A search that returns events keeps max_count of them; its count is what a
// reader can page through, not every event that was read on the way there.
TEST(DispatchThreadTest, CountOfAnEventSearchIsWhatItKept) {
  setUp(70, 10);
  DispatchOptions o;
  o.maxCount = 25;
  Job capped = runJob("| jobrows", o);
  EXPECT_EQ(capped.results.size(), 25u);
  EXPECT_EQ(capped.status["count"], "25");
  Job whole = runJob("| jobrows");
  EXPECT_EQ(whole.results.size(), 70u);
  EXPECT_EQ(whole.status["count"], "70");
}

TEST(DispatchThreadTest, FaultsEndTheJobWithTheirText) {
  struct Case {
    const char* search;
    const char* setStart;
    size_t throwAt;
    bool evaluates;
    const char* error;
  } cases[] = {
      {"| jobrows | head -3", "", 0, false, "Error in 'head' command: Number of results must be a positive number!"},
      {"| jobrows", "the day after", 0, false, "Invalid start time: 'the day after'"},
      {"| jobrows | stats count", "", 3, true, "the disk went away"},
  };
  for (const Case& c : cases) {
    setUp();
    gThrowAt = c.throwAt;
    DispatchOptions o;
    o.setStart = c.setStart;
    Job job = runJob(c.search, o);
    EXPECT_EQ(job.evaluated, c.evaluates) << c.search;
    if (!c.evaluates) {
      EXPECT_EQ(job.error, c.error) << c.search;
    }
    EXPECT_EQ(job.status["done"], "1") << c.search;
    EXPECT_EQ(job.status["error"], c.error) << c.search;
    EXPECT_FALSE(job.hasResults) << c.search;
  }
  // Internal commands are refused: the text is the parser's own.
  setUp();
  std::string refused;
  try {
    delete SearchParser::parse("| jobrows | prestats count", false);
  } catch (const std::exception& e) {
    refused = e.what();
  }
  ASSERT_NE(refused, "");
  Job job = runJob("| jobrows | prestats count");
  EXPECT_FALSE(job.evaluated);
  EXPECT_EQ(job.status["error"], refused);
}

TEST(DispatchThreadTest, MarkersSteerTheJobBetweenChunks) {
  // finalize after chunk 3: the report covers what was read.
  setUp(700, 10);
  gMarkerAt[3] = "finalize";
  Job fin = runJob("| jobrows | stats count");
  EXPECT_EQ(fin.results, std::vector<std::string>{"count=30"});
  EXPECT_EQ(fin.status["done"], "1");
  EXPECT_EQ(fin.status["count"], "30");

  // cancel after chunk 3: stops at once, nothing more is written.
  setUp(700, 10);
  gMarkerAt[3] = "cancel";
  Job can = runJob("| jobrows | stats count");
  EXPECT_FALSE(can.hasResults);
  EXPECT_EQ(can.status["done"], "0");
  EXPECT_EQ(can.status["count"], "30");

  // pause after chunk 2: the job waits before reading on, with its status
  // showing where it stands; once lifted it reads everything.
  setUp(700, 10);
  gMarkerAt[2] = "pause";
  std::string countWhilePaused;
  Job paused = runJob("| jobrows | stats count", {}, [&](const Pathname& dir) {
    countWhilePaused = statusOf(dir)["count"];
  });
  EXPECT_EQ(paused.pauseWaits, 1u);
  EXPECT_EQ(countWhilePaused, "20");
  EXPECT_EQ(paused.results, std::vector<std::string>{"count=700"});
}

TEST(DispatchThreadTest, MaximumTimeEndsTheReadingWithAMessage) {
  setUp(700, 10);  // the fake clock moves a second per chunk
  DispatchOptions o;
  o.maxTime = 4;
  Job job = runJob("| jobrows | stats count", o);
  EXPECT_EQ(job.results, std::vector<std::string>{"count=40"});
  EXPECT_EQ(job.status["error"], "");
  ASSERT_EQ(job.info.messages.count(SearchResultsInfo::MSG_INFO), 1u);
  EXPECT_EQ(job.info.messages.at(SearchResultsInfo::MSG_INFO).back(),
            "Maximum search time limit reached (4 seconds).  Results may be incomplete.");
}

TEST(DispatchThreadTest, TheJobWorksForItsUserWhoseSessionMustBeValid) {
  class Backend : public MAuthenticationManager {
   public:
    bool good = true;
    int userLogin(const Str&, const Str&, Str&, Str&) override { return 0; }
    int getUserInfoByName(const Str&, userInformation&) override { return 0; }
    int getUserType(const Str&, std::set<Str>&) override { return 0; }
    int getUsers(const Str&, const Str&, std::vector<userInformation>&) override { return 0; }
    int getSearchFilter(const Str&, const Str&, std::set<Str>&) override { return 0; }
    int saveUser(const userInformation&, const Str&, Str&) override { return 0; }
    int deleteUser(const Str&, const Str&, Str&) override { return 0; }
    int checkSession(const Str&) override { return good ? 1 : 0; }
    Str getAuthSystem() const override { return "Velmor"; }
  };
  auto backend = std::make_shared<Backend>();
  auto old = UserManager::setAuthManager(backend);
  DispatchOptions o;
  o.user = "bob";
  setUp(30, 10);
  Job ok = runJob("| jobrows | stats count", o);
  EXPECT_EQ(ok.status["user"], "bob");
  EXPECT_EQ(ok.status["error"], "");
  EXPECT_EQ(gUsersSeen, (std::vector<std::string>{"bob", "bob", "bob"}));

  backend->good = false;
  setUp(30, 10);
  Job refused = runJob("| jobrows | stats count", o);
  EXPECT_EQ(refused.status["error"], "Unable to obtain a valid user context for dispatch thread");
  EXPECT_EQ(refused.status["done"], "1");
  EXPECT_FALSE(refused.hasResults);
  EXPECT_TRUE(gUsersSeen.empty());
  UserManager::setAuthManager(old);
}

TEST(DispatchThreadTest, EventFilesTimelineAndSummaryDescribeTheEvents) {
  setUp(700, 25);
  DispatchOptions o;
  o.statusBuckets = 20;
  o.eventTyping = true;
  Job job = runJob("| jobrows | stats count by g", o);
  ASSERT_EQ(job.status["error"], "");
  // Every event in the event files, in the order read, typed.
  SearchResults events;
  ASSERT_TRUE(Timeliner::readEvents(job.dir, 0, 0, 0, 0, events));
  ASSERT_EQ(events.size(), 700u);
  EXPECT_EQ(events.front()->getValue(events.keyIndex("eventtype")), "typed");
  EXPECT_TRUE((job.dir / "0.csv").exists());
  EXPECT_TRUE((job.dir / "675.csv").exists());
  // The timeline counts add up to the events, all buckets complete.
  SearchResults tl;
  ASSERT_TRUE(Timeliner::readTimeline(job.dir, tl));
  ASSERT_GT(tl.size(), 1u);
  EXPECT_LE(tl.size(), 20u);
  size_t sum = 0;
  for (SearchResult* r : tl) {
    sum += r->getValue(tl.keyIndex("count")).toLong(0);
    EXPECT_EQ(r->getValue(tl.keyIndex("complete")), "1");
  }
  EXPECT_EQ(sum, 700u);
  // The summary counts the field g on every event.
  SearchResults sm;
  ASSERT_TRUE(Timeliner::readSummary(job.dir, sm));
  bool sawG = false;
  for (SearchResult* r : sm)
    if (r->getValue(sm.keyIndex("key")) == "g" && r->getValue(sm.keyIndex("value")).empty()) {
      sawG = true;
      EXPECT_EQ(r->getValue(sm.keyIndex("count")), "700");
      EXPECT_EQ(r->getValue(sm.keyIndex("dc")), "9");
    }
  EXPECT_TRUE(sawG);

  // Without status buckets there are no event files.
  setUp(70, 10);
  Job plain = runJob("| jobrows | stats count by g");
  EXPECT_FALSE((plain.dir / "0.csv").exists());
  EXPECT_FALSE((plain.dir / "timeline.csv").exists());
}

TEST(DispatchThreadTest, AFinalizedJobLeavesTheUnreadBucketsIncomplete) {
  setUp(700, 10);
  gMarkerAt[35] = "finalize";
  DispatchOptions o;
  o.statusBuckets = 200;
  Job job = runJob("| jobrows", o);
  SearchResults tl;
  ASSERT_TRUE(Timeliner::readTimeline(job.dir, tl));
  double cursor = std::stod(job.status["cursor"]);
  size_t complete = 0, incomplete = 0;
  for (SearchResult* r : tl) {
    double et = r->getValue(tl.keyIndex("et")).toLong(0);
    bool done = r->getValue(tl.keyIndex("complete")) == "1";
    EXPECT_EQ(done, cursor < et) << et;
    (done ? complete : incomplete)++;
  }
  EXPECT_GT(complete, 0u);
  EXPECT_GT(incomplete, 0u);
  EXPECT_EQ(job.results.size(), 350u);
}

TEST(DispatchThreadTest, StartedJobsRunOnTheirThreadAndStopAllEndsThem) {
  // A concurrent reader of status.csv sees one whole row every time.
  setUp(700, 1);
  Str sid = newSid();
  Pathname dir = makeJobDir(sid);
  auto* t = new DispatchThread(dir, sid, "| jobrows | stats count", {});
  ASSERT_TRUE(t->evaluate());
  t->start();
  size_t reads = 0, partial = 0;
  for (int i = 0; i < 200000; ++i) {
    SearchResults st;
    if (!DispatchThread::readStatus(dir, st)) {
      partial += reads > 0;  // once there, the file never goes missing or empty
      continue;
    }
    ++reads;
    if (st.size() != 1 || st.getKeyMap().size() != 14 ||
        st.front()->getValue(st.keyIndex("search")) != "| jobrows | stats count")
      ++partial;
    if (st.front()->getValue(st.keyIndex("done")) == "1") break;
  }
  DispatchThread::stopAll(30);
  MainThread::instance()->reapFinished();
  EXPECT_GT(reads, 0u);
  EXPECT_EQ(partial, 0u);
  EXPECT_EQ(rowsOf(dir / "results.csv"), std::vector<std::string>{"count=700"});

  // A job paused for good is ended by stopAll, with done set.
  setUp(700, 10);
  sid = newSid();
  dir = makeJobDir(sid);
  gMarkerAt[1] = "pause";
  t = new DispatchThread(dir, sid, "| jobrows | stats count", {});
  ASSERT_TRUE(t->evaluate());
  t->start();
  EXPECT_TRUE((dir / "status.csv").isFile());  // known from the start
  DispatchThread::stopAll(30);
  MainThread::instance()->reapFinished();
  std::map<std::string, std::string> st = statusOf(dir);
  EXPECT_EQ(st["done"], "1");
  EXPECT_EQ(st["error"], "The search job was stopped before it finished.");
  EXPECT_FALSE((dir / "results.csv").exists());
}

}  // namespace
