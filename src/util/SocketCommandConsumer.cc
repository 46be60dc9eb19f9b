#include "util/SocketCommandConsumer.h"

#include <unistd.h>

#include <cassert>
#include <cerrno>

#include "util/Logger.h"

static Logger gLogger("SocketCommandConsumer");

bool SocketCommandConsumer::when_readable(PollableDescriptor fd) {
  char buf[kReadSize];
  ssize_t n = ::read(fd.get(), buf, sizeof buf);
  if (n < 0) {
    if (errno == EAGAIN || errno == EINTR) return false;
    gLogger.error("error reading command socket: %m");
    return true;
  }
  if (n == 0) {
    if (!_buffer.empty()) gLogger.warn("end of file inside a message: %zu bytes dropped", _buffer.size());
    return true;
  }
  _buffer.append(buf, static_cast<size_t>(n));
  // Consumed messages leave the front by moving the rest down; the buffer
  // keeps its capacity, so steady traffic allocates nothing.
  while (!_buffer.empty()) {
    const size_t used = consumeData(_buffer);
    if (used == 0) break;
    assert(used <= _buffer.size());
    _buffer.erase(0, used);
  }
  return false;
}
