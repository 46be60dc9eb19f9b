// QueueManager: the process-wide directory of named queues. Pipelines meet
// through it: whoever asks first for a name creates the queue (and takes
// back what it saved at the last shutdown), later askers get the same queue
// whatever size they ask for, and each asker gives its reference back with
// removeQueue().
//
// Ownership: the manager owns every queue it hands out; a queue is deleted
// when its reference count falls to zero. REQUIRES: a caller stops using
// its queue pointer (and no thread is blocked in that queue) before its
// last removeQueue().
//
// DESIGN. One mutex guards the map from names to entries (the queue and
// its reference count) and the shutdown flag. A queue is created, named,
// given its metrics callback and restored under that mutex, so a second
// asker never sees a half-made queue. signalShutdown() shuts every queue
// down (each saves what it holds) under the mutex and then refuses every
// later request; it is meant to be the handler of the "Queue" shutdown
// level, the last one. A queue is deleted outside the mutex.
//
// Threads: any thread. Lock order: the manager's mutex, then
// MetricsManager's, then a queue's; never the other way round.
#pragma once

#include "framework/MShutdownHandler.h"

#include <map>
#include <memory>
#include <stdexcept>

#include "framework/ProducerConsumerQueue.h"
#include "util/Exceptions.h"
#include "util/Mutex.h"
#include "util/Str.h"

VELMOR_DECLARE_EXCEPTION(QueueManagerException, std::runtime_error);

class QueueManager : public MShutdownHandler {
 public:
  static QueueManager& instance();

  // The queue of that name, made with a bound of maxSize (0: unbounded) if
  // new. Throws
  // QueueManagerException after shutdown.
  ProducerConsumerQueue* getQueue(const Str& name, size_t maxSize = 1000, bool saveContents = true);
  ProducerConsumerQueue* getQueueUnlimited(const Str& name, bool saveContents = true);
  // An existing name only gains a reference: unlimited and maxSize are
  // not looked at. A new queue is named, registers its metrics and, with
  // saveContents, restores what was saved under its name.
  ProducerConsumerQueue* getQueueCommon(const Str& name, bool unlimited, size_t maxSize, bool saveContents);
  // Gives one reference back; the queue is deleted at zero. False for an
  // unknown name.
  bool removeQueue(const Str& name);
  bool exists(const Str& name);

  // Shuts every queue down (saving its contents) and refuses later
  // requests. Returns true: the work is done when it returns.
  bool signalShutdown() override;

  // TEST ONLY: deletes every queue and clears the shutdown flag.
  static void resetForTest();

 private:
  struct Entry {
    std::unique_ptr<ProducerConsumerQueue> queue;
    int refCount = 0;
  };

  QueueManager() = default;

  Mutex _mutex;
  std::map<Str, std::shared_ptr<Entry>> _queues;
  bool _shutdown = false;
};
