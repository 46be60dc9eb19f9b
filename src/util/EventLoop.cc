// The loop proper: run(), descriptors, actors. The timeout heap is in
// EventLoopTimeouts.cc. See EventLoop.h for the DESIGN paragraph.
#include "util/EventLoop.h"

#include <cassert>
#include <cerrno>
#include <climits>
#include <cstring>
#include <cstdlib>
#include <new>

#include "util/CallbackAfterEventService.h"
#include "util/Exceptions.h"
#include "util/InThreadActor.h"
#include "util/InThreadActorNotify.h"
#include "util/PolledFd.h"

EventLoopClock* EventLoopClock::system() {
  static EventLoopClock clock;
  return &clock;
}

class EventLoop::ExitCodeSetter : public InThreadActor {
 public:
  ExitCodeSetter(EventLoop* l, int code) : _l(l), _code(code) {}
  void run() override {
    _l->_exit = true;
    _l->_exitCode = _code;
  }

 private:
  EventLoop* _l;
  int _code;
};

class EventLoop::RemoveTimeoutFromAnywhereActor : public InThreadActor {
 public:
  RemoveTimeoutFromAnywhereActor(EventLoop* l, Timeout* t) : _l(l), _t(t) {}
  void run() override { _l->remove(_t); }

 private:
  EventLoop* _l;
  Timeout* _t;
};

void CallbackAfterEventService::AddCallbackFromAnywhereActor::run() {
  if (!_owner->isActive()) loop->add(_owner, 0);
  _owner->_posted.store(false);
}

EventLoop::EventLoop(EventLoopClock* clock) : _clock(clock) {}

EventLoop::~EventLoop() {
  std::free(_pfd);
  std::free(_pev);
}

bool EventLoop::isRunning() {
  ScopedLock l(_mutex);
  return _notify != nullptr;
}

int EventLoop::run() {
  _exit = false;
  auto* notify = new InThreadActorNotify(this);
  notify->add_to(this);
  {
    ScopedLock l(_mutex);
    _notify = notify;
    _ita_thread = ThreadToken::self();
  }
  Timeval now = _clock->now();
  for (;;) {
    runExpiredTimeouts(now);
    if (_exit) break;
    if (_timeoutCount > 0) now = _clock->now();
    const int delay = msecUntilNextTimeout(now);
    _in_poll = true;
    int r = ::poll(_pfd, _pfdCount, delay);
    _in_poll = false;
    if (r < 0) {
      if (errno != EINTR && errno != EAGAIN) throw EventLoopException("error from EventLoop poll: %s", strerror(errno));
      r = 0;
    }
    if (delay >= 0) {
      Timeval after = _clock->now();
      checkClockSkew(now, after, delay);
      now = after;
    }
    if (r == 0) continue;

    _in_service_loop = true;
    for (unsigned int i = 0; i < _pfdCount;) {
      if (_pfd[i].revents == 0) {
        ++i;
        continue;
      }
      PolledFd* p = _pev[i];
      assert(p->_pfd == &_pfd[i] && "_pev[i]->_pfd == &_pfd[i]");
      if (p->do_event()) {
        // Finished: out of the arrays, then after_eof, then a fresh walk
        // (the last slot moved into this one; handled slots have no revents).
        _in_service_loop = false;
        removeSlot(i);
        p->after_eof();
        _in_service_loop = true;
        i = 0;
        continue;
      }
      _pfd[i].revents = 0;
      ++i;
    }
    _in_service_loop = false;
    // Actors run after the walk, so that they may add and remove
    // descriptors like any other code outside it.
    if (_actorsTriggered) {
      _actorsTriggered = false;
      InThreadActor* list;
      {
        ScopedLock l(_mutex);
        list = _actorHead;
        _actorHead = _actorTail = nullptr;
      }
      drainActors(list);
    }
    if (_timeoutCount > 0) now = _clock->now();
  }

  InThreadActor* rest;
  {
    ScopedLock l(_mutex);
    _notify = nullptr;
    rest = _actorHead;
    _actorHead = _actorTail = nullptr;
  }
  drainActors(rest);
  notify->remove_from_eventloop(this);
  delete notify;
  runZeroLengthTimeoutsAtExit();
  {
    ScopedLock l(_mutex);
    _ita_thread.clear();
  }
  return _exitCode;
}

void EventLoop::terminate(int exitCode) {
  ExitCodeSetter a(this, exitCode);
  internal_runInThread(&a, true);
}

// ---- descriptors ----

void EventLoop::add(PolledFd* p, PollableDescriptor fd) { add(p, fd, p->defaultEvents()); }

void EventLoop::add(PolledFd* p, PollableDescriptor fd, short events) {
  assert(!p->isActive());
  assert(!_in_service_loop);
  assert(!_in_poll);
  assert(fd.valid());
  if (_pfdCount == _pfdMax) growArrays();
  const unsigned int slot = _pfdCount++;
  _pfd[slot].fd = fd.get();
  _pfd[slot].events = events;
  _pfd[slot].revents = 0;
  _pev[slot] = p;
  p->_pfd = &_pfd[slot];
  p->_loop = this;
  p->after_add();
}

void EventLoop::growArrays() {
  const unsigned int newMax = _pfdMax == 0 ? 32 : _pfdMax * 2;
  auto* pfd = static_cast<pollfd*>(std::realloc(_pfd, newMax * sizeof(pollfd)));
  if (pfd == nullptr) throw std::bad_alloc();
  _pfd = pfd;
  auto* pev = static_cast<PolledFd**>(std::realloc(_pev, newMax * sizeof(PolledFd*)));
  if (pev == nullptr) throw std::bad_alloc();
  _pev = pev;
  _pfdMax = newMax;
  for (unsigned int i = 0; i < _pfdCount; ++i) _pev[i]->_pfd = &_pfd[i];
}

void EventLoop::removeSlot(unsigned int i) {
  PolledFd* p = _pev[i];
  p->_pfd = nullptr;
  const unsigned int last = --_pfdCount;
  if (i != last) {
    _pfd[i] = _pfd[last];
    _pev[i] = _pev[last];
    _pev[i]->_pfd = &_pfd[i];
  }
}

void EventLoop::removeActivePolledFd(PolledFd* p) {
  assert(p->isActive());
  assert(!_in_service_loop);
  assert(!_in_poll);
  removeSlot(static_cast<unsigned int>(p->_pfd - _pfd));
}

// ---- actors ----

void EventLoop::internal_runInThread(InThreadActor* actor, bool wait) {
  actor->_wait = wait;
  actor->_ran = false;
  actor->_next = nullptr;
  _mutex.lock();
  if (_notify == nullptr || _ita_thread == ThreadToken::self()) {
    _mutex.unlock();
    actor->run();
    return;
  }
  if (_actorTail != nullptr) _actorTail->_next = actor;
  else _actorHead = actor;
  _actorTail = actor;
  _notify->trigger();
  if (wait) {
    while (!actor->_ran) actor->_cond.wait(_mutex);
  }
  _mutex.unlock();
}

int EventLoop::runInThreadOrFail(InThreadActor* actor, bool wait) {
  {
    ScopedLock l(_mutex);
    if (_notify == nullptr) return 0;
  }
  // The loop may stop in between; the actor then runs here, which is what a
  // stopped loop does with any actor.
  internal_runInThread(actor, wait);
  return 1;
}

void EventLoop::assertInThread() {
  ScopedLock l(_mutex);
  assert(!_ita_thread.isSet() || (_ita_thread == ThreadToken::self() && "_ita_thread == ThreadToken::self()"));
}

void EventLoop::drainActors(InThreadActor* list) {
  while (list != nullptr) {
    // Read the links first: an actor nobody waits for may free itself.
    InThreadActor* next = list->_next;
    const bool wait = list->_wait;
    list->run();
    if (wait) {
      ScopedLock l(_mutex);
      assert(!list->_ran);
      list->_ran = true;
      list->_cond.internal_wake_all();
    }
    list = next;
  }
}

void InThreadActorNotify::when_triggered() { _loop->_actorsTriggered = true; }

bool EventLoop::addFromAnywhere(CallbackAfterEventService* cb) {
  if (cb->_posted.exchange(true)) return true;
  cb->_actor.loop = this;
  if (runInThreadOrFail(&cb->_actor, false) == 0) {
    cb->_posted.store(false);
    return false;
  }
  return true;
}

void EventLoop::removeFromAnywhere(Timeout* t) {
  RemoveTimeoutFromAnywhereActor a(this, t);
  internal_runInThread(&a, true);
}
