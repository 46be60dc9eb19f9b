// PollableDescriptor: a socket or pipe descriptor as a value (one int), with
// the socket calls and the timed I/O the event loop's users need.
//
// It does not own the descriptor: copies share the number and close() must be
// called once by whoever owns it. Failures are told by return values with
// errno set; nothing here throws or logs.
//
// Any thread may use it, with the usual rules for sharing one descriptor.
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "util/SocketAddress.h"

typedef struct bio_st BIO;
class SSLNetworkConnection;

class PollableDescriptor {
 public:
  constexpr PollableDescriptor() : _fd(-1) {}
  constexpr explicit PollableDescriptor(int fd) : _fd(fd) {}

  bool valid() const { return _fd >= 0; }
  int get() const { return _fd; }
  bool close();

  // A new TCP (or UDP) socket of the address's family, close-on-exec.
  static PollableDescriptor socketFor(const SocketAddress& a, bool stream = true);

  bool bind(const SocketAddress& a) const;
  bool listen(int backlog = 128) const;
  // The new connection (close-on-exec), invalid on failure; fills `from`.
  PollableDescriptor accept(SocketAddress* from = nullptr) const;
  // 0 connected, 1 in progress (non-blocking), -1 failed.
  int connect(const SocketAddress& a) const;
  bool localAddress(SocketAddress& out) const;

  bool setNonblock(bool on = true) const;
  bool setNoDelay(bool on = true) const;
  bool setReuseAddress(bool on = true) const;
  bool setTTL(int ttl) const;
  bool setMcastInterface(const SocketAddress& iface) const;
  bool setMcastSelfSend(bool on) const;
  // The pending socket error (SO_ERROR), or errno of getsockopt.
  int so_error() const;

  // Waits up to ms (negative: forever) for readability or writability.
  // 1 ready, 0 timed out, -1 error.
  int select_for(bool write, int ms) const;
  // After a non-blocking connect: 0 connected, else the errno (ETIMEDOUT).
  int select_for_connect(int ms) const;
  // One read/write after waiting up to ms; -1 with errno ETIMEDOUT on time-out.
  ssize_t readWithTimeout(void* buf, size_t len, int ms) const;
  ssize_t writeWithTimeout(const void* buf, size_t len, int ms) const;
  // Writes everything, waiting as needed on a non-blocking descriptor.
  bool writeBlocking(const void* buf, size_t len) const;

  // The same over a TLS session on this descriptor: select_for is 1 at once
  // when decrypted bytes are waiting; select_for_connect also runs the
  // client handshake in the time left; the reads and writes wait in the
  // direction OpenSSL asks for, until ms have passed in all.
  int select_for(SSLNetworkConnection* ssl, bool write, int ms) const;
  int select_for_connect(SSLNetworkConnection* ssl, int ms) const;
  ssize_t readWithTimeout(SSLNetworkConnection* ssl, void* buf, size_t len, int ms) const;
  ssize_t writeWithTimeout(SSLNetworkConnection* ssl, const void* buf, size_t len, int ms) const;
  bool writeBlocking(SSLNetworkConnection* ssl, const void* buf, size_t len) const;

  // A socket BIO on this descriptor that does not close it.
  BIO* new_bio() const;

  friend bool operator==(PollableDescriptor a, PollableDescriptor b) { return a._fd == b._fd; }

 private:
  int _fd;
};
