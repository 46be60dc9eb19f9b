// LiveTailHub: hands every event the indexer writes to the readers of the
// live tail, while they listen.
//
// The index processor calls publish() after each event it wrote. A reader
// (one live tail stream) calls subscribe() and gets a Subscriber: a bounded
// queue it drains with take(); it gives the queue back with unsubscribe()
// (or by dropping its last reference after unsubscribe).
//
// DESIGN. The hub is one per process (instance()). The number of
// subscribers is mirrored in a static atomic, so publish() with nobody
// listening costs one relaxed load and allocates nothing; the indexer never
// waits for a reader either way. With subscribers, the event is copied once
// into a shared, immutable Event and a reference to it is appended to each
// subscriber's queue under that queue's own mutex (the hub's mutex only
// guards the list of subscribers, held for the length of one delivery). A
// full queue does not grow and does not block: the event is counted as
// dropped for that subscriber, and the next take() reports the count so
// the reader can say "dropped N events". A reader that stops is woken by
// close() (unsubscribe closes too). A relaxed load may miss a subscriber
// that arrived at the same instant: a live tail starts with the events
// written after it subscribed, so an event racing the subscription is
// either side of that line.
//
// Threads: every member may be called from any thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <memory>
#include <vector>

#include "util/ConditionBaseClass.h"
#include "util/Mutex.h"
#include "util/Str.h"

struct WritableEvent;

class LiveTailHub {
 public:
  // One written event, owned; the keys as the indexer had them (host,
  // source and source type without their "host::"-style prefix).
  struct Event {
    Str index;
    Str time;  // decimal epoch seconds as the pipeline gave it, maybe empty
    Str host;
    Str source;
    Str sourceType;
    Str raw;
  };
  using EventPtr = std::shared_ptr<const Event>;

  // The queue of one reader.
  class Subscriber {
   public:
    explicit Subscriber(size_t capacity);
    // Moves the queued events into `out` (appended), waiting at most
    // `seconds` while the queue is empty and open. Returns how many events
    // were dropped since the previous take (not counting those in `out`).
    size_t take(std::vector<EventPtr>& out, double seconds);
    // Wakes a waiting take() and refuses further events.
    void close();
    bool closed() const;
    size_t capacity() const { return _capacity; }
    // For the hub: queues the event or counts it as dropped.
    void offer(const EventPtr& e);

   private:
    const size_t _capacity;
    mutable Mutex _mutex;
    ConditionBaseClass _ready;
    std::deque<EventPtr> _queue;
    size_t _dropped = 0;
    bool _closed = false;
  };

  static constexpr size_t kDefaultCapacity = 10000;

  static LiveTailHub& instance();

  LiveTailHub() = default;
  LiveTailHub(const LiveTailHub&) = delete;
  LiveTailHub& operator=(const LiveTailHub&) = delete;

  std::shared_ptr<Subscriber> subscribe(size_t capacity = kDefaultCapacity);
  // Closes the queue and stops delivering to it. A second call is harmless.
  void unsubscribe(const std::shared_ptr<Subscriber>& s);
  size_t subscribers() const;

  // The indexer's call, after `ev` was written into `index`.
  static void publish(const Str& index, const WritableEvent& ev) {
    if (sListening.load(std::memory_order_relaxed) == 0) return;
    instance().deliver(index, ev);
  }
  // Hands `ev` to this hub's subscribers (publish() goes to instance()).
  void deliver(const Str& index, const WritableEvent& ev);

 private:
  static std::atomic<int> sListening;  // subscribers of instance()

  mutable Mutex _mutex;
  std::vector<std::shared_ptr<Subscriber>> _subs;
};
