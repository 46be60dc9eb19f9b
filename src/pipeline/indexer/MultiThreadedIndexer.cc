#include "pipeline/indexer/MultiThreadedIndexer.h"

#include <cstring>

#include "util/Logger.h"

static Logger gLogger("MultiThreadedIndexer");

MultiThreadedIndexer::MultiThreadedIndexer(const Pathname& dir, const Sizes& sizes, size_t threads, unsigned number)
    : Thread("indexerthread%u", number),
      _maxItems((threads ? threads : 1) * kMaxItemsPerThread),
      _wakeItems((threads ? threads : 1) * kWakeItemsPerThread),
      _value(nullptr, nullptr) {
  _handle = st_open(dir.c_str());
  if (!_handle) {
    gLogger.error("Unable to open %s for an indexing thread: %m", dir.c_str());
  } else {
    setOptions(sizes);
  }
  _value.setHandle(_handle);
  go();
}

MultiThreadedIndexer::~MultiThreadedIndexer() {
  stop();
  join();
  if (_handle) st_close(_handle);
}

void MultiThreadedIndexer::setOptions(const Sizes& sizes) {
  st_options(_handle, sizes.maxTermChars, sizes.maxTerms, sizes.maxPostings, sizes.maxValues);
  st_autotune(_handle, sizes.maxMemMB << 20);
}

size_t MultiThreadedIndexer::append(std::vector<char>& text, const StrSegment& s) {
  size_t at = text.size();
  text.insert(text.end(), s.data(), s.data() + s.size());
  return at;
}

void MultiThreadedIndexer::addToQueue(const IndexableEvent& ev, int32_t time, uint32_t address, uint32_t host,
                                      uint32_t source, uint32_t sourceType, GenericCleaner* cleaner) {
  ScopedLock l(_mutex);
  bool logged = false;
  while (_pending.items.size() > _maxItems || _pending.text.size() > kMaxQueuedBytes) {
    if (!logged) {
      gLogger.debug("queue_size=%ld response=waiting.", long(_pending.items.size()));
      logged = true;
    }
    _work.internal_wake_one();
    _space.wait(_mutex);
  }
  Item it;
  it.time = time;
  it.address = address;
  it.host = host;
  it.source = source;
  it.sourceType = sourceType;
  it.cleaner = cleaner;
  it.metaLen = ev.meta.size();
  it.meta = append(_pending.text, ev.meta);
  it.rawLen = ev.raw.size();
  it.raw = append(_pending.text, ev.raw);
  it.termsLen = ev.indexTerms.size();
  it.terms = append(_pending.text, ev.indexTerms);
  it.firstField = _pending.fields.size();
  it.fieldCount = ev.fields.size();
  for (const auto& kv : ev.fields) {
    Field f;
    f.keyLen = kv.first.size();
    f.key = append(_pending.text, kv.first);
    f.valueLen = kv.second.size();
    f.value = append(_pending.text, kv.second);
    _pending.fields.push_back(f);
  }
  _pending.items.push_back(it);
  if (_pending.items.size() > _wakeItems || _pending.text.size() >= kMaxQueuedBytes) _work.internal_wake_one();
}

bool MultiThreadedIndexer::sync() {
  ScopedLock l(_mutex);
  uint64_t mine = ++_syncsAsked;
  _syncAsked = true;
  _work.internal_wake_one();
  while (_syncsDone < mine) _space.wait(_mutex);
  return _lastSyncOk;
}

void MultiThreadedIndexer::stop() {
  ScopedLock l(_mutex);
  _stopAsked = true;
  _syncAsked = true;
  ++_syncsAsked;
  _work.internal_wake_one();
}

bool MultiThreadedIndexer::readyLocked() const {
  return _pending.items.size() >= _wakeItems || _pending.text.size() >= kMaxQueuedBytes || _syncAsked || _stopAsked;
}

void MultiThreadedIndexer::main() {
  ScopedLock l(_mutex);
  for (;;) {
    while (!readyLocked()) _work.wait(_mutex);
    bool flush = _syncAsked;
    uint64_t target = _syncsAsked;
    _syncAsked = false;
    std::swap(_pending, _working);
    _space.internal_wake_all();
    bool ok = true;
    {
      ScopedUnlock u(_mutex);
      indexBatch(_working);
      _working.clear();
      if (flush && _handle && st_sync(_handle) < 0) ok = false;
    }
    if (flush) {
      _syncsDone = target;
      _lastSyncOk = ok;
      _space.internal_wake_all();
    }
    if (_stopAsked && _pending.items.empty() && !_syncAsked) break;
  }
}

void MultiThreadedIndexer::indexBatch(Batch& b) {
  if (!_handle) return;
  const char* text = b.text.data();
  // The batch is indexed newest-added first.
  for (size_t i = b.items.size(); i-- > 0;) {
    const Item& it = b.items[i];
    _fieldViews.clear();
    for (size_t f = it.firstField; f < it.firstField + it.fieldCount; ++f) {
      const Field& fl = b.fields[f];
      _fieldViews.emplace_back(StrSegment(text + fl.key, fl.keyLen), StrSegment(text + fl.value, fl.valueLen));
    }
    IndexableEvent ev;
    ev.meta = StrSegment(text + it.meta, it.metaLen);
    ev.raw = StrSegment(text + it.raw, it.rawLen);
    ev.indexTerms = StrSegment(text + it.terms, it.termsLen);
    ev.fields = std::span<const std::pair<StrSegment, StrSegment>>(_fieldViews.data(), _fieldViews.size());
    _value.setCleaner(it.cleaner);
    _value.setTime(it.time);
    _value.setAddress(it.address);
    _value.setCodes(it.host, it.source, it.sourceType);
    _value.index(ev);
  }
}

bool MultiThreadedIndexer::setBeforeWrite(int (*fn)(void* ctx), void* ctx) {
  return _handle && st_set_before_write(_handle, fn, ctx) == 0;
}
