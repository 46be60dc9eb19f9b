// GzPrefixCache: the inflated beginnings of the gzipped raw data files that
// were read lately, shared by every reader of the process.
//
// A gzip stream reads forward only: reaching an event in the middle of a
// 10 MiB file means inflating everything before it, and reading the events
// of a file newest first (as every search does) would start over for each
// one. Here each file is inflated at most once per process while its entry
// lives: an entry keeps the stream open and the bytes inflated so far, and a
// read past them inflates on from where the stream stopped. A file that is
// never read far costs only its prefix.
//
// Entries are found by path and belong to one file identity (device, inode,
// size, modification time): a file replaced under the same name gets a fresh
// entry. The inflated bytes of all entries are kept under a budget (256 MiB
// unless set: a search over sources added one after another touches the
// ends of many files at once); past it the least recently used entries leave the cache. An
// entry that a reader still holds lives on with that reader.
//
// Threads: any thread. The cache has one mutex for its map; each entry has
// its own, held while it inflates or copies out, so readers of different
// files do not wait on each other.
#pragma once

#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>

#include "util/Mutex.h"
#include "util/Str.h"

class GzPrefixCache {
 public:
  // One gzipped file being inflated.
  class Entry {
   public:
    ~Entry();
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

    // Copies len bytes at offset pos of the inflated file to buf. False when
    // the file is shorter or cannot be inflated that far.
    bool read(int64_t pos, void* buf, size_t len);
    // True when the inflated file holds at least `end` bytes (inflating that
    // far).
    bool has(int64_t end);
    // The inflated size, inflating the whole file. -1 on a broken stream.
    int64_t size();
    // The whole inflated content.
    bool readAll(Str& out);

   private:
    friend class GzPrefixCache;
    Entry(int fd, int64_t fileSize);
    // REQUIRES: _mutex held. Inflates until at least `end` bytes exist or
    // the stream ends; true when `end` bytes exist.
    bool Locked_ensure(size_t end);

    Mutex _mutex;
    gzFile _gz = nullptr;
    // The inflated bytes: _size of them in a buffer of _capacity, sized at
    // first from the gzip trailer (the inflated length of the last member),
    // so that a single-member file is inflated into place with no copy.
    struct Free {
      size_t bytes;
      void operator()(char* p) const;
    };
    using Buffer = std::unique_ptr<char, Free>;
    // A buffer of n bytes on huge pages where the system gives them (an
    // inflated file is megabytes, touched once: fewer page faults).
    static Buffer allocate(size_t n);
    Buffer _buf{nullptr, Free{0}};
    size_t _size = 0;
    size_t _capacity = 0;
    bool _eof = false;
    bool _broken = false;
    // Guarded by the cache's mutex, not this entry's: whether the entry is in
    // the cache, and the bytes of _data charged to its budget.
    bool _cached = true;
    size_t _charged = 0;
  };

  static GzPrefixCache* instance();

  // The entry of the gzip file open on fd (named path). Takes fd: it is
  // closed here when an entry for that file exists already. Null (fd
  // closed) when the file cannot be read as gzip.
  std::shared_ptr<Entry> get(const Str& path, int fd);

  // Sets the budget in bytes and trims to it (0: keep nothing once read).
  void setBudget(size_t bytes);
  size_t budget();
  // Inflated bytes held by the cache's entries.
  size_t heldBytes();
  void clear();

 private:
  friend class Entry;
  struct Identity {
    uint64_t dev = 0, ino = 0;
    int64_t size = 0, mtimeNs = 0;
    bool operator==(const Identity& o) const {
      return dev == o.dev && ino == o.ino && size == o.size && mtimeNs == o.mtimeNs;
    }
  };
  struct Slot {
    Identity id;
    std::shared_ptr<Entry> entry;
    std::list<Str>::iterator lru;
  };
  GzPrefixCache() = default;
  // An entry grew by `bytes`: charge it, trimming entries as needed.
  void charge(Entry* e, size_t bytes);
  // REQUIRES: _mutex held.
  void Locked_trim();

  Mutex _mutex;
  std::map<Str, Slot> _slots;
  std::list<Str> _lru;  // most recent first
  size_t _budget = size_t(256) << 20;
  size_t _held = 0;
};
