// SelfPipe: a non-blocking pipe that wakes an EventLoop. trigger() writes one
// byte (from any thread, or from a signal handler through triggerFd());
// on the loop the bytes are drained and when_triggered() runs once.
//
// Ownership: the object owns both ends. REQUIRES: removed from its loop
// before it is destroyed.
#pragma once

#include "util/PolledFd.h"

class SelfPipe : public PolledFd {
 public:
  // Throws SelfPipeException "can't create selfpipe".
  SelfPipe();
  ~SelfPipe() override;

  // Throws SelfPipeException on a write error other than EAGAIN.
  void trigger();
  int readFd() const { return _r; }
  // The write end, for async-signal-safe writers.
  int triggerFd() const { return _w; }

  virtual void when_triggered() = 0;
  bool when_events(PollableDescriptor fd) override;

 private:
  int _r = -1;
  int _w = -1;
};
