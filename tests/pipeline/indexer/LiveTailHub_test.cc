// The hub between the indexer and the live tail's readers: what a reader
// gets of an event, bounded queues that drop and count rather than grow,
// readers that come and go, and publishers on several threads at once.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "pipeline/indexer/LiveTailHub.h"
#include "pipeline/indexer/WritableEvent.h"

namespace {

WritableEvent makeEvent(const char* raw, const char* host = "web1", const char* source = "/var/log/a.log",
                        const char* type = "app", const char* time = "1700000000.250") {
  WritableEvent ev;
  ev.raw = StrSegment(raw);
  ev.host = StrSegment(host);
  ev.source = StrSegment(source);
  ev.sourceType = StrSegment(type);
  ev.time = StrSegment(time);
  return ev;
}

std::vector<Str> raws(const std::vector<LiveTailHub::EventPtr>& events) {
  std::vector<Str> out;
  for (const auto& e : events) out.push_back(e->raw);
  return out;
}

TEST(LiveTailHubTest, AReaderGetsTheKeysWithoutTheirPrefixes) {
  struct Case {
    const char *host, *source, *type;
    const char *wantHost, *wantSource, *wantType;
  } cases[] = {
      {"web1", "/var/log/a.log", "app", "web1", "/var/log/a.log", "app"},
      {"host::web1", "source::/var/log/a.log", "sourcetype::app", "web1", "/var/log/a.log", "app"},
      {"", "", "", "", "", ""},
      {"hostile::x", "src::y", "sourcetype:z", "hostile::x", "src::y", "sourcetype:z"},
  };
  LiveTailHub hub;
  auto sub = hub.subscribe(10);
  for (const Case& c : cases) {
    hub.deliver("main", makeEvent("one line", c.host, c.source, c.type));
    std::vector<LiveTailHub::EventPtr> got;
    EXPECT_EQ(0u, sub->take(got, 0));
    ASSERT_EQ(1u, got.size()) << c.host;
    EXPECT_EQ("main", got[0]->index);
    EXPECT_EQ(c.wantHost, got[0]->host);
    EXPECT_EQ(c.wantSource, got[0]->source);
    EXPECT_EQ(c.wantType, got[0]->sourceType);
    EXPECT_EQ("one line", got[0]->raw);
    EXPECT_EQ("1700000000.250", got[0]->time);
  }
  hub.unsubscribe(sub);
}

// A full queue keeps what it has and counts the rest; the count is told
// once, by the next take.
TEST(LiveTailHubTest, AFullQueueDropsAndCountsInsteadOfGrowing) {
  struct Case {
    size_t capacity, published;
    size_t wantKept, wantDropped;
  } cases[] = {
      {3, 0, 0, 0}, {3, 2, 2, 0}, {3, 3, 3, 0}, {3, 5, 3, 2}, {1, 4, 1, 3}, {0, 2, 1, 1},  // 0 means 1
  };
  for (const Case& c : cases) {
    LiveTailHub hub;
    auto sub = hub.subscribe(c.capacity);
    std::vector<Str> texts;
    for (size_t i = 0; i < c.published; ++i) texts.push_back("event " + std::to_string(i));
    for (const Str& t : texts) hub.deliver("main", makeEvent(t.c_str()));
    std::vector<LiveTailHub::EventPtr> got;
    EXPECT_EQ(c.wantDropped, sub->take(got, 0)) << c.capacity << "/" << c.published;
    EXPECT_EQ(std::vector<Str>(texts.begin(), texts.begin() + long(c.wantKept)), raws(got));
    got.clear();
    EXPECT_EQ(0u, sub->take(got, 0)) << "the count is told once";
    // Room again: the next event is kept.
    hub.deliver("main", makeEvent("after"));
    EXPECT_EQ(0u, sub->take(got, 0));
    EXPECT_EQ(std::vector<Str>{"after"}, raws(got));
    hub.unsubscribe(sub);
  }
}

// Each reader has its own queue: a slow one loses events, the others not.
TEST(LiveTailHubTest, ReadersComeAndGoEachWithItsOwnQueue) {
  LiveTailHub hub;
  EXPECT_EQ(0u, hub.subscribers());
  hub.deliver("main", makeEvent("nobody listens"));
  auto slow = hub.subscribe(2);
  auto quick = hub.subscribe(100);
  EXPECT_EQ(2u, hub.subscribers());
  for (int i = 0; i < 5; ++i) hub.deliver("main", makeEvent("e"));
  std::vector<LiveTailHub::EventPtr> got;
  EXPECT_EQ(0u, quick->take(got, 0));
  EXPECT_EQ(5u, got.size());
  std::vector<LiveTailHub::EventPtr> slowGot;
  EXPECT_EQ(3u, slow->take(slowGot, 0));
  ASSERT_EQ(2u, slowGot.size());
  EXPECT_EQ(got[0].get(), slowGot[0].get()) << "an event is copied once for all readers";
  got.clear();

  hub.unsubscribe(slow);
  EXPECT_TRUE(slow->closed());
  EXPECT_EQ(1u, hub.subscribers());
  hub.deliver("main", makeEvent("only quick"));
  got.clear();
  EXPECT_EQ(0u, slow->take(got, 5.0)) << "a closed queue does not wait";
  EXPECT_TRUE(got.empty());
  quick->take(got, 0);
  EXPECT_EQ(std::vector<Str>{"only quick"}, raws(got));
  hub.unsubscribe(slow);  // twice is harmless
  hub.unsubscribe(quick);
  EXPECT_EQ(0u, hub.subscribers());
}

// A reader waiting in take is woken by close (the shutdown of a tail).
TEST(LiveTailHubTest, CloseWakesAWaitingReader) {
  LiveTailHub hub;
  auto sub = hub.subscribe(10);
  std::vector<LiveTailHub::EventPtr> got;
  std::thread reader([&] { sub->take(got, 600.0); });
  sub->close();
  reader.join();
  EXPECT_TRUE(got.empty());
  hub.unsubscribe(sub);
}

// Several indexing threads publish while one reader drains: every event is
// either received or counted as dropped, never both and never lost.
TEST(LiveTailHubTest, EveryEventOfConcurrentPublishersIsReceivedOrCounted) {
  struct Case {
    size_t capacity;
    int threads, perThread;
  } cases[] = {{16, 4, 2000}, {100000, 3, 1000}, {1, 2, 500}};
  for (const Case& c : cases) {
    LiveTailHub hub;
    auto sub = hub.subscribe(c.capacity);
    std::vector<std::thread> publishers;
    for (int t = 0; t < c.threads; ++t)
      publishers.emplace_back([&hub, &c] {
        for (int i = 0; i < c.perThread; ++i) hub.deliver("main", makeEvent("x"));
      });
    size_t received = 0, dropped = 0;
    const size_t total = size_t(c.threads) * size_t(c.perThread);
    std::vector<LiveTailHub::EventPtr> got;
    for (int rounds = 0; rounds < 1000000 && received + dropped < total; ++rounds) {
      got.clear();
      dropped += sub->take(got, 0.01);
      received += got.size();
    }
    for (auto& p : publishers) p.join();
    got.clear();
    dropped += sub->take(got, 0);
    received += got.size();
    EXPECT_EQ(total, received + dropped) << c.capacity;
    EXPECT_LE(received, total);
    hub.unsubscribe(sub);
  }
}

}  // namespace
