// EventLoopClock: where an EventLoop reads the time. The default reads the
// real-time clock; tests hand a loop a clock of their own to feed it jumps.
//
// The object must outlive the loop that uses it; now() is called on the
// loop's thread only.
#pragma once

#include "util/Timeval.h"

class EventLoopClock {
 public:
  virtual ~EventLoopClock() = default;
  virtual Timeval now() { return Timeval::now(); }

  // The shared real-time clock.
  static EventLoopClock* system();
};
