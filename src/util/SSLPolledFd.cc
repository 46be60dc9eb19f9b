#include "util/SSLPolledFd.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include "util/Logger.h"

static Logger gLogger("SSLPolledFd");

SSLPolledFd::~SSLPolledFd() { SSL_free(_ssl); }

int SSLPolledFd::createSSLAndDoHandshake(PollableDescriptor fd) {
  BIO* bio = fd.new_bio();
  _ssl = SSL_new(_ctx->get());
  if (bio == nullptr || _ssl == nullptr) {
    BIO_free(bio);
    return -1;
  }
  SSL_set_bio(_ssl, bio, bio);
  return handshake();
}

int SSLPolledFd::handshake() {
  int r = SSL_accept(_ssl);
  int e = SSL_get_error(_ssl, r);
  switch (e) {
    case SSL_ERROR_NONE:
      _handshakeDone = true;
      return 0;
    case SSL_ERROR_WANT_READ:
      if (isActive()) changeEvents(kDefaultEvents);
      return 1;
    case SSL_ERROR_WANT_WRITE:
      if (isActive()) changeEvents(static_cast<short>(kDefaultEvents | kWriteEvents));
      return 1;
    case SSL_ERROR_SYSCALL:
      gLogger.debug("handshake - SSL_ERROR_SYSCALL");
      break;
    case SSL_ERROR_SSL:
      gLogger.debug("handshake - SSL_ERROR_SSL");
      break;
    case SSL_ERROR_ZERO_RETURN:
      gLogger.debug("handshake - SSL_ERROR_ZERO_RETURN");
      break;
    default:
      gLogger.debug("handshake - SSL_ERROR_%d", e);
      break;
  }
  char buf[256];
  ERR_error_string_n(ERR_get_error(), buf, sizeof buf);
  gLogger.debug("SSL Error = %s", buf);
  gLogger.debug("ACCEPT_RESULT=%d VERIFY_RESULT=%ld", r, SSL_get_verify_result(_ssl));
  return -1;
}

bool SSLPolledFd::when_events(PollableDescriptor) {
  bool finished;
  if (_handshakeDone) {
    finished = handleEvent();
  } else {
    int h = handshake();
    finished = h < 0;
    if (h == 0) finished = handleEvent();  // data may have come with the last flight
  }
  if (finished) {
    if (ownedByWorker()) {
      gLogger.debug("fd is owned in when_events, just resetting event count.");
      changeEvents(0);
    } else {
      gLogger.debug("handleEvent returned true, may attempt 'After EOF'.");
      afterEof();
    }
  }
  return false;
}
