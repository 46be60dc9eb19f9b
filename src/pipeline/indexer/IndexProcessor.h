// IndexProcessor: the indexes of a process, with two faces. To the
// ingestion pipeline it is the last processor: execute() hands an event to
// the index it names. To the search side it is the query entry: runQuery()
// runs an inner query ("SEARCH ... GET ... OUTPUT ...") over the indexes and
// runSearch() a bare term expression under the user's access control.
//
// init() reads the `indexes` configuration: from [default] the processor's
// own keys (sync, maxQueryIds, queryLanguageDefinition,
// blockSignatureDatabase, defaultDatabase; each missing required key throws
// with its "'<key>' tag required in config" text), then one
// DatabasePartitionPolicy per other stanza (initDB). It compiles the query
// language, makes "<VELMOR_DB>/searches", registers the `metadata`
// commands, and becomes the process's DatabaseContainer. With startService
// it runs a thread that calls service() every second.
//
// maxQueryIds: the number of inner queries that may run at once (a query
// beyond it fails with "Too many queries are running (maxQueryIds = N)");
// the same setting scales the budget of ids one query may hold (see
// QueryStateMachine.h), so both readings of it hold.
//
// DESIGN. Policies are made in init and live until the processor is
// destroyed; the list is read-only after init, so lookups take no lock. The
// service thread (when started) calls each policy's service tick once a
// second until shutdown; queries and writes run on their callers' threads
// and the policies lock themselves. disableQueries() makes runQuery and
// runSearch refuse until enableQueries().
//
// Read positions of followed files: events carry how far into their file
// they reach (the keys named in framework/FileData.h); each index stores the positions of a
// slice in the file tracker's index ("_thefileseeks") just before the slice
// is written (see DatabasePartitionPolicyProgress.cc), and at start the
// tracker asks isRecordCommitted() which stored position to trust. The
// tracker's own records arriving down the pipeline are written as they
// come, unless data of that file still waits for its slice, in which case
// the slice's own record will say more.
//
// Threads: every public member may be called from any thread after init.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include "framework/PipelineData.h"
#include "framework/PluginFactory.h"
#include "framework/Processor.h"
#include "pipeline/indexer/FileProgress.h"
#include "pipeline/indexer/DatabaseContainer.h"
#include "pipeline/indexer/IQueryRunner.h"
#include "framework/MShutdownHandler.h"
#include "util/Pathname.h"
#include "util/Str.h"

class DatabasePartitionPolicy;
class ShutdownLevel;
class PropertiesMap;
class PolicyServiceThread;
class Thread;

class IndexProcessor : public Processor, public MShutdownHandler, public DatabaseContainer, public IQueryRunner {
 public:
  // The index of the file tracker's records.
  static const Str kFileSeeksIndex;  // "_thefileseeks"

  // The plug-in "indexprocessor".
  static const PluginFactory& factory();

  // Installs the process runner's fork and wait helpers for the engine's
  // forked query handles when a runner is up.
  IndexProcessor();
  ~IndexProcessor() override;
  IndexProcessor(const IndexProcessor&) = delete;
  IndexProcessor& operator=(const IndexProcessor&) = delete;

  // Reads the configuration and opens every index. Throws
  // std::runtime_error subclasses with the configuration texts.
  void init(bool readOnly = false, bool startService = false);
  // The search commands that read the indexes ("search", "newsearch", "file",
  // "surrounding", "typer") live in a library above this one; it hands its
  // registration here, and init() runs every registrar after the metadata
  // commands. Call before init(); a registrar given twice runs once.
  static void addCommandRegistrar(void (*registrar)());
  // One index from its (layered) stanza.
  void initDB(const Str& name, const PropertiesMap& stanza, bool readOnly);

  // As a pipeline's processor: init(false, true), then the file tracker is
  // pointed at this processor for its queries and its stored positions.
  void init(const xml::node& config, const xml::node& global) override;
  int execute(std::shared_ptr<PipelineData>& record) override { return execute(*record); }

  // Writes one event into the index its index key names (the default index
  // when none is named): eOk, eDrop when it could not be written, eExit
  // when the indexes are read-only.
  int execute(PipelineData& event);

  // Whether a stored record of the file tracker may be trusted: true unless
  // it names an event (" commit::<index>:<bucket id>:<address>:<time>") that
  // its index does not hold.
  bool isRecordCommitted(const Str& recordText);

  // --- IQueryRunner ------------------------------------------------------------------
  void runQuery(const char* query, const char* user, const char* queryId, Str& results) override;
  void runQuery(const char* query, const char* user, const char* queryId,
                std::unordered_map<Str, std::vector<std::shared_ptr<Str>>>& results) override;
  void runSearch(const char* search, SearchResults& results, SearchResultsInfo& info) override;
  // The text runSearch hands to the query language for a user with these
  // search filters: the search itself when there are none, else one
  // "( <search> ACCESS_CONTROL_NEXT <filter> ) " clause per filter, joined
  // by " OR ".
  static Str accessControlledSearch(const Str& search, const std::vector<Str>& filters);

  // --- DatabaseContainer --------------------------------------------------------------
  IPartitionPolicy* getPolicyByDomain(const Str& name) override;
  Str getDefaultDomain() override { return _defaultDatabase; }
  void enumerateDomains(std::vector<Str>& out) override;
  void enumerateDomainsAndCreationTimes(std::vector<std::pair<Str, int64_t>>& out);
  // -1 when there is no such index.
  int64_t getDomainCreationTime(const Str& name);
  DatabasePartitionPolicy* getDatabaseByName(const Str& name);

  void disableQueries() { _queriesEnabled = false; }
  void enableQueries() { _queriesEnabled = true; }
  bool queriesEnabled() const { return _queriesEnabled.load(); }

  // Management calls: "cancelQuery" with "queryId"; "injectEvent" with
  // "raw", "source", "sourcetype", "host", "meta", "time" (and an optional
  // "index"). Returns the reply text; unknown calls throw
  // std::invalid_argument naming the call.
  Str handleSoapCall(const Str& callName, const std::map<Str, Str>& params);

  // One tick: each policy's service with the wall clock.
  void service();
  // Raises the shutdown flag, asks every policy to shut down and finishes
  // at once (true).
  bool signalShutdown() override;
  bool isShutdownInProgress() const { return _shutdown.load(); }

  unsigned long getMaxQueryIds() const { return _maxQueryIds; }
  long getSync() const { return _sync; }

 private:
  void startServiceThread();
  void stopServiceThread();
  // Stores the positions of a slice about to be written (see above).
  bool storePositions(DatabasePartitionPolicy& policy, const std::vector<SourceProgress>& progress);
  // A file tracker record that came down the pipeline.
  int writeTrackerRecord(PipelineData& event, DatabasePartitionPolicy& store);

  std::map<Str, std::unique_ptr<DatabasePartitionPolicy>> _policies;
  Str _defaultDatabase;
  Str _blockSignatureDatabase;
  Pathname _languagePath;
  long _sync = 0;
  unsigned long _maxQueryIds = 0;
  std::atomic<long> _eventsSinceSync{0};  // execute runs on each pipeline's thread
  bool _readOnly = false;
  bool _initDone = false;
  std::atomic<bool> _queriesEnabled{true};
  std::atomic<bool> _shutdown{false};
  std::unique_ptr<Thread> _serviceThread;
  ShutdownLevel* _shutdownLevel = nullptr;
};
