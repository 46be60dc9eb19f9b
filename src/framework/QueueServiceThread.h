// QueueServiceThread: a thread that moves records from one queue to another
// until it is told to stop.
//
// DESIGN. The loop waits at most one second on each side (a remove from
// the source, an insert into the target), so a stop request is seen within
// about a second. A record taken from the source is kept until the target
// takes it; one still held when the thread stops is offered to the target
// once more without waiting, then put back into the source if it can be,
// and otherwise logged as lost.
//
// Ownership: the creator owns the thread and both queues, which must outlive
// it. The destructor stops and joins the thread. Threads: start(), stop()
// and the destructor from any thread but this one.
#pragma once

#include <atomic>

#include "framework/ProducerConsumerQueue.h"
#include "util/Thread.h"

class QueueServiceThread : public Thread {
 public:
  // REQUIRES: a MainThread exists; from and to are distinct.
  QueueServiceThread(ProducerConsumerQueue* from, ProducerConsumerQueue* to);
  ~QueueServiceThread() override;

  void start() { go(); }
  // Asks the loop to end; join() (or the destructor) waits for it.
  void stop() { _stop = true; }
  // Records handed on so far.
  unsigned long getMovedCount() const { return _moved; }

  void main() override;

 private:
  ProducerConsumerQueue* _from;
  ProducerConsumerQueue* _to;
  std::atomic<bool> _stop{false};
  std::atomic<unsigned long> _moved{0};
};
