#include "pipeline/indexer/IndexProcessor.h"

#include <algorithm>
#include <time.h>
#include <unistd.h>

#include <cassert>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <set>
#include <stdexcept>
#include <thread>

#include "framework/FileData.h"
#include "framework/FileInputTracker.h"
#include "framework/ShutdownLevel.h"
#include "framework/ShutdownManager.h"
#include "framework/UserManager.h"
#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPages.h"
#include "libbundle/SubstituteEnvs.h"
#include "loaderinfo/LoaderInfo.h"
#include "pipeline/indexer/CompiledQueryLanguage.h"
#include "pipeline/indexer/DatabasePartitionPolicy.h"
#include "pipeline/indexer/LiveTailHub.h"
#include "pipeline/indexer/MetadataProcessor.h"
#include "pipeline/indexer/PolicyParameters.h"
#include "pipeline/indexer/Query.h"
#include "pipeline/indexer/QueryRunningSingleton.h"
#include "pipeline/indexer/WritableEvent.h"
#include "search/SearchCancel.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "searchthing/ipcver.h"
#include "util/Exceptions.h"
#include "util/FileDescriptor.h"
#include "util/Logger.h"
#include "util/ProcessRunner.h"
#include "util/ReadableFileMapping.h"
#include "util/Thread.h"

static Logger gLogger("IndexProcessor");

namespace {

// Calls the processor's service tick once a second until stopped.
class IndexServiceThread : public Thread {
 public:
  explicit IndexServiceThread(IndexProcessor* p) : Thread("indexservice"), _p(p) {}
  ~IndexServiceThread() override { joinEvenIfUnstarted(); }
  void stop() { _stop = true; }
  void main() override {
    while (!_stop.load()) {
      _p->service();
      for (int i = 0; i < 10 && !_stop.load(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  }

 private:
  IndexProcessor* _p;
  std::atomic<bool> _stop{false};
};

Str requiredKey(const PropertiesMap& stanza, const char* key) {
  Str v;
  if (!PropertyPages::layeredFind(key, stanza, v) || v.empty())
    throw DbException(Str::fromFormat("'%s' tag required in config", key));
  return v;
}

// A complete result document for a query that was refused before it ran.
void writeRefusal(const Pathname& path, const Str& text) {
  Str doc = "<queryResult>\n<error>" + CompiledQueryLanguage::xmlEscape(StrSegment(text));
  doc += "</error></queryResult>";
  Pathname tmp(path + ".tmp");
  FileStar f = tmp.fopen("w");
  if (!f.isValid()) return;
  bool ok = f.write(doc.data(), doc.size()) && f.close();
  if (ok) tmp.renameTo(path);
}

bool readWhole(const Pathname& path, Str& out) {
  FileDescriptor fd = path.openReadOnly();
  if (!fd.isValid()) return false;
  uint64_t size = 0;
  if (!path.getSize(size)) return false;
  if (size == 0) {
    out.clear();
    return true;
  }
  ReadableFileMapping m;
  if (!m.map(fd)) return false;
  out.assign(m.data(), size_t(size));
  return true;
}

Str makeQueryId() {
  static std::atomic<unsigned long> seq{0};
  return Str::fromFormat("q_%ld_%ld_%lu", long(getpid()), long(time(nullptr)), seq.fetch_add(1));
}

}  // namespace

IndexProcessor::IndexProcessor() {
  if (ProcessRunnerPid() > 0) st_set_forkwait_helpers(ProcessRunnerForkHelper, ProcessRunnerWaitHelper);
}

IndexProcessor::~IndexProcessor() {
  if (_shutdownLevel) _shutdownLevel->unregisterHandler(this);
  stopServiceThread();
  if (DatabaseContainer::getProcessContainer() == this) DatabaseContainer::setProcessContainer(nullptr);
  FileInputTracker* tracker = FileInputTracker::existing();
  if (tracker && tracker->queryRunner() == this) {
    tracker->setQueryRunner(nullptr);
    tracker->setRecordVerifier(nullptr);
    tracker->setRecordSink(nullptr);
  }
  // The file tracker's index closes last: the last slices of the others
  // store their read positions in it as they close.
  auto closeOne = [](DatabasePartitionPolicy& p) {
    try {
      p.close();
    } catch (const std::exception& e) {
      gLogger.error(e);
    }
  };
  for (auto& [name, p] : _policies)
    if (name != kFileSeeksIndex) closeOne(*p);
  auto store = _policies.find(kFileSeeksIndex);
  if (store != _policies.end()) closeOne(*store->second);
}

namespace {
std::vector<void (*)()>& commandRegistrars() {
  static std::vector<void (*)()> registrars;
  return registrars;
}
}  // namespace

void IndexProcessor::addCommandRegistrar(void (*registrar)()) {
  auto& all = commandRegistrars();
  if (std::find(all.begin(), all.end(), registrar) == all.end()) all.push_back(registrar);
}

void IndexProcessor::init(bool readOnly, bool startService) {
  _readOnly = readOnly;
  PropertyPages& pages = PropertyPages::instance("indexes");
  PropertiesMap defaults;
  pages.fillLayers(defaults, "default", false);

  if (!PropertyPages::layeredFind("sync", defaults, _sync)) {
    gLogger.info("'sync' not specified in config.  Defaulting to 0 (sync when bdb thinks it's a good idea)");
    _sync = 0;
  }
  Str maxIds = requiredKey(defaults, "maxQueryIds");
  long n = 0;
  if (!maxIds.tryToLong(n) || n < 0)
    throw DbException(Str::fromFormat("Invalid value '%s' for 'maxQueryIds' in config", maxIds.c_str()));
  _maxQueryIds = (unsigned long)n;
  _languagePath = Pathname(substituteEnvs(requiredKey(defaults, "queryLanguageDefinition")));
  _blockSignatureDatabase = requiredKey(defaults, "blockSignatureDatabase");
  _defaultDatabase = requiredKey(defaults, "defaultDatabase");

  Pathname searches = LoaderInfo::getInstance().getDbPath() / "searches";
  if (searches.exists() && !searches.isDir()) throw DbException(searches + " must be a directory.");
  if (!searches.exists() && !searches.mkdir_p())
    throw DbException(Str::fromFormat("Unable to make %s: %s", searches.c_str(), strerror(errno)));

  CompiledQueryLanguage* lang = &CompiledQueryLanguage::getInstance();
  if (!_languagePath.exists())
    throw LanguageParseException("Could not find search language definition at " + _languagePath);
  lang->setContainer(this);
  lang->setMaxQueryIds(_maxQueryIds);
  lang->compileLanguage(_languagePath);
  QueryRunningSingleton::instance()->setMaxQueryIds(_maxQueryIds);

  std::set<Str> names;
  pages.keys(names);
  std::set<Str> homes;
  for (const Str& name : names) {
    if (name == "default") continue;
    gLogger.info("Initializing index: %s", name.c_str());
    PropertiesMap stanza;
    pages.fillLayers(stanza, name, false);
    initDB(name, stanza, readOnly);
    Str home = _policies[name]->getPolicyParameters().homePath;
    if (!homes.insert(home).second)
      throw DbException(name + " collides in the indexprocessor config ... please check your config");
  }
  if (!_policies.count(_blockSignatureDatabase))
    throw DbException("Could not find blockSignatureDatabase : " + _blockSignatureDatabase + " could not be found");
  if (!_policies.count(_defaultDatabase))
    throw DbException("defaultDatabase : " + _defaultDatabase + " could not be found");
  for (auto& [name, p] : _policies) p->setBlockSignatureStore(_policies[_blockSignatureDatabase].get());

  MetadataProcessor::registerCommands();
  for (void (*registrar)() : commandRegistrars()) registrar();
  DatabaseContainer::setProcessContainer(this);
  _initDone = true;
  if (startService) startServiceThread();
}

void IndexProcessor::initDB(const Str& name, const PropertiesMap& stanza, bool readOnly) {
  PolicyParameters params = PolicyParameters::fromStanza(name, stanza);
  auto policy = std::make_unique<DatabasePartitionPolicy>(params);
  policy->start(readOnly || params.isReadOnly);
  _policies[name] = std::move(policy);
}

namespace {

const char kTrackerSource[] = "source::fileTracker";
const char kTrackerSourceType[] = "sourcetype::fileTrackerCrcLog";
const char kTrackerHost[] = "host::fthost";
const char kCommitToken[] = " commit::";

// The progress keys of an event of a followed file; false when it has none
// (or they cannot be read, in which case the event is written without).
bool readProgress(const PipelineData& event, FileProgress& out) {
  FileData d;
  if (!FileInputTracker::readPosition(event, d)) return false;
  out.initCRC = d.initCRC;
  out.seekCRC = d.seekCRC;
  out.seekPtr = d.seekPtr;
  out.modTime = d.modTime;
  return true;
}

// The path a tracker record names: from "filename::" to " source::".
Str recordPath(const Str& text) {
  size_t at = text.find("filename::");
  if (at == Str::npos) return Str();
  at += 10;
  size_t end = text.find(" source::", at);
  return Str(text.substr(at, end == Str::npos ? Str::npos : end - at));
}

// The terms by which the tracker finds a record again, "initcrc::<hex>"
// and "filename::<path>", as index terms of the record: the record's text
// is cut into words like any event's, which would split them.
Str trackerRecordTerms(const Str& text) {
  Str meta;
  size_t hexEnd = text.find_first_not_of("0123456789abcdefABCDEF");
  if (hexEnd != 0 && hexEnd != Str::npos) meta = "initcrc::" + text.substr(0, hexEnd);
  Str path = recordPath(text);
  if (!path.empty() && path.find_first_of(" \t") == Str::npos) {
    if (!meta.empty()) meta += ' ';
    meta += "filename::" + path;
  }
  return meta;
}

}  // namespace

const Str IndexProcessor::kFileSeeksIndex = "_thefileseeks";

const PluginFactory& IndexProcessor::factory() {
  static const SimplePluginFactory<IndexProcessor> f("indexprocessor");
  return f;
}

void IndexProcessor::init(const xml::node&, const xml::node&) {
  init(false, true);
  // The indexes close at the second database level, once the pipelines
  // that feed them have stopped taking records (the first).
  if (ShutdownLevel* level = ShutdownManager::instance().findLevel("Database2")) {
    level->registerHandler(this, "indexprocessor");
    _shutdownLevel = level;
  }
  FileInputTracker& tracker = FileInputTracker::instance();
  tracker.setQueryRunner(this);
  tracker.setRecordVerifier([this](const Str& text) { return isRecordCommitted(text); });
  DatabasePartitionPolicy* store = getDatabaseByName(kFileSeeksIndex);
  if (!store) {
    gLogger.warn("There is no index %s: read positions of followed files are not kept", kFileSeeksIndex.c_str());
    return;
  }
  // Records the tracker sends on its own (a cache written out again) go
  // straight into its index.
  tracker.setRecordSink([this, store](std::shared_ptr<PipelineData> r) {
    return r && writeTrackerRecord(*r, *store) == eOk;
  });
  for (auto& [name, p] : _policies) {
    if (p.get() == store) continue;
    p->setSliceCommitListener([this](DatabasePartitionPolicy& policy, const std::vector<SourceProgress>& progress) {
      return storePositions(policy, progress);
    });
  }
}

bool IndexProcessor::storePositions(DatabasePartitionPolicy& policy, const std::vector<SourceProgress>& progress) {
  DatabasePartitionPolicy* store = getDatabaseByName(kFileSeeksIndex);
  if (!store) return true;
  Str now = Str::fromFormat("%ld", long(time(nullptr)));
  const Str& index = policy.getPolicyParameters().name;
  for (const SourceProgress& sp : progress) {
    FileData d;
    d.initCRC = sp.at.initCRC;
    d.seekCRC = sp.at.seekCRC;
    d.seekPtr = sp.at.seekPtr;
    d.modTime = d.storedModTime = sp.at.modTime;
    d.source = "source::" + sp.source;
    Str text = FileInputTracker::recordText(d);
    text.appendFormat("%s%s:%u:%x:%d:", kCommitToken, index.c_str(), sp.bucketId, sp.address, int(sp.time));
    text += sp.source;
    Str terms = trackerRecordTerms(text);
    WritableEvent ev;
    ev.raw = StrSegment(text);
    ev.meta = StrSegment(terms);
    ev.time = StrSegment(now);
    ev.host = StrSegment(kTrackerHost, sizeof kTrackerHost - 1);
    ev.source = StrSegment(kTrackerSource, sizeof kTrackerSource - 1);
    ev.sourceType = StrSegment(kTrackerSourceType, sizeof kTrackerSourceType - 1);
    if (!store->write(ev)) return false;
  }
  // The positions reach the disk before the slice they stand for.
  store->sync(true);
  return true;
}

int IndexProcessor::writeTrackerRecord(PipelineData& event, DatabasePartitionPolicy& store) {
  const Str& raw = event.getStr(PipelineData::rawKey);
  Str path = recordPath(raw);
  // Data of this file that waits for its slice: the slice stores its own
  // position, which this record must not overtake.
  for (auto& [name, p] : _policies)
    if (p.get() != &store && !path.empty() && p->hasUncommittedProgress(path)) return eOk;
  WritableEvent ev;
  Str now = Str::fromFormat("%ld", long(time(nullptr)));
  Str terms = trackerRecordTerms(raw);
  ev.raw = StrSegment(raw);
  ev.meta = StrSegment(terms);
  const Str& t = event.getStr(PipelineData::timeKey);
  ev.time = StrSegment(t.empty() ? now : t);
  ev.host = StrSegment(kTrackerHost, sizeof kTrackerHost - 1);
  ev.source = StrSegment(kTrackerSource, sizeof kTrackerSource - 1);
  ev.sourceType = StrSegment(kTrackerSourceType, sizeof kTrackerSourceType - 1);
  return store.write(ev) ? eOk : eDrop;
}

bool IndexProcessor::isRecordCommitted(const Str& text) {
  size_t at = text.rfind(kCommitToken);
  if (at == Str::npos) return true;  // stored as it came: nothing to check
  const char* p = text.c_str() + at + sizeof kCommitToken - 1;
  const char* colon = strchr(p, ':');
  if (!colon) return false;
  Str index(std::string(p, size_t(colon - p)));
  unsigned bucket = 0, address = 0;
  int t = 0, used = 0;
  if (sscanf(colon + 1, "%u:%x:%d:%n", &bucket, &address, &t, &used) != 3 || used == 0) return false;
  Str source(colon + 1 + used);
  DatabasePartitionPolicy* policy = getDatabaseByName(index);
  if (!policy) return true;  // the index is gone, and its data with it
  return policy->isCommitted(bucket, source, address, t);
}

int IndexProcessor::execute(PipelineData& event) {
  if (_readOnly) {
    gLogger.error("Index was opened read only but IndexProcessor::execute was called. Returning eExit ");
    return eExit;
  }
  Str index = event.getStr(PipelineData::indexKey);
  if (index.empty()) {
    gLogger.debug("No index provided in %s for this event", event.getStr(PipelineData::sourceKey).c_str());
    index = _defaultDatabase;
  }
  DatabasePartitionPolicy* p = getDatabaseByName(index);
  if (!p) {
    gLogger.error("Could not find an index with name = \"%s\" this event will not be indexed", index.c_str());
    return eDrop;
  }
  if (index == kFileSeeksIndex && event.getStr(PipelineData::sourceTypeKey) == kTrackerSourceType)
    return writeTrackerRecord(event, *p);
  WritableEvent ev;
  ev.raw = StrSegment(event.getStr(PipelineData::rawKey));
  ev.time = StrSegment(event.getStr(PipelineData::timeKey));
  ev.host = StrSegment(event.getStr(PipelineData::hostKey));
  ev.source = StrSegment(event.getStr(PipelineData::sourceKey));
  ev.sourceType = StrSegment(event.getStr(PipelineData::sourceTypeKey));
  ev.meta = StrSegment(event.getStr(PipelineData::metaKey));
  FileProgress progress;
  if (readProgress(event, progress)) ev.progress = &progress;
  if (!p->write(ev)) {
    // Nothing to store (blank text) is dropped. Any other failure (a full
    // disk, an index that cannot be written) holds the pipeline and tries
    // again: the queues before it fill, the inputs stop reading, and the
    // read positions stay where the index is, so nothing is lost.
    if (std::all_of(ev.raw.data(), ev.raw.data() + ev.raw.size(), [](char c) { return isspace((unsigned char)c); }))
      return eDrop;
    Str source = event.getStr(PipelineData::sourceKey);
    gLogger.error("Unable to write an event of %s into the index %s; trying again every second", source.c_str(),
                  index.c_str());
    long tries = 1;
    while (!_shutdown.load() && !p->isShutdownInProgress()) {
      std::this_thread::sleep_for(std::chrono::seconds(1));
      if (p->write(ev)) {
        gLogger.info("Wrote the event of %s into the index %s after %ld tries", source.c_str(), index.c_str(),
                     tries + 1);
        LiveTailHub::publish(index, ev);
        return eOk;
      }
      if (++tries % 60 == 0)
        gLogger.error("Still unable to write into the index %s after %ld tries", index.c_str(), tries);
    }
    return eDrop;
  }
  LiveTailHub::publish(index, ev);  // the live tail's readers, if any
  if (event.has("_sync")) {
    gLogger.info("Syncing database");
    p->sync(true);
  } else if (_sync > 0 && _eventsSinceSync.fetch_add(1) + 1 >= _sync) {
    _eventsSinceSync = 0;
    p->sync(true);
  }
  return eOk;
}

// --- queries ---------------------------------------------------------------------------

void IndexProcessor::runQuery(const char* query, const char* user, const char* queryId, Str& results) {
  Str id = queryId && *queryId ? Str(queryId) : makeQueryId();
  Pathname out = LoaderInfo::getInstance().getDbPath() / "searches" / (id + ".xml");
  if (!_queriesEnabled.load()) {
    writeRefusal(out, "Queries are disabled while the indexes are under maintenance");
  } else if (!QueryRunningSingleton::instance()->start(id)) {
    writeRefusal(out, Str::fromFormat("Too many queries are running (maxQueryIds = %lu), or query %s runs already",
                                      _maxQueryIds, id.c_str()));
  } else {
    std::shared_ptr<Query> q = executeQuery(query ? query : "", user ? user : "", id, id, false);
    if (QueryRunningSingleton::instance()->finish(id)) gLogger.info("Query %s was canceled", id.c_str());
  }
  if (!readWhole(out, results)) gLogger.error("Unable to read the result document %s: %m", out.c_str());
}

void IndexProcessor::runQuery(const char* query, const char* user, const char* queryId,
                              std::unordered_map<Str, std::vector<std::shared_ptr<Str>>>& results) {
  Str id = queryId && *queryId ? Str(queryId) : makeQueryId();
  results.clear();
  if (!_queriesEnabled.load() || !QueryRunningSingleton::instance()->start(id)) return;
  std::shared_ptr<Query> q = executeQuery(query ? query : "", user ? user : "", id, id, false);
  if (QueryRunningSingleton::instance()->finish(id)) gLogger.info("Query %s was canceled", id.c_str());
  assert(q);
  for (auto& [kind, events] : q->resultMap()) {
    std::vector<std::shared_ptr<Str>>& v = results[kind];
    for (const auto& e : events) v.push_back(std::make_shared<Str>(e->getStr(PipelineData::rawKey)));
  }
}

Str IndexProcessor::accessControlledSearch(const Str& search, const std::vector<Str>& filters) {
  if (filters.empty()) return search;
  Str out;
  for (size_t i = 0; i < filters.size(); ++i) {
    if (i) out += " OR ";
    out += "( " + search + " ACCESS_CONTROL_NEXT " + filters[i] + " ) ";
  }
  return out;
}

void IndexProcessor::runSearch(const char* search, SearchResults& results, SearchResultsInfo& info) {
  const UserContext* ctx = UserContext::current();
  if (!ctx) {
    info.addError("unable to get thread user context");
    return;
  }
  if (!_queriesEnabled.load()) {
    info.addError("Queries are disabled while the indexes are under maintenance");
    return;
  }
  try {
    std::vector<Str> filters = ctx->searchFilters;
    if (filters.empty() && ctx->user != "freeuser") filters = UserManager::getSearchFilters(ctx->user);
    Str text = accessControlledSearch(search ? search : "", filters);
    if (!filters.empty()) {
      gLogger.info("About to run fully access controlled query %s", text.c_str());
      for (const Str& f : filters) info.addWarning("Your search was restricted by the access control string \"" + f + "\"");
    }
    if (info.earliestTime.sec() != 0) text += Str::fromFormat(" starttimeu::%lld", (long long)info.earliestTime.sec());
    if (info.latestTime.sec() != 0) text += Str::fromFormat(" endtimeu::%lld", (long long)info.latestTime.sec());
    Str id = info.queryId.empty() ? makeQueryId() : info.queryId;
    Str cancelId = info.cancelId;
    std::shared_ptr<Query> q = executeQuery(text, ctx->user, id, cancelId, true);
    if (q->hasFailed()) {
      if (!cancelId.empty() && !SearchCancel::instance()->cont(cancelId)) info.addMessage("SIGNAL", "CANCEL");
      info.addError(q->getError());
      return;
    }
    IPartitionPolicy* p = getPolicyByDomain(q->stateMachine().getDomain());
    if (!p) return;
    const std::vector<ValueWrapper>& ids = q->results();
    std::vector<DataWrapper> events;
    std::vector<bool> ok;
    p->read(ids, events, ok);
    sr_index_t kRaw = results.keyIndex("_raw", true), kTime = results.keyIndex("_time", true),
               kHost = results.keyIndex("host", true), kSource = results.keyIndex("source", true),
               kType = results.keyIndex("sourcetype", true), kCd = results.keyIndex("_cd", true),
               kSerial = results.keyIndex("_serial", true), kIndex = results.keyIndex("index", true);
    size_t serial = 0;
    for (size_t i = 0; i < ids.size(); ++i) {
      if (!ok[i]) continue;
      SearchResult* r = results.addNewResult();
      r->setValue(kRaw, events[i].raw);
      r->setValue(kTime, Str::fromFormat("%ld", long(events[i].time)));
      r->setValue(kHost, events[i].host);
      r->setValue(kSource, events[i].source);
      r->setValue(kType, events[i].sourceType);
      r->setValue(kCd, ids[i].cd());
      r->setValue(kSerial, Str::fromFormat("%zu", serial++));
      r->setValue(kIndex, q->stateMachine().getDomain());
    }
  } catch (const std::exception& e) {
    gLogger.error(e);
    info.addError("Unknown error in search processor.");
  } catch (...) {
    info.addError("unknown search exception");
  }
}

// --- indexes ----------------------------------------------------------------------------

IPartitionPolicy* IndexProcessor::getPolicyByDomain(const Str& name) { return getDatabaseByName(name); }

DatabasePartitionPolicy* IndexProcessor::getDatabaseByName(const Str& name) {
  auto it = _policies.find(name);
  return it == _policies.end() ? nullptr : it->second.get();
}

void IndexProcessor::enumerateDomains(std::vector<Str>& out) {
  out.clear();
  for (const auto& [name, p] : _policies) out.push_back(name);
}

void IndexProcessor::enumerateDomainsAndCreationTimes(std::vector<std::pair<Str, int64_t>>& out) {
  out.clear();
  for (const auto& [name, p] : _policies) out.emplace_back(name, p->getCreationTime());
}

int64_t IndexProcessor::getDomainCreationTime(const Str& name) {
  DatabasePartitionPolicy* p = getDatabaseByName(name);
  return p ? p->getCreationTime() : -1;
}

// --- management ---------------------------------------------------------------------------

Str IndexProcessor::handleSoapCall(const Str& callName, const std::map<Str, Str>& params) {
  auto param = [&](const char* k) {
    auto it = params.find(k);
    return it == params.end() ? Str() : it->second;
  };
  if (callName == "cancelQuery") {
    Str id = param("queryId");
    if (id.empty()) return "queryId not supplied for cancelQuery";
    bool running = QueryRunningSingleton::instance()->cancel(id);
    if (!running) SearchCancel::instance()->stop(id);
    return running ? "Query " + id + " was canceled" : "Query " + id + " is not running";
  }
  if (callName == "injectEvent") {
    PipelineData ev;
    ev.put(PipelineData::rawKey, param("raw"));
    ev.put(PipelineData::sourceKey, param("source"));
    ev.put(PipelineData::sourceTypeKey, param("sourcetype"));
    ev.put(PipelineData::hostKey, param("host"));
    ev.put(PipelineData::metaKey, param("meta"));
    ev.put(PipelineData::timeKey, param("time"));
    if (!param("index").empty()) ev.put(PipelineData::indexKey, param("index"));
    ev.put("_sync", "true");
    return execute(ev) == eOk ? "Event injected" : "Event could not be injected";
  }
  throw std::invalid_argument("Unknown management call " + callName);
}

void IndexProcessor::service() {
  int64_t now = int64_t(::time(nullptr));
  for (auto& [name, p] : _policies) {
    try {
      p->service(now);
    } catch (const std::exception& e) {
      gLogger.error(e);
    }
  }
}

bool IndexProcessor::signalShutdown() {
  _shutdown = true;
  stopServiceThread();
  // Each index's last tick syncs it; the file tracker's index goes last, as
  // the others store their read positions in it while they sync.
  int64_t now = int64_t(::time(nullptr));
  auto stop = [now](DatabasePartitionPolicy& p) {
    try {
      p.signalShutdown();
      p.service(now);
    } catch (const std::exception& e) {
      gLogger.error(e);
    }
  };
  for (auto& [name, p] : _policies)
    if (name != kFileSeeksIndex) stop(*p);
  auto store = _policies.find(kFileSeeksIndex);
  if (store != _policies.end()) stop(*store->second);
  signalShutdownComplete();
  return true;
}

void IndexProcessor::startServiceThread() {
  if (_serviceThread) return;
  auto t = std::make_unique<IndexServiceThread>(this);
  t->go();
  _serviceThread = std::move(t);
}

void IndexProcessor::stopServiceThread() {
  if (!_serviceThread) return;
  static_cast<IndexServiceThread*>(_serviceThread.get())->stop();
  _serviceThread->join();
  _serviceThread.reset();
}
