// Unified search over a fake command, "testbatches", that hands out its rows
// a batch per execute: paging across batches (also when later batches bring
// new columns), one run per key, reading past the end, the row and raw-size
// limits, failures, cancel through clear(), readers on several threads,
// expiry and the results file going with remove().
#include "pipeline/indexer/search/UnifiedSearchDispatchThreadManager.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "libbundle/PropertyPages.h"
#include "loaderinfo/LoaderInfo.h"
#include "search/SearchCancel.h"
#include "search/SearchFactory.h"
#include "search/SearchProcessor.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/Exceptions.h"
#include "util/MainThread.h"
#include "util/Pathname.h"
#include "../ScratchHome.h"

namespace {

std::atomic<int> gExecutes{0};
std::atomic<bool> gHoldEntered{false};
std::atomic<bool> gSawCancel{false};

// The _raw text of row n when no rawlen is given: a comma, quotes and a
// line break, so the rows must survive the CSV file whole.
std::string rawText(unsigned long n) { return "event " + std::to_string(n) + ", said \"hi\"\nline two"; }

// testbatches rows=<total> batch=<per execute> [rawlen=<bytes of _raw>]
//             [extrafrom=<first row with field extra>] [fail=<pass that throws>]
//             [hold=<pass that waits for a cancel>]
class TestBatches : public SearchProcessor {
 public:
  TestBatches() : SearchProcessor("testbatches") {}
  static SearchProcessor* make(const Str&) { return new TestBatches(); }

  void processArguments() override {
    getOption("rows", _rows);
    getOption("batch", _batch);
    getOption("rawlen", _rawLen);
    getOption("extrafrom", _extraFrom);
    getOption("fail", _fail);
    getOption("hold", _hold);
    refuseLeftovers();
  }

  void execute(SearchResults& results, SearchResultsInfo& info) override {
    const unsigned long pass = ++_pass;
    ++gExecutes;
    if (pass == _fail) throw SearchProcessorException("boom at pass " + std::to_string(pass));
    if (pass == _hold) {
      gHoldEntered = true;
      for (int i = 0; i < 3000 && SearchCancel::instance()->cont(info.cancelId); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      gSawCancel = !SearchCancel::instance()->cont(info.cancelId);
      return;
    }
    const sr_index_t n = results.keyIndex("n", true);
    const sr_index_t raw = results.keyIndex("_raw", true);
    for (unsigned long k = 0; k < _batch && _next < _rows; ++k, ++_next) {
      SearchResult* r = results.addNewResult();
      r->setValue(n, std::to_string(_next));
      r->setValue(raw, _rawLen ? std::string(_rawLen, 'x') : rawText(_next));
      if (_next >= _extraFrom) r->setValue("extra", "e" + std::to_string(_next));
    }
    info.resultsComplete = _next >= _rows;
  }

 private:
  unsigned long _rows = 10, _batch = 10, _rawLen = 0, _extraFrom = ~0UL, _fail = 0, _hold = 0;
  unsigned long _pass = 0, _next = 0;
};

// What one getResults call gave.
struct Page {
  bool finished = false;
  SearchResults rows;
  SearchResultsInfo info;
  std::string error;
  std::vector<long> numbers() const {
    std::vector<long> out;
    for (const SearchResult* r : rows) {
      Str v;
      out.push_back(r->getValue(Str("n"), v) ? std::stol(v) : -1);
    }
    return out;
  }
  std::vector<std::string> messages(const char* type) const {
    auto it = info.messages.find(type);
    return it == info.messages.end() ? std::vector<std::string>()
                                     : std::vector<std::string>(it->second.begin(), it->second.end());
  }
};

std::vector<long> range(long from, long to) {
  std::vector<long> out;
  for (long i = from; i < to; ++i) out.push_back(i);
  return out;
}

class UnifiedSearchTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (MainThread::instance() == nullptr) new MainThread();
    scratch = new ScratchHome("unifiedsearch");
    ASSERT_TRUE(scratch->ok());
    home = scratch->home;
    SearchFactory::registerProcessor("testbatches", &TestBatches::make, false);
  }
  static void TearDownTestSuite() {
    UnifiedSearchDispatchThreadManager::instance()->clear();
    SearchFactory::unregister("testbatches");
    delete scratch;
    scratch = nullptr;
  }
  void SetUp() override {
    limits("");
    gExecutes = 0;
    gHoldEntered = false;
    gSawCancel = false;
  }
  void TearDown() override { manager()->clear(); }

  static UnifiedSearchDispatchThreadManager* manager() { return UnifiedSearchDispatchThreadManager::instance(); }

  // Lines of the [search] stanza of the local limits.conf.
  static void limits(const std::string& lines) {
    std::ofstream conf(home + "/etc/bundles/local/limits.conf");
    conf << "[search]\n" << lines << "\n";
    conf.close();
    PropertyPages::instance("limits").updateConfigs();
  }

  static SearchResultsInfo seed(const std::string& user = "alice", long earliest = 1000, long latest = 2000) {
    SearchResultsInfo info;
    info.userContext = user;
    info.earliestTime = Timeval(earliest, 0);
    info.latestTime = Timeval(latest, 0);
    return info;
  }

  // One getResults call on a thread of its own, waited for at most a
  // minute; a call still blocked then fails the test and is released by
  // cancelling every search.
  static std::unique_ptr<Page> read(const std::string& search, unsigned long start, unsigned long count,
                                    const SearchResultsInfo& from = seed(), const std::string& id = "job1") {
    auto page = std::make_unique<Page>();
    page->info = from;
    std::mutex m;
    std::condition_variable cv;
    bool done = false;
    std::thread t([&] {
      try {
        Timeval earliest, latest;
        page->finished = manager()->getResults(search, id, start, count, page->rows, earliest, latest, page->info);
      } catch (const std::exception& e) {
        page->error = e.what();
      }
      std::lock_guard<std::mutex> g(m);
      done = true;
      cv.notify_all();
    });
    {
      std::unique_lock<std::mutex> g(m);
      if (!cv.wait_for(g, std::chrono::seconds(60), [&] { return done; })) {
        ADD_FAILURE() << "getResults did not return: " << search << " " << start << "+" << count;
        g.unlock();
        manager()->clear();
      }
    }
    t.join();
    return page;
  }

  // The rows of a whole search, read in pages of `pageSize`.
  static std::vector<long> readAll(const std::string& search, unsigned long pageSize) {
    std::vector<long> all;
    for (unsigned long start = 0; start < 100000; start += pageSize) {
      auto page = read(search, start, pageSize);
      std::vector<long> got = page->numbers();
      all.insert(all.end(), got.begin(), got.end());
      if (page->finished && got.size() < pageSize) break;
    }
    return all;
  }

  static Pathname resultsFile(const std::string& search, const SearchResultsInfo& from = seed(),
                              const std::string& id = "job1") {
    Str key = UnifiedSearchDispatchThreadManager::makeKey(search, from);
    return Pathname(home + "/var/run/velmor/" + id + "/unified-search-" +
                    UnifiedSearchDispatchThreadManager::keyDigest(key) + ".csv");
  }

  static ScratchHome* scratch;
  static std::string home;
};

ScratchHome* UnifiedSearchTest::scratch = nullptr;
std::string UnifiedSearchTest::home;

TEST_F(UnifiedSearchTest, PagesAcrossBatchesKeepEveryRowInOrder) {
  // Batches of 10, pages of 7: pages start inside batches and span them;
  // from row 50 on a new column forces the file to be rewritten.
  const std::string search = "testbatches rows=95 batch=10 extrafrom=50";
  EXPECT_EQ(readAll(search, 7), range(0, 95));
  EXPECT_EQ(gExecutes.load(), 10);

  auto whole = read(search, 0, 1000);
  EXPECT_TRUE(whole->finished);
  ASSERT_EQ(whole->numbers(), range(0, 95));
  long n = 0;
  for (const SearchResult* r : whole->rows) {
    Str raw, extra;
    EXPECT_TRUE(r->getValue(Str("_raw"), raw));
    EXPECT_EQ(raw, rawText(n)) << "row " << n;
    EXPECT_EQ(r->getValue(Str("extra"), extra) && !extra.empty(), n >= 50) << "row " << n;
    if (n >= 50) {
      EXPECT_EQ(extra, "e" + std::to_string(n));
    }
    ++n;
  }
  EXPECT_TRUE(whole->messages("ERROR").empty());
}

TEST_F(UnifiedSearchTest, OneRunPerKeyWhileItIsCached) {
  const std::string search = "testbatches rows=30 batch=10";
  EXPECT_EQ(read(search, 0, 100)->numbers(), range(0, 30));
  EXPECT_EQ(gExecutes.load(), 3);

  // Same key, later pages, another job id: answered from the file.
  EXPECT_EQ(read(search, 10, 5)->numbers(), range(10, 15));
  EXPECT_EQ(read(search, 25, 5, seed(), "job2")->numbers(), range(25, 30));
  EXPECT_EQ(gExecutes.load(), 3);
  EXPECT_EQ(manager()->size(), 1u);

  // Another user or another time range is another search.
  EXPECT_EQ(read(search, 0, 100, seed("bob"))->numbers(), range(0, 30));
  EXPECT_EQ(read(search, 0, 100, seed("alice", 1000, 3000))->numbers(), range(0, 30));
  EXPECT_EQ(read(search, 0, 100, seed("alice", 500, 2000))->numbers(), range(0, 30));
  EXPECT_EQ(gExecutes.load(), 12);
  EXPECT_EQ(manager()->size(), 4u);
}

TEST_F(UnifiedSearchTest, ReadingPastTheEndGivesWhatExists) {
  const std::string search = "testbatches rows=23 batch=10";
  auto tail = read(search, 20, 10);
  EXPECT_TRUE(tail->finished);
  EXPECT_EQ(tail->numbers(), range(20, 23));

  auto beyond = read(search, 100, 10);
  EXPECT_TRUE(beyond->finished);
  EXPECT_TRUE(beyond->rows.empty());

  auto none = read(search, 5, 0);
  EXPECT_TRUE(none->rows.empty());
  EXPECT_EQ(gExecutes.load(), 3);
}

TEST_F(UnifiedSearchTest, RawSizeLimitEndsTheSearchWithAnError) {
  limits("max_results_raw_size = 100");
  // 4 rows of 10 bytes a batch: 40, 80, then 120 passes the limit.
  auto page = read("testbatches rows=1000 batch=4 rawlen=10", 0, 1000);
  EXPECT_TRUE(page->finished);
  EXPECT_EQ(page->numbers(), range(0, 12));
  EXPECT_EQ(page->messages("ERROR"),
            std::vector<std::string>{
                "Your search generated more data than specified as max_results_raw_size in limits.conf."});
  EXPECT_EQ(gExecutes.load(), 3);

  // Under the limit nothing is said.
  limits("max_results_raw_size = 120");
  auto under = read("testbatches rows=12 batch=4 rawlen=10", 0, 1000);
  EXPECT_EQ(under->numbers(), range(0, 12));
  EXPECT_TRUE(under->messages("ERROR").empty());
}

TEST_F(UnifiedSearchTest, StopsOnceItHoldsMaxEventsRows) {
  limits("max_events = 25");
  const std::string search = "testbatches rows=100000 batch=10";
  EXPECT_EQ(read(search, 0, 10)->numbers(), range(0, 10));
  auto all = read(search, 0, 100000);
  EXPECT_TRUE(all->finished);
  EXPECT_EQ(all->numbers(), range(0, 25));
  EXPECT_EQ(gExecutes.load(), 3);
  EXPECT_TRUE(all->messages("ERROR").empty());
}

// A run reads ahead of its readers by at most as many rows again as they
// asked for: a reader of the first 10 rows of a long search costs a few
// batches, and asking for more lets it go on.
TEST_F(UnifiedSearchTest, RunsOnlyAsFarAsItsReadersNeed) {
  const std::string search = "testbatches rows=100000 batch=5";
  EXPECT_EQ(read(search, 0, 10)->numbers(), range(0, 10));
  // Give a run that ignored its readers the time to race ahead.
  for (int i = 0; i < 20 && gExecutes.load() < 100; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_LE(gExecutes.load(), 5);  // 20 rows held: twice what was asked
  EXPECT_EQ(read(search, 40, 10)->numbers(), range(40, 50));
  for (int i = 0; i < 20 && gExecutes.load() < 100; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_LE(gExecutes.load(), 21);  // 100 rows held at most
  EXPECT_GE(gExecutes.load(), 10);
}

TEST_F(UnifiedSearchTest, FailuresBecomeErrorMessages) {
  struct Case {
    std::string search;
    std::vector<long> rows;
    std::string error;  // expected within the first error message
  };
  const Case cases[] = {
      {"testbatches rows=30 batch=10 fail=2", range(0, 10), "boom at pass 2"},
      {"testbatches rows=30 batch=10 fail=1", {}, "boom at pass 1"},
      {"nosuchcommand rows=3", {}, "Unknown search operation: 'nosuchcommand'"},
      {"testbatches rows=3 colour=red", {}, "Invalid argument: 'colour=red'"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.search);
    auto page = read(c.search, 0, 100);
    EXPECT_TRUE(page->finished);
    EXPECT_EQ(page->numbers(), c.rows);
    std::vector<std::string> errors = page->messages("ERROR");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_NE(errors[0].find(c.error), std::string::npos) << errors[0];
  }

  // The messages come once, however often a caller's info reads them.
  SearchResultsInfo info = seed();
  auto first = read("testbatches rows=30 batch=10 fail=2", 0, 5, info);
  auto again = read("testbatches rows=30 batch=10 fail=2", 5, 5, first->info);
  EXPECT_EQ(again->messages("ERROR").size(), 1u);
  EXPECT_EQ(again->numbers(), range(5, 10));
}

TEST_F(UnifiedSearchTest, RowsTheFileCouldNotTakeAreServedFromMemory) {
  // A directory where the results file should go: the first batch cannot
  // be written, the search ends with an error, its rows stay in memory.
  const std::string search = "testbatches rows=30 batch=10";
  const Pathname file = resultsFile(search);
  ASSERT_TRUE(file.mkdir_p());
  auto page = read(search, 3, 100);
  EXPECT_TRUE(page->finished);
  EXPECT_EQ(page->numbers(), range(3, 10));
  EXPECT_EQ(page->messages("ERROR"),
            std::vector<std::string>{"Unable to write search results to '" + file + "'"});
  EXPECT_EQ(gExecutes.load(), 1);
  manager()->clear();
  EXPECT_TRUE(file.rmdir());
}

TEST_F(UnifiedSearchTest, ClearCancelsARunningSearch) {
  // The second pass waits until the search is cancelled.
  const std::string search = "testbatches rows=100 batch=5 hold=2";
  auto first = read(search, 0, 5);
  EXPECT_EQ(first->numbers(), range(0, 5));
  for (int i = 0; i < 3000 && !gHoldEntered; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_TRUE(gHoldEntered);
  EXPECT_TRUE(resultsFile(search).exists());
  EXPECT_FALSE(read(search, 0, 5)->finished);

  // A reader waiting for rows that will never come is let go by the cancel.
  std::unique_ptr<Page> waiting;
  std::atomic<bool> readerDone{false};
  std::thread reader([&] {
    waiting = read(search, 0, 100);
    readerDone = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  manager()->clear();
  // A reader that came in only after the clear started a new run: clear
  // that one too.
  for (int i = 0; i < 3000 && !readerDone; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    manager()->clear();
  }
  reader.join();

  EXPECT_TRUE(gSawCancel);
  EXPECT_EQ(manager()->size(), 0u);
  EXPECT_FALSE(resultsFile(search).exists());
  ASSERT_TRUE(waiting);
  EXPECT_TRUE(waiting->finished);
  // Either it came in before the cancel (it got the rows there were) or
  // after it (a new run, cancelled in its second pass as well).
  EXPECT_LE(waiting->rows.size(), 5u);
}

TEST_F(UnifiedSearchTest, ReadersOnSeveralThreadsAtOnce) {
  const std::string search = "testbatches rows=200 batch=10";
  std::vector<long> a, b;
  std::thread ta([&] { a = readAll(search, 13); });
  std::thread tb([&] { b = readAll(search, 17); });
  ta.join();
  tb.join();
  EXPECT_EQ(a, range(0, 200));
  EXPECT_EQ(b, range(0, 200));
  EXPECT_EQ(gExecutes.load(), 20);
  EXPECT_EQ(manager()->size(), 1u);
}

TEST_F(UnifiedSearchTest, RemoveDeletesTheResultsFile) {
  const std::string search = "testbatches rows=30 batch=10";
  EXPECT_EQ(read(search, 0, 100)->numbers(), range(0, 30));
  const Pathname file = resultsFile(search);
  EXPECT_TRUE(file.exists());

  manager()->remove(UnifiedSearchDispatchThreadManager::makeKey(search, seed()));
  EXPECT_FALSE(file.exists());
  EXPECT_EQ(manager()->size(), 0u);

  // The next reader runs the search again, into the same file name.
  EXPECT_EQ(read(search, 0, 100)->numbers(), range(0, 30));
  EXPECT_EQ(gExecutes.load(), 6);
  EXPECT_TRUE(file.exists());
}

TEST_F(UnifiedSearchTest, FinishedSearchesExpireAfterCacheTtl) {
  const std::string search = "testbatches rows=10 batch=10";
  EXPECT_EQ(read(search, 0, 100)->numbers(), range(0, 10));
  manager()->cleanup();
  EXPECT_EQ(manager()->size(), 1u);

  limits("cache_ttl = 0");
  const std::string other = "testbatches rows=5 batch=10";
  EXPECT_EQ(read(other, 0, 100)->numbers(), range(0, 5));
  manager()->cleanup();
  // Only the run that finished under cache_ttl 0 is gone.
  EXPECT_EQ(manager()->size(), 1u);
  EXPECT_FALSE(resultsFile(other).exists());
  EXPECT_TRUE(resultsFile(search).exists());
}

TEST_F(UnifiedSearchTest, KeysAndDigests) {
  using M = UnifiedSearchDispatchThreadManager;
  EXPECT_EQ(M::makeKey("a | b", seed("u", 1, 2)), "user=1:u\nearliest=1.000000\nlatest=2.000000\nsearch=a | b");
  EXPECT_EQ(M::keyDigest("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(M::keyDigest(M::makeKey("s", seed())).size(), 64u);
  // A user name holding line breaks cannot pass for another user's search.
  const std::string tail = "\nearliest=1.000000\nlatest=2.000000\nsearch=";
  EXPECT_NE(M::makeKey("x", seed("u" + tail + "s", 1, 2)), M::makeKey("s" + tail + "x", seed("u", 1, 2)));
  EXPECT_NE(M::makeKey("s", seed("u", 1, 2)), M::makeKey("s", seed("u", 1, 3)));
  EXPECT_NE(M::makeKey("s", seed("u", 1, 2)), M::makeKey("s", seed("u", 0, 2)));
}

TEST_F(UnifiedSearchTest, RefusesAnIdThatIsNoPlainName) {
  for (const char* id : {"", "..", "a/b", "../job"}) {
    SCOPED_TRACE(id);
    auto page = read("testbatches rows=3", 0, 10, seed(), id);
    EXPECT_EQ(page->error, std::string("Invalid search id '") + id + "'");
  }
  EXPECT_EQ(manager()->size(), 0u);
}

}  // namespace
