// SSLNetworkConnection: one TLS session on a descriptor for code that works
// with blocking calls and time-outs rather than on the event loop (a
// client calling out, a worker that took over a connection). The
// PollableDescriptor forms taking an SSLNetworkConnection* (select_for,
// select_for_connect, readWithTimeout, writeWithTimeout, writeBlocking)
// drive it; they wait on the descriptor in whichever direction OpenSSL
// asks for.
//
// Ownership: owns its SSL object, not the descriptor nor the context.
// Threads: one thread at a time.
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "util/PollableDescriptor.h"
#include "util/Str.h"

class SSLContext;
typedef struct ssl_st SSL;

class SSLNetworkConnection {
 public:
  SSLNetworkConnection() = default;
  ~SSLNetworkConnection();
  SSLNetworkConnection(const SSLNetworkConnection&) = delete;
  SSLNetworkConnection& operator=(const SSLNetworkConnection&) = delete;

  // Builds the session on fd, client side (ctx from SSLContext::loadClient)
  // or server side (SSLContext::loadServer). REQUIRES: not set up yet.
  bool setup(SSLContext* ctx, PollableDescriptor fd, bool client, Str& error);
  // Runs the handshake for up to ms (negative: no limit). False on failure
  // or time-out (errno ETIMEDOUT) with error set.
  bool handshake(int ms, Str& error);

  // One SSL_read / SSL_write: the byte count; 0 at a clean shutdown from
  // the peer (reads); -1 with errno EAGAIN when OpenSSL waits for the
  // descriptor (wantsWrite() tells the direction), or another errno.
  ssize_t readSome(void* buf, size_t len);
  ssize_t writeSome(const void* buf, size_t len);
  // Decrypted bytes ready without touching the descriptor.
  bool pending() const;
  // The direction the last EAGAIN waits for.
  bool wantsWrite() const { return _wantWrite; }
  // Sends the close alert, waiting up to ms for room in the send buffer
  // (best effort: gives up silently on any other failure).
  void shutdown(int ms = 5000);

  PollableDescriptor fd() const { return _fd; }
  SSL* ssl() const { return _ssl; }
  bool handshakeDone() const { return _handshakeDone; }

 private:
  // Maps SSL_get_error of result r to the returns above.
  ssize_t translate(int r);

  SSL* _ssl = nullptr;
  PollableDescriptor _fd;
  bool _client = false;
  bool _handshakeDone = false;
  bool _wantWrite = false;
};
