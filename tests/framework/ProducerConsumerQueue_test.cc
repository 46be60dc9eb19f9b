// ProducerConsumerQueue: what a full queue does with a record (block, drop,
// overflow file, file limit), the order file-then-memory, the blocked
// producer's wake-up below half, failure after shutdown, saving and
// restoring (round trip of every key and the tokenized flag, more records
// than the size, corrupt and truncated files, a missing or blocked save
// directory), and overflow files left over from an earlier run.
#include "framework/ProducerConsumerQueue.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <vector>

#include "QueueTestHome.h"

using namespace queuetest;
using Record = ProducerConsumerQueue::Record;

namespace {

std::string framed(const PipelineData& d) {
  Str bytes;
  d.serialize(bytes);
  return std::to_string(bytes.size()) + "\n" + bytes + "\n";
}

std::vector<int> drain(ProducerConsumerQueue& q, size_t n) {
  std::vector<int> out;
  for (size_t i = 0; i < n; ++i) {
    Record r;
    if (!q.remove(r, 1)) break;
    out.push_back(num(r));
  }
  return out;
}

TEST(ProducerConsumerQueue, FullQueueBlocksDropsOrOverflows) {
  struct Row {
    const char* name;
    bool drop;
    bool persistent;
    uint64_t fileLimit;
    bool needToEmpty;
    int inserts;
    std::vector<bool> accepted;
    std::vector<int> order;  // everything that comes out, in order
  };
  const Row rows[] = {
      {"blocking queue times out", false, false, 0, false, 3, {true, true, false}, {1, 2}},
      {"dropping queue loses the rest", true, false, 0, false, 4, {true, true, true, true}, {1, 2}},
      {"overflow file goes out first", false, true, 1 << 20, false, 5, {true, true, true, true, true}, {3, 4, 5, 1, 2}},
      {"file limit reached blocks", false, true, 1, false, 4, {true, true, true, false}, {3, 1, 2}},
      {"file limit reached drops", true, true, 1, false, 4, {true, true, true, true}, {3, 1, 2}},
      {"need to empty keeps the file out", false, true, 1 << 20, true, 3, {true, true, false}, {1, 2}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    TempHome home;
    ProducerConsumerQueue q(2, row.drop, row.persistent, row.fileLimit, Pathname(home.path() + "/store"), "q");
    q.setName("q");
    if (row.needToEmpty) q.setNeedToEmpty();
    std::vector<bool> accepted;
    for (int i = 1; i <= row.inserts; ++i) accepted.push_back(q.insert(rec(i), 1));
    EXPECT_EQ(accepted, row.accepted);
    EXPECT_EQ(q.getNumberOfEntries(), 2u);
    EXPECT_TRUE(q.isFull());
    EXPECT_EQ(drain(q, row.order.size()), row.order);
    EXPECT_EQ(q.getNumberOfEntries(), 0u);
    if (row.persistent) {
      struct stat st;
      bool empty = stat((home.path() + "/store/q").c_str(), &st) != 0 || st.st_size == 0;
      EXPECT_TRUE(empty) << "an exhausted overflow file is truncated";
    }
  }
}

TEST(ProducerConsumerQueue, FailsAfterShutdown) {
  struct Row {
    const char* name;
    bool fullShutdown;  // shutdown(0) rather than signalShutdown()
    std::function<bool(ProducerConsumerQueue&)> op;
  };
  const Row rows[] = {
      {"insert without limit", true, [](ProducerConsumerQueue& q) { return q.insert(rec(1), 0); }},
      {"insert with 1 s", false, [](ProducerConsumerQueue& q) { return q.insert(rec(1), 1); }},
      {"insert from same thread", true, [](ProducerConsumerQueue& q) { return q.insertFromSameThread(rec(1)); }},
      {"remove without limit", false, [](ProducerConsumerQueue& q) { Record r; return q.remove(r, 0); }},
      {"remove with 1 s, records left", true,
       [](ProducerConsumerQueue& q) {
         Record r;
         return q.remove(r, 1);
       }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    TempHome home;
    ProducerConsumerQueue q(4);
    q.setName("s");
    if (row.fullShutdown) q.shutdown(0);
    else q.signalShutdown();
    EXPECT_TRUE(q.isShutdown());
    EXPECT_FALSE(row.op(q));
  }
}

TEST(ProducerConsumerQueue, BlockedProducerWakesOnlyBelowHalf) {
  struct Row {
    size_t maxSize;
    int removalsToWake;
  };
  const Row rows[] = {{1, 1}, {2, 2}, {4, 3}, {5, 3}};
  for (const Row& row : rows) {
    SCOPED_TRACE("max size " + std::to_string(row.maxSize));
    TempHome home;
    ProducerConsumerQueue q(row.maxSize);
    for (size_t i = 0; i < row.maxSize; ++i) ASSERT_TRUE(q.insertFromSameThread(rec(int(i))));
    std::atomic<bool> done{false};
    std::atomic<bool> result{false};
    JoinGuard guard(std::thread([&] {
                      result = q.insert(rec(99), 0);
                      done = true;
                    }),
                    [&] {
                      if (!done) q.signalShutdown();
                    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // let it block
    Record r;
    for (int i = 1; i < row.removalsToWake; ++i) {
      ASSERT_TRUE(q.remove(r, 1));
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      EXPECT_FALSE(done) << "woken at size " << q.getNumberOfEntries();
    }
    ASSERT_TRUE(q.remove(r, 1));
    for (int i = 0; i < 500 && !done; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_TRUE(done);
    guard.join();
    EXPECT_TRUE(result);
  }
}

// Records with the awkward contents a line-framed file could trip on.
std::vector<Record> awkwardRecords() {
  std::vector<Record> out;
  auto a = std::make_shared<PipelineData>();
  a->put("_raw", "plain line");
  a->put("host", "web1");
  out.push_back(a);
  auto b = std::make_shared<PipelineData>();
  b->put("_raw", Str(std::string("12\nnot a length\n\0binary\n", 24)));
  b->put("empty", "");
  b->setTokenized(true);
  out.push_back(b);
  auto c = std::make_shared<PipelineData>();
  for (int i = 0; i < 50; ++i) c->put("key" + std::to_string(i), Str(std::string(size_t(i) * 3, char('a' + i % 26))));
  out.push_back(c);
  out.push_back(std::make_shared<PipelineData>());  // no pairs at all
  return out;
}

TEST(ProducerConsumerQueue, SaveAndRestoreRoundTrip) {
  struct Row {
    const char* name;
    size_t savedFrom;  // size of the saving queue
    size_t restoredTo;  // size of the restoring queue
  };
  const Row rows[] = {
      {"same size", 10, 10},
      {"more records than the new size come back whole", 10, 2},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    TempHome home;
    std::vector<Record> in = awkwardRecords();
    {
      ProducerConsumerQueue q(row.savedFrom);
      q.setName("roundtrip");
      for (auto& r : in) ASSERT_TRUE(q.insert(r, 1));
      q.shutdown(0);
      EXPECT_EQ(q.getNumberOfEntries(), 0u);
    }
    ASSERT_TRUE(fileExists(home.flushFile("roundtrip")));
    EXPECT_FALSE(fileExists(home.flushFile("roundtrip") + ".tmp"));
    ProducerConsumerQueue back(row.restoredTo);
    back.setName("roundtrip");
    back.restore();
    EXPECT_FALSE(fileExists(home.flushFile("roundtrip")));
    ASSERT_EQ(back.getNumberOfEntries(), in.size());
    EXPECT_TRUE(back.isFull() == (in.size() >= row.restoredTo));
    if (in.size() > row.restoredTo) {
      EXPECT_FALSE(back.insertFromSameThread(rec(1)));
    }
    for (const Record& want : in) {
      Record got;
      ASSERT_TRUE(back.remove(got, 1));
      EXPECT_EQ(got->toString(), want->toString());
      EXPECT_EQ(got->isTokenized(), want->isTokenized());
    }
  }
}

TEST(ProducerConsumerQueue, CorruptSavedFileRestoresThePrefixAndIsRemoved) {
  PipelineData a, b;
  a.put("n", "1");
  b.put("n", "2");
  PipelineData big;
  big.put("n", "3");
  big.put("_raw", Str(std::string(10'000'000, 'x')));
  Str bBytes;
  b.serialize(bBytes);
  struct Row {
    const char* name;
    std::string content;
    std::vector<int> restored;
  };
  const Row rows[] = {
      {"two clean records", framed(a) + framed(b), {1, 2}},
      {"empty file", "", {}},
      {"length not a number", framed(a) + "abc\n" + framed(b), {1}},
      {"zero length", framed(a) + "0\n\n" + framed(b), {1}},
      {"negative length", framed(a) + "-5\n" + framed(b), {1}},
      {"truncated record", framed(a) + "100\nshort", {1}},
      {"record without its end newline", framed(a) + std::to_string(bBytes.size()) + "\n" + bBytes + "X", {1}},
      {"length above the cap", framed(a) + "999999999999\n" + framed(b), {1}},
      {"endless length line", framed(a) + std::string(100, '7') + "\n", {1}},
      {"length line cut at end of file", framed(a) + "12", {1}},
      {"bytes that are no record", framed(a) + "5\nhello\n" + framed(b), {1}},
      {"record of ten million bytes", framed(a) + framed(big) + framed(b), {1, 3, 2}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    TempHome home;
    ASSERT_EQ(system(("mkdir -p '" + home.path() + "/var/lib/velmor/queues'").c_str()), 0);
    writeFile(home.flushFile("c"), row.content);
    ProducerConsumerQueue q(100);
    q.setName("c");
    q.restore();
    EXPECT_FALSE(fileExists(home.flushFile("c")));
    std::vector<int> got;
    while (q.getNumberOfEntries() > 0) {
      Record r;
      ASSERT_TRUE(q.remove(r, 1));
      got.push_back(num(r));
      if (num(r) == 3) {
        EXPECT_EQ(r->getStr("_raw").size(), 10'000'000u);
      }
    }
    EXPECT_EQ(got, row.restored);
  }
}

TEST(ProducerConsumerQueue, SaveDirectoryIsMadeOrTheFailureIsSurvived) {
  struct Row {
    const char* name;
    const char* prepare;  // shell command run in the home
    bool saved;
  };
  const Row rows[] = {
      {"missing directory is made", "true", true},
      {"a file where the directory should be", "mkdir -p var/lib/velmor && touch var/lib/velmor/queues", false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    TempHome home;
    ASSERT_EQ(system(("cd '" + home.path() + "' && " + row.prepare).c_str()), 0);
    ProducerConsumerQueue q(4);
    q.setName("d");
    ASSERT_TRUE(q.insert(rec(7), 1));
    q.shutdown(0);
    EXPECT_TRUE(q.isShutdown());
    EXPECT_EQ(fileExists(home.flushFile("d")), row.saved);
    if (row.saved) {
      ProducerConsumerQueue back(4);
      back.setName("d");
      back.restore();
      EXPECT_EQ(drain(back, 1), std::vector<int>{7});
    }
  }
}

TEST(ProducerConsumerQueue, OverflowFileLeftFromEarlierRun) {
  struct Row {
    const char* name;
    int takenBeforeShutdown;  // records read from the file before shutdown(0)
    std::vector<int> after;   // what the next run gives: file first, then the saved memory
  };
  const Row rows[] = {
      {"no shutdown, file untouched", -1, {2, 3, 4}},
      {"shutdown before any read", 0, {2, 3, 4, 1}},
      {"shutdown half way through the file", 1, {3, 4, 1}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    TempHome home;
    Pathname store(home.path() + "/store");
    {
      ProducerConsumerQueue q(1, false, true, 1 << 20, store, "over");
      q.setName("over");
      for (int i = 1; i <= 4; ++i) ASSERT_TRUE(q.insert(rec(i), 1));
      if (row.takenBeforeShutdown >= 0) {
        EXPECT_EQ(drain(q, size_t(row.takenBeforeShutdown)).size(), size_t(row.takenBeforeShutdown));
        q.shutdown(0);
      }
    }
    ProducerConsumerQueue next(1, false, true, 1 << 20, store, "over");
    next.setName("over");
    next.restore();
    EXPECT_EQ(drain(next, row.after.size()), row.after) << "an empty memory must not hide the file";
    EXPECT_EQ(next.getNumberOfEntries(), 0u);
  }
}

}  // namespace
