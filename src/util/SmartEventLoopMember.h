// SmartEventLoopMember: an object that knows how to put itself on an
// EventLoop and take itself off again, for owners that hold members of
// different kinds (a PolledFd wrapper, a pipe, a socket consumer) through
// one interface.
//
// Threads: both calls on the loop's thread (or before the loop runs),
// never inside the loop's service walk.
#pragma once

#include "util/PollableDescriptor.h"

class EventLoop;

class SmartEventLoopMember {
 public:
  virtual ~SmartEventLoopMember() = default;
  virtual void add_to(EventLoop* loop, PollableDescriptor fd) = 0;
  // Does nothing when the member is not on a loop.
  virtual void remove_from_eventloop(EventLoop* loop) = 0;
};
