// Throttleable: membership of a polled object in a ThrottleGroup.
//
// Holds the group, the event bits held back and the links of the group's
// waiting list. Two groups always exist: not_throttled (the default, never
// throttles) and blocked (throttles every event, silently).
//
// Threads: checkThrottling() on the owner's loop thread; the links are
// guarded by the group's mutex.
#pragma once

#include "util/ThrottleGroup.h"

class Throttleable {
 public:
  static ThrottleGroup not_throttled;
  static ThrottleGroup blocked;

  Throttleable() = default;
  virtual ~Throttleable();
  Throttleable(const Throttleable&) = delete;
  Throttleable& operator=(const Throttleable&) = delete;

  void setThrottleGroup(ThrottleGroup* g);
  ThrottleGroup* throttleGroup() const { return _tgroup; }
  bool isThrottled() const { return _tgroup->mask() != 0; }

  // Returns the allowed events: the complement of the group's mask, after
  // recording the blocked bits of `events` and joining the waiting list.
  short checkThrottling(short revents, short events);

  // Called by the group when its bits lift, with the bits held back.
  virtual void unthrottleEvents(short pending) = 0;

 private:
  friend class ThrottleGroup;
  void unlinkLocked();

  ThrottleGroup* _tgroup = &not_throttled;
  short _pending = 0;
  bool _linked = false;
  Throttleable* _next = nullptr;
  Throttleable* _prev = nullptr;
};
