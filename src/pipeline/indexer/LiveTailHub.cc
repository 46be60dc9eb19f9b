#include "pipeline/indexer/LiveTailHub.h"

#include <algorithm>
#include <cstring>

#include "pipeline/indexer/WritableEvent.h"

std::atomic<int> LiveTailHub::sListening{0};

namespace {

// The value of a meta key given plain or as "<prefix>value".
Str plainValue(const StrSegment& v, const char* prefix) {
  Str s(v);
  if (s.startswith(prefix)) s.erase(0, strlen(prefix));
  return s;
}

}  // namespace

// --- Subscriber -----------------------------------------------------------------------

LiveTailHub::Subscriber::Subscriber(size_t capacity) : _capacity(std::max<size_t>(capacity, 1)) {}

void LiveTailHub::Subscriber::offer(const EventPtr& e) {
  ScopedLock l(_mutex);
  if (_closed) return;
  if (_queue.size() >= _capacity) {
    ++_dropped;
    return;
  }
  _queue.push_back(e);
  if (_queue.size() == 1) _ready.internal_wake_all();
}

size_t LiveTailHub::Subscriber::take(std::vector<EventPtr>& out, double seconds) {
  ScopedLock l(_mutex);
  if (_queue.empty() && !_closed && seconds > 0) _ready.wait(_mutex, seconds);
  for (EventPtr& e : _queue) out.push_back(std::move(e));
  _queue.clear();
  size_t dropped = _dropped;
  _dropped = 0;
  return dropped;
}

void LiveTailHub::Subscriber::close() {
  ScopedLock l(_mutex);
  _closed = true;
  _ready.internal_wake_all();
}

bool LiveTailHub::Subscriber::closed() const {
  ScopedLock l(_mutex);
  return _closed;
}

// --- LiveTailHub ----------------------------------------------------------------------

LiveTailHub& LiveTailHub::instance() {
  static LiveTailHub hub;
  return hub;
}

std::shared_ptr<LiveTailHub::Subscriber> LiveTailHub::subscribe(size_t capacity) {
  auto s = std::make_shared<Subscriber>(capacity);
  ScopedLock l(_mutex);
  _subs.push_back(s);
  sListening.fetch_add(1, std::memory_order_relaxed);
  return s;
}

void LiveTailHub::unsubscribe(const std::shared_ptr<Subscriber>& s) {
  if (!s) return;
  s->close();
  ScopedLock l(_mutex);
  auto it = std::find(_subs.begin(), _subs.end(), s);
  if (it == _subs.end()) return;
  _subs.erase(it);
  sListening.fetch_sub(1, std::memory_order_relaxed);
}

size_t LiveTailHub::subscribers() const {
  ScopedLock l(_mutex);
  return _subs.size();
}

void LiveTailHub::deliver(const Str& index, const WritableEvent& ev) {
  ScopedLock l(_mutex);
  if (_subs.empty()) return;
  auto e = std::make_shared<Event>();
  e->index = index;
  e->time = Str(ev.time);
  e->host = plainValue(ev.host, "host::");
  e->source = plainValue(ev.source, "source::");
  e->sourceType = plainValue(ev.sourceType, "sourcetype::");
  e->raw = Str(ev.raw);
  EventPtr shared = std::move(e);
  for (const auto& s : _subs) s->offer(shared);
}
