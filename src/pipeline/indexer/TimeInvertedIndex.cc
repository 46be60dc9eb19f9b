#include "pipeline/indexer/TimeInvertedIndex.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>

#include "pipeline/indexer/MultiThreadedIndexer.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("TimeInvertedIndex");
static Logger gMergeLogger("MERGE");

namespace {

const char* const kTableNames[4] = {"EventTypes", "Hosts", "Sources", "SourceTypes"};

// Bucket directories with an optimiser in flight, over every index object of
// the process: two objects on one directory must not optimise it at once.
// Lock order: an index's mutex, then this one.
Mutex& inFlightMutex() {
  static Mutex m;
  return m;
}
std::set<Str>& inFlightDirs() {
  static std::set<Str> dirs;
  return dirs;
}
// True when dir had no optimiser in flight; it has one now.
bool claimOptimizer(const Str& dir) {
  ScopedLock l(inFlightMutex());
  return inFlightDirs().insert(dir).second;
}
void releaseOptimizer(const Str& dir) {
  ScopedLock l(inFlightMutex());
  inFlightDirs().erase(dir);
}

// The string lists of one query spec, with the texts they point into.
//
// A term goes to one of three lists by where its stars stand:
//   "word"            keyword (looked up whole)
//   "word*"           prefix "word" (a walk of the lexicon from "word")
//   "*word"           suffix, given reversed ("drow": the engine walks the
//                     reversed lexicon)
//   "a*b", "*a*", ... keyword with stars: the engine's wildcard matcher walks
//                     the lexicon from the text before the first star and
//                     confirms each term against the whole pattern
//   "*" (stars only)  "meta::all", which every event holds
// A leading '+' (exact case) is stripped first; empty terms are dropped.
struct SpecLists {
  std::vector<Str> keep[3][3];  // [and, or, not][keyword, prefix, suffix]
  std::vector<char*> ptrs[3][3];

  void add(int group, const Str& t) {
    if (t.empty()) {
      gLogger.warn("Got an empty term");
      return;
    }
    Str k = t[0] == '+' ? Str(t.substr(1)) : t;
    if (k.empty()) {
      gLogger.warn("Got an empty term");
      return;
    }
    size_t first = k.find_first_not_of('*');
    if (first == Str::npos) {
      keep[group][0].push_back("meta::all");
      return;
    }
    size_t last = k.find_last_not_of('*');
    bool inner = k.find('*', first) < last;
    if (!inner && first == 0 && last + 1 < k.size()) {
      keep[group][1].push_back(k.substr(0, last + 1));
    } else if (!inner && first > 0 && last + 1 == k.size()) {
      Str rev = k.substr(first);
      std::reverse(rev.begin(), rev.end());
      keep[group][2].push_back(rev);
    } else {
      keep[group][0].push_back(k);
    }
  }

  bool empty() const {
    for (auto& g : keep)
      for (auto& l : g)
        if (!l.empty()) return false;
    return true;
  }

  void fill(st_query_spec& spec) {
    st_strlist* lists[3][3] = {{&spec.and_keywords, &spec.and_prefixes, &spec.and_suffixes},
                               {&spec.or_keywords, &spec.or_prefixes, &spec.or_suffixes},
                               {&spec.not_keywords, &spec.not_prefixes, &spec.not_suffixes}};
    for (int g = 0; g < 3; ++g)
      for (int k = 0; k < 3; ++k) {
        std::sort(keep[g][k].begin(), keep[g][k].end());
        for (Str& s : keep[g][k]) ptrs[g][k].push_back(s.data());
        lists[g][k]->strs = ptrs[g][k].empty() ? nullptr : ptrs[g][k].data();
        lists[g][k]->count = uint32_t(ptrs[g][k].size());
      }
  }
};

}  // namespace

TimeInvertedIndex::TimeInvertedIndex(const Pathname& dir, const Options& options) : _dir(dir), _options(options) {
  for (int i = 0; i < 4; ++i)
    _tables[i] = std::make_unique<MetaData>(_dir, Str(kTableNames[i]) + ".data", kTableNames[i]);
}

TimeInvertedIndex::~TimeInvertedIndex() {
  if (isOpen()) {
    try {
      close();
    } catch (const std::exception& e) {
      gLogger.error(e);
    }
  }
}

bool TimeInvertedIndex::isOpen() {
  ScopedLock l(_mutex);
  return _handle != nullptr;
}

bool TimeInvertedIndex::uncompressDir(const Pathname& dir) {
  std::vector<Str> names;
  if (!dir.readDirectory(names)) return true;
  bool ok = true;
  for (const Str& name : names) {
    if (!name.endswith("tsidx.gz")) continue;
    Pathname path = dir / name;
    ExternalProcessStatus st = ExternalProcessStatus::failedToStart(EINVAL);
    try {
      ExternalProcessGroup group;
      st = group.startOrSpawn({Str("gunzip"), Str("-f"), path}).getStatus(true);
    } catch (const std::exception& e) {
      gLogger.error(e);
    }
    if (!st.statusOk()) {
      gLogger.error("Unable to gunzip %s: %s", path.c_str(), st.describeStatus().c_str());
      ok = false;
    }
  }
  return ok;
}

void TimeInvertedIndex::create(bool force) {
  ScopedLock l(_mutex);
  if (_handle) {
    gLogger.warn("Open called twice on an index");
    return;
  }
  gLogger.info("create by dirname %s", _dir.c_str());
  uncompressDir(_dir);
  _handle = st_open(_dir.c_str());
  if (!_handle) throw DbException(Str("Unable to create new SearchThing with dirname = ") + _dir);

  st_meta_answer all{};
  bool empty = st_meta(_handle, "meta::all", &all) < 0 || all.count <= 0;
  bool remake = force || !(_dir / "Hosts.data").rw_ok() || empty;
  for (auto& t : _tables) {
    if (remake) {
      t->clear();
      t->sync();
    } else {
      t->open();
    }
  }
  st_options(_handle, _options.maxTermChars, _options.maxTerms, _options.maxPostings, _options.maxValues);
  st_autotune(_handle, _options.maxMemMB << 20);
  _lastSync = INT64_MIN;
  createDispatchers();
}

void TimeInvertedIndex::openReadOnly() {
  ScopedLock l(_mutex);
  if (_handle) {
    gLogger.warn("Open called twice on an index");
    return;
  }
  _handle = st_open_wflags(_dir.c_str(), 1);
  if (!_handle) throw DbException(Str("Unable to open SearchThing with dirname = ") + _dir);
  _readOnly = true;
  std::vector<Str> names;
  if (_dir.readDirectory(names))
    for (const Str& name : names)
      if (name.endswith("tsidx.gz")) gLogger.warn("%s is compressed and is not searched read-only", (_dir / name).c_str());
  for (auto& t : _tables) t->open();
  _lastSync = INT64_MIN;
}

bool TimeInvertedIndex::setBeforeSliceWrite(int (*fn)(void* ctx), void* ctx) {
  ScopedLock l(_mutex);
  if (!_handle || _readOnly) return false;
  bool all = st_set_before_write(_handle, fn, ctx) == 0;
  for (auto& d : _dispatchers) all = d->setBeforeWrite(fn, ctx) && all;
  if (!all) {
    // Either every handle flushes first or none does.
    st_set_before_write(_handle, nullptr, nullptr);
    for (auto& d : _dispatchers) d->setBeforeWrite(nullptr, nullptr);
  }
  return all;
}

void TimeInvertedIndex::createDispatchers() {
  if (_options.indexThreads == 0 || !_dispatchers.empty()) return;
  gLogger.info("Creating %lu indexing threads for %s", (unsigned long)_options.indexThreads, _dir.c_str());
  MultiThreadedIndexer::Sizes sizes;
  sizes.maxTermChars = _options.maxTermChars;
  sizes.maxTerms = _options.maxTerms;
  sizes.maxPostings = _options.maxPostings;
  sizes.maxValues = _options.maxValues;
  // The memory budget is shared among the threads' hot slices.
  sizes.maxMemMB = std::max<uint64_t>(1, _options.maxMemMB / _options.indexThreads);
  for (size_t i = 0; i < _options.indexThreads; ++i) {
    auto d = std::make_unique<MultiThreadedIndexer>(_dir, sizes, _options.indexThreads, unsigned(i));
    if (!d->ok()) {
      gLogger.error("Indexing thread %lu for %s did not open; indexing on fewer threads", (unsigned long)i,
                    _dir.c_str());
      continue;
    }
    _dispatchers.push_back(std::move(d));
  }
}

size_t TimeInvertedIndex::dispatcherCount() {
  ScopedLock l(_mutex);
  return _dispatchers.size();
}

bool TimeInvertedIndex::index(IndexableValue& value, const IndexableEvent& ev) {
  return index(value, ev, nullptr, nullptr);
}

bool TimeInvertedIndex::index(IndexableValue& value, const IndexableEvent& ev, void (*after)(void* ctx), void* ctx) {
  ScopedLock l(_mutex);
  if (!_handle) {
    gLogger.error("Attempting to add to uninitalized database");
    return false;
  }
  if (!_dispatchers.empty()) {
    MultiThreadedIndexer& d = *_dispatchers[_nextDispatcher];
    if (++_nextDispatcher == _dispatchers.size()) _nextDispatcher = 0;
    d.addToQueue(ev, value.time(), value.address(), value.hostCode(), value.sourceCode(), value.sourceTypeCode(),
                 value.cleaner());
    if (after) after(ctx);
    return true;
  }
  value.setHandle(_handle);
  value.index(ev);
  if (after) after(ctx);
  return true;
}

void TimeInvertedIndex::Locked_sync() {
  if (_readOnly) return;  // nothing was put, and nothing may be written
  // A failed flush is not reported upward; the next one retries.
  for (auto& d : _dispatchers)
    if (!d->sync()) gLogger.warn("st_sync failed for %s on an indexing thread", _dir.c_str());
  if (st_sync(_handle) < 0) gLogger.warn("st_sync failed for %s: %m", _dir.c_str());
}

bool TimeInvertedIndex::doSyncIfNeeded(int64_t now) {
  ScopedLock l(_mutex);
  if (!_handle) return false;
  if (_lastSync != INT64_MIN && now - _lastSync < _options.syncPeriod) return false;
  Locked_sync();
  _lastSync = now;
  return true;
}

bool TimeInvertedIndex::sync(int64_t now) {
  ScopedLock l(_mutex);
  if (!_handle) return false;
  Locked_sync();
  _lastSync = now;
  return true;
}

bool TimeInvertedIndex::getValues(const std::vector<Str>& andTerms, const std::vector<Str>& orTerms,
                                  const std::vector<Str>& notTerms, int32_t start, int32_t end, uint32_t capacity,
                                  int64_t now, std::vector<st_tsval>& out) {
  doSyncIfNeeded(now);
  // A writing process queries through a forked engine, so that a fault in a
  // slice costs a child, not the indexer. A read-only opener (the search
  // tool) reads in process: it runs one search and has nothing else to lose,
  // and a fork costs more than a small query.
  st_handle* q = st_open_wflags(_dir.c_str(), _readOnly ? 1 : 5);
  if (!q) {
    gLogger.error("Database is NOT open");
    return false;
  }
  st_query_spec spec;
  std::memset(&spec, 0, sizeof spec);
  spec.start = start;
  spec.end = end;
  SpecLists lists;
  for (const Str& t : andTerms) lists.add(0, t);
  for (const Str& t : orTerms) lists.add(1, t);
  for (const Str& t : notTerms) lists.add(2, t);
  if (lists.empty()) lists.add(0, Str("meta::all"));
  lists.fill(spec);

  out.resize(capacity);
  int32_t n = capacity ? st_query(q, &spec, out.data(), capacity, 0) : 0;
  st_close(q);
  if (n < 0) {
    gLogger.crit("st_query failed");
    out.clear();
    return false;
  }
  if (uint32_t(n) > capacity) {
    gLogger.warn("st_query returned more answers than requested");
    n = int32_t(capacity);
  }
  out.resize(size_t(n));
  return true;
}

long TimeInvertedIndex::getTermCount(const Str& term, int64_t now) {
  doSyncIfNeeded(now);
  st_handle* q = st_open_wflags(_dir.c_str(), 1);
  if (!q) return -1;
  st_meta_answer m;
  std::memset(&m, 0, sizeof m);
  int32_t rc = st_meta(q, term.c_str(), &m);
  st_close(q);
  return rc < 0 ? -1 : long(m.count);
}

static const char kTsvalMagic[8] = {'T', 'S', 'V', 'A', 'L', 'S', '0', '1'};

bool TimeInvertedIndex::exportTsvals(const Pathname& path, int64_t now) {
  doSyncIfNeeded(now);
  st_handle* q = st_open_wflags(_dir.c_str(), 5);
  if (!q) {
    gLogger.error("Database is NOT open");
    return false;
  }
  st_query_spec spec;
  std::memset(&spec, 0, sizeof spec);
  spec.start = INT32_MIN;
  spec.end = INT32_MAX;
  char all[] = "meta::all";
  char* terms[] = {all};
  spec.and_keywords.strs = terms;
  spec.and_keywords.count = 1;
  std::vector<st_tsval> vals;
  const uint32_t chunk = 65536;
  bool ok = true;
  for (uint32_t skip = 0;; skip += chunk) {
    if (uint64_t(skip) + chunk > ST_MAX_QUERY_ANSWERS) {
      gLogger.error("Too many values to export from %s", _dir.c_str());
      ok = false;
      break;
    }
    size_t have = vals.size();
    vals.resize(have + chunk);
    int32_t n = st_query(q, &spec, vals.data() + have, chunk, skip);
    if (n < 0) {
      gLogger.crit("st_query failed");
      ok = false;
      break;
    }
    vals.resize(have + size_t(n));
    if (uint32_t(n) < chunk) break;
  }
  st_close(q);
  if (!ok) return false;

  Pathname temp(path + ".temp");
  FILE* f = std::fopen(temp.c_str(), "wb");
  if (!f) {
    gLogger.error("Unable to open %s: %m", temp.c_str());
    return false;
  }
  uint64_t count = vals.size();
  ok = std::fwrite(kTsvalMagic, 1, 8, f) == 8 && std::fwrite(&count, 8, 1, f) == 1 &&
       (count == 0 || std::fwrite(vals.data(), sizeof(st_tsval), count, f) == count);
  ok = std::fclose(f) == 0 && ok;
  if (!ok || !temp.renameTo(path)) {
    gLogger.error("Unable to write %s: %m", path.c_str());
    temp.unlink();
    return false;
  }
  return true;
}

bool TimeInvertedIndex::importTsvals(const Pathname& path, std::vector<st_tsval>& out) {
  out.clear();
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return false;
  char magic[8];
  uint64_t count = 0;
  bool ok = std::fread(magic, 1, 8, f) == 8 && std::memcmp(magic, kTsvalMagic, 8) == 0 &&
            std::fread(&count, 8, 1, f) == 1;
  if (ok) {
    // The count must match the file's size before anything is allocated.
    long here = std::ftell(f);
    std::fseek(f, 0, SEEK_END);
    long size = std::ftell(f);
    std::fseek(f, here, SEEK_SET);
    ok = here >= 0 && size >= here && count == uint64_t(size - here) / sizeof(st_tsval) &&
         uint64_t(size - here) % sizeof(st_tsval) == 0;
  }
  if (ok && count) {
    out.resize(count);
    ok = std::fread(out.data(), sizeof(st_tsval), count, f) == count;
  }
  std::fclose(f);
  if (!ok) {
    gLogger.error("%s is not a value dump", path.c_str());
    out.clear();
  }
  return ok;
}

Str TimeInvertedIndex::defaultOptimizer() {
  Str self;
  if (Pathname("/proc/self/exe").readlink(self)) {
    Pathname sibling = Pathname(self).toParent() / "velmor-optimize";
    if (sibling.x_ok()) return sibling;
  }
  return "velmor-optimize";
}

void TimeInvertedIndex::close(bool optimizeAfter) {
  ScopedLock l(_mutex);
  if (!_handle) {
    gLogger.warn("close called on closed index");
    return;
  }
  bool gone = !_dir.exists();
  if (gone) {
    gLogger.warn("Directory %s appears to have been deleted", _dir.c_str());
  } else if (!_readOnly) {
    Locked_sync();
    for (auto& t : _tables) t->sync();
  }
  // Each thread drains its queue and flushes before it ends.
  _dispatchers.clear();
  _nextDispatcher = 0;
  st_close(_handle);
  _handle = nullptr;
  waitForMergeToFinish();
  if (optimizeAfter && !gone && !_readOnly) forceOptimize();
}

void TimeInvertedIndex::forceOptimize() {
  if (!claimOptimizer(_dir)) {
    gLogger.info("velmor-optimize is already running for this index %s", _dir.c_str());
    return;
  }
  try {
    ExternalProcessGroup group;
    ExternalProcessStatus st = group.startOrSpawn({_options.optimizer, Str("-f"), _dir}).getStatus(true);
    if (st.isFailedToStart())
      gLogger.error("velmor-optimize -f failed to start");
    else
      gLogger.info("velmor-optimize -f %s %s", _dir.c_str(), st.describeStatus().c_str());
  } catch (const std::exception& e) {
    gLogger.error("velmor-optimize -f failed to start");
    gLogger.error(e);
  }
  releaseOptimizer(_dir);
}

// --- prefix lookup -------------------------------------------------------------------

bool TimeInvertedIndex::getMatchingWordsAndCountsForPrefix(const Str& prefix, size_t capacity,
                                                           std::vector<std::pair<Str, uint64_t>>& out) {
  out.clear();
  if (capacity == 0) return true;
  st_handle* q = st_open_wflags(_dir.c_str(), 5);
  if (!q) {
    gLogger.error("Database is NOT open");
    return false;
  }
  // The engine fills at most half of the answer array (it gathers in place).
  std::vector<st_enum_answer> answers(capacity * 2);
  gLogger.debug("Running enum !");
  int32_t n = st_enum(q, prefix.c_str(), 1, answers.data(), uint32_t(answers.size()));
  st_close(q);
  gLogger.debug("Enum done got %d results", int(n));
  if (n < 0) return false;
  for (int32_t i = 0; i < n && out.size() < capacity; ++i) out.emplace_back(Str(answers[i].term), answers[i].value);
  return true;
}

// --- optimisers ----------------------------------------------------------------------

void TimeInvertedIndex::drainOutput(Optimizer& o, bool atEnd) {
  if (o.output.isValid()) {
    char buf[4096];
    for (;;) {
      ssize_t n = o.output.read(buf, sizeof buf);
      if (n > 0) {
        o.partial.append(buf, size_t(n));
        continue;
      }
      if (n == 0) o.output.close();  // end of file: every writer is gone
      break;
    }
  }
  size_t from = 0;
  for (size_t nl; (nl = o.partial.find('\n', from)) != std::string::npos; from = nl + 1)
    gMergeLogger.info("%.*s", int(nl - from), o.partial.data() + from);
  o.partial.erase(0, from);
  if (atEnd && !o.partial.empty()) {
    gMergeLogger.info("%s", o.partial.c_str());
    o.partial.clear();
  }
}

void TimeInvertedIndex::Locked_reapOptimizers() {
  for (size_t i = 0; i < _optimizers.size();) {
    Optimizer& o = *_optimizers[i];
    bool running = o.token.getStatus(false).isRunning();
    drainOutput(o, !running);
    if (running) {
      ++i;
      continue;
    }
    ExternalProcessStatus st = o.token.getStatus(false);
    if (!st.statusOk()) gLogger.warn("velmor-optimize on %s %s", _dir.c_str(), st.describeStatus().c_str());
    _optimizers.erase(_optimizers.begin() + long(i));
    if (_optimizers.empty()) releaseOptimizer(_dir);
  }
}

size_t TimeInvertedIndex::runningOptimizers() {
  ScopedLock l(_mutex);
  Locked_reapOptimizers();
  return _optimizers.size();
}

void TimeInvertedIndex::waitForOptimizers() {
  ScopedLock l(_mutex);
  for (;;) {
    Locked_reapOptimizers();
    if (_optimizers.empty()) return;
    Optimizer& o = *_optimizers.front();
    if (o.output.isValid()) {
      // Its output is read while it runs, so that it never blocks on a full pipe.
      struct pollfd p = {o.output.get(), POLLIN, 0};
      ::poll(&p, 1, 100);
    } else {
      o.token.getStatus(true);
    }
  }
}

bool TimeInvertedIndex::optimize() {
  ScopedLock l(_mutex);
  if (!_handle) return false;
  Locked_reapOptimizers();
  // One optimiser per bucket: a second would merge the slices the first is
  // merging. The claim is taken under this index's mutex and released when
  // the optimiser is reaped, waited for or fails to start.
  if (_options.maxConcurrentOptimizes == 0 || !_optimizers.empty() || !claimOptimizer(_dir)) {
    gLogger.info("velmor-optimize is already running for this index %s", _dir.c_str());
    return false;
  }
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) {
    gLogger.error("Unable to spawn velmor-optimize process because : %s", std::strerror(errno));
    releaseOptimizer(_dir);
    return false;
  }
  FileDescriptor readEnd(fds[0]), writeEnd(fds[1]);
  ::fcntl(readEnd.get(), F_SETFL, ::fcntl(readEnd.get(), F_GETFL) | O_NONBLOCK);
  auto o = std::make_unique<Optimizer>();
  bool started = false;
  try {
    o->token = o->group.startOrSpawn({_options.optimizer, _dir}, FileDescriptor(), writeEnd, writeEnd);
    started = !o->token.getStatus(false).isFailedToStart();
    if (!started) gLogger.error("velmor-optimize failed to start for index %s", _dir.c_str());
  } catch (const std::exception& e) {
    gLogger.error("Unable to spawn velmor-optimize process because : %s", e.what());
  }
  writeEnd.close();
  if (!started) {
    readEnd.close();
    releaseOptimizer(_dir);
    return false;
  }
  o->output = readEnd;
  _optimizers.push_back(std::move(o));
  return true;
}

void TimeInvertedIndex::waitForMergeToFinish() {
  if (_optimizers.empty()) return;
  if (_options.waitForOptimize > 0) {
    for (auto& o : _optimizers) {
      o->token.getStatus(true);
      drainOutput(*o, true);
    }
  } else {
    for (auto& o : _optimizers) {
      o->group.terminateAll(5);
      drainOutput(*o, true);
    }
    // A killed optimiser leaves its lock and half-made merge files behind.
    std::vector<Str> names;
    if (_dir.readDirectory(names))
      for (const Str& n : names)
        if (n.endswith(".lock") || n.endswith(".merge")) (_dir / n).unlink();
  }
  for (auto& o : _optimizers) o->output.close();
  _optimizers.clear();
  releaseOptimizer(_dir);
}
