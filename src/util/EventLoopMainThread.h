// EventLoopMainThread: the MainThread of a server, owning the process's
// main EventLoop and reaping finished threads on it.
//
// joinAndDeleteMe(t) posts a small actor to the loop that joins and
// deletes t through a Thread::JoinHelper, so a thread may hand itself over
// at the end of its main(). When the loop is not running the thread is kept
// on MainThread's list and reaped by reapFinished() or the destructor.
//
// Threads: construct, run the loop and destroy on the process's main
// thread; joinAndDeleteMe() from any thread.
#pragma once

#include "util/EventLoop.h"
#include "util/MainThread.h"

class EventLoopMainThread : public MainThread {
 public:
  EventLoopMainThread() = default;
  EventLoop& eventLoop() { return _loop; }
  void joinAndDeleteMe(Thread* t) override;

 private:
  EventLoop _loop;
};
