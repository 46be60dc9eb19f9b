// The scheduler of saved searches, made to pass on demand with a clock the
// test moves: a due search runs once per turn as its owner's job with a
// recognisable sid, never twice at once, keeps its newest runs, runs a turn
// missed while the service was down once, leaves alone what is not
// scheduled, and asks its running jobs to stop when it stops.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <functional>

#include "../SearchTestUtil.h"
#include "framework/SavedVelmor.h"
#include "search/SearchCancel.h"
#include "search/dispatch/SavedSearchScheduler.h"
#include "search/processors/SearchCommands.h"
#include "util/MainThread.h"

namespace {

const char* const kStatusHeader =
    "user,start,count,cursor,keywords,ttl,done,search,streaming,error,setStart,setEnd,startTime,endTime\n";

// A minute boundary in UTC.
const time_t kT0 = 1800000000 - 1800000000 % 60;

SavedVelmor scheduled(const Str& name, const Str& owner, const Str& schedule, const Str& query = "error") {
  SavedVelmor s;
  s.name = name;
  s.userid = owner;
  s.schedule = schedule;
  s.enableSched = "true";
  s.isEventType = "false";
  s.query = query;
  return s;
}

class SchedulerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
    SearchCommands::registerAll();
    if (MainThread::instance() == nullptr) new MainThread();  // lives until exit
  }

  std::unique_ptr<SavedSearchScheduler> make(size_t keep = 5) {
    SavedSearchScheduler::Settings s;
    s.keepRuns = keep;
    s.runTtl = 7777;
    return std::make_unique<SavedSearchScheduler>(
        dir.path(),
        [this](const DispatchSearch::JobRequest& job, Str& err) {
          jobs.push_back(job);
          if (!refuse.empty()) {
            err = refuse;
            return false;
          }
          searchtest::writeAll(job.dir / "status.csv", std::string(kStatusHeader) + std::string(job.user) +
                                                           ",1,3,,*,1,0,x,x,,,,,\n");
          return true;
        },
        s, [this] { return now; }, [this](std::vector<SavedVelmor>& out) { out = searches; });
  }
  // Marks a run as finished.
  void finish(const Str& sid) {
    searchtest::writeAll(dir / sid / "status.csv", std::string(kStatusHeader) + "u,1,3,,*,1,1,x,x,,,,,\n");
  }
  std::vector<Str> sidsOnDisk(const Str& owner, const Str& name) {
    std::vector<Str> out;
    for (const auto& r : SavedSearchScheduler::history(dir.path(), owner, name)) out.push_back(r.sid);
    return out;
  }

  searchtest::ScratchDir dir;
  time_t now = kT0 + 10;
  std::vector<SavedVelmor> searches;
  std::vector<DispatchSearch::JobRequest> jobs;
  Str refuse;
};

TEST_F(SchedulerTest, EveryMinuteSearchRunsOncePerMinuteAsItsOwner) {
  searches = {scheduled("errs", "alice", "* * * * *")};
  auto s = make();
  struct Tick {
    time_t at;
    std::vector<Str> started;
  };
  const Tick ticks[] = {
      {kT0 + 10, {}},  // first sight with no run on disk: the next minute
      {kT0 + 59, {}},
      {kT0 + 60, {"scheduler__alice__errs_" + std::to_string(kT0 + 60)}},
      {kT0 + 90, {}},
      {kT0 + 119, {}},
  };
  for (const Tick& t : ticks) {
    now = t.at;
    EXPECT_EQ(s->tick(), t.started) << t.at - kT0;
  }
  ASSERT_EQ(jobs.size(), 1u);
  EXPECT_EQ(jobs[0].user, "alice");
  EXPECT_EQ(jobs[0].search, "search error");
  EXPECT_EQ(jobs[0].ttl, 7777);
  EXPECT_EQ(jobs[0].dir, dir / jobs[0].sid);
  EXPECT_EQ(searchtest::readAll(dir / jobs[0].sid / "savedsearch"), "alice\nerrs\n");

  // Still running at the next minute: that turn is skipped, not queued.
  now = kT0 + 120;
  EXPECT_TRUE(s->tick().empty());
  now = kT0 + 150;
  EXPECT_TRUE(s->tick().empty());
  finish(jobs[0].sid);
  now = kT0 + 180;
  EXPECT_EQ(s->tick(), std::vector<Str>{"scheduler__alice__errs_" + std::to_string(kT0 + 180)});
}

TEST_F(SchedulerTest, KeepsTheNewestRunsAndRemovesOlderOnes) {
  searches = {scheduled("k", "bob", "* * * * *"), scheduled("other", "bob", "* * * * *")};
  auto s = make(2);
  s->tick();
  for (int m = 1; m <= 4; ++m) {
    now = kT0 + 60 * m;
    for (const Str& sid : s->tick()) finish(sid);
  }
  EXPECT_EQ(sidsOnDisk("bob", "k"), (std::vector<Str>{"scheduler__bob__k_" + std::to_string(kT0 + 240),
                                                      "scheduler__bob__k_" + std::to_string(kT0 + 180)}));
  EXPECT_EQ(sidsOnDisk("bob", "other").size(), 2u);
  EXPECT_FALSE((dir / ("scheduler__bob__k_" + std::to_string(kT0 + 60))).exists());
  EXPECT_EQ(jobs.size(), 8u);
}

// A turn missed while the service was down runs once at the first pass, not
// once per missed minute; a recent run does not run again.
TEST_F(SchedulerTest, MissedTurnRunsOnceAtStart) {
  searches = {scheduled("m", "carol", "0 * * * *")};
  struct Case {
    time_t lastRun;
    time_t restartAt;
    size_t runs;
  };
  const time_t hour = kT0 - kT0 % 3600;
  const Case cases[] = {
      {hour - 3 * 3600, hour + 10, 1},  // three turns missed: one run
      {hour, hour + 30 * 60, 0},        // ran this hour: nothing missed
      {hour - 3600, hour + 59, 1},      // the turn at `hour` was missed by 59 s
  };
  for (const Case& c : cases) {
    dir.path().removeRecursive();
    dir.path().mkdir_p();
    const Str last = SavedSearchScheduler::sidFor("carol", "m", c.lastRun);
    (dir / last).mkdir_p();
    finish(last);
    jobs.clear();
    auto s = make();
    now = c.restartAt;
    s->tick();
    now = c.restartAt + 30;
    s->tick();
    EXPECT_EQ(jobs.size(), c.runs) << c.restartAt - hour;
  }
}

// Before searches can run (the service's indexes are not built yet) a pass
// does nothing; the missed turn then runs at the first ready pass.
TEST_F(SchedulerTest, PassesWaitUntilSearchesCanRun) {
  searches = {scheduled("w", "a", "* * * * *")};
  const Str old = SavedSearchScheduler::sidFor("a", "w", kT0 - 600);
  (dir / old).mkdir_p();
  finish(old);
  bool ready = false;
  SavedSearchScheduler s(
      dir.path(),
      [this](const DispatchSearch::JobRequest& job, Str&) {
        jobs.push_back(job);
        return true;
      },
      SavedSearchScheduler::Settings(), [this] { return now; },
      [this](std::vector<SavedVelmor>& out) { out = searches; }, [&ready] { return ready; });
  EXPECT_TRUE(s.tick().empty());
  now += 1;
  EXPECT_TRUE(s.tick().empty());
  ready = true;
  EXPECT_EQ(s.tick().size(), 1u);
  EXPECT_EQ(jobs.size(), 1u);
}

TEST_F(SchedulerTest, WhatIsNotScheduledNeverRuns) {
  SavedVelmor off = scheduled("off", "a", "* * * * *");
  off.enableSched = "false";
  SavedVelmor et = scheduled("et", "a", "* * * * *");
  et.isEventType = "true";
  searches = {off, et, scheduled("blank", "a", "  "), scheduled("bad", "a", "61 * * * *"),
              scheduled("words", "a", "every minute")};
  auto s = make();
  for (int m = 0; m < 5; ++m) {
    now = kT0 + 60 * m;
    EXPECT_TRUE(s->tick().empty()) << m;
  }
  EXPECT_TRUE(jobs.empty());
}

TEST_F(SchedulerTest, RefusedRunLeavesNoDirectoryAndIsRetriedNextTurn) {
  searches = {scheduled("r", "a", "* * * * *", "| nosuchcommand")};
  refuse = "Unknown search operation: 'nosuchcommand'";
  auto s = make();
  s->tick();
  now = kT0 + 60;
  EXPECT_TRUE(s->tick().empty());
  EXPECT_EQ(jobs.size(), 1u);
  EXPECT_TRUE(sidsOnDisk("a", "r").empty());
  refuse.clear();
  now = kT0 + 120;
  EXPECT_EQ(s->tick().size(), 1u);
}

TEST_F(SchedulerTest, ChangedScheduleCountsFromNow) {
  searches = {scheduled("c", "a", "0 0 1 1 *")};
  auto s = make();
  s->tick();
  now = kT0 + 60;
  EXPECT_TRUE(s->tick().empty());
  searches[0].schedule = "* * * * *";
  EXPECT_TRUE(s->tick().empty());  // next minute from now
  now = kT0 + 120;
  EXPECT_EQ(s->tick().size(), 1u);
}

TEST(SchedulerNames, SidsAndHistoryTellSearchesApart) {
  const struct {
    const char* owner;
    const char* name;
    long t;
    const char* sid;
  } table[] = {
      {"alice", "errs", 5, "scheduler__alice__errs_5"},
      {"", "global one", 6, "scheduler__nobody__global_one_6"},
      {"a/b", "../x", 7, "scheduler__a_b__.._x_7"},
      {"u", "caf\xc3\xa9", 8, "scheduler__u__caf___8"},
  };
  for (const auto& c : table) EXPECT_EQ(SavedSearchScheduler::sidFor(c.owner, c.name, c.t), c.sid) << c.name;

  // "a b" and "a_b" are written alike; the marker file tells them apart,
  // and "a_b_1" is another search, not a run of "a_b".
  searchtest::ScratchDir dir;
  auto run = [&](const Str& owner, const Str& name, time_t t) {
    Pathname d = dir / SavedSearchScheduler::sidFor(owner, name, t);
    d.mkdir_p();
    searchtest::writeAll(d / "savedsearch", std::string(owner) + "\n" + std::string(name) + "\n");
  };
  run("u", "a b", 100);
  run("u", "a_b", 200);
  run("u", "a_b_1", 300);
  (dir / "scheduler__u__a_b_150").mkdir_p();  // no marker: taken by its name
  auto sids = [&](const Str& name) {
    std::vector<Str> out;
    for (const auto& r : SavedSearchScheduler::history(dir.path(), "u", name)) out.push_back(r.sid);
    return out;
  };
  EXPECT_EQ(sids("a b"), (std::vector<Str>{"scheduler__u__a_b_150", "scheduler__u__a_b_100"}));
  EXPECT_EQ(sids("a_b"), (std::vector<Str>{"scheduler__u__a_b_200", "scheduler__u__a_b_150"}));
  EXPECT_EQ(sids("a_b_1"), (std::vector<Str>{"scheduler__u__a_b_1_300"}));
  EXPECT_TRUE(SavedSearchScheduler::history(dir / "missing", "u", "a b").empty());
}

// The thread makes a pass at once; stop() ends it and asks the run it
// started to stop.
TEST_F(SchedulerTest, StopAsksItsRunningJobsToStop) {
  searches = {scheduled("t", "a", "* * * * *")};
  // A run on disk an hour old: the first pass runs the missed turn.
  const Str old = SavedSearchScheduler::sidFor("a", "t", kT0 - 3600);
  (dir / old).mkdir_p();
  finish(old);
  SavedSearchScheduler::Settings settings;
  settings.periodSeconds = 3600;
  std::atomic<int> startedCount{0};
  Str sid;
  auto s = std::make_unique<SavedSearchScheduler>(
      dir.path(),
      [&](const DispatchSearch::JobRequest& job, Str&) {
        sid = job.sid;
        SearchCancel::instance()->start(job.sid);
        searchtest::writeAll(job.dir / "status.csv", std::string(kStatusHeader) + "a,1,0,,*,1,0,x,x,,,,,\n");
        ++startedCount;
        return true;
      },
      settings, [this] { return now; }, [this](std::vector<SavedVelmor>& out) { out = searches; });
  s->start();
  for (int i = 0; i < 2000 && startedCount == 0; ++i) usleep(5000);
  ASSERT_EQ(startedCount, 1);
  EXPECT_TRUE(SearchCancel::instance()->cont(sid));
  EXPECT_TRUE(s->signalShutdown());
  EXPECT_FALSE(SearchCancel::instance()->cont(sid));
  s->stop();  // again: harmless
  EXPECT_EQ(startedCount, 1);
}

}  // namespace
