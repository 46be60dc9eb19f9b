#include "framework/GzPrefixCache.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>

#include "util/Logger.h"

namespace {
Logger gLogger("SplitCompression");
// Inflated in steps of this many bytes, so that a read near the start of a
// file does not inflate all of it.
constexpr size_t kStep = size_t(256) << 10;
}  // namespace

void GzPrefixCache::Entry::Free::operator()(char* p) const {
  if (p != nullptr) ::munmap(p, bytes);
}

GzPrefixCache::Entry::Buffer GzPrefixCache::Entry::allocate(size_t n) {
  void* p = ::mmap(nullptr, n, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) throw std::bad_alloc();
  if (n >= (size_t(2) << 20)) ::madvise(p, n, MADV_HUGEPAGE);  // advice only: failure is harmless
  return Buffer(static_cast<char*>(p), Free{n});
}

GzPrefixCache::Entry::Entry(int fd, int64_t fileSize) {
  // ISIZE, the last four bytes of a gzip file: the inflated length (mod
  // 2^32) of its last member. A plausible value sizes the buffer at once.
  unsigned char trailer[4];
  if (fileSize >= 18 && ::pread(fd, trailer, 4, off_t(fileSize - 4)) == 4) {
    const size_t isize = size_t(trailer[0]) | size_t(trailer[1]) << 8 | size_t(trailer[2]) << 16 |
                         size_t(trailer[3]) << 24;
    if (isize > 0 && isize <= size_t(1) << 30) {
      _buf = allocate(isize + 1);  // one spare byte: the end is seen without a regrow
      _capacity = isize + 1;
    }
  }
  _gz = gzdopen(fd, "rb");
  if (_gz == nullptr) {
    ::close(fd);
    _broken = true;
    return;
  }
  gzbuffer(_gz, 128 * 1024);
}

GzPrefixCache::Entry::~Entry() {
  if (_gz != nullptr) gzclose(_gz);
}

bool GzPrefixCache::Entry::Locked_ensure(size_t end) {
  size_t grown = 0;
  while (_size < end && !_eof && !_broken) {
    // At least a step, at most what is missing or 16 steps at a time.
    size_t want = std::min(std::max(kStep, end - _size), 16 * kStep);
    // Within the size the trailer gave, read no further than it: the spare
    // byte at its end tells the stream's end without a regrow.
    if (_capacity > _size) want = std::min(want, _capacity - _size);
    if (_capacity == _size) {
      // More than the trailer said (several members): grow by doubling.
      const size_t cap = std::max(_size + want, _capacity * 2);  // capacity 0: want
      Buffer bigger = allocate(cap);
      if (_size > 0) std::memcpy(bigger.get(), _buf.get(), _size);
      _buf = std::move(bigger);
      _capacity = cap;
    }
    int n = gzread(_gz, _buf.get() + _size, unsigned(want));
    if (n < 0) {
      int err = 0;
      gLogger.error("gzip read failure: %s", gzerror(_gz, &err));
      _broken = true;
      n = 0;
    }
    _size += size_t(n);
    grown += size_t(n);
    if (size_t(n) < want && !_broken) {
      // gzread fills the buffer unless the stream ends: at its true end, or
      // cut short (a truncated file), which is an error.
      int err = Z_OK;
      const char* what = gzerror(_gz, &err);
      if (err != Z_OK && err != Z_STREAM_END) {
        gLogger.error("gzip read failure: %s", what);
        _broken = true;
      }
      _eof = true;
    }
  }
  if (grown > 0) GzPrefixCache::instance()->charge(this, grown);
  return _size >= end;
}

bool GzPrefixCache::Entry::read(int64_t pos, void* buf, size_t len) {
  if (pos < 0) return false;
  ScopedLock l(_mutex);
  const size_t end = size_t(pos) + len;
  if (end < size_t(pos) || !Locked_ensure(end)) return false;
  if (len > 0) std::memcpy(buf, _buf.get() + pos, len);
  return true;
}

bool GzPrefixCache::Entry::has(int64_t end) {
  if (end < 0) return false;
  ScopedLock l(_mutex);
  return Locked_ensure(size_t(end));
}

int64_t GzPrefixCache::Entry::size() {
  ScopedLock l(_mutex);
  Locked_ensure(SIZE_MAX);
  return _broken ? -1 : int64_t(_size);
}

bool GzPrefixCache::Entry::readAll(Str& out) {
  ScopedLock l(_mutex);
  Locked_ensure(SIZE_MAX);
  if (_broken) return false;
  out.assign(_buf.get(), _size);
  return true;
}

GzPrefixCache* GzPrefixCache::instance() {
  static GzPrefixCache* cache = new GzPrefixCache();  // lives to the end of the process
  return cache;
}

std::shared_ptr<GzPrefixCache::Entry> GzPrefixCache::get(const Str& path, int fd) {
  struct stat st;
  if (::fstat(fd, &st) != 0) {
    ::close(fd);
    return nullptr;
  }
  Identity id;
  id.dev = uint64_t(st.st_dev);
  id.ino = uint64_t(st.st_ino);
  id.size = int64_t(st.st_size);
  id.mtimeNs = int64_t(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  ScopedLock l(_mutex);
  auto it = _slots.find(path);
  if (it != _slots.end()) {
    if (it->second.id == id) {
      ::close(fd);
      _lru.splice(_lru.begin(), _lru, it->second.lru);
      return it->second.entry;
    }
    // The name now holds another file.
    Entry* old = it->second.entry.get();
    old->_cached = false;
    _held -= old->_charged;
    _lru.erase(it->second.lru);
    _slots.erase(it);
  }
  std::shared_ptr<Entry> e(new Entry(fd, id.size));
  if (e->_broken) return nullptr;
  _lru.push_front(path);
  _slots[path] = Slot{id, e, _lru.begin()};
  return e;
}

void GzPrefixCache::charge(Entry* e, size_t bytes) {
  ScopedLock l(_mutex);
  if (!e->_cached) return;
  e->_charged += bytes;
  _held += bytes;
  Locked_trim();
}

void GzPrefixCache::Locked_trim() {
  while (_held > _budget && !_lru.empty()) {
    auto it = _slots.find(_lru.back());
    _lru.pop_back();
    if (it == _slots.end()) continue;
    Entry* e = it->second.entry.get();
    e->_cached = false;
    _held -= e->_charged;
    _slots.erase(it);
  }
}

void GzPrefixCache::setBudget(size_t bytes) {
  ScopedLock l(_mutex);
  _budget = bytes;
  Locked_trim();
}

size_t GzPrefixCache::budget() {
  ScopedLock l(_mutex);
  return _budget;
}

size_t GzPrefixCache::heldBytes() {
  ScopedLock l(_mutex);
  return _held;
}

void GzPrefixCache::clear() {
  ScopedLock l(_mutex);
  for (auto& [path, slot] : _slots) {
    slot.entry->_cached = false;
    _held -= slot.entry->_charged;
  }
  _slots.clear();
  _lru.clear();
}
