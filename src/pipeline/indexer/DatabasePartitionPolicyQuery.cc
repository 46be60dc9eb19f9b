// Queries over the buckets of an index, newest first, and reading events
// back (with their block signatures checked on request).
#include <algorithm>
#include <atomic>
#include <new>
#include <numeric>
#include <set>

#include "pipeline/indexer/BlockSigner.h"
#include "pipeline/indexer/DatabasePartitionPolicy.h"
#include "pipeline/indexer/QueryRunner.h"
#include "pipeline/indexer/ReaderThread.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("DatabasePartitionPolicy");

std::shared_ptr<TEDB> DatabasePartitionPolicy::openForQuery(const std::shared_ptr<TEDB>& b) {
  if (b->isOpen()) return b;
  if (b->state() != TEDB::kCold) return nullptr;
  try {
    return loadColdDB(b);
  } catch (const std::exception& e) {
    gLogger.error(e);
    return nullptr;
  }
}

bool DatabasePartitionPolicy::queryOpenBucket(TEDB& b, const std::vector<Str>& andTerms,
                                              const std::vector<Str>& orTerms, const std::vector<Str>& notTerms,
                                              int32_t start, int32_t end, size_t want, std::vector<ValueWrapper>& out,
                                              size_t* answered) {
  // The answer buffer of the thread is kept from one query to the next: a
  // search asks chunk after chunk, and fresh pages for each cost more than
  // the answers.
  thread_local std::vector<st_tsval> vals;
  uint32_t cap = uint32_t(std::min<size_t>(want, ST_MAX_QUERY_ANSWERS));
  b.inUse.fetch_add(1);
  bool ok = b.index().getValues(andTerms, orTerms, notTerms, start, end, cap, engineNow(), vals);
  b.inUse.fetch_sub(1);
  if (!ok) return false;
  if (answered) *answered = vals.size();
  out.reserve(out.size() + vals.size());
  for (const st_tsval& v : vals)
    if (v.source != ST_DELETED_SOURCE) out.emplace_back(b.id(), v);
  if (vals.capacity() > (size_t(1) << 22)) std::vector<st_tsval>().swap(vals);  // a rare huge answer is not kept
  return true;
}

void DatabasePartitionPolicy::getBucketSpans(int32_t start, int32_t end, std::vector<BucketSpan>& out) {
  out.clear();
  if (start > end || _shutdown.load()) return;
  ScopedReader r(_tableLock);
  if (!_started) return;
  auto clamp = [](int64_t t) { return int32_t(std::clamp<int64_t>(t, INT32_MIN, INT32_MAX)); };
  for (const auto& b : _table.getMatchingDBsByTime(start, end)) {
    bool listed = false;
    for (const BucketSpan& s : out) listed = listed || s.id == b->id();
    if (listed) continue;
    BucketSpan s;
    s.id = b->id();
    s.earliest = clamp(b->startTime());
    s.latest = clamp(b->endTime());
    out.push_back(s);
  }
}

bool DatabasePartitionPolicy::queryBucket(uint32_t bucketId, const std::vector<Str>& andTerms,
                                          const std::vector<Str>& orTerms, const std::vector<Str>& notTerms,
                                          int32_t start, int32_t end, size_t count, std::vector<ValueWrapper>& out,
                                          size_t* answered) {
  out.clear();
  if (answered) *answered = 0;
  if (_shutdown.load()) {
    gLogger.info("Shutting down. Not attempting to query.");
    return false;
  }
  if (count == 0 || start > end) return true;
  try {
    ScopedReader r(_tableLock);
    if (!_started) return false;
    std::shared_ptr<TEDB> listed = _table.findById(bucketId);
    std::shared_ptr<TEDB> b = listed ? openForQuery(listed) : nullptr;
    if (!b) return true;  // moved away (or frozen) since it was listed
    return queryOpenBucket(*b, andTerms, orTerms, notTerms, start, end, count, out, answered);
  } catch (const std::bad_alloc&) {
    out.clear();
    gLogger.error("Bad allocation");
    throw DatabasePartitionPolicyException(
        "because there was not enough memory.  Please simplify your search or restrict it by time.");
  }
}

namespace {
// True when no value of a bucket ending at `end` can be among the newest
// `want` of `got`.
bool cannotImprove(std::vector<ValueWrapper>& got, size_t want, int64_t end) {
  if (want == 0 || got.size() < want) return false;
  std::nth_element(got.begin(), got.begin() + long(want - 1), got.end());
  return end < got[want - 1].time;
}
}  // namespace

bool DatabasePartitionPolicy::internalQueryST(const std::vector<std::shared_ptr<TEDB>>& dbs,
                                              const std::vector<Str>& andTerms, const std::vector<Str>& orTerms,
                                              const std::vector<Str>& notTerms, int32_t start, int32_t end,
                                              size_t want, std::vector<ValueWrapper>& out) {
  std::set<uint32_t> seen;
  bool ok = true;
  for (const auto& listed : dbs) {
    if (!seen.insert(listed->id()).second) {
      gLogger.debug("We have already queried %d", int(listed->id()));
      continue;
    }
    if (cannotImprove(out, want, listed->endTime())) break;
    std::shared_ptr<TEDB> b = openForQuery(listed);
    if (!b) continue;
    ok = queryOpenBucket(*b, andTerms, orTerms, notTerms, start, end, want, out) && ok;
  }
  return ok;
}

bool DatabasePartitionPolicy::internalQueryMT(const std::vector<std::shared_ptr<TEDB>>& dbs,
                                              const std::vector<Str>& andTerms, const std::vector<Str>& orTerms,
                                              const std::vector<Str>& notTerms, int32_t start, int32_t end,
                                              size_t want, std::vector<ValueWrapper>& out) {
  std::vector<std::shared_ptr<TEDB>> open;
  std::set<uint32_t> seen;
  for (const auto& listed : dbs) {
    if (!seen.insert(listed->id()).second) continue;
    if (auto b = openForQuery(listed)) open.push_back(b);
  }
  size_t n = std::min<size_t>(size_t(_params.queryThreads), open.size());
  std::atomic<size_t> next{0};
  std::atomic<bool> ok{true};
  std::vector<std::vector<ValueWrapper>> answers(n);
  std::vector<std::unique_ptr<QueryRunner>> runners;
  for (size_t t = 0; t < n; ++t) {
    runners.push_back(std::make_unique<QueryRunner>([&, t] {
      for (size_t i; (i = next.fetch_add(1)) < open.size();)
        if (!queryOpenBucket(*open[i], andTerms, orTerms, notTerms, start, end, want, answers[t])) ok = false;
    }));
  }
  gLogger.debug("Created %llu query running threads", (unsigned long long)runners.size());
  for (auto& r : runners) r->go();
  for (auto& r : runners) r->join();
  for (auto& a : answers) out.insert(out.end(), a.begin(), a.end());
  return ok.load();
}

bool DatabasePartitionPolicy::query(const std::vector<Str>& andTerms, const std::vector<Str>& orTerms,
                                    const std::vector<Str>& notTerms, int32_t start, int32_t end, size_t count,
                                    std::vector<ValueWrapper>& out, size_t skip) {
  out.clear();
  gLogger.debug("Querying");
  if (_shutdown.load()) {
    gLogger.info("Shutting down. Not attempting to query.");
    return false;
  }
  size_t want = skip + count;
  if (skip > 0) gLogger.debug("About to search an unoptimized db with a starting position of %lu", (unsigned long)skip);
  try {
    ScopedReader r(_tableLock);
    gLogger.debug("Query lock acquired 2");
    if (!_started) return false;
    std::vector<std::shared_ptr<TEDB>> dbs = _table.getMatchingDBsByTime(start, end);
    bool ok = _params.queryThreads > 0 && dbs.size() > 1
                  ? internalQueryMT(dbs, andTerms, orTerms, notTerms, start, end, want, out)
                  : internalQueryST(dbs, andTerms, orTerms, notTerms, start, end, want, out);
    std::sort(out.begin(), out.end());
    if (skip >= out.size())
      out.clear();
    else
      out.erase(out.begin(), out.begin() + long(skip));
    if (out.size() > count) out.resize(count);
    return ok;
  } catch (const std::bad_alloc&) {
    out.clear();
    gLogger.error("Bad allocation");
    throw DatabasePartitionPolicyException(
        "because there was not enough memory.  Please simplify your search or restrict it by time.");
  }
}

int DatabasePartitionPolicy::query(uint32_t bucketId, const st_query_spec& spec, std::vector<st_tsval>& values,
                                   size_t count) {
  values.clear();
  if (_shutdown.load()) return 0;
  ScopedReader r(_tableLock);
  std::shared_ptr<TEDB> b = _table.findById(bucketId);
  if (!b || !b->isOpen()) return 0;
  b->inUse.fetch_add(1);
  b->index().doSyncIfNeeded(engineNow());
  int n = -1;
  st_handle* h = st_open_wflags(b->path().c_str(), 5);
  if (h) {
    values.resize(std::min<size_t>(count, ST_MAX_QUERY_ANSWERS));
    n = values.empty() ? 0 : st_query(h, &spec, values.data(), uint32_t(values.size()), 0);
    st_close(h);
  } else {
    gLogger.error("Database is NOT open");
  }
  b->inUse.fetch_sub(1);
  if (n < 0) {
    values.clear();
    return -1;
  }
  values.resize(std::min(size_t(n), values.size()));
  return int(values.size());
}

long DatabasePartitionPolicy::getTermCount(const Str& term) {
  if (_shutdown.load()) return -1;
  ScopedReader r(_tableLock);
  if (!_started) return -1;
  long total = 0;
  for (const auto& b : _table.all()) {
    if (!b->isOpen()) continue;  // closed cold buckets are not opened to count
    b->inUse.fetch_add(1);
    long n = b->index().getTermCount(term, engineNow());
    b->inUse.fetch_sub(1);
    if (n < 0) return -1;
    total += n;
  }
  return total;
}

void DatabasePartitionPolicy::getBucketCodesForWord(int table, const Str& word,
                                                    std::vector<std::pair<uint32_t, uint32_t>>& out) {
  out.clear();
  if (table < 1 || table > 3) return;
  ScopedReader r(_tableLock);
  for (const auto& b : _table.all()) {
    if (!b->isOpen()) continue;
    TimeInvertedIndex& i = b->index();
    MetaData& t = table == 1 ? i.hosts() : table == 2 ? i.sources() : i.sourceTypes();
    long code = t.getCodeForWord(StrSegment(word));
    if (code >= 0) out.emplace_back(b->id(), uint32_t(code));
  }
}

std::shared_ptr<TEDB> DatabasePartitionPolicy::getOpenedDBById(uint32_t id) {
  ScopedReader r(_tableLock);
  std::shared_ptr<TEDB> b = _table.findById(id);
  return b && b->isOpen() ? b : nullptr;
}

bool DatabasePartitionPolicy::readOne(TEDB& b, const ValueWrapper& value, DataWrapper& out,
                                      std::unique_ptr<ReadContext>* ctx) {
  out.value = value;
  if (!b.data().read(value.address, out.raw, out.meta, out.time, ctx)) {
    gLogger.error("Unable to read from db=%d.", int(value.bucketId));
    return false;
  }
  TimeInvertedIndex& i = b.index();
  if (!i.hosts().getWordForCode(value.host, out.host)) out.host.clear();
  if (!i.sources().getWordForCode(value.source, out.source)) out.source.clear();
  if (!i.sourceTypes().getWordForCode(value.sourceType, out.sourceType)) out.sourceType.clear();
  return true;
}

bool DatabasePartitionPolicy::read(const ValueWrapper& value, DataWrapper& out) {
  ScopedReader r(_tableLock);
  std::shared_ptr<TEDB> listed = _table.findById(value.bucketId);
  std::shared_ptr<TEDB> b = listed ? openForQuery(listed) : nullptr;
  if (!b) {
    gLogger.error("Unable to read from db=%d.", int(value.bucketId));
    return false;
  }
  b->inUse.fetch_add(1);
  bool ok = readOne(*b, value, out, nullptr);
  b->inUse.fetch_sub(1);
  return ok;
}

size_t DatabasePartitionPolicy::read(const std::vector<ValueWrapper>& values, std::vector<DataWrapper>& out,
                                     std::vector<bool>& ok, size_t threads, bool checkSigs) {
  out.assign(values.size(), DataWrapper());
  std::vector<char> done(values.size(), 0);
  {
    ScopedReader r(_tableLock);
    std::map<uint32_t, std::shared_ptr<TEDB>> buckets;
    for (const ValueWrapper& v : values) {
      if (buckets.count(v.bucketId)) continue;
      std::shared_ptr<TEDB> listed = _table.findById(v.bucketId);
      std::shared_ptr<TEDB> b = listed ? openForQuery(listed) : nullptr;
      buckets[v.bucketId] = b;
      if (b) b->inUse.fetch_add(1);
    }
    auto work = [&](size_t i, ReaderThread::Contexts& ctxs) {
      auto it = buckets.find(values[i].bucketId);
      if (it == buckets.end() || !it->second) {
        gLogger.error("Unable to read from db=%d.", int(values[i].bucketId));
        return;
      }
      done[i] = readOne(*it->second, values[i], out[i], &ctxs[values[i].bucketId]);
    };
    // Raw data files are compressed streams that read forward only: taking
    // the events in ascending address order within each bucket lets one
    // context walk its file once, where newest-first order would restart the
    // stream for every event.
    std::vector<size_t> order(values.size());
    std::iota(order.begin(), order.end(), size_t(0));
    std::sort(order.begin(), order.end(), [&](size_t a, size_t b) {
      if (values[a].bucketId != values[b].bucketId) return values[a].bucketId < values[b].bucketId;
      return values[a].address < values[b].address;
    });
    auto inOrder = [&](size_t k, ReaderThread::Contexts& ctxs) { work(order[k], ctxs); };
    size_t n = std::min(threads, values.size());
    if (n <= 1) {
      ReaderThread::Contexts ctxs;
      for (size_t k = 0; k < values.size(); ++k) inOrder(k, ctxs);
    } else {
      std::vector<std::unique_ptr<ReaderThread>> readers;
      size_t per = (values.size() + n - 1) / n;
      for (size_t from = 0; from < values.size(); from += per)
        readers.push_back(std::make_unique<ReaderThread>(inOrder, from, std::min(values.size(), from + per)));
      for (auto& t : readers) t->go();
      for (auto& t : readers) t->join();
    }
    for (auto& [id, b] : buckets)
      if (b) b->inUse.fetch_sub(1);
  }
  ok.assign(done.begin(), done.end());
  if (checkSigs) checkSignatures(out, ok);
  return size_t(std::count(done.begin(), done.end(), 1));
}

void DatabasePartitionPolicy::checkSignatures(std::vector<DataWrapper>& out, const std::vector<bool>& ok) {
  // Blocks of each source named by the events read, by seek address.
  std::map<Str, std::vector<BlockSigner::Block>> blocksBySource;
  std::map<Str, std::pair<Str, size_t>> blockOfCd;  // cd -> (source, index)
  BlockSigner unkeyed(1);
  const BlockSigner& signer = _signer ? *_signer : unkeyed;
  for (size_t i = 0; i < out.size(); ++i) {
    if (!ok[i] || blocksBySource.count(out[i].source) || !_signatureStore) continue;
    auto& blocks = blocksBySource[out[i].source];
    Str term = Str("signedsource::") + out[i].source;
    for (char& c : term) c = char(std::tolower((unsigned char)c));
    std::vector<ValueWrapper> vals;
    _signatureStore->query({term}, {}, {}, INT32_MIN, INT32_MAX, size_t(_signatureStore->_params.maxResults), vals);
    for (const ValueWrapper& v : vals) {
      DataWrapper d;
      if (!_signatureStore->read(v, d)) continue;
      size_t nl = d.raw.find('\n');
      size_t sig = d.meta.rfind("::");
      if (nl == Str::npos || sig == Str::npos) continue;
      BlockSigner::Block b;
      b.source = out[i].source;
      b.addresses = d.raw.substr(0, nl);
      b.hashes = d.raw.substr(nl + 1);
      b.signature = d.meta.substr(sig + 2);
      size_t at = 0;
      for (size_t sp; (sp = b.addresses.find(' ', at)) != Str::npos; at = sp + 1)
        blockOfCd[b.addresses.substr(at, sp - at)] = {b.source, blocks.size()};
      blocks.push_back(std::move(b));
    }
  }
  for (size_t i = 0; i < out.size(); ++i) {
    if (!ok[i]) continue;
    Str cd = out[i].value.cd();
    auto it = blockOfCd.find(cd);
    if (it == blockOfCd.end()) {
      out[i].audit = BlockSigner::auditName(BlockSigner::kCantValidate);
      continue;
    }
    const BlockSigner::Block& block = blocksBySource[it->second.first][it->second.second];
    BlockSigner::Audit a = signer.verify(block, StrSegment(cd), BlockSigner::hash20(StrSegment(out[i].raw)));
    size_t sig = out[i].meta.rfind("::");
    if (a == BlockSigner::kTampered && sig != Str::npos) {
      // An event that brought its own signature is hashed by it.
      BlockSigner::Audit b = signer.verify(block, StrSegment(cd), Str(out[i].meta.substr(sig + 2)));
      if (b == BlockSigner::kValid) a = b;
    }
    out[i].audit = BlockSigner::auditName(a);
  }
}
