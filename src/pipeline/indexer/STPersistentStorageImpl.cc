#include "pipeline/indexer/STPersistentStorageImpl.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <set>

#include "searchthing/ipcver.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("STPersistentStorageImpl");

namespace {

const char* const kSeqTerm = "#";
const uint32_t kGetPage = 16;    // postings asked for at a time
const uint32_t kEnumPage = 512;  // terms asked for at a time
const uint32_t kQueryFirst = 1024;

bool preadFully(int fd, char* buf, size_t n, uint64_t offset) {
  size_t got = 0;
  while (got < n) {
    ssize_t r = ::pread(fd, buf + got, n - got, off_t(offset + got));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    got += size_t(r);
  }
  return true;
}

bool pwriteFully(int fd, const char* buf, size_t n, uint64_t offset) {
  size_t done = 0;
  while (done < n) {
    ssize_t r = ::pwrite(fd, buf + done, n - done, off_t(offset + done));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    done += size_t(r);
  }
  return true;
}

// Leftovers of a merge or a lock from a process that died: the store is ours
// alone (flock), so they can only be stale.
void removeStaleEngineFiles(const Pathname& dir) {
  std::vector<Str> names;
  if (!dir.readDirectory(names)) return;
  for (const Str& n : names)
    if (n.endswith(".lock") || n.endswith(".merge") || n.endswith(".pre-tsidx")) (dir / n).unlink();
}

// The first offset at or after `from` (a multiple of 8) where a record
// marker stands, or `size` if there is none.
uint64_t nextMarker(int fd, uint64_t from, uint64_t size) {
  static const char kMarker[4] = {'V', 'R', 'e', 'c'};
  const size_t kBlock = 64 * 1024;
  Str block;
  for (uint64_t at = from; at < size; at += kBlock) {
    size_t n = size_t(std::min<uint64_t>(kBlock + 3, size - at));
    block.resize(n);
    if (!preadFully(fd, block.data(), n, at)) return size;
    for (size_t i = 0; i + 4 <= n && i < kBlock; i += STPersistentRecord::kAlign)
      if (memcmp(block.data() + i, kMarker, 4) == 0) return at + i;
  }
  return size;
}

bool secondariesMatch(const PSKey& match, const PSKey& key) {
  return (match.secondary1.empty() || match.secondary1 == key.secondary1) &&
         (match.secondary2.empty() || match.secondary2 == key.secondary2) &&
         (match.secondary3.empty() || match.secondary3 == key.secondary3);
}

}  // namespace

Str STPersistentStorageImpl::termFor(char kind, const Str& key) {
  Str t(1, kind);
  t.reserve(key.size() + 8);
  for (char c : key) {
    if (c == '\0') t += "\x01" "0";
    else if (c == '\x01') t += "\x01" "1";
    else if (c == '*') t += "\x01" "2";
    else t += c;
    if (t.size() >= ST_MAX_TERM_LEN) break;
  }
  if (t.size() > ST_MAX_TERM_LEN) t.resize(ST_MAX_TERM_LEN);
  return t;
}

STPersistentStorageImpl::STPersistentStorageImpl(const Pathname& baseDir, const Str& name) {
  _dir = baseDir / "persistentstorage" / (name + ".st");
  _logPath = _dir / "values";
  _indexPath = _dir / "index";
  try {
    if (!_indexPath.mkdir_p()) throw DbException(Str("Error opening database ") + _dir + ": " + strerror(errno));
    openLog();
    removeStaleEngineFiles(_dir);
    removeStaleEngineFiles(_indexPath);
    openIndex();
    replay();
  } catch (...) {
    closeAll();
    throw;
  }
}

STPersistentStorageImpl::~STPersistentStorageImpl() {
  ScopedLock l(_mutex);
  closeAll();
}

void STPersistentStorageImpl::closeAll() {
  if (_st) {
    if (!Locked_syncIndex())
      gLogger.error("Unable to index the last records of %s; the next open indexes them", _dir.c_str());
    st_close(_st);
    _st = nullptr;
  }
  if (_fd >= 0) ::close(_fd);  // releases the flock
  _fd = -1;
}

void STPersistentStorageImpl::openLog() {
  _fd = ::open(_logPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (_fd < 0) throw DbException(Str("Error opening database ") + _logPath + ": " + strerror(errno));
  if (::flock(_fd, LOCK_EX | LOCK_NB) != 0)
    throw DbException(Str("Error opening database ") + _dir + ": it is open elsewhere");
  struct stat st;
  if (::fstat(_fd, &st) != 0) throw DbException(Str("Error opening database ") + _logPath + ": " + strerror(errno));
  if (uint64_t(st.st_size) < STPersistentRecord::kFileHeadSize) {
    // New, or its creation was cut short: nothing of value can be there.
    Str head = STPersistentRecord::fileHead();
    if (!pwriteFully(_fd, head.data(), head.size(), 0) || ::ftruncate(_fd, off_t(head.size())) != 0 ||
        ::fdatasync(_fd) != 0)
      throw DbException(Str("Error opening database ") + _logPath + ": " + strerror(errno));
    _end = head.size();
    return;
  }
  char head[STPersistentRecord::kFileHeadSize];
  if (!preadFully(_fd, head, sizeof head, 0) || !STPersistentRecord::isFileHead(head, sizeof head))
    throw DbException(Str("Error opening database ") + _logPath + ": not a persistent store log");
  _end = uint64_t(st.st_size);
}

void STPersistentStorageImpl::openIndex() {
  _st = st_open_wflags(_indexPath.c_str(), 3);
  if (!_st) throw DbException(Str("Error opening database ") + _indexPath + ": " + strerror(errno));
}

// Finds where the index stops in the log and indexes the records behind it.
// _end holds the log's size on entry and the end of its last whole record on
// return.
void STPersistentStorageImpl::replay() {
  const uint64_t size = _end;
  st_tsval newest[2];
  int n = st_get(_st, kSeqTerm, INT32_MIN, INT32_MAX, newest, 2, 0);
  if (n < 0) throw DbException(Str("Error opening database ") + _indexPath + ": " + strerror(errno));
  uint32_t known = 0;  // newest sequence number the index holds
  uint64_t pos = STPersistentRecord::kFileHeadSize;
  if (n == 1) {
    known = uint32_t(newest[0].time);
    STPersistentRecord rec;
    uint64_t at = uint64_t(newest[0].address) * STPersistentRecord::kAlign;
    if (Locked_load(at, rec) && rec.seq == known)
      pos = at + rec.encodedSize();
    else
      gLogger.warn("The index of %s points at a damaged record; reading the whole log", _dir.c_str());
  }
  uint32_t lastSeq = pos == STPersistentRecord::kFileHeadSize ? 0 : known;
  uint64_t goodEnd = pos;
  bool scanning = false;  // looking for a record after a head that was not one
  char head[STPersistentRecord::kHeadSize];
  while (pos < size) {
    STPersistentRecord rec;
    uint64_t total = 0, used = 0;
    if (size - pos < sizeof head) break;  // a torn head
    if (!preadFully(_fd, head, sizeof head, pos) ||
        STPersistentRecord::sizeFromHead(head, total) != STPersistentRecord::kOk || (scanning && total > size - pos)) {
      pos = nextMarker(_fd, pos + STPersistentRecord::kAlign, size);
      scanning = true;
      continue;
    }
    if (total > size - pos) break;  // a torn write: the last record, cut short
    _buf.resize(total);
    if (!preadFully(_fd, _buf.data(), total, pos) ||
        STPersistentRecord::decode(_buf.data(), total, rec, used) != STPersistentRecord::kOk ||
        rec.seq <= lastSeq || rec.seq > uint32_t(INT32_MAX)) {
      // Damage inside a record whose head holds: step over it whole.
      pos = scanning ? nextMarker(_fd, pos + STPersistentRecord::kAlign, size) : pos + total;
      continue;
    }
    if (goodEnd != pos)
      gLogger.warn("Skipping %llu damaged bytes at offset %llu of %s", (unsigned long long)(pos - goodEnd),
                   (unsigned long long)goodEnd, _logPath.c_str());
    scanning = false;
    lastSeq = rec.seq;
    if (rec.seq > known) {
      size_t bytes = size_t(used);
      _pendingByKey[rec.key.primary] = _pending.size();
      _pending.push_back({std::move(rec), pos});
      _pendingBytes += bytes;
    }
    pos += used;
    goodEnd = pos;
  }
  if (goodEnd < size) {
    gLogger.warn("Cutting the torn end of %s: %llu bytes at offset %llu", _logPath.c_str(),
                 (unsigned long long)(size - goodEnd), (unsigned long long)goodEnd);
    if (::ftruncate(_fd, off_t(goodEnd)) != 0)
      throw DbException(Str("Error opening database ") + _logPath + ": " + strerror(errno));
  }
  _end = goodEnd;
  // Sequence numbers go on above any the index has seen, so that a posting
  // left over from a cut record never matches a new record at its offset.
  _nextSeq = std::max(known, lastSeq) + 1;
  if (!_pending.empty()) {
    gLogger.info("Indexing %zu records of %s that the index did not hold", _pending.size(), _dir.c_str());
    Locked_syncIndex();
  }
}

bool STPersistentStorageImpl::Locked_load(uint64_t offset, STPersistentRecord& out) {
  char head[STPersistentRecord::kHeadSize];
  uint64_t total = 0, used = 0;
  if (offset < STPersistentRecord::kFileHeadSize || offset >= _end || _end - offset < sizeof head) return false;
  if (!preadFully(_fd, head, sizeof head, offset) ||
      STPersistentRecord::sizeFromHead(head, total) != STPersistentRecord::kOk || total > _end - offset)
    return false;
  _buf.resize(total);
  return preadFully(_fd, _buf.data(), total, offset) &&
         STPersistentRecord::decode(_buf.data(), total, out, used) == STPersistentRecord::kOk;
}

bool STPersistentStorageImpl::Locked_append(STPersistentRecord& rec) {
  if (_nextSeq > uint32_t(INT32_MAX)) {
    gLogger.error("Unable to write to %s: it has used up its sequence numbers", _dir.c_str());
    return false;
  }
  uint64_t size = rec.encodedSize();
  if (size > STPersistentRecord::kMaxRecordSize) {
    gLogger.error("Unable to write to %s: a record of %llu bytes is too large", _dir.c_str(), (unsigned long long)size);
    return false;
  }
  if ((_end + size) / STPersistentRecord::kAlign > UINT32_MAX) {
    gLogger.error("Unable to write to %s: its log is full", _dir.c_str());
    return false;
  }
  rec.seq = _nextSeq;
  Str bytes;
  rec.encode(bytes);
  if (!pwriteFully(_fd, bytes.data(), bytes.size(), _end) || ::fdatasync(_fd) != 0) {
    gLogger.error("Unable to write to %s: %m", _logPath.c_str());
    if (::ftruncate(_fd, off_t(_end)) != 0) gLogger.error("Unable to cut %s back: %m", _logPath.c_str());
    return false;
  }
  ++_nextSeq;
  _pendingByKey[rec.key.primary] = _pending.size();
  _pending.push_back({rec, _end});
  _pendingBytes += bytes.size();
  _end += bytes.size();
  if (_pending.size() >= kMaxPendingRecords || _pendingBytes >= kMaxPendingBytes) Locked_syncIndex();
  return true;
}

bool STPersistentStorageImpl::Locked_syncIndex() {
  if (_pending.empty()) return true;
  Str terms;
  for (const Located& p : _pending) {
    const PSKey& k = p.rec.key;
    terms.clear();
    size_t n = 0;
    auto add = [&](char kind, const Str& key) {
      terms += termFor(kind, key);
      terms += '\0';
      ++n;
    };
    add('p', k.primary);
    if (p.rec.kind == STPersistentRecord::kWrite) {
      if (!k.secondary1.empty()) add('1', k.secondary1);
      if (!k.secondary2.empty()) add('2', k.secondary2);
      if (!k.secondary3.empty()) add('3', k.secondary3);
    }
    terms += kSeqTerm;
    terms += '\0';
    ++n;
    if (st_put_terms(_st, terms.data(), n, int32_t(p.rec.seq), uint32_t(p.offset / STPersistentRecord::kAlign), 0,
                     0, 0, 0) < 0) {
      gLogger.error("Unable to index a record of %s: %m", _dir.c_str());
      return false;
    }
  }
  if (st_sync(_st) == -1) {
    gLogger.error("Unable to write an index slice of %s: %m", _dir.c_str());
    return false;
  }
  _pending.clear();
  _pendingByKey.clear();
  _pendingBytes = 0;
  if (st_is_optimized(_st) == 0 && st_optimize(_st) < 0)
    gLogger.debug("No slices of %s merged this time: %m", _dir.c_str());
  return true;
}

int STPersistentStorageImpl::Locked_newest(const Str& primary, Located& out) {
  auto p = _pendingByKey.find(primary);
  if (p != _pendingByKey.end()) {
    out = _pending[p->second];
    return 1;
  }
  Str term = termFor('p', primary);
  st_tsval answers[2 * kGetPage];
  int32_t end = INT32_MAX;
  for (;;) {
    int n = st_get(_st, term.c_str(), INT32_MIN, end, answers, 2 * kGetPage, 0);
    if (n < 0) {
      gLogger.error("Unable to read the index of %s: %m", _dir.c_str());
      return -1;
    }
    for (int i = 0; i < n; ++i) {
      const st_tsval& a = answers[i];
      if (a.source == ST_DELETED_SOURCE) continue;
      uint64_t offset = uint64_t(a.address) * STPersistentRecord::kAlign;
      if (Locked_load(offset, out.rec) && out.rec.seq == uint32_t(a.time) && out.rec.key.primary == primary) {
        out.offset = offset;
        return 1;
      }
    }
    if (uint32_t(n) < kGetPage || answers[n - 1].time == INT32_MIN) return 0;
    end = answers[n - 1].time - 1;
  }
}

bool STPersistentStorageImpl::Locked_termsWithPrefix(const Str& prefix, std::vector<Str>& out) {
  std::unique_ptr<st_enum_answer[]> answers(new st_enum_answer[2 * kEnumPage]);
  int n = st_enum(_st, prefix.c_str(), 1, answers.get(), 2 * kEnumPage);
  if (n < 0) {
    gLogger.error("Unable to list the index of %s: %m", _dir.c_str());
    return false;
  }
  if (uint32_t(n) < kEnumPage) {
    for (int i = 0; i < n; ++i) out.emplace_back(answers[size_t(i)].term);
    return true;
  }
  // Perhaps cut short: the answers are the first terms in order, so those
  // whose next byte lies below the last answer's are complete; the rest are
  // asked for by each longer prefix from that byte on.
  const Str last(answers[size_t(n) - 1].term);
  unsigned char from = static_cast<unsigned char>(last[prefix.size()]);
  for (int i = 0; i < n; ++i) {
    Str t(answers[size_t(i)].term);
    if (t.size() == prefix.size() || static_cast<unsigned char>(t[prefix.size()]) < from) out.push_back(std::move(t));
  }
  answers.reset();  // before going deeper
  for (unsigned c = from; c <= 255; ++c)
    if (!Locked_termsWithPrefix(prefix + char(c), out)) return false;
  return true;
}

bool STPersistentStorageImpl::Locked_newestUnderTerm(const Str& term, std::map<Str, Located>& found) {
  const bool oneKey = term.size() < ST_MAX_TERM_LEN;
  st_tsval answers[2 * kGetPage];
  int32_t end = INT32_MAX;
  Located cur;
  for (;;) {
    int n = st_get(_st, term.c_str(), INT32_MIN, end, answers, 2 * kGetPage, 0);
    if (n < 0) {
      gLogger.error("Unable to read the index of %s: %m", _dir.c_str());
      return false;
    }
    for (int i = 0; i < n; ++i) {
      const st_tsval& a = answers[i];
      if (a.source == ST_DELETED_SOURCE) continue;
      cur.offset = uint64_t(a.address) * STPersistentRecord::kAlign;
      if (!Locked_load(cur.offset, cur.rec) || cur.rec.seq != uint32_t(a.time) ||
          termFor('p', cur.rec.key.primary) != term)
        continue;
      found.emplace(cur.rec.key.primary, cur);  // newest first: an earlier find stays
      if (oneKey) return true;
    }
    if (uint32_t(n) < kGetPage || answers[n - 1].time == INT32_MIN) return true;
    end = answers[n - 1].time - 1;
  }
}

template <typename Keep>
bool STPersistentStorageImpl::Locked_enumeratePrimaries(const Str& prefix, Keep keep,
                                                        std::vector<std::pair<Str, Str>>& out) {
  std::vector<Str> terms;
  if (!Locked_termsWithPrefix(prefix, terms)) return false;
  std::map<Str, Located> found;
  for (const Str& t : terms)
    if (!Locked_newestUnderTerm(t, found)) return false;
  for (const Located& p : _pending) found.insert_or_assign(p.rec.key.primary, p);  // in order: newest stays
  for (auto& kv : found)
    if (kv.second.rec.kind == STPersistentRecord::kWrite && keep(kv.first))
      out.emplace_back(kv.first, std::move(kv.second.rec.value));
  return true;
}

bool STPersistentStorageImpl::write(const PSKey& key, const Str& value) {
  ScopedLock l(_mutex);
  STPersistentRecord rec;
  rec.kind = STPersistentRecord::kWrite;
  rec.key = key;
  rec.value = value;
  return Locked_append(rec);
}

bool STPersistentStorageImpl::read(const Str& primary, Str& out) {
  ScopedLock l(_mutex);
  Located found;
  if (Locked_newest(primary, found) != 1 || found.rec.kind != STPersistentRecord::kWrite) return false;
  out = std::move(found.rec.value);
  return true;
}

bool STPersistentStorageImpl::remove(const Str& primary) {
  ScopedLock l(_mutex);
  Located found;
  int rc = Locked_newest(primary, found);
  if (rc < 0) return false;
  if (rc == 0 || found.rec.kind == STPersistentRecord::kRemove) return true;
  STPersistentRecord rec;
  rec.kind = STPersistentRecord::kRemove;
  rec.key.primary = primary;
  return Locked_append(rec);
}

bool STPersistentStorageImpl::enumerate(const Str& start, const Str& end, std::vector<std::pair<Str, Str>>& out) {
  if (!(start < end)) return true;
  // Every key of the range begins with what start and end have in common.
  size_t common = 0;
  while (common < start.size() && common < end.size() && start[common] == end[common]) ++common;
  ScopedLock l(_mutex);
  return Locked_enumeratePrimaries(termFor('p', start.substr(0, common)),
                                   [&](const Str& k) { return start <= k && k < end; }, out);
}

bool STPersistentStorageImpl::enumerate(const PSKey& match, std::vector<std::pair<Str, Str>>& out) {
  ScopedLock l(_mutex);
  std::vector<Str> terms;
  if (!match.secondary1.empty()) terms.push_back(termFor('1', match.secondary1));
  if (!match.secondary2.empty()) terms.push_back(termFor('2', match.secondary2));
  if (!match.secondary3.empty()) terms.push_back(termFor('3', match.secondary3));
  if (terms.empty()) return Locked_enumeratePrimaries("p", [](const Str&) { return true; }, out);

  std::vector<char*> strs;
  for (Str& t : terms) strs.push_back(t.data());
  st_query_spec q;
  st_query_init(&q);
  q.start = INT32_MIN;
  q.end = INT32_MAX;
  q.and_keywords.strs = strs.data();
  q.and_keywords.count = uint32_t(strs.size());
  std::vector<st_tsval> answers;
  int n;
  for (uint32_t cap = kQueryFirst;; cap *= 2) {
    answers.resize(cap);
    n = st_query(_st, &q, answers.data(), cap, 0);
    if (n < 0) {
      gLogger.error("Unable to query the index of %s: %m", _dir.c_str());
      return false;
    }
    if (uint32_t(n) < cap || cap >= ST_MAX_QUERY_ANSWERS / 2) break;
  }
  // Each answer is a record that carried the secondaries when written; it
  // counts if it is still its key's newest.
  std::map<Str, Str> live;
  std::set<Str> decided;
  STPersistentRecord rec;
  Located newest;
  for (int i = 0; i < n; ++i) {
    const st_tsval& a = answers[size_t(i)];
    if (a.source == ST_DELETED_SOURCE) continue;
    if (!Locked_load(uint64_t(a.address) * STPersistentRecord::kAlign, rec) || rec.seq != uint32_t(a.time) ||
        rec.kind != STPersistentRecord::kWrite || !secondariesMatch(match, rec.key) ||
        decided.count(rec.key.primary) || _pendingByKey.count(rec.key.primary))
      continue;
    int rc = Locked_newest(rec.key.primary, newest);
    if (rc < 0) return false;
    decided.insert(rec.key.primary);
    if (rc == 1 && newest.rec.seq == rec.seq) live[rec.key.primary] = rec.value;
  }
  for (const auto& kv : _pendingByKey) {
    const STPersistentRecord& p = _pending[kv.second].rec;
    if (p.kind == STPersistentRecord::kWrite && secondariesMatch(match, p.key)) live[kv.first] = p.value;
  }
  for (auto& kv : live) out.emplace_back(kv.first, std::move(kv.second));
  return true;
}

bool STPersistentStorageImpl::sync() {
  ScopedLock l(_mutex);
  return Locked_syncIndex();
}
