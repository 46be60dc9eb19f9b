// The timeout heap of EventLoop: a complete binary min-heap on expiry whose
// nodes are the Timeout objects themselves, linked by pointers. Position p
// (1 = root) is reached from the root by the bits of p below its top bit,
// a clear bit taking child 0 and a set one child 1; the count of nodes names
// the last position, so insertion goes to count + 1 and removal moves the
// node at count into the hole. Expired and requeued timers wait on intrusive
// doubly-linked lists (child[0] next, child[1] previous) so that remove()
// can take them out at any moment without allocating.
#include <cassert>
#include <climits>

#include "util/EventLoop.h"

namespace {
inline unsigned int topBit(unsigned int v) { return 1u << (31 - __builtin_clz(v)); }
}  // namespace

Timeout::~Timeout() { assert(_state == State::kInactive); }

Timeout* EventLoop::nodeAt(unsigned int pos) const {
  Timeout* n = _timeouts;
  for (unsigned int bit = topBit(pos) >> 1; bit != 0; bit >>= 1) n = n->_ptr.child[(pos & bit) ? 1 : 0];
  return n;
}

void EventLoop::heapInsert(Timeout* t) {
  const unsigned int pos = ++_timeoutCount;
  _timeoutSlotBit = topBit(pos);
  t->_ptr.child[0] = t->_ptr.child[1] = nullptr;
  t->_state = Timeout::State::kQueued;
  if (pos == 1) {
    _timeouts = t;
    t->_ptr.parent = nullptr;
    t->_linkp = &_timeouts;
    return;
  }
  Timeout* parent = nodeAt(pos >> 1);
  Timeout** link = &parent->_ptr.child[pos & 1];
  *link = t;
  t->_linkp = link;
  t->_ptr.parent = parent;
  restoreOrder(t);
}

void EventLoop::heapRemove(Timeout* t) {
  Timeout* last = nodeAt(_timeoutCount);
  *last->_linkp = nullptr;
  --_timeoutCount;
  _timeoutSlotBit = _timeoutCount == 0 ? 0 : topBit(_timeoutCount);
  if (last != t) {
    for (int i = 0; i < 2; ++i) {
      Timeout* c = t->_ptr.child[i];
      last->_ptr.child[i] = c;
      if (c != nullptr) {
        c->_ptr.parent = last;
        c->_linkp = &last->_ptr.child[i];
      }
    }
    last->_ptr.parent = t->_ptr.parent;
    last->_linkp = t->_linkp;
    *last->_linkp = last;
    if (_timeoutCount >= 2) restoreOrder(last);
  }
  t->_ptr.child[0] = t->_ptr.child[1] = t->_ptr.parent = nullptr;
  t->_linkp = nullptr;
  t->_state = Timeout::State::kInactive;
}

void EventLoop::swapWithChild(Timeout* p, int which) {
  Timeout* c = p->_ptr.child[which];
  Timeout* other = p->_ptr.child[1 - which];
  Timeout* cc[2] = {c->_ptr.child[0], c->_ptr.child[1]};
  Timeout** plink = p->_linkp;

  c->_ptr.parent = p->_ptr.parent;
  c->_linkp = plink;
  *plink = c;
  c->_ptr.child[which] = p;
  p->_ptr.parent = c;
  p->_linkp = &c->_ptr.child[which];
  c->_ptr.child[1 - which] = other;
  if (other != nullptr) {
    other->_ptr.parent = c;
    other->_linkp = &c->_ptr.child[1 - which];
  }
  for (int i = 0; i < 2; ++i) {
    p->_ptr.child[i] = cc[i];
    if (cc[i] != nullptr) {
      cc[i]->_ptr.parent = p;
      cc[i]->_linkp = &p->_ptr.child[i];
    }
  }
}

void EventLoop::restoreOrder(Timeout* t) {
  while (t->_ptr.parent != nullptr && t->_expiry < t->_ptr.parent->_expiry) {
    Timeout* p = t->_ptr.parent;
    swapWithChild(p, p->_ptr.child[1] == t ? 1 : 0);
  }
  for (;;) {
    int best = -1;
    for (int i = 0; i < 2; ++i) {
      Timeout* c = t->_ptr.child[i];
      if (c != nullptr && c->_expiry < t->_expiry &&
          (best < 0 || c->_expiry < t->_ptr.child[best]->_expiry))
        best = i;
    }
    if (best < 0) return;
    swapWithChild(t, best);
  }
}

void EventLoop::collect(Timeout* n, Timeout*& list) {
  if (n == nullptr) return;
  Timeout* c0 = n->_ptr.child[0];
  Timeout* c1 = n->_ptr.child[1];
  collect(c0, list);
  collect(c1, list);
  n->_ptr.child[0] = list;
  n->_ptr.child[1] = n->_ptr.parent = nullptr;
  n->_linkp = nullptr;
  n->_state = Timeout::State::kInactive;
  list = n;
}

Timeout* EventLoop::detachAll() {
  Timeout* list = nullptr;
  collect(_timeouts, list);
  _timeouts = nullptr;
  _timeoutCount = 0;
  _timeoutSlotBit = 0;
  return list;
}

void EventLoop::recursiveAddToAllTimeouts(Timeout* n, long long usec) {
  if (n == nullptr) return;
  n->_expiry.addUsec(usec);
  recursiveAddToAllTimeouts(n->_ptr.child[0], usec);
  recursiveAddToAllTimeouts(n->_ptr.child[1], usec);
}

void EventLoop::listPush(Timeout*& head, Timeout* t, int state) {
  // Appends at the tail so timers run in expiry order.
  t->_ptr.child[0] = nullptr;
  Timeout* tail = head == nullptr ? nullptr : head->_ptr.child[1];
  if (head == nullptr) {
    head = t;
    t->_ptr.child[1] = t;  // the head's prev link names the tail
  } else {
    tail->_ptr.child[0] = t;
    t->_ptr.child[1] = tail;
    head->_ptr.child[1] = t;
  }
  t->_state = static_cast<Timeout::State>(state);
}

void EventLoop::listUnlink(Timeout*& head, Timeout* t) {
  Timeout* next = t->_ptr.child[0];
  if (t == head) {
    head = next;
    if (next != nullptr) next->_ptr.child[1] = t->_ptr.child[1];
  } else {
    Timeout* prev = t->_ptr.child[1];
    prev->_ptr.child[0] = next;
    if (next != nullptr) next->_ptr.child[1] = prev;
    else head->_ptr.child[1] = prev;
  }
  t->_ptr.child[0] = t->_ptr.child[1] = nullptr;
  t->_state = Timeout::State::kInactive;
}

void EventLoop::add(Timeout* t, unsigned long long ms) { add(t, _clock->now(), ms); }

void EventLoop::add(Timeout* t, const Timeval& now, unsigned long long ms) {
  assert(t != _currently_running_timeout && "(t) != _currently_running_timeout");
  assert(!t->isActive());
  t->_expiry = now;
  t->_expiry.addMsec(static_cast<int64_t>(ms));
  t->_interval_ms = ms;
  heapInsert(t);
}

void EventLoop::remove(Timeout* t) {
  switch (t->_state) {
    case Timeout::State::kQueued:
      heapRemove(t);
      break;
    case Timeout::State::kExpired:
      listUnlink(_expiredHead, t);
      break;
    case Timeout::State::kRequeue:
      listUnlink(_requeueHead, t);
      break;
    case Timeout::State::kInactive:
      break;
  }
  if (t == _currently_running_timeout) _currentRemoved = true;
}

void EventLoop::modifyTimeoutInterval(Timeout* t, unsigned long long ms) {
  if (t->_state == Timeout::State::kQueued) {
    Timeval start = t->_expiry;
    start.addMsec(-static_cast<int64_t>(t->_interval_ms));
    heapRemove(t);
    add(t, start, ms);
  } else {
    t->_interval_ms = ms;
  }
}

int EventLoop::msecUntilNextTimeout(const Timeval& now) const {
  if (_timeouts == nullptr) return -1;
  int64_t d = Timeval::msecDifference(_timeouts->_expiry, now);
  if (d <= 0) return 0;
  return d > INT_MAX ? INT_MAX : static_cast<int>(d);
}

void EventLoop::runExpiredTimeouts(const Timeval& now) {
  Timeval limit = now;
  limit.addMsec(kBatchMs);
  while (_timeouts != nullptr && _timeouts->_expiry <= limit) {
    Timeout* t = _timeouts;
    heapRemove(t);
    listPush(_expiredHead, t, static_cast<int>(Timeout::State::kExpired));
  }
  while (_expiredHead != nullptr) {
    Timeout* t = _expiredHead;
    listUnlink(_expiredHead, t);  // leaves it inactive while it runs
    unsigned long long reschedule = t->_interval_ms;
    _currently_running_timeout = t;
    _currentRemoved = false;
    t->when_expired(reschedule);
    _currently_running_timeout = nullptr;
    // With reschedule at zero the timer may already be gone: don't touch it.
    if (reschedule != 0 && !_currentRemoved) {
      t->_interval_ms = reschedule;
      listPush(_requeueHead, t, static_cast<int>(Timeout::State::kRequeue));
    }
  }
  if (_requeueHead == nullptr) return;
  const Timeval again = _clock->now();
  while (_requeueHead != nullptr) {
    Timeout* t = _requeueHead;
    listUnlink(_requeueHead, t);
    t->_expiry = again;
    t->_expiry.addMsec(static_cast<int64_t>(t->_interval_ms));
    heapInsert(t);
  }
}

void EventLoop::checkClockSkew(const Timeval& before, const Timeval& after, int delayMs) {
  if (after < before) {
    Timeout* list = detachAll();
    while (list != nullptr) {
      Timeout* t = list;
      list = t->_ptr.child[0];
      Timeval soonest = after;
      soonest.addMsec(static_cast<int64_t>(t->_interval_ms));
      if (soonest < t->_expiry) t->_expiry = soonest;
      heapInsert(t);
    }
    return;
  }
  const int64_t jumpUsec = Timeval::usecDifference(after, before);
  const int64_t allowedUsec = (static_cast<int64_t>(delayMs) + kForwardSkewMs) * 1000;
  if (jumpUsec > allowedUsec) recursiveAddToAllTimeouts(_timeouts, jumpUsec - static_cast<int64_t>(delayMs) * 1000);
}

void EventLoop::runZeroLengthTimeoutsAtExit() {
  // Running one may queue more zero-length work; repeat until none is left.
  for (bool ran = true; ran;) {
    ran = false;
    Timeout* list = detachAll();
    while (list != nullptr) {
      Timeout* t = list;
      list = t->_ptr.child[0];
      t->_ptr.child[0] = nullptr;
      if (t->_interval_ms == 0) {
        unsigned long long ignored = 0;
        _currently_running_timeout = t;
        t->when_expired(ignored);
        _currently_running_timeout = nullptr;
        ran = true;
      } else {
        heapInsert(t);
      }
    }
  }
}
