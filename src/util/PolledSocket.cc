#include "util/PolledSocket.h"

bool PolledSocket::when_events(PollableDescriptor fd) {
  const short revents = ourRevents();
  if (revents & kReadEvents) return when_readable(fd);
  // POLLHUP with data still to read comes with POLLIN and is read first;
  // alone, or POLLERR or POLLNVAL, nothing more will come.
  return (revents & (kErrorEvents | POLLNVAL)) != 0;
}
