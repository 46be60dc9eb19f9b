// PolledSocket: a PolledFd for a descriptor that is only read from (a
// socket or a pipe): when_events() hands readable events to
// when_readable(), and ends the descriptor on an error or hang-up that
// comes without anything to read.
//
// Threads: the loop's thread.
#pragma once

#include "util/PolledFd.h"

class PolledSocket : public PolledFd {
 public:
  short defaultEvents() const override { return kReadEvents | kErrorEvents; }
  bool when_events(PollableDescriptor fd) override;
  // True: finished (end of file or a read error).
  virtual bool when_readable(PollableDescriptor fd) = 0;
};
