// DESIGN. A group's waiting list is touched only under the group's mutex.
// Lifting the mask takes the list out under the mutex and calls each
// member's unthrottleEvents() outside it, so a member may take other locks.
#include "util/Throttleable.h"

#include <cassert>
#include <vector>

ThrottleGroup Throttleable::not_throttled(0);
ThrottleGroup Throttleable::blocked(static_cast<short>(0x7fff));

ThrottleGroup::~ThrottleGroup() {
  ScopedLock l(_mutex);
  while (_head != nullptr) _head->unlinkLocked();
}

void ThrottleGroup::setMask(short mask) {
  std::vector<std::pair<Throttleable*, short>> wake;
  {
    ScopedLock l(_mutex);
    short lifted = static_cast<short>(_mask.load() & ~mask);
    _mask.store(mask, std::memory_order_release);
    if (lifted == 0) return;
    for (Throttleable* t = _head; t != nullptr;) {
      Throttleable* next = t->_next;
      short give = static_cast<short>(t->_pending & lifted);
      if (give != 0) {
        t->_pending = static_cast<short>(t->_pending & ~give);
        if (t->_pending == 0) t->unlinkLocked();
        wake.emplace_back(t, give);
      }
      t = next;
    }
  }
  for (auto& w : wake) w.first->unthrottleEvents(w.second);
}

Throttleable::~Throttleable() {
  ThrottleGroup* g = _tgroup;
  ScopedLock l(g->_mutex);
  if (_linked) unlinkLocked();
}

void Throttleable::setThrottleGroup(ThrottleGroup* g) {
  assert(g != nullptr);
  {
    ScopedLock l(_tgroup->_mutex);
    if (_linked) unlinkLocked();
  }
  _tgroup = g;
}

void Throttleable::unlinkLocked() {
  if (_prev != nullptr) _prev->_next = _next;
  else _tgroup->_head = _next;
  if (_next != nullptr) _next->_prev = _prev;
  _next = _prev = nullptr;
  _linked = false;
}

short Throttleable::checkThrottling(short revents, short events) {
  assert(_tgroup != &not_throttled);
  short mask = _tgroup->mask();
  if (((revents | events) & mask) == 0) return static_cast<short>(~0);
  ScopedLock l(_tgroup->_mutex);
  mask = _tgroup->mask();  // may have lifted meanwhile
  if (((revents | events) & mask) == 0) return static_cast<short>(~0);
  if (_tgroup != &blocked) {
    _pending = static_cast<short>(_pending | (events & mask));
    if (!_linked) {
      _next = _tgroup->_head;
      _prev = nullptr;
      if (_next != nullptr) _next->_prev = this;
      _tgroup->_head = this;
      _linked = true;
    }
  }
  return static_cast<short>(~mask);
}
