// STPersistentStorageImpl: a persistent key-value store kept over the
// time-series index engine; the same interface as SQLitePersistentStorageImpl
// (write replaces the entry of its primary key, read, remove, enumerate by a
// primary key range or by secondary keys).
//
// DESIGN
// The store is a directory "<baseDir>/persistentstorage/<name>.st" holding
//   "values"       an append-only log of records (STPersistentRecord.h has
//                  its byte table), the durable truth;
//   "index/"       an engine index over the log;
//   "index.lock"   the engine's directory lock, taken while it merges slices.
// Every write or removal appends one record and syncs the log to disk before
// it returns. Each record is put into the engine as one value: time = the
// record's sequence number (so newer records sort first), address = its log
// offset / 8 (a log holds up to 32 GiB), the four codes 0, under these terms:
//
//   TERM                   WHEN
//   "p" + enc(primary)     every record
//   "1" + enc(secondary1)  writes whose secondary1 is not empty (also 2, 3)
//   "#"                    every record: the newest one tells how far the
//                          index reaches into the log
//
// enc() writes a key's bytes with three of them escaped, because the engine
// takes NUL-terminated terms and reads "*" as a wildcard: 0x00 -> 0x01 '0',
// 0x01 -> 0x01 '1', '*' -> 0x01 '2'. Terms are cut at the engine's 2047 bytes;
// keys that share a cut term are told apart by the keys held in the records.
//
// The engine answers only from synced slices, so records not yet in a slice
// are also held in memory (the pending list) and consulted first. The pending
// records go into the engine and a slice is synced when there are 512 of them
// or 4 MiB, on sync() and on close; after a sync one merge of slices is tried.
// A failed put or sync keeps the pending list, to be put again next time
// (values met twice by the engine fold into one).
//
// Reading a key walks the postings of its primary term newest first and takes
// the first record that reads back whole: checksum right, sequence number
// equal to the posting's time, primary key equal. So a record damaged on disk
// is passed over and the key reads as it stood before it; a wrong value is
// never answered. A removal record answers "absent".
//
// Opening finds the newest record the index knows (term "#") and replays the
// log behind it into the index, so records whose slice never got written (a
// crash) are indexed again. A last record cut short (a torn write) is cut off
// the log, and appends go on from there. A damaged record inside the log is
// stepped over: by the extent its head gives when the head holds, else by
// looking for the next record marker at a multiple of 8 whose record reads
// whole. Both are logged. (A torn write that lost its head but kept later
// bytes holding a whole record of their own, a record stored as a value,
// would let that inner record through; nothing less can.)
//
// The log is not compacted: replaced and removed entries keep their bytes.
// Lock and merge leftovers of a process that died are removed at open.
//
// Ownership and threads: one object per store: the log is locked with
// flock() while open, so a second opener, in this process or another, fails.
// Every member takes the object's mutex; any thread may call.
// Failures to open throw DbException; later failures are logged and answered
// with false.
#pragma once

#include <map>
#include <utility>
#include <vector>

#include "pipeline/indexer/PSKey.h"
#include "pipeline/indexer/STPersistentRecord.h"
#include "util/Mutex.h"
#include "util/Pathname.h"
#include "util/Str.h"

struct st_handle;

class STPersistentStorageImpl {
 public:
  // Records (or bytes) held pending before they are put into a slice.
  static const size_t kMaxPendingRecords = 512;
  static const size_t kMaxPendingBytes = 4u << 20;

  STPersistentStorageImpl(const Pathname& baseDir, const Str& name);
  ~STPersistentStorageImpl();
  STPersistentStorageImpl(const STPersistentStorageImpl&) = delete;
  STPersistentStorageImpl& operator=(const STPersistentStorageImpl&) = delete;

  // The store's directory.
  const Pathname& getPath() const { return _dir; }

  bool write(const PSKey& key, const Str& value);
  // False when the key is absent (or on a failure).
  bool read(const Str& primary, Str& out);
  // True unless the removal could not be written (also for an absent key).
  bool remove(const Str& primary);
  // Entries with start <= primary key < end, in key order.
  bool enumerate(const Str& start, const Str& end, std::vector<std::pair<Str, Str>>& out);
  // Entries whose secondary keys equal the non-empty secondaries of `match`
  // (all entries when every secondary is empty), in key order.
  bool enumerate(const PSKey& match, std::vector<std::pair<Str, Str>>& out);
  // Puts the pending records into a slice now. False when that failed.
  bool sync();

  // The engine term of a key (see above); `kind` is 'p', '1', '2' or '3'.
  static Str termFor(char kind, const Str& key);

 private:
  // A record and where it lies in the log.
  struct Located {
    STPersistentRecord rec;
    uint64_t offset;
  };

  void openLog();
  void openIndex();
  void replay();
  void closeAll();

  // Appends rec (its seq is set here) and makes it pending.
  bool Locked_append(STPersistentRecord& rec);
  bool Locked_syncIndex();
  // The newest whole record of `primary`, pending or indexed: 1 found,
  // 0 none, -1 the engine failed.
  int Locked_newest(const Str& primary, Located& out);
  // Reads the record at `offset`; false if it is not whole.
  bool Locked_load(uint64_t offset, STPersistentRecord& out);
  // Every term of the index starting with prefix, in order.
  bool Locked_termsWithPrefix(const Str& prefix, std::vector<Str>& out);
  // Adds to `found` the newest whole record of each primary key whose term
  // is `term` (one key unless the term was cut).
  bool Locked_newestUnderTerm(const Str& term, std::map<Str, Located>& found);
  // The entries of the primary terms under `prefix` passing keep(key), the
  // pending records taking precedence, removals left out, in key order.
  template <typename Keep>
  bool Locked_enumeratePrimaries(const Str& prefix, Keep keep, std::vector<std::pair<Str, Str>>& out);

  Mutex _mutex;
  Pathname _dir;
  Pathname _logPath;
  Pathname _indexPath;
  int _fd = -1;
  uint64_t _end = 0;  // offset at which the next record goes
  uint32_t _nextSeq = 1;
  st_handle* _st = nullptr;
  std::vector<Located> _pending;
  std::map<Str, size_t> _pendingByKey;  // primary key -> its newest pending
  size_t _pendingBytes = 0;
  Str _buf;  // scratch for reading records
};
