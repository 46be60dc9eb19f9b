// SSLPolledFd: a TLS server connection on the event loop. The acceptor
// calls afterAccept(), which builds the SSL object on the socket and starts
// the handshake; when_events() continues the handshake until it is done and
// then calls handleEvent(). The SSL object is used only on the loop's thread.
//
// Ownership: owns its SSL object; the acceptor owns the connection.
#pragma once

#include "util/SSLContext.h"
#include "util/TcpPolledFd.h"

typedef struct ssl_st SSL;

class SSLPolledFd : public TcpPolledFd {
 public:
  explicit SSLPolledFd(SSLContext* ctx) : _ctx(ctx) {}
  ~SSLPolledFd() override;

  // 0 done, 1 in progress, -1 failed.
  int createSSLAndDoHandshake(PollableDescriptor fd);
  int handshake();
  int afterAccept(PollableDescriptor fd) override { return createSSLAndDoHandshake(fd); }
  bool handshakeDone() const { return _handshakeDone; }

  bool when_events(PollableDescriptor fd) override;
  // True: the connection is finished.
  virtual bool handleEvent() = 0;

 protected:
  SSLContext* _ctx;
  SSL* _ssl = nullptr;
  bool _handshakeDone = false;
};
