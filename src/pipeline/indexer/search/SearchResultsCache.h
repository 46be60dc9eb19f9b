// SearchResultsCache: event rows already fetched for a search, kept in
// memory by query id, so that a later request for the same query (another
// page, a second reader) does not read the index again.
//
// An entry (SRCacheEntry) holds one SearchResults. It is reached only
// through a SearchResultsCacheHandle, which holds the entry's lock as writer
// for its whole life: one handle at a time fills or reads an entry, and
// handles of different entries work side by side.
//
// Size bound: the entries together hold at most kMaxBytes (2000000) bytes
// of rows (an estimate: values, slots and row overhead). Creating an entry,
// releasing a handle and cleanup() evict entries, least recently accessed
// first (access = a handle was taken), until the total is within the bound.
// An entry's size is measured when its handle is released, so an entry
// being filled counts with its size at its last release.
//
// DESIGN. The cache's ReadWriteLock guards the map from query id to entry;
// lookups read, creation, eviction and removal write. Entries are shared:
// the map and every handle own a reference, so evicting or removing an
// entry that a handle holds only unlists it; the handle keeps working on
// the rows, which go away with the last handle. (A handle taken while its
// entry is being evicted may therefore hold an entry that is no longer
// listed.) The cache's lock is never held while waiting for an entry's
// lock, and sizing reads a number each entry keeps, never an entry's lock,
// so a thread holding a handle may use the cache freely.
//
// Threads: every member of the cache may be called from any thread. A
// handle is used and destroyed on the thread that took it (the writer lock
// belongs to that thread).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>

#include "search/SearchResults.h"
#include "util/ReadWriteLock.h"
#include "util/Str.h"

class SearchResultsCache;

// One cached result set. Its rows are reached through a handle.
class SRCacheEntry {
 public:
  explicit SRCacheEntry(const Str& queryId) : _queryId(queryId) {}
  const Str& queryId() const { return _queryId; }
  // Bytes of the rows at the last release of a handle.
  size_t size() const { return _size.load(); }
  // Estimated bytes held by these results.
  static size_t measure(const SearchResults& results);

 private:
  friend class SearchResultsCache;
  friend class SearchResultsCacheHandle;
  Str _queryId;
  ReadWriteLock _lock;
  SearchResults _results;                 // under _lock (as writer)
  std::atomic<size_t> _size{0};
  std::atomic<uint64_t> _lastAccess{0};  // the cache's access clock
};

// Exclusive access to one entry for the handle's life.
class SearchResultsCacheHandle {
 public:
  ~SearchResultsCacheHandle();
  SearchResultsCacheHandle(const SearchResultsCacheHandle&) = delete;
  SearchResultsCacheHandle& operator=(const SearchResultsCacheHandle&) = delete;

  SearchResults& results() { return _entry->_results; }
  const Str& queryId() const { return _entry->queryId(); }

 private:
  friend class SearchResultsCache;
  // Waits for the entry's lock.
  SearchResultsCacheHandle(SearchResultsCache* cache, std::shared_ptr<SRCacheEntry> entry);

  SearchResultsCache* _cache;
  std::shared_ptr<SRCacheEntry> _entry;
  std::unique_ptr<ScopedWriter> _writer;
};

class SearchResultsCache {
 public:
  static constexpr size_t kMaxBytes = 2000000;

  // The process-wide cache (bound kMaxBytes).
  static SearchResultsCache& getInstance();
  // A cache of its own, for tests and tools.
  explicit SearchResultsCache(size_t maxBytes = kMaxBytes) : _maxBytes(maxBytes) {}
  SearchResultsCache(const SearchResultsCache&) = delete;
  SearchResultsCache& operator=(const SearchResultsCache&) = delete;

  // A handle on the entry of queryId, waiting while another handle holds
  // it. A missing entry is made (empty) when `create`, else null. Stamps
  // the entry as the most recently accessed.
  std::unique_ptr<SearchResultsCacheHandle> createResultsHandle(const Str& queryId, bool create);
  // Unlists the entry; false when there was none.
  bool remove(const Str& queryId);
  // Evicts least recently accessed entries until within the bound.
  void cleanup();
  // Unlists every entry.
  void clear();
  // Bytes held by the listed entries (as last measured).
  size_t getCacheSize();
  size_t getEntryCount();
  size_t getMaxBytes() const { return _maxBytes; }

 private:
  friend class SearchResultsCacheHandle;
  // REQUIRES, both: the writer lock.
  void lockedCacheCleanup();
  void lockedDelete(std::map<Str, std::shared_ptr<SRCacheEntry>>::iterator it);
  size_t lockedSize() const;

  const size_t _maxBytes;
  ReadWriteLock _lock;
  std::map<Str, std::shared_ptr<SRCacheEntry>> _entries;  // under _lock
  std::atomic<uint64_t> _clock{0};
};
