#include "pipeline/indexer/search/SearchResultsCache.h"

#include "util/Logger.h"

static Logger gLogger("SearchResultsCache");

namespace {
// Bytes a Str holds beyond its object (short texts live inside it).
size_t heapBytes(const Str& s) { return s.capacity() > 15 ? s.capacity() + 1 : 0; }
}  // namespace

size_t SRCacheEntry::measure(const SearchResults& results) {
  constexpr size_t kListNode = 2 * sizeof(void*);
  constexpr size_t kMapNode = 4 * sizeof(void*) + sizeof(sr_index_t);
  size_t bytes = sizeof(SearchResults);
  for (const SearchResult* row : results) {
    bytes += kListNode + sizeof(SearchResult) + row->vals().capacity() * sizeof(Str*);
    for (const Str* v : row->vals())
      if (v) bytes += sizeof(Str) + heapBytes(*v);
  }
  for (const auto& [key, index] : results.getKeyMap()) bytes += kMapNode + sizeof(Str) + heapBytes(key);
  for (const auto& [key, index] : results.getInternalKeyMap()) bytes += kMapNode + sizeof(Str) + heapBytes(key);
  return bytes;
}

// --- handle -------------------------------------------------------------------------

SearchResultsCacheHandle::SearchResultsCacheHandle(SearchResultsCache* cache, std::shared_ptr<SRCacheEntry> entry)
    : _cache(cache), _entry(std::move(entry)), _writer(std::make_unique<ScopedWriter>(_entry->_lock)) {}

SearchResultsCacheHandle::~SearchResultsCacheHandle() {
  _entry->_size = SRCacheEntry::measure(_entry->_results);
  _writer.reset();
  _cache->cleanup();
}

// --- cache ----------------------------------------------------------------------------

SearchResultsCache& SearchResultsCache::getInstance() {
  static SearchResultsCache* instance = new SearchResultsCache();
  return *instance;
}

std::unique_ptr<SearchResultsCacheHandle> SearchResultsCache::createResultsHandle(const Str& queryId, bool create) {
  std::shared_ptr<SRCacheEntry> entry;
  {
    ScopedReader r(_lock);
    auto it = _entries.find(queryId);
    if (it != _entries.end()) entry = it->second;
  }
  if (!entry) {
    if (!create) return nullptr;
    ScopedWriter w(_lock);
    lockedCacheCleanup();
    auto it = _entries.find(queryId);
    if (it == _entries.end()) {
      it = _entries.emplace(queryId, std::make_shared<SRCacheEntry>(queryId)).first;
      it->second->_size = SRCacheEntry::measure(it->second->_results);
    }
    entry = it->second;
  }
  entry->_lastAccess = ++_clock;
  // The entry's lock is taken with the cache's lock released.
  return std::unique_ptr<SearchResultsCacheHandle>(new SearchResultsCacheHandle(this, std::move(entry)));
}

bool SearchResultsCache::remove(const Str& queryId) {
  ScopedWriter w(_lock);
  auto it = _entries.find(queryId);
  if (it == _entries.end()) return false;
  lockedDelete(it);
  return true;
}

void SearchResultsCache::cleanup() {
  ScopedWriter w(_lock);
  lockedCacheCleanup();
}

void SearchResultsCache::clear() {
  ScopedWriter w(_lock);
  _entries.clear();
}

size_t SearchResultsCache::getCacheSize() {
  ScopedReader r(_lock);
  return lockedSize();
}

size_t SearchResultsCache::getEntryCount() {
  ScopedReader r(_lock);
  return _entries.size();
}

size_t SearchResultsCache::lockedSize() const {
  size_t total = 0;
  for (const auto& [id, e] : _entries) total += e->size();
  return total;
}

void SearchResultsCache::lockedDelete(std::map<Str, std::shared_ptr<SRCacheEntry>>::iterator it) {
  gLogger.debug("Dropping cached results of %s (%zu bytes)", it->first.c_str(), it->second->size());
  _entries.erase(it);
}

void SearchResultsCache::lockedCacheCleanup() {
  size_t total = lockedSize();
  while (total > _maxBytes && !_entries.empty()) {
    auto oldest = _entries.begin();
    for (auto it = _entries.begin(); it != _entries.end(); ++it)
      if (it->second->_lastAccess < oldest->second->_lastAccess) oldest = it;
    total -= std::min(total, oldest->second->size());
    lockedDelete(oldest);
  }
}
