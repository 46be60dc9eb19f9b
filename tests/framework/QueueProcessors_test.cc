// The queue processors and QueueServiceThread: config reading (required
// queue name, defaults, bad values), the plug-in names, routing by the
// record's "queue" key, an output processor that waits out a full queue
// instead of losing the record, and records carried in order between
// queues by the service thread.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>

#include "QueueTestHome.h"
#include "framework/QueueInputProcessor.h"
#include "framework/QueueManager.h"
#include "framework/QueueOutputProcessor.h"
#include "framework/QueueServiceThread.h"

using namespace queuetest;
using Record = ProducerConsumerQueue::Record;

namespace {

class QueueProcessorsTest : public ::testing::Test {
 protected:
  void SetUp() override { QueueManager::resetForTest(); }
  void TearDown() override { QueueManager::resetForTest(); }

  static xml::node config(std::initializer_list<std::pair<const char*, const char*>> children) {
    xml::node c("config");
    for (const auto& [name, text] : children) c.append_element(name, text);
    return c;
  }

  TempHome home;
  QueueManager& qm = QueueManager::instance();
};

TEST_F(QueueProcessorsTest, ConfigReading) {
  struct Row {
    const char* name;
    xml::node cfg;
    const char* error;  // null when it is accepted
    const char* queueName;
    size_t maxSize;
    bool saveContents;
  };
  const Row rows[] = {
      {"defaults", config({{"queueName", "in"}}), nullptr, "in", 1000, true},
      {"all given", config({{"queueName", "q2"}, {"maxSize", "7"}, {"saveContents", "false"}}), nullptr, "q2", 7,
       false},
      {"missing name", config({{"maxSize", "7"}}), "Couldn't find 'queueName' tag in processor config", "", 0, false},
      {"empty name", config({{"queueName", ""}}), "Couldn't find 'queueName' tag in processor config", "", 0, false},
      {"size not a number", config({{"queueName", "q"}, {"maxSize", "ten"}}),
       "Invalid 'maxSize' in processor config: 'ten'", "", 0, false},
      {"size zero", config({{"queueName", "q"}, {"maxSize", "0"}}), "Invalid 'maxSize' in processor config: '0'", "",
       0, false},
      {"save flag not a boolean", config({{"queueName", "q"}, {"saveContents", "maybe"}}),
       "Invalid 'saveContents' in processor config: 'maybe'", "", 0, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Str name;
    size_t maxSize = 0;
    bool save = false;
    try {
      QueueInputProcessor::readQueueConfig(row.cfg, name, maxSize, save);
      EXPECT_EQ(row.error, nullptr) << "accepted";
      EXPECT_EQ(name, row.queueName);
      EXPECT_EQ(maxSize, row.maxSize);
      EXPECT_EQ(save, row.saveContents);
    } catch (const PluginException& e) {
      ASSERT_NE(row.error, nullptr) << e.what();
      EXPECT_EQ(std::string(e.what()), row.error);
    }
  }
}

TEST_F(QueueProcessorsTest, FactoriesMakeWorkingProcessorsOnOneQueue) {
  EXPECT_TRUE(QueueInputProcessor::factory().matchName("queueinputprocessor"));
  EXPECT_TRUE(QueueOutputProcessor::factory().matchName("queueoutputprocessor"));
  std::unique_ptr<Processor> out = QueueOutputProcessor::factory().produce();
  std::unique_ptr<Processor> in = QueueInputProcessor::factory().produce();
  xml::node cfg = config({{"queueName", "link"}, {"maxSize", "5"}});
  out->init(cfg, xml::node());
  in->init(cfg, xml::node());
  for (int i = 1; i <= 3; ++i) {
    Record r = rec(i);
    EXPECT_EQ(out->execute(r), Processor::eOk);
  }
  for (int i = 1; i <= 3; ++i) {
    Record r = in->createPipelineData();
    EXPECT_EQ(num(r), i);
    EXPECT_EQ(in->execute(r), Processor::eOk);
  }
  EXPECT_EQ(qm.getQueue("link")->getMaxSize(), 5u);
  qm.removeQueue("link");
  out.reset();
  EXPECT_TRUE(qm.exists("link"));
  in.reset();
  EXPECT_FALSE(qm.exists("link")) << "each processor gives its reference back";
}

TEST_F(QueueProcessorsTest, OutputRoutesByTheQueueKey) {
  QueueOutputProcessor out;
  out.init(config({{"queueName", "main"}, {"maxSize", "4"}}), xml::node());
  struct Row {
    const char* name;
    const char* queueKey;  // null: no key
    const char* landsIn;
  };
  const Row rows[] = {
      {"no key", nullptr, "main"},
      {"empty key", "", "main"},
      {"own name", "main", "main"},
      {"another queue", "side", "side"},
      {"the other queue again", "side", "side"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Record r = rec(1);
    if (row.queueKey != nullptr) r->put(PipelineData::queueKey, row.queueKey);
    ASSERT_EQ(out.execute(r), Processor::eOk);
    ProducerConsumerQueue* target = qm.getQueue(row.landsIn);
    Record got;
    ASSERT_TRUE(target->remove(got, 1));
    EXPECT_EQ(got, r);
    EXPECT_EQ(target->getNumberOfEntries(), 0u);
    qm.removeQueue(row.landsIn);
  }
  EXPECT_EQ(qm.getQueue("side")->getMaxSize(), 4u) << "a routed queue takes the processor's size";
}

TEST_F(QueueProcessorsTest, OutputWaitsOutAFullQueue) {
  QueueOutputProcessor out;
  out.init(config({{"queueName", "narrow"}, {"maxSize", "1"}}), xml::node());
  ProducerConsumerQueue* q = out.getQueue();
  ASSERT_TRUE(q->insertFromSameThread(rec(1)));
  std::atomic<bool> done{false};
  Record second = rec(2);
  {
    JoinGuard guard(std::thread([&] {
                      Record r = second;
                      out.execute(r);
                      done = true;
                    }),
                    [&] {
                      if (!done) q->signalShutdown();
                    });
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));  // past one retry
    EXPECT_FALSE(done);
    Record got;
    ASSERT_TRUE(q->remove(got, 1));
    EXPECT_EQ(num(got), 1);
    for (int i = 0; i < 500 && !done; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_TRUE(done);
  }
  Record got;
  EXPECT_EQ(q->getNumberOfEntries(), 1u);
  if (q->getNumberOfEntries() == 1u) {
    ASSERT_TRUE(q->remove(got, 1));
    EXPECT_EQ(got, second);
  }
}

TEST_F(QueueProcessorsTest, ShutdownEndsBothProcessorsWaits) {
  QueueOutputProcessor out;
  QueueInputProcessor in;
  out.init(config({{"queueName", "closing"}, {"maxSize", "1"}}), xml::node());
  in.init(config({{"queueName", "closing"}}), xml::node());
  ASSERT_TRUE(out.getQueue()->insertFromSameThread(rec(1)));
  qm.signalShutdown();
  Record r = rec(2);
  EXPECT_EQ(out.execute(r), Processor::eOk) << "returns instead of retrying for ever";
  EXPECT_EQ(in.createPipelineData(), nullptr);
  EXPECT_TRUE(fileExists(home.flushFile("closing")));
}

TEST_F(QueueProcessorsTest, ServiceThreadCarriesRecordsInOrder) {
  struct Row {
    size_t targetSize;  // 0: unbounded
    int records;
  };
  const Row rows[] = {{0, 20}, {3, 20}, {1, 5}};
  for (const Row& row : rows) {
    SCOPED_TRACE("target size " + std::to_string(row.targetSize));
    ProducerConsumerQueue from;
    std::unique_ptr<ProducerConsumerQueue> to = row.targetSize == 0
                                                    ? std::make_unique<ProducerConsumerQueue>()
                                                    : std::make_unique<ProducerConsumerQueue>(row.targetSize);
    for (int i = 1; i <= row.records; ++i) ASSERT_TRUE(from.insert(rec(i), 1));
    std::vector<int> got;
    {
      QueueServiceThread mover(&from, to.get());
      mover.start();
      for (int i = 0; i < row.records; ++i) {
        Record r;
        if (!to->remove(r, 5)) break;
        got.push_back(num(r));
      }
      mover.stop();
    }  // joined here
    std::vector<int> want;
    for (int i = 1; i <= row.records; ++i) want.push_back(i);
    EXPECT_EQ(got, want);
    EXPECT_EQ(from.getNumberOfEntries(), 0u);
  }
}

}  // namespace
