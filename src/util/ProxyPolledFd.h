// ProxyPolledFd: lets a class that cannot derive from PolledFd (it already
// has a base that clashes, or must not expose PolledFd's interface) be
// polled. It owns an inner PolledFd, ProxyPolledFd::proxy_polledfd, which
// the loop holds; that object forwards when_events() and after_eof() to
// its outer ProxyPolledFd.
//
// Ownership: the inner object lives and dies with the outer one.
// REQUIRES: removed from its loop (remove_from_eventloop, or a true result
// of when_events) before it is destroyed.
// Threads: the loop's thread, as for any PolledFd.
#pragma once

#include "util/PolledFd.h"
#include "util/SmartEventLoopMember.h"

class ProxyPolledFd : public SmartEventLoopMember {
 public:
  class proxy_polledfd : public PolledFd {
   public:
    explicit proxy_polledfd(ProxyPolledFd* outer) : _outer(outer) {}
    short defaultEvents() const override { return _outer->defaultEvents(); }
    bool when_events(PollableDescriptor fd) override { return _outer->when_events(fd); }
    void after_eof() override { _outer->after_eof(); }

   private:
    ProxyPolledFd* _outer;
  };

  ProxyPolledFd() : _proxy(this) {}
  ProxyPolledFd(const ProxyPolledFd&) = delete;
  ProxyPolledFd& operator=(const ProxyPolledFd&) = delete;

  // True: finished; the loop removes the inner object, then calls after_eof().
  virtual bool when_events(PollableDescriptor fd) = 0;
  virtual void after_eof() {}
  // The mask used by add_to(); read plus error unless overridden.
  virtual short defaultEvents() const { return PolledFd::kDefaultEvents; }

  void add_to(EventLoop* loop, PollableDescriptor fd) override;
  void remove_from_eventloop(EventLoop* loop) override;

  bool isActive() const { return _proxy.isActive(); }
  // The object the loop sees, e.g. for a PolledFdManager or changeEvents().
  PolledFd* polledFd() { return &_proxy; }

 private:
  proxy_polledfd _proxy;
};
