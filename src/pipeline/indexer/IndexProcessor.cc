#include "pipeline/indexer/IndexProcessor.h"

#include <algorithm>
#include <time.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <set>
#include <stdexcept>
#include <thread>

#include "framework/UserManager.h"
#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPages.h"
#include "libbundle/SubstituteEnvs.h"
#include "loaderinfo/LoaderInfo.h"
#include "pipeline/indexer/CompiledQueryLanguage.h"
#include "pipeline/indexer/DatabasePartitionPolicy.h"
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
  stopServiceThread();
  if (DatabaseContainer::getProcessContainer() == this) DatabaseContainer::setProcessContainer(nullptr);
  for (auto& [name, p] : _policies) {
    try {
      p->close();
    } catch (const std::exception& e) {
      gLogger.error(e);
    }
  }
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

IndexProcessor::Result IndexProcessor::execute(PipelineData& event) {
  if (_readOnly) {
    gLogger.error("Index was opened read only but IndexProcessor::execute was called. Returning eExit ");
    return eExit;
  }
  Str index = event.getStr(PipelineData::indexKey);
  if (index.empty()) {
    gLogger.warn("No index provided in %s for this event", event.getStr(PipelineData::sourceKey).c_str());
    index = _defaultDatabase;
  }
  DatabasePartitionPolicy* p = getDatabaseByName(index);
  if (!p) {
    gLogger.error("Could not find an index with name = \"%s\" this event will not be indexed", index.c_str());
    return eError;
  }
  WritableEvent ev;
  ev.raw = StrSegment(event.getStr(PipelineData::rawKey));
  ev.time = StrSegment(event.getStr(PipelineData::timeKey));
  ev.host = StrSegment(event.getStr(PipelineData::hostKey));
  ev.source = StrSegment(event.getStr(PipelineData::sourceKey));
  ev.sourceType = StrSegment(event.getStr(PipelineData::sourceTypeKey));
  ev.meta = StrSegment(event.getStr(PipelineData::metaKey));
  if (!p->write(ev)) return eError;
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

void IndexProcessor::signalShutdown() {
  _shutdown = true;
  for (auto& [name, p] : _policies) p->signalShutdown();
  stopServiceThread();
  service();
  signalShutdownComplete();
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
