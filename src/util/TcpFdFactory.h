// TcpFdFactory: makes the connection object for each socket an AcceptFd
// accepts, and hears when one closes. Called on the acceptor's loop thread.
#pragma once

#include "util/PollableDescriptor.h"
#include "util/SocketAddress.h"

class TcpPolledFd;

class TcpFdFactory {
 public:
  virtual ~TcpFdFactory() = default;
  // Null refuses the connection (its socket is closed).
  virtual TcpPolledFd* create(void* owner, PollableDescriptor fd, SocketAddress const& from) = 0;
  virtual void fdClosing(void* /*owner*/, PollableDescriptor /*fd*/, TcpPolledFd* /*p*/) {}
};
