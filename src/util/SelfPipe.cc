#include "util/SelfPipe.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "util/Exceptions.h"

void SelfPipe::trigger() {
  char c = 0;
  ssize_t n;
  do {
    n = ::write(writeFd(), &c, 1);
  } while (n < 0 && errno == EINTR);
  if (n == 1) return;
  if (n < 0 && errno == EAGAIN) return;  // the reader will be woken anyway
  if (n < 0) throw SelfPipeException("error from selfpipe write: %s", strerror(errno));
  throw SelfPipeException("invalid return from selfpipe write");
}

bool SelfPipe::when_events(PollableDescriptor fd) {
  char buf[64];
  bool any = false;
  for (;;) {
    ssize_t n = ::read(fd.get(), buf, sizeof buf);
    if (n > 0) {
      any = true;
      continue;
    }
    if (n == 0) {
      if (!any) return true;  // writer gone: finished
      break;
    }
    if (errno == EINTR) continue;
    if (errno == EAGAIN) break;
    throw SelfPipeException("error from selfpipe read: %s", strerror(errno));
  }
  when_triggered();
  return false;
}
