#include "util/SSLRawDataFd.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cassert>
#include <cerrno>

#include "util/EventLoop.h"
#include "util/InThreadActor.h"
#include "util/Logger.h"

static Logger gLogger("SSLRawDataFd");

SSLRawDataFd::SSLRawDataFd(SSLContext* ctx, unsigned long bufferSize, TcpRawDataFdCallback* cb)
    : SSLPolledFd(ctx), _bufferSize(bufferSize), _cb(cb), _readBuf(bufferSize) {}

long SSLRawDataFd::rawTcpDataAvailable(PollableDescriptor fd, char const* data, unsigned long size) {
  return _cb->rawTcpDataAvailable(fd, data, size);
}

void SSLRawDataFd::rawTcpWriteCompleted(PollableDescriptor fd, int error, long bytes) {
  _cb->rawTcpWriteCompleted(fd, error, bytes);
}

bool SSLRawDataFd::handleEvent() {
  const short rev = ourRevents();
  PollableDescriptor fd = getFd();
  if (((rev & kReadEvents) != 0 && !_writing) || ((rev & kWriteEvents) != 0 && _wantWriteForRead) ||
      ((rev & kErrorEvents) != 0 && !_writing)) {
    _wantWriteForRead = false;
    ScopedLock l(_mutex);
    do {
      int n = SSL_read(_ssl, _readBuf.data(), static_cast<int>(_bufferSize));
      int e = SSL_get_error(_ssl, n);
      switch (e) {
        case SSL_ERROR_NONE: {
          unsigned long off = 0, size = static_cast<unsigned long>(n);
          while (off < size) {
            long used = rawTcpDataAvailable(fd, _readBuf.data() + off, size - off);
            if (used < 0) {
              gLogger.debug("Closed in rawTcpDataAvailable - consumed < 0");
              return true;
            }
            if (used == 0) break;
            off += static_cast<unsigned long>(used);
          }
          break;
        }
        case SSL_ERROR_WANT_READ:
          break;
        case SSL_ERROR_WANT_WRITE:
          _wantWriteForRead = true;
          changeEvents(static_cast<short>(ourEvents() | kWriteEvents));
          break;
        case SSL_ERROR_SYSCALL:
          if (n == 0) gLogger.debug("Improper EOF - no worries");
          else gLogger.warn("Error in SSL_read - %d", n);
          return true;
        case SSL_ERROR_ZERO_RETURN:
          gLogger.debug("ZERO RETURN - clean shutdown");
          return true;
        default:
          gLogger.warn("(default) Error in SSL_read - %d - %m", e);
          return true;
      }
      if (e != SSL_ERROR_NONE) break;
    } while (SSL_pending(_ssl) != 0);
  }
  if (_writing && ((rev & kWriteEvents) != 0 || ((rev & kReadEvents) != 0 && _wantReadForWrite))) {
    if (!continueWrite()) return true;
  }
  return false;
}

bool SSLRawDataFd::continueWrite() {
  PollableDescriptor fd = getFd();
  _wantReadForWrite = false;
  while (_wsize > 0) {
    int n = SSL_write(_ssl, _wdata, static_cast<int>(_wsize));
    int e = SSL_get_error(_ssl, n);
    if (e == SSL_ERROR_NONE) {
      _wdata += n;
      _wsize -= static_cast<unsigned long>(n);
      _wtotal += n;
      continue;
    }
    if (e == SSL_ERROR_WANT_WRITE) {
      changeEvents(static_cast<short>(ourEvents() | kWriteEvents));
      return true;
    }
    if (e == SSL_ERROR_WANT_READ) {
      _wantReadForWrite = true;
      return true;
    }
    int err = errno != 0 ? errno : EIO;
    changeEvents(kDefaultEvents);
    long total = _wtotal;
    _writing = false;
    _wsize = 0;
    rawTcpWriteCompleted(fd, err, total);
    return false;
  }
  changeEvents(static_cast<short>(ourEvents() & ~kWriteEvents));
  long total = _wtotal;
  _writing = false;
  _wtotal = 0;
  rawTcpWriteCompleted(fd, 0, total);
  return true;
}

bool SSLRawDataFd::nonblockingWrite(char const* data, unsigned long size) {
  _wdata = data;
  _wsize = size;
  _wtotal = 0;
  _writing = true;
  return continueWrite();
}

bool SSLRawDataFd::blockingWrite(char const* data, unsigned long size, int timeoutMs) {
  PollableDescriptor fd = getFd();
  while (size > 0) {
    int n = SSL_write(_ssl, data, static_cast<int>(size));
    int e = SSL_get_error(_ssl, n);
    if (e == SSL_ERROR_NONE) {
      data += n;
      size -= static_cast<unsigned long>(n);
    } else if (e == SSL_ERROR_WANT_WRITE || e == SSL_ERROR_WANT_READ) {
      if (fd.select_for(e == SSL_ERROR_WANT_WRITE, timeoutMs) <= 0) return false;
    } else {
      return false;
    }
  }
  return true;
}

namespace {
class BlockingWriteActor : public InThreadActor {
 public:
  BlockingWriteActor(SSLRawDataFd* f, char const* d, unsigned long s) : _f(f), _d(d), _s(s) {}
  void run() override { ok = _f->isActive() && _f->blockingWrite(_d, _s, -1); }
  bool ok = false;

 private:
  SSLRawDataFd* _f;
  char const* _d;
  unsigned long _s;
};
}  // namespace

bool SSLRawDataFd::blockingWriteFromAnywhere(char const* data, unsigned long size) {
  ScopedLock l(_mutex);
  assert(_pMgr != nullptr && "_pMgr != __null");
  gLogger.debug("Waiting for blocking write mutex...");
  BlockingWriteActor a(this, data, size);
  {
    ScopedUnlock u(_mutex);
    eventLoop()->internal_runInThread(&a, true);
  }
  gLogger.debug("Finished waiting for blocking write mutex.");
  return a.ok;
}
