// PolledFd: a descriptor watched by an EventLoop's poll.
//
// While active (between EventLoop::add and its removal) the object points at
// its slot of the loop's pollfd array; the loop rewrites that pointer when the
// array grows or slots move. when_events() is called with the ready bits in
// the slot; returning true says the descriptor is finished: the loop removes
// it and then calls after_eof(), where the owner may close and delete it.
//
// Event masks: 0xC3 read (POLLIN POLLPRI POLLRDNORM POLLRDBAND), 0x104 write
// (POLLOUT POLLWRNORM), 0x18 error (POLLERR POLLHUP); defaultEvents() is
// 0xDB, read plus error; a class that writes adds the write bits on need.
//
// Threads: every method runs on the loop's thread (asserted by the loop).
#pragma once

#include <poll.h>

#include "util/PollableDescriptor.h"
#include "util/Throttleable.h"

class EventLoop;

class PolledFd : public Throttleable {
 public:
  static constexpr short kReadEvents = 0xC3;
  static constexpr short kWriteEvents = 0x104;
  static constexpr short kErrorEvents = 0x18;
  static constexpr short kDefaultEvents = 0xDB;

  PolledFd() = default;
  ~PolledFd() override;

  void unthrottleEvents(short pending) override;
  virtual short defaultEvents() const { return kDefaultEvents; }
  virtual void after_add() {}
  virtual void after_eof() {}
  // True: finished, remove me.
  virtual bool when_events(PollableDescriptor fd) = 0;

  bool isActive() const { return _pfd != nullptr; }
  EventLoop* eventLoop() const { return _loop; }
  PollableDescriptor getFd() const;
  short ourEvents() const;
  short ourRevents() const;
  void changeEvents(short events);
  void changeRevents(short revents);

  // Throttling filter, then when_events(). True when finished.
  bool do_event();

 private:
  friend class EventLoop;
  pollfd* _pfd = nullptr;
  EventLoop* _loop = nullptr;
};
