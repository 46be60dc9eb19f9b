#include "util/TcpRawDataFd.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "util/AcceptFd.h"
#include "util/EventLoop.h"
#include "util/InThreadActor.h"
#include "util/Logger.h"

static Logger gLogger("TcpRawDataFd");

void TcpPolledFd::afterEof() {
  if (_ending) return;
  _ending = true;
  if (isActive()) changeEvents(0);
  if (_acceptFd != nullptr) _acceptFd->afterEof(isActive() ? getFd() : PollableDescriptor(), this);
}

TcpRawDataFd::TcpRawDataFd(unsigned long bufferSize, TcpRawDataFdCallback* cb)
    : _bufferSize(bufferSize), _cb(cb), _readBuf(bufferSize), _workBuf(bufferSize) {}

bool TcpRawDataFd::deliver(PollableDescriptor fd, unsigned long size) {
  unsigned long off = 0;
  while (off < size) {
    long used = _cb->rawTcpDataAvailable(fd, _workBuf.data() + off, size - off);
    if (used < 0) {
      gLogger.debug("Closed in rawTcpDataAvailable - consumed < 0");
      return false;
    }
    if (used == 0) break;
    off += static_cast<unsigned long>(used);
  }
  return true;
}

bool TcpRawDataFd::when_events(PollableDescriptor fd) {
  const short rev = ourRevents();
  if ((rev & kReadEvents) == 0 || _writing) {
    if ((rev & kWriteEvents) != 0 && _writing) {
      if (!continueWrite() && !ownedByWorker()) afterEof();
    } else if ((rev & kErrorEvents) != 0 && !ownedByWorker()) {
      afterEof();
    }
    return false;
  }
  ssize_t n;
  {
    ScopedLock l(_mutex);
    do {
      n = ::read(fd.get(), _readBuf.data(), _bufferSize);
    } while (n < 0 && errno == EINTR);
    if (n > 0) std::memcpy(_workBuf.data(), _readBuf.data(), static_cast<size_t>(n));
  }
  if (n == 0) {
    gLogger.debug("GOT EOF");
    afterEof();
    return false;
  }
  if (n < 0) {
    if (errno == EAGAIN) return false;
    gLogger.warn("Error reading in TcpRawDataFd: %m");
    afterEof();
    return false;
  }
  if (ownedByWorker()) return false;
  if (!deliver(fd, static_cast<unsigned long>(n))) afterEof();
  return false;
}

bool TcpRawDataFd::continueWrite() {
  PollableDescriptor fd = getFd();
  while (_wsize > 0) {
    ssize_t n = ::send(fd.get(), _wdata, _wsize, MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN) {
        changeEvents(static_cast<short>(ourEvents() | kWriteEvents));
        return true;
      }
      int e = errno;
      changeEvents(kDefaultEvents);
      long total = _wtotal;
      _writing = false;
      _wsize = 0;
      _cb->rawTcpWriteCompleted(fd, e, total);
      return false;
    }
    _wdata += n;
    _wsize -= static_cast<unsigned long>(n);
    _wtotal += n;
    if (_wsize > 0) changeEvents(static_cast<short>(ourEvents() | kWriteEvents));
  }
  changeEvents(static_cast<short>(ourEvents() & ~kWriteEvents));
  long total = _wtotal;
  _writing = false;
  _wtotal = 0;
  _cb->rawTcpWriteCompleted(fd, 0, total);
  return true;
}

bool TcpRawDataFd::nonblockingWrite(char const* data, unsigned long size) {
  _wdata = data;
  _wsize = size;
  _wtotal = 0;
  _writing = true;
  return continueWrite();
}

bool TcpRawDataFd::blockingWrite(char const* data, unsigned long size, int timeoutMs) {
  PollableDescriptor fd = getFd();
  while (size > 0) {
    ssize_t n = fd.writeWithTimeout(data, size, timeoutMs);
    if (n < 0) {
      if (errno == EAGAIN || errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<unsigned long>(n);
  }
  return true;
}

namespace {
class BlockingWriteActor : public InThreadActor {
 public:
  BlockingWriteActor(TcpRawDataFd* f, char const* d, unsigned long s) : _f(f), _d(d), _s(s) {}
  void run() override { ok = _f->isActive() && _f->blockingWrite(_d, _s, -1); }
  bool ok = false;

 private:
  TcpRawDataFd* _f;
  char const* _d;
  unsigned long _s;
};
}  // namespace

bool TcpRawDataFd::blockingWriteFromAnywhere(char const* data, unsigned long size) {
  BlockingWriteActor a(this, data, size);
  eventLoop()->internal_runInThread(&a, true);
  return a.ok;
}
