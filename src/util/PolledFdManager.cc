#include "util/PolledFdManager.h"

#include <cstdlib>

#include "util/EventLoop.h"
#include "util/PolledFd.h"

PolledFdManager::~PolledFdManager() {
  if (isActive()) _loop->remove(this);
}

void PolledFdManager::add(PolledFd* p, PollableDescriptor fd) { add(p, fd, p->defaultEvents()); }

void PolledFdManager::add(PolledFd* p, PollableDescriptor fd, short events) {
  _adds[p] = std::make_pair(fd, events);
  schedule();
}

void PolledFdManager::remove(PolledFd* p, PolledFdManagerRemoveCallback* cb) {
  _adds.erase(p);
  auto ins = _removes.emplace(p, cb);
  if (!ins.second && ins.first->second != cb) std::abort();
  schedule();
}

void PolledFdManager::schedule() {
  if (_scheduled) return;
  _scheduled = true;
  _loop->add(this, 0);
}

void PolledFdManager::when_expired() {
  _scheduled = false;
  auto removes = std::move(_removes);
  auto adds = std::move(_adds);
  _removes.clear();
  _adds.clear();
  for (auto& r : removes) {
    PolledFd* p = r.first;
    PollableDescriptor fd = p->isActive() ? p->getFd() : PollableDescriptor();
    if (p->isActive()) _loop->removeActivePolledFd(p);
    r.second->after_remove(p, fd);
  }
  for (auto& a : adds) _loop->add(a.first, a.second.first, a.second.second);
}
