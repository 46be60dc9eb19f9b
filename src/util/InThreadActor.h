// InThreadActor: a piece of work handed to an EventLoop to run on its thread.
//
// EventLoop::internal_runInThread(actor, wait) links the actor on the loop's
// list (no allocation: the link is the actor's own) and wakes the loop
// through its self pipe. With wait set the caller blocks on the actor's
// condition until run() has returned, so a stack actor is fine; without it
// the actor must live until run() (which may delete the actor itself).
//
// Threads: run() is called on the loop's thread, or on the caller's when the
// loop is not running. REQUIRES: an actor is queued on one loop at a time.
#pragma once

#include "util/ConditionBaseClass.h"

class InThreadActor {
 public:
  InThreadActor() = default;
  virtual ~InThreadActor() = default;
  InThreadActor(const InThreadActor&) = delete;
  InThreadActor& operator=(const InThreadActor&) = delete;

  virtual void run() = 0;

 private:
  friend class EventLoop;
  friend class InThreadActorNotify;
  ConditionBaseClass _cond;
  bool _wait = false;
  bool _ran = false;
  InThreadActor* _next = nullptr;
};
