// TEDB: one bucket in memory: its directory, its TimeInvertedIndex and its
// raw data journal ("rawdata", a SplitCompression), its state, its time
// range and id, and whether it is open and in use by a query.
//
// Bucket directory names: "db-hot" for the one bucket being written, and
// "db_<end>_<start>_<id>" ("db_%lu_%lu_%d") for the others, end and start
// being the newest and oldest event times in seconds.
//
// Ownership: the table owns TEDBs by shared pointer; a query keeps the
// buckets it reads alive. Threads: open/close/widenTimes run under the
// policy's locks; the index and the journal lock themselves for reads.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "framework/SplitCompression.h"
#include "pipeline/indexer/PolicyParameters.h"
#include "pipeline/indexer/TimeInvertedIndex.h"
#include "util/Pathname.h"
#include "util/Str.h"

class TEDB {
 public:
  enum State { kHot = 0, kWarm = 1, kCold = 2, kThawed = 3 };
  static constexpr uint32_t kMaxId = 0x7FFFFFFF;

  TEDB(const Pathname& dir, uint32_t id, State state, int64_t start, int64_t end, const PolicyParameters& params);
  ~TEDB();
  TEDB(const TEDB&) = delete;
  TEDB& operator=(const TEDB&) = delete;

  // "db_<end>_<start>_<id>".
  static Str makeName(int64_t end, int64_t start, uint32_t id);
  // The index options a bucket of an index with these parameters uses.
  static TimeInvertedIndex::Options indexOptions(const PolicyParameters& params);
  // Reads a bucket directory name (a leaf). Throws
  // DatabasePartitionPolicyException "Unable to parse times and id from
  // <name>" unless it is "db_" and three decimal numbers joined by "_".
  static void parseName(const Str& name, int64_t& end, int64_t& start, uint32_t& id);
  // The id after id, wrapping to 0 past kMaxId.
  static uint32_t nextId(uint32_t id) { return id >= kMaxId ? 0 : id + 1; }

  // Opens the index and the journal (creating them when missing). Throws
  // DbException or FileCompressionException when they cannot be opened.
  // A bucket marked read-only opens both without writing anything, and
  // throws DbException when it has no raw data directory (nothing to read).
  void open();
  // REQUIRES: not open. Read-only buckets are for queries that must leave
  // the disk untouched.
  void setReadOnly(bool readOnly) { _readOnly = readOnly; }
  bool isReadOnly() const { return _readOnly; }
  // Syncs and closes both; a closed bucket ignores it.
  void close();
  bool isOpen() const { return _open.load(std::memory_order_acquire); }

  // Widens the time range to hold t (the first event sets both ends).
  void widenTimes(int64_t t);
  // The oldest and newest event times the engine holds (synced data only).
  // False when it holds none or cannot be asked.
  bool readTimes(int64_t& start, int64_t& end) const;
  // True when some event was counted into the range.
  bool hasTimes() const { return _start <= _end; }

  const Pathname& path() const { return _dir; }
  void setPath(const Pathname& p) { _dir = p; }
  uint32_t id() const { return _id; }
  void setId(uint32_t id) { _id = id; }
  State state() const { return _state; }
  void setState(State s) { _state = s; }
  int64_t startTime() const { return _start; }
  int64_t endTime() const { return _end; }

  // REQUIRES: open.
  TimeInvertedIndex& index() { return *_index; }
  SplitCompression& data() { return *_data; }

  // Queries reading this bucket now.
  std::atomic<int> inUse{0};

  // A function run before each slice of this bucket is written, after the
  // raw data it names has been flushed: fn(ctx, *this). Non-zero keeps the
  // slice in memory for a later sync. It runs under the index's lock, on
  // whichever thread syncs. REQUIRES: set before events are written; null
  // removes it.
  using SliceWriteHook = int (*)(void* ctx, TEDB& bucket);
  void setSliceWriteHook(SliceWriteHook fn, void* ctx) {
    _hookCtx.store(ctx);
    _hook.store(fn);
  }

 private:
  Pathname _dir;
  uint32_t _id;
  State _state;
  int64_t _start;
  int64_t _end;
  const PolicyParameters& _params;
  std::atomic<bool> _open{false};
  bool _readOnly = false;
  // Bytes of raw data gathered before a write (see SplitCompression).
  static constexpr size_t kRawWriteBuffer = 256 * 1024;

  std::unique_ptr<TimeInvertedIndex> _index;
  std::unique_ptr<SplitCompression> _data;
  std::atomic<SliceWriteHook> _hook{nullptr};
  std::atomic<void*> _hookCtx{nullptr};

  // The engine's before-write function: flush the journal, then the hook.
  static int beforeSliceWrite(void* ctx);
};

// Sort order of getMatchingDBsByTime: latest end time first, then the
// higher id first.
struct TEDBCompareByEndTimeLatestFirst {
  bool operator()(const std::shared_ptr<TEDB>& a, const std::shared_ptr<TEDB>& b) const {
    if (a->endTime() != b->endTime()) return a->endTime() > b->endTime();
    return a->id() > b->id();
  }
};
