#include "util/PollableDescriptor.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/bio.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "util/SSLNetworkConnection.h"
#include "util/Timeval.h"

bool PollableDescriptor::close() {
  if (_fd < 0) return false;
  int r = ::close(_fd);
  _fd = -1;
  return r == 0;
}

PollableDescriptor PollableDescriptor::socketFor(const SocketAddress& a, bool stream) {
  return PollableDescriptor(::socket(a.family(), (stream ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0));
}

bool PollableDescriptor::bind(const SocketAddress& a) const { return ::bind(_fd, a.get(), a.length()) == 0; }

bool PollableDescriptor::listen(int backlog) const { return ::listen(_fd, backlog) == 0; }

PollableDescriptor PollableDescriptor::accept(SocketAddress* from) const {
  SocketAddress tmp;
  SocketAddress* a = from != nullptr ? from : &tmp;
  a->setLength(sizeof(sockaddr_storage));
  int fd;
  do {
    fd = ::accept4(_fd, a->get(), a->lengthPtr(), SOCK_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  return PollableDescriptor(fd);
}

int PollableDescriptor::connect(const SocketAddress& a) const {
  int r;
  do {
    r = ::connect(_fd, a.get(), a.length());
  } while (r < 0 && errno == EINTR);
  if (r == 0) return 0;
  return errno == EINPROGRESS ? 1 : -1;
}

bool PollableDescriptor::localAddress(SocketAddress& out) const {
  out.setLength(sizeof(sockaddr_storage));
  return ::getsockname(_fd, out.get(), out.lengthPtr()) == 0;
}

bool PollableDescriptor::setNonblock(bool on) const {
  int fl = ::fcntl(_fd, F_GETFL);
  if (fl < 0) return false;
  fl = on ? (fl | O_NONBLOCK) : (fl & ~O_NONBLOCK);
  return ::fcntl(_fd, F_SETFL, fl) == 0;
}

static bool setIntOpt(int fd, int level, int name, int value) {
  return ::setsockopt(fd, level, name, &value, sizeof value) == 0;
}

bool PollableDescriptor::setNoDelay(bool on) const { return setIntOpt(_fd, IPPROTO_TCP, TCP_NODELAY, on ? 1 : 0); }

bool PollableDescriptor::setReuseAddress(bool on) const { return setIntOpt(_fd, SOL_SOCKET, SO_REUSEADDR, on ? 1 : 0); }

bool PollableDescriptor::setTTL(int ttl) const { return setIntOpt(_fd, IPPROTO_IP, IP_MULTICAST_TTL, ttl); }

bool PollableDescriptor::setMcastInterface(const SocketAddress& iface) const {
  if (iface.family() != AF_INET) {
    errno = EAFNOSUPPORT;
    return false;
  }
  const auto* v4 = reinterpret_cast<const sockaddr_in*>(iface.get());
  return ::setsockopt(_fd, IPPROTO_IP, IP_MULTICAST_IF, &v4->sin_addr, sizeof v4->sin_addr) == 0;
}

bool PollableDescriptor::setMcastSelfSend(bool on) const {
  unsigned char v = on ? 1 : 0;
  return ::setsockopt(_fd, IPPROTO_IP, IP_MULTICAST_LOOP, &v, sizeof v) == 0;
}

int PollableDescriptor::so_error() const {
  int err = 0;
  socklen_t len = sizeof err;
  if (::getsockopt(_fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) return errno;
  return err;
}

int PollableDescriptor::select_for(bool write, int ms) const {
  pollfd p{_fd, static_cast<short>(write ? POLLOUT : POLLIN), 0};
  for (;;) {
    int r = ::poll(&p, 1, ms);
    if (r < 0 && errno == EINTR) continue;
    return r < 0 ? -1 : (r == 0 ? 0 : 1);
  }
}

int PollableDescriptor::select_for_connect(int ms) const {
  int r = select_for(true, ms);
  if (r < 0) return errno;
  if (r == 0) return ETIMEDOUT;
  return so_error();
}

ssize_t PollableDescriptor::readWithTimeout(void* buf, size_t len, int ms) const {
  int r = select_for(false, ms);
  if (r <= 0) {
    if (r == 0) errno = ETIMEDOUT;
    return -1;
  }
  ssize_t n;
  do {
    n = ::read(_fd, buf, len);
  } while (n < 0 && errno == EINTR);
  return n;
}

ssize_t PollableDescriptor::writeWithTimeout(const void* buf, size_t len, int ms) const {
  int r = select_for(true, ms);
  if (r <= 0) {
    if (r == 0) errno = ETIMEDOUT;
    return -1;
  }
  ssize_t n;
  do {
    n = ::send(_fd, buf, len, MSG_NOSIGNAL);
  } while (n < 0 && errno == EINTR);
  if (n < 0 && errno == ENOTSOCK) {
    do {
      n = ::write(_fd, buf, len);
    } while (n < 0 && errno == EINTR);
  }
  return n;
}

bool PollableDescriptor::writeBlocking(const void* buf, size_t len) const {
  const char* p = static_cast<const char*>(buf);
  while (len > 0) {
    ssize_t n = writeWithTimeout(p, len, -1);
    if (n < 0) {
      if (errno == EAGAIN || errno == EINTR) continue;
      return false;
    }
    p += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

BIO* PollableDescriptor::new_bio() const { return BIO_new_socket(_fd, BIO_NOCLOSE); }

// ------------------------------------------------------------ TLS forms

namespace {

// Milliseconds left until deadline; -1 (no limit) when ms was negative.
int msLeft(const Timeval& deadline, int ms) {
  if (ms < 0) return -1;
  const Timeval now = Timeval::now();
  return deadline <= now ? 0 : static_cast<int>(Timeval::msecDifference(deadline, now));
}

Timeval deadlineIn(int ms) {
  Timeval d = Timeval::now();
  d.addMsec(ms < 0 ? 0 : ms);
  return d;
}

// Repeats op (a readSome or writeSome) while OpenSSL waits for the
// descriptor, waiting in its direction up to the deadline.
template <typename Op>
ssize_t retryTls(const PollableDescriptor& fd, SSLNetworkConnection* ssl, int ms, Op op) {
  const Timeval deadline = deadlineIn(ms);
  for (;;) {
    ssize_t n = op();
    if (n >= 0 || errno != EAGAIN) return n;
    int r = fd.select_for(ssl->wantsWrite(), msLeft(deadline, ms));
    if (r <= 0) {
      if (r == 0) errno = ETIMEDOUT;
      return -1;
    }
  }
}

}  // namespace

int PollableDescriptor::select_for(SSLNetworkConnection* ssl, bool write, int ms) const {
  if (!write && ssl->pending()) return 1;
  return select_for(write, ms);
}

int PollableDescriptor::select_for_connect(SSLNetworkConnection* ssl, int ms) const {
  const Timeval deadline = deadlineIn(ms);
  int e = select_for_connect(ms);
  if (e != 0) return e;
  Str error;
  if (!ssl->handshake(msLeft(deadline, ms), error)) return errno == ETIMEDOUT ? ETIMEDOUT : EPROTO;
  return 0;
}

ssize_t PollableDescriptor::readWithTimeout(SSLNetworkConnection* ssl, void* buf, size_t len, int ms) const {
  return retryTls(*this, ssl, ms, [&] { return ssl->readSome(buf, len); });
}

ssize_t PollableDescriptor::writeWithTimeout(SSLNetworkConnection* ssl, const void* buf, size_t len, int ms) const {
  return retryTls(*this, ssl, ms, [&] { return ssl->writeSome(buf, len); });
}

bool PollableDescriptor::writeBlocking(SSLNetworkConnection* ssl, const void* buf, size_t len) const {
  const char* p = static_cast<const char*>(buf);
  while (len > 0) {
    ssize_t n = writeWithTimeout(ssl, p, len, -1);
    if (n <= 0) {
      if (n < 0 && errno == EINTR) continue;
      return false;
    }
    p += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}
