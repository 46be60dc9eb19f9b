#include "pipeline/indexer/TEDB.h"

#include <climits>

#include "searchthing/ipcver.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("DatabasePartitionPolicy");

TEDB::TEDB(const Pathname& dir, uint32_t id, State state, int64_t start, int64_t end, const PolicyParameters& params)
    : _dir(dir), _id(id), _state(state), _start(start), _end(end), _params(params) {}

TEDB::~TEDB() {
  try {
    close();
  } catch (const std::exception& e) {
    gLogger.error(e);
  }
}

Str TEDB::makeName(int64_t end, int64_t start, uint32_t id) {
  return Str::fromFormat("db_%lu_%lu_%d", (unsigned long)end, (unsigned long)start, int(id));
}

static bool readNumber(const char*& p, unsigned long long& out) {
  if (*p < '0' || *p > '9') return false;
  unsigned long long v = 0;
  while (*p >= '0' && *p <= '9') {
    unsigned long long next = v * 10 + unsigned(*p++ - '0');
    if (next / 10 != v) return false;
    v = next;
  }
  out = v;
  return true;
}

void TEDB::parseName(const Str& name, int64_t& end, int64_t& start, uint32_t& id) {
  unsigned long long e = 0, s = 0, i = 0;
  const char* p = name.c_str();
  bool ok = name.startswith("db_");
  if (ok) {
    p += 3;
    ok = readNumber(p, e) && *p++ == '_' && readNumber(p, s) && *p++ == '_' && readNumber(p, i) && *p == '\0' &&
         i <= kMaxId && e <= (unsigned long long)INT64_MAX && s <= (unsigned long long)INT64_MAX;
  }
  if (!ok) throw DatabasePartitionPolicyException("Unable to parse times and id from " + name);
  end = int64_t(e);
  start = int64_t(s);
  id = uint32_t(i);
}

TimeInvertedIndex::Options TEDB::indexOptions(const PolicyParameters& params) {
  TimeInvertedIndex::Options o;
  o.maxTermChars = uint32_t(params.maxTermChars);
  o.maxTerms = uint32_t(params.maxTerms);
  o.maxPostings = uint32_t(params.maxPostings);
  o.maxValues = uint32_t(params.maxValues);
  o.maxMemMB = uint64_t(params.maxMemMB);
  o.syncPeriod = params.syncPeriod;
  o.indexThreads = size_t(params.indexThreads > 0 ? params.indexThreads : 0);
  o.maxConcurrentOptimizes = size_t(params.maxConcurrentOptimizes > 0 ? params.maxConcurrentOptimizes : 1);
  o.waitForOptimize = params.waitForOptimize;
  return o;
}

void TEDB::open() {
  if (_open.load()) return;
  auto index = std::make_unique<TimeInvertedIndex>(_dir, indexOptions(_params));
  if (_readOnly) {
    // The journal would make its directory; without one there is nothing to read.
    if (!(_dir / "rawdata").isDir()) throw DbException(Str("No raw data in ") + _dir);
    index->openReadOnly();
  } else {
    index->create(false);
  }
  auto data = std::make_unique<SplitCompression>(_dir / "rawdata", _params.rawRollSize,
                                                 int(_params.addressCompressBits), _params.compressRawdata);
  // Raw data goes out in large writes once the engine flushes it before
  // every slice it writes; close() closes the journal (flushing) first.
  if (!_readOnly && index->setBeforeSliceWrite(&TEDB::beforeSliceWrite, this))
    data->setWriteBuffer(kRawWriteBuffer);
  _index = std::move(index);
  _data = std::move(data);
  _open.store(true, std::memory_order_release);
}

int TEDB::beforeSliceWrite(void* ctx) {
  TEDB* b = static_cast<TEDB*>(ctx);
  // At close the journal has gone already, having flushed itself.
  if (b->_data && SplitCompression::flushHook(b->_data.get()) != 0) return -1;
  SliceWriteHook hook = b->_hook.load();
  return hook ? hook(b->_hookCtx.load(), *b) : 0;
}

void TEDB::close() {
  if (!_open.load()) return;
  _open.store(false);
  // The journal first: its close writes out buffered records, which the
  // index's last slice may name; the index's hook points at the journal, so
  // the index goes before the journal does.
  if (_data) _data->close();
  if (_index && _index->isOpen()) _index->close();
  _index.reset();
  _data.reset();
}

void TEDB::widenTimes(int64_t t) {
  if (!hasTimes()) {
    _start = _end = t;
    return;
  }
  if (t < _start) _start = t;
  if (t > _end) _end = t;
}

bool TEDB::readTimes(int64_t& start, int64_t& end) const {
  // One count read from the slice headers: in process, no forked engine.
  st_handle* h = st_open_wflags(_dir.c_str(), 1);
  if (!h) return false;
  st_meta_answer a{};
  bool ok = st_meta(h, "meta::all", &a) >= 0 && a.count > 0;
  st_close(h);
  if (ok) {
    start = a.earliest;
    end = a.latest;
  }
  return ok;
}
