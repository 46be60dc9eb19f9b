// CallbackAfterEventService: a zero-length one-shot timeout, run after the
// current service pass, that other threads may post through
// EventLoop::addFromAnywhere() (its embedded actor adds it on the loop's
// thread). Posting an already pending callback does nothing.
//
// Threads: when_expired() on the loop's thread; post from any thread.
// REQUIRES: not pending when destroyed.
#pragma once

#include <atomic>

#include "util/InThreadActor.h"
#include "util/Timeout.h"

class EventLoop;

class CallbackAfterEventService : public OneShotTimeout {
 public:
  CallbackAfterEventService() : _actor(this) {}

 private:
  friend class EventLoop;
  class AddCallbackFromAnywhereActor : public InThreadActor {
   public:
    explicit AddCallbackFromAnywhereActor(CallbackAfterEventService* o) : _owner(o) {}
    void run() override;
    EventLoop* loop = nullptr;

   private:
    CallbackAfterEventService* _owner;
  };
  AddCallbackFromAnywhereActor _actor;
  std::atomic<bool> _posted{false};
};
