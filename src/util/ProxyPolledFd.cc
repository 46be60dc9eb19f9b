#include "util/ProxyPolledFd.h"

#include "util/EventLoop.h"

void ProxyPolledFd::add_to(EventLoop* loop, PollableDescriptor fd) { loop->add(&_proxy, fd, defaultEvents()); }

void ProxyPolledFd::remove_from_eventloop(EventLoop* loop) {
  if (_proxy.isActive()) loop->removeActivePolledFd(&_proxy);
}
