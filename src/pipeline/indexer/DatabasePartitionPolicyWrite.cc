// Writing events, block signatures and rolling the hot bucket to warm.
#include <cctype>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "pipeline/indexer/BlockSigner.h"
#include "pipeline/indexer/DatabasePartitionPolicy.h"
#include "pipeline/indexer/GenericCleaner.h"
#include "pipeline/indexer/IndexableValue.h"
#include "pipeline/indexer/ScopedPolicyLock.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("DatabasePartitionPolicy");

namespace {

bool allBlank(const StrSegment& s) {
  for (size_t i = 0; i < s.size(); ++i)
    if (!std::isspace((unsigned char)s.data()[i])) return false;
  return true;
}

// The value without its "<key>::" prefix, or the fallback when empty.
StrSegment plainValue(const StrSegment& v, const char* prefix, const char* fallback) {
  size_t n = std::strlen(prefix);
  StrSegment s = v;
  if (s.size() >= n && std::memcmp(s.data(), prefix, n) == 0) s = StrSegment(s.data() + n, s.size() - n);
  if (s.empty()) s = StrSegment(fallback, std::strlen(fallback));
  return s;
}

// Decimal seconds with an optional sign, nothing else; no allocation.
bool parseTime(const StrSegment& s, long& out) {
  size_t i = 0;
  bool neg = false;
  if (i < s.size() && (s[i] == '-' || s[i] == '+')) neg = s[i++] == '-';
  if (i == s.size() || s.size() - i > 18) return false;
  long v = 0;
  for (; i < s.size(); ++i) {
    if (s[i] < '0' || s[i] > '9') return false;
    v = v * 10 + (s[i] - '0');
  }
  out = neg ? -v : v;
  return true;
}

}  // namespace

int64_t DatabasePartitionPolicy::clockNow() { int64_t n = _lastNow.load();
  return n > 0 ? n : int64_t(time(nullptr)); }

bool DatabasePartitionPolicy::write(const WritableEvent& ev) {
  if (_shutdown.load()) return false;
  int64_t address = -1;
  {
    ScopedRecursiveLock l(_mutex);
    if (!_started || _readOnly || !_table.hot) return false;
    // 1. Nothing to store.
    if (ev.raw.empty() || allBlank(ev.raw)) return false;
    // 2. The time.
    long t = 0;
    if (!parseTime(ev.time, t)) t = _haveLastTime ? long(_lastTime) : long(time(nullptr));
    _lastTime = t;
    _haveLastTime = true;
    TEDB& hot = *_table.hot;
    // 3. The hot bucket's range.
    hot.widenTimes(t);
    // 4. Host, source, source type.
    StrSegment host = plainValue(ev.host, "host::", "localhost");
    StrSegment source = plainValue(ev.source, "source::", "unknown");
    StrSegment sourceType = plainValue(ev.sourceType, "sourcetype::", "unknown1");
    // 5. The meta text: indexed tokens, then the signature for storage.
    Str& meta = _metaBuf;
    meta.assign("host::");
    meta += host;
    meta += " source::";
    meta += source;
    meta += " sourcetype::";
    meta += sourceType;
    if (!ev.meta.empty()) {
      meta += ' ';
      meta += ev.meta;
    }
    size_t indexedMetaLen = meta.size();
    if (!ev.signature.empty()) {
      meta += "::";
      meta += ev.signature;
    }
    // 6. The raw data.
    address = hot.data().write(int32_t(t), std::string_view(ev.raw.data(), ev.raw.size()),
                               std::string_view(meta.data(), meta.size()));
    if (address < 0) {
      gLogger.error("Unable to write.");
      return false;
    }
    // 7. The value, and its block signature.
    IndexableValue value(ev.cleaner ? ev.cleaner : _defaultCleaner.get(), nullptr);
    value.setTime(int32_t(t));
    value.setAddress(uint32_t(address));
    if (_signer && !(source == StrSegment(kBlockSignatureSource)))
      addToBlockSignature(Str(source), hot.id(), uint32_t(address), ev);
    // 8. Codes from the bucket's tables; the global tables count too.
    TimeInvertedIndex& index = hot.index();
    long hc = index.hosts().addWord(host, t);
    long sc = index.sources().addWord(source, t);
    long tc = index.sourceTypes().addWord(sourceType, t);
    _global[1]->addWord(host, t);
    _global[2]->addWord(source, t);
    _global[3]->addWord(sourceType, t);
    value.setCodes(uint32_t(hc), uint32_t(sc), uint32_t(tc));
    // 9. The terms.
    IndexableEvent ie;
    ie.meta = StrSegment(meta.data(), indexedMetaLen);
    ie.fields = ev.fields;
    ie.raw = ev.raw;
    ie.indexTerms = ev.indexTerms;
    if (ev.progress && _commitListener) {
      ProgressNote note{this, source, ev.progress, hot.id(), uint32_t(address), int32_t(t)};
      index.index(value, ie, &DatabasePartitionPolicy::noteProgress, &note);
    } else {
      index.index(value, ie);
    }
  }
  // 10. A hot bucket whose addresses near 2^32 rolls now.
  if (double(address) >= _params.addressRollThreshold) {
    double left = 100.0 * (4294967296.0 - double(address)) / 4294967296.0;
    gLogger.warn("You are within %.2f%% of running out of address space in the hot-db. Triggering an automatic roll",
                 left);
    rollHotDb();
  }
  return true;
}

bool DatabasePartitionPolicy::rollHotDb() {
  ScopedPolicyLock dirs(_params);
  if (!dirs.ok()) return false;
  sync(true);
  return pushNewDB(clockNow());
}

void DatabasePartitionPolicy::optimizeHotDb() {
  if (_signer) flushBlockSignatures();
  ScopedReader r(_tableLock);
  if (_table.hot && _table.hot->isOpen()) _table.hot->index().optimize();
}

bool DatabasePartitionPolicy::hasReachedMaxDataSize() {
  Pathname dir;
  {
    ScopedReader r(_tableLock);
    if (!_table.hot) return false;
    dir = _table.hot->path();
  }
  return getDirectorySize(dir) > _params.maxDataSizeBytes;
}

bool DatabasePartitionPolicy::pushNewDB(int64_t now) {
  ScopedWriter w(_tableLock);
  ScopedRecursiveLock l(_mutex);
  if (!_started) return false;
  gLogger.info("Moving hot db to warm !");
  if (!moveDbToWarm()) {
    gLogger.info("Failed to move the hot db to warm.");
    // An empty hot bucket must not hold up the freezing of old buckets.
    freezeDBs(now);
    return false;
  }
  gLogger.info("Creating new hot db");
  createNewDB();
  writeManifest();
  chillExtraWarmDbs();
  gLogger.info("About to freeze dbs !");
  freezeDBs(now);
  return true;
}

bool DatabasePartitionPolicy::moveDbToWarm() {
  std::shared_ptr<TEDB> hot = _table.hot;
  if (!hot || !hot->hasTimes()) {
    gLogger.info("Index is empty. Refusing to move.");
    return false;
  }
  int64_t start = hot->startTime(), end = hot->endTime();
  uint32_t id = hot->id();
  Pathname target = _params.homePath / TEDB::makeName(end, start, id);
  syncMetaData();
  hot->close();
  _table.hot.reset();
  Pathname from = hot->path();
  hot.reset();
  if (!from.renameTo(target)) {
    gLogger.fatal("Unable to rename %s to %s because %s", from.c_str(), target.c_str(), strerror(errno));
    auto again = std::make_shared<TEDB>(from, id, TEDB::kHot, start, end, _params);
    again->open();
    _table.hot = again;
    return false;
  }
  int64_t e, s;
  uint32_t i;
  TEDB::parseName(target.toLeaf(), e, s, i);
  gLogger.debug("Got times and ids");
  auto b = std::make_shared<TEDB>(target, i, TEDB::kWarm, s, e, _params);
  b->open();
  _table.warm.push_back(b);
  gLogger.info("DB moved from hot to warm -> %s", target.c_str());
  writeManifest();
  return true;
}

// --- block signatures --------------------------------------------------------------

void DatabasePartitionPolicy::setBlockSignatureStore(DatabasePartitionPolicy* store) {
  ScopedRecursiveLock l(_mutex);
  _signatureStore = store;
}

bool DatabasePartitionPolicy::setBlockSignatureKey(const Pathname& pemFile) {
  ScopedRecursiveLock l(_mutex);
  if (!_signer) return false;
  if (pemFile.empty() || !_signer->setPrivateKey(pemFile)) {
    gLogger.warn("No private key available.  Unable to cryptographically sign blocks.");
    return false;
  }
  return true;
}

namespace {
// Writes one sealed block into the signature index as an event of its own:
// raw text "<addresses>\n<hashes>", the signature as its signature key, and
// the signed source as the meta token "signedsource::<source>".
bool storeBlock(DatabasePartitionPolicy* store, const BlockSigner::Block& block, int64_t t) {
  Str raw = block.addresses + "\n" + block.hashes;
  Str meta = Str("signedsource::") + block.source;
  Str time = Str::fromFormat("%lld", (long long)t);
  WritableEvent ev;
  ev.raw = StrSegment(raw);
  ev.time = StrSegment(time);
  ev.source = StrSegment(DatabasePartitionPolicy::kBlockSignatureSource);
  ev.sourceType = StrSegment(DatabasePartitionPolicy::kBlockSignatureSourceType);
  ev.meta = StrSegment(meta);
  ev.signature = StrSegment(block.signature);
  return store->write(ev);
}
}  // namespace

void DatabasePartitionPolicy::addToBlockSignature(const Str& source, uint32_t bucketId, uint32_t address,
                                                  const WritableEvent& ev) {
  Str hash = BlockSigner::eventHash(ev.raw, ev.signature);
  if (hash.empty()) return;
  BlockSigner::Block full;
  if (!_signer->add(source, Str::fromFormat("%u:%u", bucketId, address), hash, full)) return;
  if (!_signatureStore) {
    gLogger.fatal("Unable to find the signature database. This should not happen. Shutting down.");
    signalShutdown();
    return;
  }
  storeBlock(_signatureStore, full, _lastTime);
}

void DatabasePartitionPolicy::flushBlockSignatures() {
  ScopedRecursiveLock l(_mutex);
  if (!_signer) return;
  std::vector<BlockSigner::Block> blocks = _signer->flush();
  if (blocks.empty()) return;
  if (!_signatureStore) {
    gLogger.fatal("Unable to find the signature database. This should not happen. Shutting down.");
    signalShutdown();
    return;
  }
  for (const auto& b : blocks) storeBlock(_signatureStore, b, _lastTime);
}
