// PolledReadPipe: a pipe whose read end is polled for reading. The object
// owns both ends (close-on-exec; non-blocking when asked); writers use
// writeFd(), and add_to() puts the read end on a loop, where subclasses
// handle when_events().
//
// Threads: the read side on the loop's thread; the write end may be used
// by any thread or a signal handler.
#pragma once

#include "util/ProxyPolledFd.h"

class PolledReadPipe : public ProxyPolledFd {
 public:
  // Throws SelfPipeException "can't create selfpipe" when pipe2 fails.
  explicit PolledReadPipe(bool nonblocking);
  ~PolledReadPipe() override;

  int readFd() const { return _r; }
  int writeFd() const { return _w; }
  short defaultEvents() const override { return PolledFd::kReadEvents | PolledFd::kErrorEvents; }

  // Puts the read end on the loop.
  void add_to(EventLoop* loop) { ProxyPolledFd::add_to(loop, PollableDescriptor(_r)); }
  using ProxyPolledFd::add_to;

 private:
  int _r = -1;
  int _w = -1;
};
