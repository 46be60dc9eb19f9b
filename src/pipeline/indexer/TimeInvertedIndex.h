// TimeInvertedIndex: owns one index directory: the engine handle that writes
// it, the four word tables of the directory (EventTypes, Hosts, Sources,
// SourceTypes, in "<name>.data") and the periodic sync.
//
// create() gunzips any "*tsidx.gz" slice left compressed, opens the engine,
// (re)creates the tables when "Hosts.data" is not usable, the index is empty
// or force is set (otherwise it loads them), and applies the sizes and the
// memory budget. index() puts one event's terms on the writing handle.
// doSyncIfNeeded(now) flushes the engine when `syncPeriod` seconds have
// passed since the last flush; the caller supplies the clock, so the owner's
// service tick (and every query, before it reads) drives it. getValues()
// queries through a separate handle opened for reading (a forked engine
// unless the environment says otherwise), closed after the query.
//
// Not here: indexing threads and background optimiser processes; events are
// indexed on the caller's thread.
//
// Threads: one mutex guards the open state, the writing handle and the sync
// clock; queries hold it only while syncing. The tables have their own locks.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "pipeline/indexer/IndexableEvent.h"
#include "pipeline/indexer/IndexableValue.h"
#include "pipeline/indexer/MetaData.h"
#include "searchthing/ipcver.h"
#include "util/Mutex.h"
#include "util/Pathname.h"
#include "util/Str.h"

class TimeInvertedIndex {
 public:
  struct Options {
    uint32_t maxTermChars = 2097152;
    uint32_t maxTerms = 131072;
    uint32_t maxPostings = 2097152;
    uint32_t maxValues = 65536;
    uint64_t maxMemMB = 100;
    int64_t syncPeriod = 30;  // seconds
  };

  TimeInvertedIndex(const Pathname& dir, const Options& options);
  // Closes the index if open.
  ~TimeInvertedIndex();
  TimeInvertedIndex(const TimeInvertedIndex&) = delete;
  TimeInvertedIndex& operator=(const TimeInvertedIndex&) = delete;

  // Opens (making if needed) the index. Throws DbException "Unable to create
  // new SearchThing with dirname = <dir>" when the engine cannot open it.
  // A second call logs "Open called twice on an index" and does nothing.
  void create(bool force);
  bool isOpen();
  const Pathname& getPath() const { return _dir; }

  // Puts the event's terms with value's time, address and codes. False (and a
  // log line) when the index is not open. REQUIRES: value has a cleaner.
  bool index(IndexableValue& value, const IndexableEvent& ev);

  // Flushes when the sync period has passed since the last flush (or the
  // open). `now` in seconds. True when a flush ran.
  bool doSyncIfNeeded(int64_t now);

  // Values of events in [start, end] that hold every AND term, at least one
  // OR term (when there are any) and no NOT term; no terms at all finds every
  // event. Terms go as keywords: empty ones are dropped with a warning, a
  // leading '+' is stripped. At most `capacity` values, newest first.
  // Returns false when the query could not run.
  bool getValues(const std::vector<Str>& andTerms, const std::vector<Str>& orTerms,
                 const std::vector<Str>& notTerms, int32_t start, int32_t end, uint32_t capacity, int64_t now,
                 std::vector<st_tsval>& out);

  // Dump of every value of the index (terms dropped), for rebuilding a
  // bucket. File layout, native byte order:
  //
  //   OFFSET   SIZE    MEANING
  //   0        8       magic "TSVALS01"
  //   8        8       value count N (uint64)
  //   16       24 * N  st_tsval records (time, address, type, source,
  //                    source type, host), newest first
  //
  // Written through "<path>.temp" and rename. False on a failure (logged).
  bool exportTsvals(const Pathname& path, int64_t now);
  // Reads such a file; false when it is missing, not a dump or cut short.
  static bool importTsvals(const Pathname& path, std::vector<st_tsval>& out);

  // Syncs, saves the tables and closes the engine. A second call logs
  // "close called on closed index" and returns.
  void close();

  MetaData& eventTypes() { return *_tables[0]; }
  MetaData& hosts() { return *_tables[1]; }
  MetaData& sources() { return *_tables[2]; }
  MetaData& sourceTypes() { return *_tables[3]; }

  // Gunzips every "*tsidx.gz" file of dir with the external gunzip. False
  // when one of them could not be uncompressed.
  static bool uncompressDir(const Pathname& dir);

 private:
  void Locked_sync();

  Mutex _mutex;
  Pathname _dir;
  Options _options;
  st_handle* _handle = nullptr;
  std::unique_ptr<MetaData> _tables[4];
  int64_t _lastSync = INT64_MIN;
};
