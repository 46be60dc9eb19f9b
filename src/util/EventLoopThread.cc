#include "util/EventLoopThread.h"

#include "util/CallbackAfterEventService.h"

// Marks the loop as accepting work: runs on the loop's first pass.
class EventLoopThread::Ready : public OneShotTimeout {
 public:
  explicit Ready(EventLoopThread* t) : _t(t) {}
  void when_expired() override {
    ScopedLock l(_t->_m);
    _t->_ready = true;
    _t->_cond.internal_wake_all();
  }

 private:
  EventLoopThread* _t;
};

EventLoopThread::EventLoopThread(const char* name) : Thread("%s", name) {}

EventLoopThread::~EventLoopThread() { stop(); }

void EventLoopThread::main() {
  Ready ready(this);
  add(&ready, 0);
  _result = run();
  remove(&ready);
}

void EventLoopThread::start() {
  go();
  ScopedLock l(_m);
  while (!_ready) _cond.wait(_m);
}

int EventLoopThread::stop() {
  if (_stopped) return _result;
  _stopped = true;
  if (isStarted()) {
    if (isRunning()) terminate(0);
    join();
  } else {
    joinEvenIfUnstarted();
  }
  return _result;
}
