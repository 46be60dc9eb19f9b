// PolledFdManager: defers adding and removing descriptors of an EventLoop
// until after the current service pass, since code running inside the walk
// over the descriptor arrays may not change them.
//
// add() and remove() record the request and schedule the manager as a
// zero-length timeout; when it runs it performs the removes (calling each
// callback's after_remove(), where the owner may close and delete) and then
// the adds. A remove drops a pending add of the same object. Zero-length
// timeouts run even when the loop exits, so no request is lost.
//
// Threads: the loop's thread only.
#pragma once

#include <map>
#include <utility>

#include "util/CallbackAfterEventService.h"
#include "util/PollableDescriptor.h"

class EventLoop;
class PolledFd;

class PolledFdManagerRemoveCallback {
 public:
  virtual ~PolledFdManagerRemoveCallback() = default;
  virtual void after_remove(PolledFd* p, PollableDescriptor fd) = 0;
};

class PolledFdManager : public CallbackAfterEventService {
 public:
  explicit PolledFdManager(EventLoop* loop) : _loop(loop) {}
  ~PolledFdManager() override;

  void add(PolledFd* p, PollableDescriptor fd, short events);
  void add(PolledFd* p, PollableDescriptor fd);
  // Same object twice with different callbacks aborts.
  void remove(PolledFd* p, PolledFdManagerRemoveCallback* cb);
  EventLoop* eventLoop() const { return _loop; }
  size_t pendingAdds() const { return _adds.size(); }

  void when_expired() override;

 private:
  void schedule();

  std::map<PolledFd*, std::pair<PollableDescriptor, short>> _adds;
  std::map<PolledFd*, PolledFdManagerRemoveCallback*> _removes;
  bool _scheduled = false;
  EventLoop* _loop;
};
