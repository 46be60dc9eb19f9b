// TcpRawDataFd: a TCP connection that hands the bytes it reads to a
// TcpRawDataFdCallback and writes without blocking the loop.
//
// Two buffers of bufferSize (read and work) under a mutex, since a worker
// thread that owns the connection may use them. A partial write adds the
// write events and continues when the socket drains.
// Threads: the loop's thread; blockingWriteFromAnywhere() from any other.
#pragma once

#include <vector>

#include "util/Mutex.h"
#include "util/TcpPolledFd.h"
#include "util/TcpRawDataFdCallback.h"

class TcpRawDataFd : public TcpPolledFd {
 public:
  TcpRawDataFd(unsigned long bufferSize, TcpRawDataFdCallback* cb);

  bool when_events(PollableDescriptor fd) override;
  bool blockingWrite(char const* data, unsigned long size, int timeoutMs) override;
  bool nonblockingWrite(char const* data, unsigned long size) override;
  bool blockingWriteFromAnywhere(char const* data, unsigned long size) override;
  bool writeInProgress() const { return _writing; }

 protected:
  // Feeds `size` bytes of the work buffer to the callback; false: close.
  bool deliver(PollableDescriptor fd, unsigned long size);
  bool continueWrite();

  unsigned long _bufferSize;
  TcpRawDataFdCallback* _cb;
  Mutex _mutex;
  std::vector<char> _readBuf;
  std::vector<char> _workBuf;
  const char* _wdata = nullptr;
  unsigned long _wsize = 0;
  long _wtotal = 0;
  bool _writing = false;
};
