// QueueManager: one queue per name whatever size later askers give,
// reference counts, restore on creation only when asked, shutdown saving
// every queue and refusing later requests; the queue metrics seen through
// MetricsManager, with their reset, and MetricsManager's own registration.
#include "framework/QueueManager.h"

#include <gtest/gtest.h>

#include <functional>

#include "QueueTestHome.h"
#include "framework/MetricsManager.h"

using namespace queuetest;
using Record = ProducerConsumerQueue::Record;

namespace {

class QueueManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { QueueManager::resetForTest(); }
  void TearDown() override { QueueManager::resetForTest(); }
  TempHome home;
  QueueManager& qm = QueueManager::instance();
};

TEST_F(QueueManagerTest, LaterRequestsGetTheFirstQueueUnchanged) {
  struct Row {
    const char* name;
    std::function<ProducerConsumerQueue*(QueueManager&)> second;
  };
  const Row rows[] = {
      {"larger size", [](QueueManager& m) { return m.getQueue("same", 50, true); }},
      {"smaller size", [](QueueManager& m) { return m.getQueue("same", 1, false); }},
      {"unlimited", [](QueueManager& m) { return m.getQueueUnlimited("same", true); }},
      {"common, unlimited", [](QueueManager& m) { return m.getQueueCommon("same", true, 0, false); }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    QueueManager::resetForTest();
    ProducerConsumerQueue* first = qm.getQueue("same", 3, true);
    ProducerConsumerQueue* second = row.second(qm);
    EXPECT_EQ(second, first);
    EXPECT_EQ(second->getMaxSize(), 3u);
    EXPECT_TRUE(second->isBounded());
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(second->insertFromSameThread(rec(i)));
    EXPECT_TRUE(second->isFull());
    EXPECT_EQ(second->getName(), "same");
  }
}

TEST_F(QueueManagerTest, ReferenceCounts) {
  struct Row {
    int gets;
    int removes;
    std::vector<bool> removeResults;
    bool existsAfter;
  };
  const Row rows[] = {
      {0, 1, {false}, false},
      {1, 1, {true}, false},
      {2, 1, {true}, true},
      {3, 3, {true, true, true}, false},
      {1, 2, {true, false}, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::to_string(row.gets) + " gets, " + std::to_string(row.removes) + " removes");
    QueueManager::resetForTest();
    for (int i = 0; i < row.gets; ++i) qm.getQueue("counted", 10, false);
    std::vector<bool> results;
    for (int i = 0; i < row.removes; ++i) results.push_back(qm.removeQueue("counted"));
    EXPECT_EQ(results, row.removeResults);
    EXPECT_EQ(qm.exists("counted"), row.existsAfter);
    EXPECT_EQ(MetricsManager::instance().isRegistered("queue:counted"), row.existsAfter);
  }
}

TEST_F(QueueManagerTest, RestoresOnCreationOnlyWhenAsked) {
  struct Row {
    bool saveContents;
    size_t entries;
    bool fileLeft;
  };
  const Row rows[] = {{true, 2, false}, {false, 0, true}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.saveContents ? "saveContents" : "no saveContents");
    QueueManager::resetForTest();
    {
      ProducerConsumerQueue q(5);
      q.setName("kept");
      q.insert(rec(1), 1);
      q.insert(rec(2), 1);
      q.shutdown(0);
    }
    ASSERT_TRUE(fileExists(home.flushFile("kept")));
    ProducerConsumerQueue* q = qm.getQueue("kept", 1000, row.saveContents);
    EXPECT_EQ(q->getNumberOfEntries(), row.entries);
    EXPECT_EQ(fileExists(home.flushFile("kept")), row.fileLeft);
  }
}

TEST_F(QueueManagerTest, ShutdownSavesEveryQueueAndRefusesNewOnes) {
  ProducerConsumerQueue* full = qm.getQueue("withdata", 10, true);
  ProducerConsumerQueue* empty = qm.getQueueUnlimited("nodata", true);
  ASSERT_TRUE(full->insert(rec(1), 1));
  ASSERT_TRUE(full->insert(rec(2), 1));
  EXPECT_TRUE(qm.signalShutdown());
  EXPECT_TRUE(fileExists(home.flushFile("withdata")));
  EXPECT_FALSE(fileExists(home.flushFile("nodata")));
  EXPECT_TRUE(full->isShutdown());
  EXPECT_TRUE(empty->isShutdown());
  EXPECT_FALSE(full->insert(rec(3), 0));
  for (const char* name : {"withdata", "brandnew"}) {
    SCOPED_TRACE(name);
    try {
      qm.getQueue(name);
      ADD_FAILURE() << "no exception";
    } catch (const QueueManagerException& e) {
      EXPECT_EQ(std::string(e.what()), std::string("Queue manager has shutdown - cannot hand out queue ") + name);
    }
  }
  // The next run finds what was saved.
  QueueManager::resetForTest();
  EXPECT_EQ(qm.getQueue("withdata")->getNumberOfEntries(), 2u);
}

std::string metricsLine(const std::string& name) {
  for (const Str& line : MetricsManager::instance().collect())
    if (line.startswith(name + ":")) return line;
  return "(none)";
}

TEST_F(QueueManagerTest, QueueMetricsReportAndReset) {
  ProducerConsumerQueue* q = qm.getQueue("m", 2, false);
  struct Step {
    const char* name;
    std::function<void()> action;
    std::string line;
  };
  Record r;
  const Step steps[] = {
      {"filled", [&] { q->insert(rec(1), 1), q->insert(rec(2), 1); },
       "queue:m: max size=2, filled count=1, empty count=0, current size=2, largest size=2, smallest size=0, "
       "blocked!!=true"},
      {"counters reset", [] {},
       "queue:m: max size=2, filled count=0, empty count=0, current size=2, largest size=2, smallest size=2, "
       "blocked!!=true"},
      {"drained twice", [&] { q->remove(r, 1), q->remove(r, 1), q->insert(rec(3), 1), q->remove(r, 1); },
       "queue:m: max size=2, filled count=0, empty count=2, current size=0, largest size=2, smallest size=0"},
      {"unregistered with the last reference", [&] { qm.removeQueue("m"); }, "(none)"},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.name);
    step.action();
    EXPECT_EQ(metricsLine("queue:m"), step.line);
  }
}

class Counter {
 public:
  explicit Counter(int v) : _v(v) {}
  void report(metric* m) { m->add("value", static_cast<unsigned long long>(_v)); }

 private:
  int _v;
};

TEST(MetricsManager, RegisterReplaceUnregister) {
  MetricsManager& mm = MetricsManager::instance();
  Counter one(1), two(2);
  TFunctor* first = mm.registerCallback("t:b", std::make_unique<Functor<Counter>>(&one, &Counter::report));
  mm.registerCallback("t:a", std::make_unique<Functor<Counter>>(&two, &Counter::report));
  struct Step {
    const char* name;
    std::function<bool()> action;
    bool result;
    std::vector<std::string> lines;  // the "t:" lines, in order
  };
  const Step steps[] = {
      {"name order", [] { return true; }, true, {"t:a: value=2", "t:b: value=1"}},
      {"replaced",
       [&] {
         auto f = std::make_unique<Functor<Counter>>(&one, &Counter::report);
         return mm.registerCallback("t:a", std::move(f)) != nullptr;
       },
       true,
       {"t:a: value=1", "t:b: value=1"}},
      {"stale owner removes nothing", [&] { return mm.unregisterCallback("t:a", first); }, false,
       {"t:a: value=1", "t:b: value=1"}},
      {"owner removes", [&] { return mm.unregisterCallback("t:b", first); }, true, {"t:a: value=1"}},
      {"anyone removes", [&] { return mm.unregisterCallback("t:a"); }, true, {}},
      {"nothing left", [&] { return mm.unregisterCallback("t:a"); }, false, {}},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.name);
    EXPECT_EQ(step.action(), step.result);
    std::vector<std::string> lines;
    for (const Str& l : mm.collect())
      if (l.startswith("t:")) lines.push_back(l);
    EXPECT_EQ(lines, step.lines);
  }
}

}  // namespace
