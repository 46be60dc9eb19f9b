// EventLoopThread: an EventLoop with a thread of its own that runs it.
//
// start() lets the thread run and returns once the loop accepts actors.
// stop() terminates the loop and joins; the destructor does the same.
//
// Threads: construct, start and stop from one controlling thread; the loop's
// own cross-thread calls (terminate, internal_runInThread...) from any.
#pragma once

#include "util/ConditionBaseClass.h"
#include "util/EventLoop.h"
#include "util/Thread.h"

class EventLoopThread : public EventLoop, public Thread {
 public:
  explicit EventLoopThread(const char* name = "EventLoopThread");
  ~EventLoopThread() override;

  void main() override;
  void start();
  // Terminates with code 0 unless already terminated; joins. Returns run()'s
  // result.
  int stop();

 private:
  class Ready;
  Mutex _m;
  ConditionBaseClass _cond;
  bool _ready = false;
  bool _stopped = false;
  int _result = 0;
};
