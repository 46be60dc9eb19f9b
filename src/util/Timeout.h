// Timeout: a timer run by an EventLoop, and the base of every timer class.
//
// A Timeout carries its own links in the loop's timeout heap (two children,
// a parent and the place that points at it), so adding and removing it never
// allocates. A derived class implements when_expired(reschedule_ms): the loop
// presets reschedule_ms to the interval the timer was added with; leaving it
// non-zero queues the timer again that many milliseconds after it ran, zero
// ends it. A timer must not add() itself from when_expired (asserted): it
// uses the argument instead.
//
// Ownership: the creator owns the object and must remove it (or let it
// expire for good) before deleting it; a timer may delete itself inside
// when_expired when it leaves reschedule_ms at zero.
//
// Threads: only the thread running its EventLoop touches a queued Timeout;
// other threads go through EventLoop::removeFromAnywhere or
// CallbackAfterEventService.
#pragma once

#include "util/Timeval.h"

class EventLoop;

class Timeout {
 public:
  Timeout() = default;
  virtual ~Timeout();
  Timeout(const Timeout&) = delete;
  Timeout& operator=(const Timeout&) = delete;

  virtual void when_expired(unsigned long long& reschedule_ms) = 0;

  // Queued in a heap or waiting in an expired list (not while it runs).
  bool isActive() const { return _state != State::kInactive; }
  const Timeval& expiry() const { return _expiry; }
  unsigned long long interval() const { return _interval_ms; }

 private:
  friend class EventLoop;
  enum class State : unsigned char { kInactive, kQueued, kExpired, kRequeue };

  // Heap links. While the timer sits in an expired list, child[0] and
  // child[1] serve as its next and previous links instead.
  struct {
    Timeout* child[2] = {nullptr, nullptr};
    Timeout* parent = nullptr;
  } _ptr;
  Timeout** _linkp = nullptr;  // the pointer that points at this node
  State _state = State::kInactive;
  Timeval _expiry;
  unsigned long long _interval_ms = 0;
};

// Fires once; when_expired() decides nothing about repeating.
class OneShotTimeout : public Timeout {
 public:
  virtual void when_expired() = 0;
  void when_expired(unsigned long long& reschedule_ms) final {
    reschedule_ms = 0;
    when_expired();
  }
};

// Fires every interval, counted from the end of the previous run, until it
// is removed.
class PeriodicTimeout : public Timeout {
 public:
  virtual void when_expired() = 0;
  void when_expired(unsigned long long& /*reschedule_ms*/) final { when_expired(); }
};
