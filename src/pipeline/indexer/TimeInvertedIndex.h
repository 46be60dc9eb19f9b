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
// DESIGN. With `indexThreads` above 0, createDispatchers() (run by create)
// starts that many MultiThreadedIndexer threads, each with its own engine
// handle and hot slice on the same directory; index() then copies the event
// onto their queues in round-robin order instead of putting its terms, and
// a sync flushes every thread. Slice names are unique per handle, and each
// value lands in one slice only, so queries need no dedupe. optimize()
// starts "velmor-optimize <dir>" in the background through the process
// runner (a direct spawn when the process has no runner), never two at
// once on one directory (whichever object of the process started the
// first; `maxConcurrentOptimizes` 0 starts none); its output goes to the
// logger "MERGE", read whenever the running optimisers are counted. close()
// waits for it (or terminates it, with `waitForOptimize` 0).
//
// Threads: one mutex guards the open state, the writing handle, the
// indexing threads, the optimiser list and the sync clock; queries hold it
// only while syncing. The tables have their own locks.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "pipeline/indexer/IndexableEvent.h"
#include "pipeline/indexer/IndexableValue.h"
#include "pipeline/indexer/MetaData.h"
#include "searchthing/ipcver.h"
#include "util/ExternalProcessGroup.h"
#include "util/FileDescriptor.h"
#include "util/Mutex.h"
#include "util/Pathname.h"
#include "util/Str.h"

class MultiThreadedIndexer;

class TimeInvertedIndex {
 public:
  struct Options {
    uint32_t maxTermChars = 2097152;
    uint32_t maxTerms = 131072;
    uint32_t maxPostings = 2097152;
    uint32_t maxValues = 65536;
    uint64_t maxMemMB = 100;
    int64_t syncPeriod = 30;  // seconds
    size_t indexThreads = 0;  // 0: terms are put on the caller's thread
    size_t maxConcurrentOptimizes = 6;
    long waitForOptimize = 0;  // close() waits for optimisers (else ends them)
    Str optimizer = defaultOptimizer();  // program name or path
  };
  // "velmor-optimize" beside the running program when it is there (a build
  // or install tree run without PATH set up), else the bare name for PATH.
  static Str defaultOptimizer();

  TimeInvertedIndex(const Pathname& dir, const Options& options);
  // Closes the index if open.
  ~TimeInvertedIndex();
  TimeInvertedIndex(const TimeInvertedIndex&) = delete;
  TimeInvertedIndex& operator=(const TimeInvertedIndex&) = delete;

  // Opens (making if needed) the index. Throws DbException "Unable to create
  // new SearchThing with dirname = <dir>" when the engine cannot open it.
  // A second call logs "Open called twice on an index" and does nothing.
  void create(bool force);
  // Opens an existing index for queries only: nothing on disk changes, not
  // even at close (no gunzip of compressed slices, which stay unread; no
  // table rewrite; syncs do nothing). Throws DbException "Unable to open
  // SearchThing with dirname = <dir>" when the directory can't be read.
  void openReadOnly();
  // Gives every engine handle that writes slices of this directory (the
  // index's own and those of the indexing threads) the function to call
  // before a slice is written: the raw data journal's flush, so that a slice
  // never names an address its file does not hold. False if some handle
  // cannot take it (a forked engine writes in another process); the caller
  // must then not buffer. REQUIRES: open for writing, nothing indexed yet.
  bool setBeforeSliceWrite(int (*fn)(void* ctx), void* ctx);
  bool isOpen();
  const Pathname& getPath() const { return _dir; }

  // Puts the event's terms with value's time, address and codes, or queues
  // it for the next indexing thread. False (and a log line) when the index
  // is not open. REQUIRES: value has a cleaner, which outlives the index
  // when indexing threads are configured.
  bool index(IndexableValue& value, const IndexableEvent& ev);
  // The same, then after(ctx) while still holding the index's lock, so that
  // no slice is written between the event's terms and what after() records
  // about it (the slice-write hook runs under the same lock).
  bool index(IndexableValue& value, const IndexableEvent& ev, void (*after)(void* ctx), void* ctx);
  // Number of indexing threads running.
  size_t dispatcherCount();

  // Flushes when the sync period has passed since the last flush (or the
  // open). `now` in seconds. True when a flush ran.
  bool doSyncIfNeeded(int64_t now);
  // Flushes now, whatever the period; `now` restarts the period. False when
  // the index is not open.
  bool sync(int64_t now);

  // Values of events in [start, end] that hold every AND term, at least one
  // OR term (when there are any) and no NOT term; no terms at all finds every
  // event. Empty terms are dropped with a warning, a leading '+' is
  // stripped; "word*" goes as a prefix, "*word" as a suffix, a term with any
  // other star as a wildcard keyword, a term of stars only as "meta::all",
  // the rest as keywords. At most `capacity` values, newest first.
  // Returns false when the query could not run.
  bool getValues(const std::vector<Str>& andTerms, const std::vector<Str>& orTerms,
                 const std::vector<Str>& notTerms, int32_t start, int32_t end, uint32_t capacity, int64_t now,
                 std::vector<st_tsval>& out);

  // Events holding the term in this index (st_meta on a direct read-only
  // handle: a count read from the lexicons, no postings walked), -1 when the
  // index could not be asked. Deleted events still count.
  long getTermCount(const Str& term, int64_t now);

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

  // Terms of the index starting with prefix, with their posting counts,
  // at most `capacity` of them, in term order. False when the index could
  // not be asked.
  bool getMatchingWordsAndCountsForPrefix(const Str& prefix, size_t capacity,
                                          std::vector<std::pair<Str, uint64_t>>& out);

  // Starts the optimiser on the directory in the background unless one is
  // already running on it (from this or another object of the process) or
  // `maxConcurrentOptimizes` is 0. True when one started.
  bool optimize();
  // Optimisers of this index still running (reaping those that ended).
  size_t runningOptimizers();
  // Returns once no optimiser this object started is running (logging their
  // output as it comes).
  void waitForOptimizers();

  // Syncs, saves the tables, ends the indexing threads, closes the engine
  // and waits for (or ends) the optimisers; with optimize set, then runs
  // "velmor-optimize -f" on the directory and waits for it (skipped, and
  // logged, while another object of the process optimises the directory). A second call
  // logs "close called on closed index" and returns.
  void close(bool optimize = false);

  MetaData& eventTypes() { return *_tables[0]; }
  MetaData& hosts() { return *_tables[1]; }
  MetaData& sources() { return *_tables[2]; }
  MetaData& sourceTypes() { return *_tables[3]; }

  // Gunzips every "*tsidx.gz" file of dir with the external gunzip (through
  // the process runner when there is one). False when one of them could not
  // be uncompressed.
  static bool uncompressDir(const Pathname& dir);

 private:
  struct Optimizer {
    ExternalProcessGroup group;
    ExternalProcessToken token;
    FileDescriptor output;  // read end of its stdout and stderr
    std::string partial;    // an output line not yet ended
  };

  void createDispatchers();
  void Locked_sync();
  void Locked_reapOptimizers();
  void waitForMergeToFinish();
  // Runs "velmor-optimize -f" on the directory and waits for it, unless an
  // optimiser of another object is running on it. REQUIRES: _mutex held.
  void forceOptimize();
  static void drainOutput(Optimizer& o, bool atEnd);

  Mutex _mutex;
  Pathname _dir;
  Options _options;
  st_handle* _handle = nullptr;
  bool _readOnly = false;  // set by openReadOnly, for the life of the object
  std::unique_ptr<MetaData> _tables[4];
  int64_t _lastSync = INT64_MIN;
  std::vector<std::unique_ptr<MultiThreadedIndexer>> _dispatchers;
  size_t _nextDispatcher = 0;
  std::vector<std::unique_ptr<Optimizer>> _optimizers;
};
