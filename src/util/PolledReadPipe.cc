#include "util/PolledReadPipe.h"

#include <fcntl.h>
#include <unistd.h>

#include "util/Exceptions.h"

PolledReadPipe::PolledReadPipe(bool nonblocking) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC | (nonblocking ? O_NONBLOCK : 0)) != 0) throw SelfPipeException("can't create selfpipe");
  _r = fds[0];
  _w = fds[1];
}

PolledReadPipe::~PolledReadPipe() {
  ::close(_r);
  ::close(_w);
}
