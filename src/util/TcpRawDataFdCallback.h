// TcpRawDataFdCallback: the consumer of a raw TCP connection's bytes.
//
// rawTcpDataAvailable() returns how many bytes it consumed; it is called
// again with the rest until it consumes nothing or everything; a negative
// return closes the connection. rawTcpWriteCompleted() reports the end of
// a non-blocking write (error 0 on success) with the bytes written.
// Both run on the connection's loop thread.
#pragma once

#include "util/PollableDescriptor.h"

class TcpRawDataFdCallback {
 public:
  virtual ~TcpRawDataFdCallback() = default;
  virtual long rawTcpDataAvailable(PollableDescriptor fd, char const* data, unsigned long size) = 0;
  virtual void rawTcpWriteCompleted(PollableDescriptor /*fd*/, int /*error*/, long /*bytes*/) {}
};
