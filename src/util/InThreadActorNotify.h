// InThreadActorNotify: the self pipe through which other threads wake an
// EventLoop; when_triggered() tells the loop to run the queued InThreadActors
// once the current service walk is over. Made by EventLoop::run() for the
// time the loop runs. Loop thread only.
#pragma once

#include "util/SelfPipe.h"

class EventLoop;

class InThreadActorNotify : public SelfPipe {
 public:
  explicit InThreadActorNotify(EventLoop* loop) : _loop(loop) {}
  void when_triggered() override;

 private:
  EventLoop* _loop;
};
