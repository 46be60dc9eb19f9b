// Starting, the service tick, syncing, shutdown and the word tables of an
// index. Writing and rolling: DatabasePartitionPolicyWrite.cc; warm, cold
// and frozen: DatabasePartitionPolicyMove.cc; queries and reads:
// DatabasePartitionPolicyQuery.cc; delete, export and checks:
// DatabasePartitionPolicyAdmin.cc.
#include "pipeline/indexer/DatabasePartitionPolicy.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <optional>
#include <set>

#include "framework/ReadContext.h"
#include "framework/SplitCompression.h"
#include "pipeline/indexer/IndexableValue.h"
#include "pipeline/indexer/TimeInvertedIndex.h"
#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPages.h"
#include "pipeline/indexer/BlockSigner.h"
#include "pipeline/indexer/GenericCleaner.h"
#include "pipeline/indexer/PolicyServiceThread.h"
#include "pipeline/indexer/ScopedPolicyLock.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("DatabasePartitionPolicy");

namespace {
const char* const kTableNames[4] = {"EventTypes", "Hosts", "Sources", "SourceTypes"};
const char* const kMetaManifest = ".metaManifest";
const char* const kHotName = "db-hot";

}  // namespace

DatabasePartitionPolicy::DatabasePartitionPolicy(const PolicyParameters& params) : _params(params) {
  Pathname g = _params.homePath / "GlobalMetaData";
  for (int i = 0; i < 4; ++i) _global[i] = std::make_unique<MetaData>(g, Str(kTableNames[i]) + ".data", kTableNames[i]);
  _defaultCleaner = std::make_unique<GenericCleaner>(GenericCleaner::defaultStanza());
  if (_params.blockSignSize > 0) _signer = std::make_unique<BlockSigner>(size_t(_params.blockSignSize));
}

DatabasePartitionPolicy::~DatabasePartitionPolicy() {
  stopServiceThread();
  try {
    close();
  } catch (const std::exception& e) {
    gLogger.error(e);
  }
}

void DatabasePartitionPolicy::start(bool readOnly) {
  openDatabases(readOnly || _params.isReadOnly);
  if (_signer && !_signer->hasKey())
    gLogger.warn("No private key available.  Unable to cryptographically sign blocks.");
}

// A read-only open (search, info, query) writes nothing at all: no
// directories, no lock files (so it takes no directory lock, and reads the
// directories as they are at that moment), no CreationTime, no manifest, no
// word tables, no bucket renames or rebuilds, no hot bucket. An index never
// written opens empty.
void DatabasePartitionPolicy::openDatabases(bool readOnly) {
  std::optional<ScopedPolicyLock> dirs;
  if (!readOnly) {
    // The lock files sit beside the directories, so their parents must exist.
    for (const Pathname* p : {&_params.homePath, &_params.coldPath, &_params.thawedPath}) p->toParent().mkdir_p();
    dirs.emplace(_params);
  }
  ScopedWriter w(_tableLock);
  ScopedRecursiveLock l(_mutex);
  if (_started) return;
  _readOnly = readOnly;
  gLogger.info("Opening %s", _params.homePath.c_str());
  if (readOnly && !_params.homePath.isDir()) {
    gLogger.info("%s has never been written: the index is empty", _params.homePath.c_str());
    _table.clear();
    _creationTime = 0;
    _started = true;
    return;
  }
  for (const Pathname* p : {&_params.homePath, &_params.coldPath, &_params.thawedPath}) {
    if (!readOnly && !p->mkdir_p()) {
      Str msg = Str::fromFormat("Unable to create directory %s because %s", p->c_str(), strerror(errno));
      gLogger.error(msg);
      throw DatabasePartitionPolicyException(msg);
    }
  }
  Pathname g = _params.homePath / "GlobalMetaData";
  if (!readOnly && !g.mkdir_p()) throw DatabasePartitionPolicyException(Str("Unable to create directory ") + g);
  for (auto& t : _global) t->open();

  Pathname ct = _params.homePath / "CreationTime";
  Str text;
  FILE* f = std::fopen(ct.c_str(), "r");
  long value = 0;
  if (f) {
    char buf[64] = {0};
    size_t n = std::fread(buf, 1, sizeof buf - 1, f);
    std::fclose(f);
    text = Str(std::string(buf, n)).trim();
  }
  if ((!f || !text.tryToLong(value)) && readOnly) {
    value = 0;  // unknown, and not to be made up on disk by a reader
  } else if (!f || !text.tryToLong(value)) {
    value = long(time(nullptr));
    gLogger.info("This is the first time this index was created ...  Creating file at %s", ct.c_str());
    FILE* o = std::fopen(ct.c_str(), "w");
    if (!o || std::fprintf(o, "%ld", value) < 0 || std::fclose(o) != 0)
      throw DatabasePartitionPolicyException(Str("Unable to write ") + ct);
  }
  _creationTime = value;

  _table.clear();
  scanDir(_params.homePath, TEDB::kWarm);
  scanDir(_params.coldPath, TEDB::kCold);
  scanDir(_params.thawedPath, TEDB::kThawed);
  std::sort(_table.warm.begin(), _table.warm.end(), [](const auto& a, const auto& b) {
    return TEDBCompareByEndTimeLatestFirst()(b, a);
  });
  if (!_table.hot && readOnly) {
    gLogger.info("No hot database found in %s", _params.homePath.c_str());
  } else if (!_table.hot) {
    gLogger.info("No hot database found in %s velmor will now create one.", _params.homePath.c_str());
    createNewDB();
  }
  if (_table.hot) gLogger.info("Hot database id = %d highest id = %d", int(_table.hot->id()), int(_table.highestId));
  rebuildMetaData();
  if (!readOnly) writeManifest();
  _started = true;
}

void DatabasePartitionPolicy::scanDir(const Pathname& dir, TEDB::State state) {
  std::vector<Str> names;
  if (!dir.readDirectory(names)) return;
  for (const Str& name : names) {
    Pathname path = dir / name;
    if (!path.isDir()) continue;
    if (name == kHotName && state == TEDB::kWarm) {
      gLogger.info("%s is hot", path.c_str());
      try {
        openBucketDir(path, TEDB::kHot, true);
      } catch (const std::exception& e) {
        if (!_readOnly) throw;
        gLogger.error(e);  // a reader goes on without it
      }
      continue;
    }
    if (!name.startswith("db_")) continue;
    if (state == TEDB::kWarm)
      gLogger.info("%s is warm", path.c_str());
    else if (state == TEDB::kCold)
      gLogger.info("%s is cold...ignoring - not opening", path.c_str());
    try {
      openBucketDir(path, state, state != TEDB::kCold);
    } catch (const std::exception& e) {
      gLogger.error(e);
    }
  }
}

// Makes the TEDB of a listed directory, giving it a fresh id when another
// bucket already has its id (resolveIdCollision), and lists it.
std::shared_ptr<TEDB> DatabasePartitionPolicy::openBucketDir(const Pathname& dir, TEDB::State state, bool openIt) {
  int64_t end = INT64_MIN, start = INT64_MAX;
  uint32_t id = 0;
  bool hot = state == TEDB::kHot;
  if (!hot) TEDB::parseName(dir.toLeaf(), end, start, id);
  if ((dir / "__2.0tsval.out__").exists()) {
    if (_readOnly)
      gLogger.warn("The index of %s waits to be rebuilt; it is searched as it is", dir.c_str());
    else
      rebuildBucketFromTsvals(dir);
  }

  Pathname path = dir;
  // The hot bucket opened before the listed ones holds no id of its own yet
  // (it takes the one after the highest listed), so it takes none from them.
  std::shared_ptr<TEDB> owner = hot ? nullptr : _table.findById(id);
  const bool taken = owner && !(owner == _table.hot && _pendingHotId);
  if (taken && _readOnly) {
    // A reader renames nothing: the bucket gets a fresh id for this run only.
    id = _table.takeNextId();
  } else if (taken) {
    uint32_t fresh = _table.takeNextId();
    Pathname renamed = dir.toParent() / TEDB::makeName(end, start, fresh);
    gLogger.warn("Bucket id %u of %s is taken; renaming to %s", id, dir.c_str(), renamed.c_str());
    if (dir.renameTo(renamed)) {
      path = renamed;
      id = fresh;
    }
  }
  auto b = std::make_shared<TEDB>(path, id, state, start, end, _params);
  b->setReadOnly(_readOnly);
  if (hot) {
    // The hot bucket's id follows the highest warm or cold id; its times
    // come from what the engine holds.
    b->setSliceWriteHook(&DatabasePartitionPolicy::onSliceWrite, this);
    b->open();
    int64_t lo, hi;
    if (b->readTimes(lo, hi)) {
      b->widenTimes(lo);
      b->widenTimes(hi);
    }
    _table.hot = b;
    _pendingHotId = true;
    return b;
  }
  _table.noteId(id);
  if (openIt) b->open();
  if (state == TEDB::kWarm)
    _table.warm.push_back(b);
  else if (state == TEDB::kCold)
    _table.cold.push_back(b);
  else
    _table.thawed.push_back(b);
  return b;
}

void DatabasePartitionPolicy::createNewDB() {
  Pathname dir = _params.homePath / kHotName;
  if (!dir.mkdir_p())
    throw DatabasePartitionPolicyException(
        Str::fromFormat("Unable to create directory %s because %s", dir.c_str(), strerror(errno)));
  uint32_t id = _table.takeNextId();
  auto b = std::make_shared<TEDB>(dir, id, TEDB::kHot, INT64_MAX, INT64_MIN, _params);
  b->setSliceWriteHook(&DatabasePartitionPolicy::onSliceWrite, this);
  b->open();
  _table.hot = b;
  _pendingHotId = false;
}

void DatabasePartitionPolicy::readManifest(std::vector<Str>& out) {
  out.clear();
  FILE* f = std::fopen((_params.homePath / kMetaManifest).c_str(), "r");
  if (!f) return;
  char line[8192];
  while (std::fgets(line, sizeof line, f)) {
    Str s = Str(line).trim();
    if (!s.empty()) out.push_back(s);
  }
  std::fclose(f);
}

// One bucket path per line: every listed bucket has been counted into the
// global word tables.
void DatabasePartitionPolicy::writeManifest() {
  Pathname path = _params.homePath / kMetaManifest;
  Pathname temp(path + ".temp");
  FILE* f = std::fopen(temp.c_str(), "w");
  if (!f) {
    gLogger.error("Unable to write %s: %s", temp.c_str(), strerror(errno));
    return;
  }
  bool ok = true;
  for (const auto& b : _table.all()) ok = std::fprintf(f, "%s\n", b->path().c_str()) >= 0 && ok;
  ok = std::fclose(f) == 0 && ok;
  if (!ok || !temp.renameTo(path)) {
    gLogger.error("Unable to write %s: %s", path.c_str(), strerror(errno));
    temp.unlink();
  }
}

std::vector<WordPositionData> DatabasePartitionPolicy::bucketRows(TEDB& b, int table) {
  if (b.isOpen()) {
    TimeInvertedIndex& i = b.index();
    MetaData& t = table == 1 ? i.hosts() : table == 2 ? i.sources() : i.sourceTypes();
    return t.getMetaData(0, 0);
  }
  MetaData t(b.path(), Str(kTableNames[table]) + ".data", kTableNames[table]);
  t.open();
  return t.getMetaData(0, 0);
}

void DatabasePartitionPolicy::rebuildMetaData() {
  if (_pendingHotId && _table.hot) {
    _table.hot->setId(_table.takeNextId());
    _pendingHotId = false;
  }
  std::vector<Str> manifest;
  readManifest(manifest);
  std::set<Str> listed(manifest.begin(), manifest.end());
  bool full = manifest.empty();
  for (const Str& m : manifest) {
    if (!Pathname(m).exists()) {
      gLogger.warn("%s is no longer a valid path. Will fully rebuild metadata", m.c_str());
      full = true;
      break;
    }
  }
  if (full)
    for (auto& t : _global) t->clear();
  for (const auto& b : _table.all()) {
    if (!full && listed.count(b->path())) {
      gLogger.debug("Skipping %s because it was in the manifest for metadata.", b->path().c_str());
      continue;
    }
    for (int i = 1; i < 4; ++i)
      for (const auto& row : bucketRows(*b, i))
        if (row.count > 0) _global[i]->addWordPositionData(row);
  }
  // A reader keeps what it counted in memory.
  if (!_readOnly)
    for (auto& t : _global) t->sync();
}

namespace {

// The indexed part of a stored meta text: a signature is appended to the
// last token as "::<signature>", so a last token with two "::" loses its
// second one and what follows.
StrSegment indexedMeta(const Str& meta) {
  size_t lastSpace = meta.rfind(' ');
  size_t tokenStart = lastSpace == Str::npos ? 0 : lastSpace + 1;
  size_t first = meta.find("::", tokenStart);
  size_t second = first == Str::npos ? Str::npos : meta.find("::", first + 2);
  return StrSegment(meta.data(), second == Str::npos ? meta.size() : second);
}

bool isSliceName(const Str& name) { return name.endswith(".tsidx"); }

}  // namespace

// A "__2.0tsval.out__" dump lists every value of a bucket whose slices must
// be remade. Terms are not in the dump, so each value's event is read back
// from the raw data at its address and segmented again; times and codes
// come from the dump. The new slices are built in "rebuild.tmp" and only
// then replace the old ones; the dump is renamed "__2.1tsval.out__" last,
// so a crash at any point leads to the whole rebuild running again. Values
// marked deleted stay out. Extra indexed fields of the original events are
// not in the raw data and are not restored.
void DatabasePartitionPolicy::rebuildBucketFromTsvals(const Pathname& dir) {
  const Pathname dump = dir / "__2.0tsval.out__";
  const Pathname work = dir / "rebuild.tmp";
  std::vector<st_tsval> values;
  if (!TimeInvertedIndex::importTsvals(dump, values)) {
    gLogger.error("Unable to read the value dump %s; the bucket keeps its index as it is", dump.c_str());
    return;
  }
  gLogger.info("Rebuilding the index of %s from %zu values", dir.c_str(), values.size());
  work.removeRecursive();
  if (!work.mkdir_p()) {
    gLogger.error("Unable to create directory %s; the bucket keeps its index as it is", work.c_str());
    return;
  }
  size_t indexed = 0, unreadable = 0;
  {
    // The bucket's own options, without indexing threads: one pass, one writer.
    TimeInvertedIndex::Options o = TEDB::indexOptions(_params);
    o.indexThreads = 0;
    TimeInvertedIndex index(work, o);
    index.create(true);
    SplitCompression data(dir / "rawdata", _params.rawRollSize, int(_params.addressCompressBits),
                          _params.compressRawdata);
    std::unique_ptr<ReadContext> ctx;
    Str raw, meta;
    int32_t stored = 0;
    for (const st_tsval& v : values) {
      if (v.source == ST_DELETED_SOURCE) continue;
      if (!data.read(int64_t(v.address), raw, meta, stored, &ctx)) {
        ++unreadable;
        continue;
      }
      IndexableValue value(_defaultCleaner.get(), nullptr);
      value.setTime(v.time);
      value.setAddress(v.address);
      value.setCodes(v.host, v.source, v.source_type);
      IndexableEvent ev;
      ev.meta = indexedMeta(meta);
      ev.raw = StrSegment(raw.data(), raw.size());
      index.index(value, ev);
      ++indexed;
    }
    data.close();
    index.close();
  }
  if (unreadable > 0)
    gLogger.warn("%zu values of %s have no readable event in the raw data and are left out", unreadable, dir.c_str());
  std::vector<Str> names;
  bool ok = dir.readDirectory(names) && work.exists();
  for (const Str& n : names)
    if (ok && isSliceName(n) && !(dir / n).unlink()) ok = false;
  std::vector<Str> rebuilt;
  if (ok) ok = work.readDirectory(rebuilt);
  for (const Str& n : rebuilt)
    if (ok && isSliceName(n) && !(work / n).renameTo(dir / n)) ok = false;
  if (!ok) {
    gLogger.error("Unable to put the rebuilt index of %s in place; the rebuild runs again at the next start",
                  dir.c_str());
    return;
  }
  work.removeRecursive();
  dump.renameTo(dir / "__2.1tsval.out__");
  gLogger.info("Rebuilt the index of %s: %zu events", dir.c_str(), indexed);
}

int64_t DatabasePartitionPolicy::engineNow() { return _lastNow; }

void DatabasePartitionPolicy::forceEngineSync(TEDB& b) {
  if (!b.isOpen()) return;
  b.index().sync(engineNow());
}

void DatabasePartitionPolicy::syncMetaData() {
  if (_table.hot && _table.hot->isOpen()) {
    TimeInvertedIndex& i = _table.hot->index();
    i.hosts().service(true);
    i.sources().service(true);
    i.sourceTypes().service(true);
    i.eventTypes().service(true);
  }
}

void DatabasePartitionPolicy::sync(bool force) {
  ScopedReader r(_tableLock);
  ScopedRecursiveLock l(_mutex);
  if (!_table.hot || _readOnly) return;
  if (force)
    forceEngineSync(*_table.hot);
  else if (_table.hot->isOpen())
    _table.hot->index().doSyncIfNeeded(engineNow());
  syncMetaData();
  for (auto& t : _global) t->service(force);
}

void DatabasePartitionPolicy::close() {
  ScopedWriter w(_tableLock);
  ScopedRecursiveLock l(_mutex);
  if (!_started) return;
  if (!_readOnly) {
    if (_signer) {
      try {
        flushBlockSignatures();
      } catch (const std::exception& e) {
        gLogger.error(e);
      }
    }
    syncMetaData();
    for (auto& t : _global) t->sync();
    writeManifest();
  }
  for (const auto& b : _table.all()) b->close();
  _table.clear();
  _started = false;
}

bool DatabasePartitionPolicy::signalShutdown() {
  _shutdown.store(true);
  return false;  // completion is reported once the buckets are closed
}

void DatabasePartitionPolicy::commonHandler() {
  if (_shutdownHandled) return;
  _shutdownHandled = true;
  try {
    close();
  } catch (const std::exception& e) {
    gLogger.error("The database '%s' threw an exception on shutdown. Informing shutdown handler",
                  _params.name.c_str());
    gLogger.error(e);
  }
  signalShutdownComplete();
}

void DatabasePartitionPolicy::startServiceThread() {
  if (_serviceThread) return;
  _serviceThread = std::make_unique<PolicyServiceThread>(*this);
  _serviceThread->go();
}

void DatabasePartitionPolicy::stopServiceThread() {
  if (!_serviceThread) return;
  _serviceThread->stop();
  _serviceThread.reset();
}

void DatabasePartitionPolicy::service(int64_t now) {
  if (now > _lastNow.load()) _lastNow.store(now);
  if (_shutdown.load()) {
    commonHandler();
    return;
  }
  if (!_started || _readOnly) return;
  ++_ticks;
  if (_params.optimizeEvery > 0 && now - _lastOptimize >= _params.optimizeEvery) {
    _lastOptimize = now;
    optimizeHotDb();
  }
  {
    ScopedReader r(_tableLock);
    ScopedRecursiveLock l(_mutex);
    if (_table.hot && _table.hot->isOpen()) _table.hot->index().doSyncIfNeeded(engineNow());
    if (_ticks % 10 == 0) {
      syncMetaData();
      for (auto& t : _global) t->service(false);
    }
  }
  if (_ticks % 30 == 0) cleanupColdOpenList();
  if (++_rotateTicks > _params.rotatePeriodInSecs) {
    _rotateTicks = 0;
    if (!hasReachedMaxDataSize() && _params.maxDataSizeBytes > 0) {
      ScopedPolicyLock dirs(_params);
      {
        ScopedWriter w(_tableLock);
        ScopedRecursiveLock l(_mutex);
        freezeDBs(now);
      }
      sync(true);
      return;
    }
    ScopedPolicyLock dirs(_params);
    sync(true);
    pushNewDB(now);
  }
}

const GenericCleaner* DatabasePartitionPolicy::cleanerByName(const Str& name) {
  ScopedRecursiveLock l(_mutex);
  auto it = _cleaners.find(name);
  if (it != _cleaners.end()) return it->second.get();
  PropertyPages& pages = PropertyPages::instance("segmenters");
  GenericCleaner* c = _defaultCleaner.get();
  if (pages.propsExist(name) || pages.propsExist("default")) {
    PropertiesMap stanza;
    pages.fillLayers(stanza, name, false);
    c = _cleaners.emplace(name, std::make_unique<GenericCleaner>(stanza)).first->second.get();
  }
  return c;
}

// --- word tables ----------------------------------------------------------------

std::vector<WordPositionData> DatabasePartitionPolicy::getHosts() { return globalHosts().getMetaData(0, 0); }
std::vector<WordPositionData> DatabasePartitionPolicy::getSources() { return globalSources().getMetaData(0, 0); }
std::vector<WordPositionData> DatabasePartitionPolicy::getSourceTypes() {
  return globalSourceTypes().getMetaData(0, 0);
}
uint64_t DatabasePartitionPolicy::getTotalEventCount() { return globalSources().getTotalCount(); }
bool DatabasePartitionPolicy::getMinAndMaxTimes(int64_t& minTime, int64_t& maxTime) {
  return globalSources().getMinAndMaxTimes(minTime, maxTime);
}

bool DatabasePartitionPolicy::wordForCode(uint32_t bucketId, int table, uint32_t code, Str& out) {
  auto b = getOpenedDBById(bucketId);
  if (!b) return false;
  TimeInvertedIndex& i = b->index();
  MetaData& t = table == 1 ? i.hosts() : table == 2 ? i.sources() : i.sourceTypes();
  return t.getWordForCode(code, out);
}
bool DatabasePartitionPolicy::getGlobalHostWordForCode(uint32_t bucketId, uint32_t code, Str& out) {
  return wordForCode(bucketId, 1, code, out);
}
bool DatabasePartitionPolicy::getGlobalSourceWordForCode(uint32_t bucketId, uint32_t code, Str& out) {
  return wordForCode(bucketId, 2, code, out);
}
bool DatabasePartitionPolicy::getGlobalSourceTypeWordForCode(uint32_t bucketId, uint32_t code, Str& out) {
  return wordForCode(bucketId, 3, code, out);
}

std::vector<std::pair<Str, uint64_t>> DatabasePartitionPolicy::getMatchingWordsAndCountsForPrefix(const Str& prefix) {
  std::vector<std::pair<Str, uint64_t>> out;
  for (int i = 1; i < 4; ++i)
    for (const auto& r : _global[i]->getMetaData(0, 0))
      if (r.word.startswith(StrSegment(prefix))) out.emplace_back(r.word, r.count);
  return out;
}
