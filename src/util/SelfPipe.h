// SelfPipe: a non-blocking pipe that wakes an EventLoop. trigger() writes one
// byte (from any thread, or from a signal handler through triggerFd());
// on the loop the bytes are drained and when_triggered() runs once.
//
// Ownership: the object owns both ends. REQUIRES: removed from its loop
// before it is destroyed.
#pragma once

#include "util/PolledReadPipe.h"

class SelfPipe : public PolledReadPipe {
 public:
  // Throws SelfPipeException "can't create selfpipe".
  SelfPipe() : PolledReadPipe(true) {}

  // Throws SelfPipeException on a write error other than EAGAIN.
  void trigger();
  // The write end, for async-signal-safe writers.
  int triggerFd() const { return writeFd(); }

  virtual void when_triggered() = 0;
  // Drains the pipe, then when_triggered(); true (finished) at end of file
  // with nothing read. Throws SelfPipeException on a read error.
  bool when_events(PollableDescriptor fd) override;
};
