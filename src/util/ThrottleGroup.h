// ThrottleGroup: a set of polled descriptors whose events are held back
// together (for example every input reader while a queue is full).
//
// setMask() raises or lifts throttled event bits. A member that gets a
// throttled event while the bits are raised drops them from its poll mask and
// joins the group's waiting list; lifting the bits hands each waiting member
// its pending bits back through unthrottleEvents().
//
// Threads: setMask() from any thread (members put their bits back on their
// own loop); the list is guarded by the group's mutex.
#pragma once

#include <atomic>

#include "util/Mutex.h"

class Throttleable;

class ThrottleGroup {
 public:
  explicit ThrottleGroup(short mask = 0) : _mask(mask) {}
  ~ThrottleGroup();
  ThrottleGroup(const ThrottleGroup&) = delete;
  ThrottleGroup& operator=(const ThrottleGroup&) = delete;

  short mask() const { return _mask.load(std::memory_order_acquire); }
  void setMask(short mask);

 private:
  friend class Throttleable;
  std::atomic<short> _mask;
  Mutex _mutex;
  Throttleable* _head = nullptr;  // waiting members, doubly linked
};
