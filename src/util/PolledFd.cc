#include "util/PolledFd.h"

#include <cassert>

#include "util/EventLoop.h"
#include "util/InThreadActor.h"

PolledFd::~PolledFd() { assert(_pfd == nullptr); }

PollableDescriptor PolledFd::getFd() const {
  assert(_pfd != nullptr);
  return PollableDescriptor(_pfd->fd);
}

short PolledFd::ourEvents() const {
  assert(_pfd != nullptr);
  return _pfd->events;
}

short PolledFd::ourRevents() const {
  assert(_pfd != nullptr);
  return _pfd->revents;
}

void PolledFd::changeEvents(short events) {
  assert(_pfd != nullptr);
  _pfd->events = events;
}

void PolledFd::changeRevents(short revents) {
  assert(_pfd != nullptr);
  _pfd->revents = revents;
}

namespace {
class UnthrottleActor : public InThreadActor {
 public:
  UnthrottleActor(PolledFd* p, short bits) : _p(p), _bits(bits) {}
  void run() override {
    if (_p->isActive()) _p->changeEvents(static_cast<short>(_p->ourEvents() | _bits));
  }

 private:
  PolledFd* _p;
  short _bits;
};
}  // namespace

void PolledFd::unthrottleEvents(short pending) {
  if (_loop == nullptr) return;
  UnthrottleActor a(this, pending);
  _loop->internal_runInThread(&a, true);
}

bool PolledFd::do_event() {
  if (throttleGroup()->mask() != 0) {
    short allowed = checkThrottling(_pfd->revents, _pfd->events);
    _pfd->events = static_cast<short>(_pfd->events & allowed);
    _pfd->revents = static_cast<short>(_pfd->revents & allowed);
    if (_pfd->revents == 0) return false;
  }
  return when_events(PollableDescriptor(_pfd->fd));
}
