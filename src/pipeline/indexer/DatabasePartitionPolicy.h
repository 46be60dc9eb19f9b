// DatabasePartitionPolicy: owns one index: writes events into its hot bucket,
// rolls the hot bucket to warm (by size, on a full address space, or by
// hand), moves the oldest warm buckets to cold and old or excess buckets to
// frozen, keeps the index-wide word tables ("GlobalMetaData"), and queries
// and reads over the buckets that cover a time range, newest first.
//
// Directory layout under homePath: "db-hot", "db_<end>_<start>_<id>" warm
// buckets, "GlobalMetaData" (the four index-wide word tables),
// "CreationTime" (the decimal time the index was first made),
// ".metaManifest" (bucket paths merged into the global tables, one per line)
// and ".sizeManifest3.2" ("<size> <path>" per line, a cache of bucket sizes).
// Cold buckets live under coldPath, thawed ones under thawedPath.
//
// DESIGN. Three locks, always taken in this order: the directory locks of
// home, cold and thawed (ScopedPolicyLock, across processes), the
// reader-writer lock over the bucket table (queries read, rolls and freezes
// write), then the recursive policy mutex (writes and state). service(now) is
// one tick of the periodic work: shutdown, optimiser tick, sync, cold open
// queue cleanup, rotation (roll or freeze). startServiceThread() runs a
// thread that calls it once a second with the wall clock; tests call it
// themselves with their own clock. Queries over several buckets use
// `queryThreads` query threads when set; reads of many events use reader
// threads. External scripts and copies run through the process runner when
// it is running, else they are spawned directly.
//
// Threads: every public member may be called from any thread.
#pragma once

#include <atomic>
#include <functional>
#include <unordered_map>
#include <cstdint>
#include <map>
#include <utility>
#include <memory>
#include <vector>

#include "pipeline/indexer/DatabasePartitionTable.h"
#include "pipeline/indexer/FileProgress.h"
#include "pipeline/indexer/IPartitionPolicy.h"
#include "framework/MShutdownHandler.h"
#include "pipeline/indexer/MetaData.h"
#include "pipeline/indexer/PolicyParameters.h"
#include "pipeline/indexer/RecursiveMutex.h"
#include "searchthing/st_types.h"
#include "util/Mutex.h"
#include "util/ReadWriteLock.h"
#include "util/StrSegment.h"

class BlockSigner;
class GenericCleaner;
class PolicyServiceThread;

class DatabasePartitionPolicy : public IPartitionPolicy, public MShutdownHandler {
 public:
  // Keys of a block-signature event (fields of the event written into the
  // signature index) and its source.
  static constexpr const char* kBlockSignatureKey = "_blocksignature";
  static constexpr const char* kSignedSourceKey = "_signedsource";
  static constexpr const char* kBlockSignatureSource = "velmor-blocksignature";
  static constexpr const char* kBlockSignatureSourceType = "velmor-blocksignature";

  // REQUIRES: params came from PolicyParameters::fromStanza (or were filled
  // likewise). Nothing touches the disk before start().
  explicit DatabasePartitionPolicy(const PolicyParameters& params);
  ~DatabasePartitionPolicy() override;
  DatabasePartitionPolicy(const DatabasePartitionPolicy&) = delete;
  DatabasePartitionPolicy& operator=(const DatabasePartitionPolicy&) = delete;

  // --- lifecycle ---------------------------------------------------------------
  // Opens the index (openDatabases): makes the three directories, opens the
  // global tables, reads or writes "CreationTime", lists the buckets, opens
  // the hot one (creating it when there is none), merges buckets missing
  // from ".metaManifest" into the global tables. Throws
  // DatabasePartitionPolicyException when the index cannot be opened.
  void start(bool readOnly = false);
  // One tick of the periodic work; `now` in seconds.
  void service(int64_t now);
  // Runs service(time(NULL)) once a second on a thread of the policy, until
  // shutdown completes or stopServiceThread().
  void startServiceThread();
  void stopServiceThread();
  // Asks for shutdown: writes and queries stop being accepted, and the next
  // service tick syncs everything and signals completion.
  bool signalShutdown() override;
  bool isShutdownInProgress() const { return _shutdown.load(); }
  // Syncs the hot bucket's engine and raw data and the word tables.
  void sync(bool force = true) override;
  // Syncs and closes every bucket (also done by the destructor).
  void close();

  // --- writing -----------------------------------------------------------------
  bool write(const WritableEvent& ev) override;
  // Rolls the hot bucket to warm now (under the directory locks). False when
  // it did not roll (an empty hot bucket never rolls).
  bool rollHotDb() override;
  // Flushes pending block signatures and optimises the hot bucket.
  void optimizeHotDb() override;
  // Signature store for full blocks (the index named by
  // blockSignatureDatabase; may be this policy) and the PEM file of the
  // private key that signs them (empty: blocks carry their bare hash).
  // REQUIRES: the store outlives this policy (close() flushes into it).
  void setBlockSignatureStore(DatabasePartitionPolicy* store);
  bool setBlockSignatureKey(const Pathname& pemFile);
  // Signs every partial block now.
  void flushBlockSignatures();

  // --- read positions of followed files -------------------------------------------
  // Events written with a FileProgress are remembered per source (the
  // newest one each) until the slice holding them is written. Just before
  // that slice is written, the listener gets them and must make them
  // durable (the file tracker's store); false from it keeps the slice in
  // memory, to be tried again at the next sync. So a position on disk never
  // runs ahead of the data, and the data of a slice on disk always has its
  // position stored first; isCommitted() tells, after a crash, whether the
  // slice named by a stored position made it too. Without a listener
  // nothing is remembered. The listener runs under the hot bucket's index
  // lock, on whichever thread syncs: it must not write into this policy.
  using SliceCommitListener = std::function<bool(DatabasePartitionPolicy& policy,
                                                 const std::vector<SourceProgress>& progress)>;
  void setSliceCommitListener(SliceCommitListener listener);
  // True while an event of this source waits for its slice.
  bool hasUncommittedProgress(const Str& source);
  // Whether the event that a stored position names (the source's newest
  // event in the bucket of that id, at that address and time) is in a slice
  // on disk. A bucket that no longer exists counts as committed (its
  // events were on disk when it rolled); a failed lookup counts as not.
  bool isCommitted(uint32_t bucketId, const Str& source, uint32_t address, int32_t time);

  // --- querying ------------------------------------------------------------------
  using IPartitionPolicy::query;  // the forms that go on from a QueryHint
  bool query(const std::vector<Str>& andTerms, const std::vector<Str>& orTerms, const std::vector<Str>& notTerms,
             int32_t start, int32_t end, size_t count, std::vector<ValueWrapper>& out, size_t skip = 0) override;
  // Runs a prepared spec on one opened bucket (skip 0), under the read lock.
  // Returns the number of values, 0 during shutdown or for an id that is not
  // open, -1 when the engine failed.
  int query(uint32_t bucketId, const st_query_spec& spec, std::vector<st_tsval>& values, size_t count);
  // The open bucket of that id (hot, warm, open cold or thawed), or null.
  std::shared_ptr<TEDB> getOpenedDBById(uint32_t id);
  // Buckets with events in [start, end] (hot, warm, cold, thawed), newest end
  // first, each listed once; nothing before start() or during shutdown.
  void getBucketSpans(int32_t start, int32_t end, std::vector<BucketSpan>& out) override;
  // The query of query() on the one bucket of that id, under the read lock;
  // a closed cold bucket is opened as a query over all buckets would.
  bool queryBucket(uint32_t bucketId, const std::vector<Str>& andTerms, const std::vector<Str>& orTerms,
                   const std::vector<Str>& notTerms, int32_t start, int32_t end, size_t count,
                   std::vector<ValueWrapper>& out, size_t* answered = nullptr) override;

  bool read(const ValueWrapper& value, DataWrapper& out) override;
  // Reads many events, with up to `threads` reader threads (0 or 1: on the
  // caller's thread). out[i] belongs to values[i]; ok[i] says if it was read.
  // With checkSignatures each event's audit field is set from the
  // signature index. Returns the number read.
  size_t read(const std::vector<ValueWrapper>& values, std::vector<DataWrapper>& out, std::vector<bool>& ok,
              size_t threads = 0, bool checkSignatures = false) override;
  // Sum of the term's count in every listed bucket's engine (st_meta).
  long getTermCount(const Str& term) override;
  // validate() under the table's reader lock.
  bool lockedValidateConsistency() override;
  // Segmenters by stanza name, made on first use and kept.
  const GenericCleaner* cleanerByName(const Str& name) override;

  // --- metadata -------------------------------------------------------------------
  MetaData& globalHosts() { return *_global[1]; }
  MetaData& globalSources() { return *_global[2]; }
  MetaData& globalSourceTypes() { return *_global[3]; }
  MetaData& globalEventTypes() { return *_global[0]; }
  std::vector<WordPositionData> getHosts() override;
  std::vector<WordPositionData> getSources() override;
  std::vector<WordPositionData> getSourceTypes() override;
  uint64_t getTotalEventCount() override;
  bool getMinAndMaxTimes(int64_t& minTime, int64_t& maxTime) override;
  void getBucketCodesForWord(int table, const Str& word, std::vector<std::pair<uint32_t, uint32_t>>& out) override;
  // Words of a bucket's codes (as a ValueWrapper carries them).
  bool getGlobalHostWordForCode(uint32_t bucketId, uint32_t code, Str& out) override;
  bool getGlobalSourceWordForCode(uint32_t bucketId, uint32_t code, Str& out) override;
  bool getGlobalSourceTypeWordForCode(uint32_t bucketId, uint32_t code, Str& out) override;
  // Words of the global tables starting with prefix, with their counts.
  std::vector<std::pair<Str, uint64_t>> getMatchingWordsAndCountsForPrefix(const Str& prefix) override;

  // --- management -------------------------------------------------------------------
  // Marks deleted, in every bucket, the events holding term in [start, end].
  // Throws DatabasePartitionPolicyException "insufficient privileges to
  // perform this operation" unless allowed. Returns the number deleted.
  size_t deleteByKeyword(const Str& term, int32_t start, int32_t end, bool allowed) override;
  // Writes the events matching the terms to a text export file. Returns the
  // number written, or -1 when the file cannot be written.
  long exportByKeyword(const std::vector<Str>& andTerms, int32_t start, int32_t end,
                       const Pathname& file) override;
  // Writes the events of an export file into this index; returns the number
  // written, or -1 when the file cannot be read or is not an export.
  long importExportFile(const Pathname& file);
  // Checks the lists against the directories; false (logged) on a mismatch.
  bool validate() override;
  // Lists the bucket directories again (after buckets were thawed by hand).
  void rescanDirectories() override;

  // Takes new settings; the name and the three paths stay as they were
  // (moving an index needs a restart).
  void setPolicy(const PolicyParameters& params);
  const PolicyParameters& getPolicyParameters() const override { return _params; }
  const Str& getName() const override { return _params.name; }
  int64_t getCreationTime() const override { return _creationTime; }
  bool isReadOnly() const override { return _readOnly; }

  // For tests and tools: the table (guard with tableLock()).
  DatabasePartitionTable& table() { return _table; }
  ReadWriteLock& tableLock() { return _tableLock; }

 private:
  friend class PolicyServiceThread;
  // see the .cc files
  void openDatabases(bool readOnly);
  std::shared_ptr<TEDB> openBucketDir(const Pathname& dir, TEDB::State state, bool openIt);
  void scanDir(const Pathname& dir, TEDB::State state);
  void createNewDB();
  void rebuildMetaData();
  void rebuildBucketFromTsvals(const Pathname& dir);
  void writeManifest();
  void readManifest(std::vector<Str>& out);
  void syncMetaData();
  void commonHandler();

  // Bytes of the regular files under dir, recursively.
  static uint64_t getDirectorySize(const Pathname& dir);
  int64_t clockNow();
  bool hasReachedMaxDataSize();
  bool pushNewDB(int64_t now);
  bool moveDbToWarm();
  void chillExtraWarmDbs();
  bool chillWarmDb(std::shared_ptr<TEDB> b);
  void freezeDBs(int64_t now);
  bool freezeColdDb(std::shared_ptr<TEDB> b);
  bool decrementMetadataFromDbToBeFrozen(TEDB& b, bool add);
  bool fireScript(const Str& script, const Pathname& dir);
  bool mvWithExceptions(const Pathname& from, const Pathname& to, const Str& script);
  void cleanupColdOpenList();
  std::shared_ptr<TEDB> loadColdDB(const std::shared_ptr<TEDB>& b);
  uint64_t bucketSize(const TEDB& b, std::map<Str, uint64_t>& cache);
  void readSizeManifest(std::map<Str, uint64_t>& out);
  void writeSizeManifest(const std::map<Str, uint64_t>& sizes);

  void addToBlockSignature(const Str& source, uint32_t bucketId, uint32_t address, const WritableEvent& ev);
  static bool readOne(TEDB& b, const ValueWrapper& value, DataWrapper& out, std::unique_ptr<ReadContext>* ctx);
  // Opens a listed cold bucket for a query (REQUIRES: the reader lock).
  std::shared_ptr<TEDB> openForQuery(const std::shared_ptr<TEDB>& b);
  void checkSignatures(std::vector<DataWrapper>& out, const std::vector<bool>& ok);
  // Appends the bucket's values (deleted ones left out) to out; `answered`,
  // when given, gets the engine's count before they were dropped.
  bool queryOpenBucket(TEDB& b, const std::vector<Str>& andTerms, const std::vector<Str>& orTerms,
                       const std::vector<Str>& notTerms, int32_t start, int32_t end, size_t want,
                       std::vector<ValueWrapper>& out, size_t* answered = nullptr);
  bool internalQueryST(const std::vector<std::shared_ptr<TEDB>>& dbs, const std::vector<Str>& andTerms,
                       const std::vector<Str>& orTerms, const std::vector<Str>& notTerms, int32_t start,
                       int32_t end, size_t want, std::vector<ValueWrapper>& out);
  bool internalQueryMT(const std::vector<std::shared_ptr<TEDB>>& dbs, const std::vector<Str>& andTerms,
                       const std::vector<Str>& orTerms, const std::vector<Str>& notTerms, int32_t start,
                       int32_t end, size_t want, std::vector<ValueWrapper>& out);
  int64_t engineNow();  // the clock the engines sync by: the latest tick's
  void forceEngineSync(TEDB& b);
  // A bucket's rows of table 1 (hosts), 2 (sources) or 3 (source types),
  // from the open index or else from the table file.
  static std::vector<WordPositionData> bucketRows(TEDB& b, int table);
  void rmdashf(const Pathname& dir);
  bool wordForCode(uint32_t bucketId, int table, uint32_t code, Str& out);

  PolicyParameters _params;
  bool _readOnly = false;
  bool _started = false;
  std::atomic<bool> _shutdown{false};
  bool _shutdownHandled = false;
  RecursiveMutex _mutex;
  ReadWriteLock _tableLock;
  DatabasePartitionTable _table;
  std::unique_ptr<MetaData> _global[4];
  int64_t _creationTime = 0;
  int64_t _lastTime = 0;  // last event time seen, 0: none
  bool _haveLastTime = false;
  long _ticks = 0;
  long _rotateTicks = 0;
  int64_t _lastOptimize = 0;
  std::atomic<int64_t> _lastNow{0};   // latest clock seen by service()
  bool _pendingHotId = false;
  std::unique_ptr<GenericCleaner> _defaultCleaner;
  std::map<Str, std::unique_ptr<GenericCleaner>> _cleaners;  // by stanza, under _mutex
  std::unique_ptr<BlockSigner> _signer;
  DatabasePartitionPolicy* _signatureStore = nullptr;
  std::unique_ptr<PolicyServiceThread> _serviceThread;
  Str _metaBuf;  // meta text of the event being written

  // Read positions waiting for their slice, by source. Guarded by
  // _progressMutex, a leaf lock: taken under the index lock by the write
  // path and the slice hook, never the other way round.
  Mutex _progressMutex;
  struct ProgressHash {
    using is_transparent = void;
    size_t operator()(std::string_view s) const { return std::hash<std::string_view>()(s); }
  };
  std::unordered_map<Str, SourceProgress, ProgressHash, std::equal_to<>> _progress;
  SliceCommitListener _commitListener;
  struct ProgressNote {
    DatabasePartitionPolicy* self;
    StrSegment source;
    const FileProgress* at;
    uint32_t bucketId;
    uint32_t address;
    int32_t time;
  };
  static int onSliceWrite(void* ctx, TEDB& bucket);
  static void noteProgress(void* ctx);
  int commitProgress(uint32_t bucketId);
};
