// SSLRawDataFd: TcpRawDataFd's behaviour over TLS: decrypted bytes go to a
// TcpRawDataFdCallback, writes go through SSL_write without blocking the
// loop. It keeps OpenSSL's two cross-direction wants (a read that needs
// the socket writable, a write that needs it readable).
//
// Threads: the loop's thread; blockingWriteFromAnywhere() posts the write
// to the loop and waits for it, since the SSL object is not shared.
#pragma once

#include <vector>

#include "util/Mutex.h"
#include "util/SSLPolledFd.h"
#include "util/TcpRawDataFdCallback.h"

class SSLRawDataFd : public SSLPolledFd, public TcpRawDataFdCallback {
 public:
  SSLRawDataFd(SSLContext* ctx, unsigned long bufferSize, TcpRawDataFdCallback* cb);

  bool handleEvent() override;
  bool blockingWrite(char const* data, unsigned long size, int timeoutMs) override;
  bool nonblockingWrite(char const* data, unsigned long size) override;
  bool blockingWriteFromAnywhere(char const* data, unsigned long size) override;
  long rawTcpDataAvailable(PollableDescriptor fd, char const* data, unsigned long size) override;
  void rawTcpWriteCompleted(PollableDescriptor fd, int error, long bytes) override;

 private:
  // false: the connection failed.
  bool continueWrite();

  unsigned long _bufferSize;
  TcpRawDataFdCallback* _cb;
  Mutex _mutex;
  std::vector<char> _readBuf;
  const char* _wdata = nullptr;
  unsigned long _wsize = 0;
  long _wtotal = 0;
  bool _writing = false;
  bool _wantWriteForRead = false;
  bool _wantReadForWrite = false;
};
