#include "util/SSLNetworkConnection.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cassert>
#include <cerrno>

#include "util/SSLContext.h"
#include "util/Timeval.h"

namespace {

Str sslErrorText(const char* what) {
  char buf[256];
  unsigned long e = ERR_get_error();
  if (e == 0) return Str(what);
  ERR_error_string_n(e, buf, sizeof buf);
  return Str(what) + ": " + buf;
}

}  // namespace

SSLNetworkConnection::~SSLNetworkConnection() { SSL_free(_ssl); }

bool SSLNetworkConnection::setup(SSLContext* ctx, PollableDescriptor fd, bool client, Str& error) {
  assert(_ssl == nullptr);
  if (ctx == nullptr || ctx->get() == nullptr || !fd.valid()) {
    error = "no TLS context or descriptor";
    return false;
  }
  _ssl = SSL_new(ctx->get());
  if (_ssl == nullptr) {
    error = sslErrorText("SSL_new failed");
    return false;
  }
  BIO* bio = fd.new_bio();
  if (bio == nullptr) {
    error = sslErrorText("cannot create BIO");
    SSL_free(_ssl);
    _ssl = nullptr;
    return false;
  }
  SSL_set_bio(_ssl, bio, bio);
  _fd = fd;
  _client = client;
  return true;
}

ssize_t SSLNetworkConnection::translate(int r) {
  switch (SSL_get_error(_ssl, r)) {
    case SSL_ERROR_NONE:
      return r;
    case SSL_ERROR_WANT_READ:
      _wantWrite = false;
      errno = EAGAIN;
      return -1;
    case SSL_ERROR_WANT_WRITE:
      _wantWrite = true;
      errno = EAGAIN;
      return -1;
    case SSL_ERROR_ZERO_RETURN:
      return 0;
    case SSL_ERROR_SYSCALL:
      // 0 from the descriptor without a close alert: treat as end of file.
      if (errno == 0) return 0;
      return -1;
    default:
      ERR_clear_error();
      errno = EPROTO;
      return -1;
  }
}

bool SSLNetworkConnection::handshake(int ms, Str& error) {
  assert(_ssl != nullptr);
  Timeval deadline = Timeval::now();
  deadline.addMsec(ms < 0 ? 0 : static_cast<unsigned long long>(ms));
  while (!_handshakeDone) {
    errno = 0;
    int r = _client ? SSL_connect(_ssl) : SSL_accept(_ssl);
    if (r == 1) {
      _handshakeDone = true;
      break;
    }
    if (translate(r) != -1 || errno != EAGAIN) {
      error = sslErrorText("TLS handshake failed");
      return false;
    }
    int left = -1;
    if (ms >= 0) {
      const Timeval now = Timeval::now();
      left = deadline <= now ? 0 : static_cast<int>(Timeval::msecDifference(deadline, now));
    }
    int w = _fd.select_for(_wantWrite, left);
    if (w <= 0) {
      if (w == 0) errno = ETIMEDOUT;
      error = w == 0 ? Str("TLS handshake timed out") : Str("error waiting for TLS handshake");
      return false;
    }
  }
  return true;
}

ssize_t SSLNetworkConnection::readSome(void* buf, size_t len) {
  assert(_ssl != nullptr);
  errno = 0;
  return translate(SSL_read(_ssl, buf, static_cast<int>(len > 0x7fffffff ? 0x7fffffff : len)));
}

ssize_t SSLNetworkConnection::writeSome(const void* buf, size_t len) {
  assert(_ssl != nullptr);
  if (len == 0) return 0;
  errno = 0;
  return translate(SSL_write(_ssl, buf, static_cast<int>(len > 0x7fffffff ? 0x7fffffff : len)));
}

bool SSLNetworkConnection::pending() const { return _ssl != nullptr && SSL_pending(_ssl) > 0; }

void SSLNetworkConnection::shutdown(int ms) {
  if (_ssl == nullptr || !_handshakeDone) return;
  // The alert can find the send buffer full (the peer has not read all yet):
  // wait for room rather than drop it, or the peer never sees a clean end.
  Timeval deadline = Timeval::now();
  deadline.addMsec(ms < 0 ? 0 : static_cast<unsigned long long>(ms));
  for (;;) {
    errno = 0;
    int r = SSL_shutdown(_ssl);
    if (r >= 0) return;  // sent (1: the peer's alert came too)
    if (translate(r) != -1 || errno != EAGAIN || !_wantWrite) return;
    const Timeval now = Timeval::now();
    const int left = deadline <= now ? 0 : static_cast<int>(Timeval::msecDifference(deadline, now));
    if (left == 0 || _fd.select_for(true, left) <= 0) return;
  }
}
