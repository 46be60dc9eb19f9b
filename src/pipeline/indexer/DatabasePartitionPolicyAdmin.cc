// Deleting by keyword, text export and import, and the checks of the bucket
// lists against the directories.
#include <cstdio>
#include <cstring>
#include <set>

#include "pipeline/indexer/BlockSigner.h"
#include "pipeline/indexer/DatabasePartitionPolicy.h"
#include "pipeline/indexer/ScopedPolicyLock.h"
#include "searchthing/ipcver.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("DatabasePartitionPolicy");

namespace {

const char* const kExportHeader =
    ">>>>>>>>>>>>>>> VELMOR EXPORT <<<<<<<<<<<<<<< FORMAT : host,source,sourcetype,eventtype,rawdata\n";
const char* const kEventMarker = ">>>>>>>>>>>>>>> VELMOR EVENT <<<<<<<<<<<<<<< ";

struct DeleteContext {
  std::vector<st_tsval> deleted;
};

void onDelete(void* ctx, st_tsval v) { static_cast<DeleteContext*>(ctx)->deleted.push_back(v); }

}  // namespace

size_t DatabasePartitionPolicy::deleteByKeyword(const Str& term, int32_t start, int32_t end, bool allowed) {
  if (!allowed) throw DatabasePartitionPolicyException("insufficient privileges to perform this operation");
  ScopedPolicyLock dirs(_params);
  ScopedWriter w(_tableLock);
  ScopedRecursiveLock l(_mutex);
  Str lowered = term;
  for (char& c : lowered) c = char(std::tolower((unsigned char)c));
  size_t total = 0;
  for (const auto& b : _table.all()) {
    gLogger.info("About to do delete on %s with %s", b->path().c_str(), lowered.c_str());
    bool wasOpen = b->isOpen();
    if (wasOpen) forceEngineSync(*b);
    st_handle* h = st_open(b->path().c_str());
    if (!h) {
      gLogger.error("Unable to open %s to delete from it", b->path().c_str());
      continue;
    }
    DeleteContext ctx;
    if (st_delete(h, lowered.c_str(), start, end, &ctx, onDelete, nullptr) < 0)
      gLogger.error("Delete failed on %s", b->path().c_str());
    st_close(h);
    // Lower the counts of the words of every deleted event, in the bucket's
    // tables and the index's (decrementMetdataByCode).
    if (!wasOpen) b->open();
    TimeInvertedIndex& i = b->index();
    MetaData* bucket[4] = {nullptr, &i.hosts(), &i.sources(), &i.sourceTypes()};
    for (const st_tsval& v : ctx.deleted) {
      uint32_t codes[4] = {0, v.host, v.source, v.source_type};
      for (int t = 1; t < 4; ++t) {
        Str word;
        if (!bucket[t]->getWordForCode(codes[t], word)) continue;
        bucket[t]->decrement(StrSegment(word), 1);
        _global[t]->decrement(StrSegment(word), 1);
      }
    }
    for (int t = 1; t < 4; ++t) bucket[t]->sync();
    if (!wasOpen) b->close();
    total += ctx.deleted.size();
  }
  for (auto& t : _global) t->sync();
  return total;
}

long DatabasePartitionPolicy::exportByKeyword(const std::vector<Str>& andTerms, int32_t start, int32_t end,
                                              const Pathname& file) {
  std::vector<ValueWrapper> values;
  if (!query(andTerms, {}, {}, start, end, ST_MAX_QUERY_ANSWERS, values)) return -1;
  FILE* f = std::fopen(file.c_str(), "w");
  if (!f) {
    gLogger.error("Unable to open %s: %s", file.c_str(), strerror(errno));
    return -1;
  }
  bool ok = std::fputs(kExportHeader, f) >= 0;
  long n = 0;
  for (const ValueWrapper& v : values) {
    DataWrapper d;
    if (!read(v, d)) continue;
    ok = std::fprintf(f, "%s%ld\n", kEventMarker, long(d.time)) > 0 && ok;
    ok = std::fprintf(f, "%s,%s,%s,%s,%s\n", d.host.c_str(), d.source.c_str(), d.sourceType.c_str(), "",
                      d.raw.c_str()) > 0 &&
         ok;
    ++n;
  }
  ok = std::fclose(f) == 0 && ok;
  return ok ? n : -1;
}

long DatabasePartitionPolicy::importExportFile(const Pathname& file) {
  FILE* f = std::fopen(file.c_str(), "r");
  if (!f) return -1;
  Str text;
  char buf[65536];
  for (size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;) text.append(buf, n);
  std::fclose(f);
  if (!text.startswith(kExportHeader)) {
    gLogger.error("%s is not an export file", file.c_str());
    return -1;
  }
  const std::string marker(kEventMarker);
  long written = 0;
  size_t at = std::strlen(kExportHeader);
  while (at < text.size()) {
    if (text.compare(at, marker.size(), marker) != 0) return -1;
    size_t eol = text.find('\n', at);
    if (eol == Str::npos) return -1;
    Str time = text.substr(at + marker.size(), eol - at - marker.size());
    size_t next = text.find("\n" + marker, eol);
    size_t bodyEnd = next == Str::npos ? text.size() : next + 1;
    // The body is "host,source,sourcetype,eventtype,raw\n"; raw may hold
    // commas and newlines.
    Str body = text.substr(eol + 1, bodyEnd - eol - 1);
    if (!body.empty() && body.back() == '\n') body.pop_back();
    size_t c1 = body.find(','), c2 = c1 == Str::npos ? c1 : body.find(',', c1 + 1);
    size_t c3 = c2 == Str::npos ? c2 : body.find(',', c2 + 1);
    size_t c4 = c3 == Str::npos ? c3 : body.find(',', c3 + 1);
    if (c4 == Str::npos) return -1;
    Str host = body.substr(0, c1), source = body.substr(c1 + 1, c2 - c1 - 1);
    Str sourceType = body.substr(c2 + 1, c3 - c2 - 1), raw = body.substr(c4 + 1);
    WritableEvent ev;
    ev.raw = StrSegment(raw);
    ev.time = StrSegment(time);
    ev.host = StrSegment(host);
    ev.source = StrSegment(source);
    ev.sourceType = StrSegment(sourceType);
    if (write(ev)) ++written;
    at = bodyEnd;
  }
  return written;
}

bool DatabasePartitionPolicy::validate() {
  ScopedReader r(_tableLock);
  bool ok = true;
  std::set<Str> listed;
  for (const auto& b : _table.all()) {
    listed.insert(b->path());
    if (!b->path().isDir()) {
      gLogger.error("Bucket %s is listed but its directory is gone", b->path().c_str());
      ok = false;
    }
  }
  for (const Pathname* dir : {&_params.homePath, &_params.coldPath, &_params.thawedPath}) {
    std::vector<Str> names;
    dir->readDirectory(names);
    for (const Str& n : names) {
      if (!(n.startswith("db_") || n == "db-hot") || !(*dir / n).isDir()) continue;
      if (!listed.count(*dir / n)) {
        gLogger.error("Bucket directory %s is not listed", (*dir / n).c_str());
        ok = false;
      }
    }
  }
  return ok;
}

bool DatabasePartitionPolicy::lockedValidateConsistency() { return validate(); }

void DatabasePartitionPolicy::rescanDirectories() {
  ScopedPolicyLock dirs(_params);
  ScopedWriter w(_tableLock);
  ScopedRecursiveLock l(_mutex);
  std::set<Str> listed;
  for (const auto& b : _table.all()) listed.insert(b->path());
  for (auto [dir, state] : {std::pair{&_params.coldPath, TEDB::kCold}, std::pair{&_params.thawedPath, TEDB::kThawed},
                            std::pair{&_params.homePath, TEDB::kWarm}}) {
    std::vector<Str> names;
    dir->readDirectory(names);
    for (const Str& n : names) {
      Pathname p = *dir / n;
      if (!n.startswith("db_") || !p.isDir() || listed.count(p)) continue;
      try {
        openBucketDir(p, state, state != TEDB::kCold);
      } catch (const std::exception& e) {
        gLogger.error(e);
      }
    }
  }
  rebuildMetaData();
  writeManifest();
}

void DatabasePartitionPolicy::setPolicy(const PolicyParameters& params) {
  ScopedWriter w(_tableLock);
  ScopedRecursiveLock l(_mutex);
  PolicyParameters p = params;
  p.name = _params.name;
  p.homePath = _params.homePath;
  p.coldPath = _params.coldPath;
  p.thawedPath = _params.thawedPath;
  _params = p;
  if (_params.blockSignSize > 0 && !_signer) _signer = std::make_unique<BlockSigner>(size_t(_params.blockSignSize));
}
