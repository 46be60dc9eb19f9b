// Warm to cold, cold to frozen, the cold open queue, bucket sizes and the
// external commands (move and archive scripts) these run.
//
// Every function here but cleanupColdOpenList expects the caller to hold the
// directory locks, the table's writer lock and the policy mutex (or, for
// loadColdDB, the reader lock and the mutex).
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>

#include "pipeline/indexer/DatabasePartitionPolicy.h"
#include "util/ExternalProcessGroup.h"
#include "util/Logger.h"

static Logger gLogger("DatabasePartitionPolicy");

namespace {

const char* const kSizeManifest = ".sizeManifest3.2";
const size_t kMaxFreezeKeys = 100000;

// Runs "/bin/sh -c command" (through the process runner when it is up, a
// direct spawn otherwise) and waits. True on exit status 0; `how`
// describes the end.
bool runShell(const Str& command, Str& how) {
  ExternalProcessGroup group;
  ExternalProcessStatus st = group.startOrSpawn({Str("/bin/sh"), Str("-c"), command}).getStatus(true);
  how = st.describeStatus();
  return st.statusOk();
}

}  // namespace

uint64_t DatabasePartitionPolicy::getDirectorySize(const Pathname& dir) { return dir.treeSize(); }

void DatabasePartitionPolicy::rmdashf(const Pathname& dir) {
  if (!dir.removeRecursive() && dir.exists())
    gLogger.error("Unable to delete file %s, this will cause database integrity problems. Please report this bug.",
                  dir.c_str());
}

bool DatabasePartitionPolicy::mvWithExceptions(const Pathname& from, const Pathname& to, const Str& script) {
  if (!script.empty()) {
    gLogger.info("Executing mvScript: %s %s %s", script.c_str(), from.c_str(), to.c_str());
    Str how;
    bool ok = runShell(script + " " + from.shellQuoted() + " " + to.shellQuoted(), how);
    if (ok && to.exists()) {
      if (from.exists()) rmdashf(from);
      return true;
    }
    gLogger.warn("mvScript %s did not move %s (%s); falling back to mv", script.c_str(), from.c_str(), how.c_str());
    // What a failed script left at the target is not trusted.
    if (to.exists() && from.exists()) rmdashf(to);
  }
  if (from.renameTo(to)) return true;
  int err = errno;
  if (from.copyToRecursive(to) && from.removeRecursive()) {
    gLogger.warn("mv failed but we successfully failed over to cp -R/rm");
    return true;
  }
  gLogger.error("Unable to move %s to %s: %s", from.c_str(), to.c_str(), strerror(err));
  return false;
}

void DatabasePartitionPolicy::chillExtraWarmDbs() {
  while (long(_table.warm.size()) > _params.maxWarmDBCount) {
    std::shared_ptr<TEDB> oldest = _table.warm.front();
    gLogger.info("Chilling a warm db %s", oldest->path().c_str());
    if (!chillWarmDb(oldest)) break;
  }
}

bool DatabasePartitionPolicy::chillWarmDb(std::shared_ptr<TEDB> b) {
  Pathname from = b->path();
  Pathname to = _params.coldPath / from.toLeaf();
  b->close();
  _table.remove(b.get());
  if (!mvWithExceptions(from, to, _params.warmToColdScript)) {
    // Still warm where it was.
    b->open();
    _table.warm.push_front(b);
    return false;
  }
  b->setPath(to);
  b->setState(TEDB::kCold);
  _table.cold.push_back(b);
  writeManifest();
  gLogger.info("DB moved from warm to cold -> %s", to.c_str());
  return true;
}

void DatabasePartitionPolicy::readSizeManifest(std::map<Str, uint64_t>& out) {
  FILE* f = std::fopen((_params.homePath / kSizeManifest).c_str(), "r");
  if (!f) return;
  char line[8192];
  while (std::fgets(line, sizeof line, f)) {
    unsigned long long size = 0;
    int used = 0;
    if (std::sscanf(line, "%llu %n", &size, &used) < 1 || used <= 0) continue;
    Str path = Str(line + used).trim();
    if (!path.empty()) out[path] = size;
  }
  std::fclose(f);
}

void DatabasePartitionPolicy::writeSizeManifest(const std::map<Str, uint64_t>& sizes) {
  Pathname path = _params.homePath / kSizeManifest;
  Pathname temp(path + ".temp");
  FILE* f = std::fopen(temp.c_str(), "w");
  if (!f) return;
  bool ok = true;
  for (const auto& [p, size] : sizes) ok = std::fprintf(f, "%llu %s\n", (unsigned long long)size, p.c_str()) > 0 && ok;
  ok = std::fclose(f) == 0 && ok;
  if (!ok || !temp.renameTo(path)) temp.unlink();
}

uint64_t DatabasePartitionPolicy::bucketSize(const TEDB& b, std::map<Str, uint64_t>& cache) {
  auto it = cache.find(b.path());
  if (it != cache.end()) return it->second;
  uint64_t size = getDirectorySize(b.path());
  cache[b.path()] = size;
  return size;
}

void DatabasePartitionPolicy::freezeDBs(int64_t now) {
  std::map<Str, uint64_t> cached, sizes;
  readSizeManifest(cached);
  uint64_t total = 0;
  std::multimap<int64_t, std::shared_ptr<TEDB>> byEnd;
  std::vector<std::shared_ptr<TEDB>> candidates(_table.warm.begin(), _table.warm.end());
  candidates.insert(candidates.end(), _table.cold.begin(), _table.cold.end());
  for (const auto& b : candidates) {
    uint64_t size = bucketSize(*b, cached);
    sizes[b->path()] = size;
    gLogger.debug("%s is %lu bytes", b->path().c_str(), (unsigned long)size);
    total += size;
    byEnd.emplace(b->endTime(), b);
  }
  writeSizeManifest(sizes);

  std::vector<std::shared_ptr<TEDB>> freezeSet;
  const uint64_t maxTotal = uint64_t(_params.maxTotalDataSizeMB) << 20;
  for (auto& [end, b] : byEnd) {
    bool byAge = _params.frozenTimePeriodInSecs > 0 && end < now - _params.frozenTimePeriodInSecs;
    bool bySize = _params.maxTotalDataSizeMB > 0 && total > maxTotal;
    if (!byAge && !bySize) break;
    gLogger.info("Adding to freeze set : %s", b->path().c_str());
    uint64_t size = sizes[b->path()];
    if (b->state() == TEDB::kWarm && !chillWarmDb(b)) continue;
    total -= size;
    freezeSet.push_back(b);
  }
  long frozen = 0;
  for (const auto& b : freezeSet) {
    gLogger.info("About to freeze a cold db %s", b->path().c_str());
    if (freezeColdDb(b)) ++frozen;
  }
  gLogger.info("Freeze finished froze %ld dbs", frozen);
}

bool DatabasePartitionPolicy::decrementMetadataFromDbToBeFrozen(TEDB& b, bool add) {
  uint64_t sums[4] = {0, 0, 0, 0};
  for (int i = 1; i < 4; ++i) {
    std::vector<WordPositionData> rows = bucketRows(b, i);
    if (rows.size() > kMaxFreezeKeys) rows.resize(kMaxFreezeKeys);
    for (const auto& r : rows) {
      sums[i] += r.count;
      if (r.count == 0) continue;
      if (add)
        _global[i]->addWordPositionData(r);
      else
        _global[i]->decrement(StrSegment(r.word), r.count);
    }
  }
  if (sums[1] != sums[2] || sums[2] != sums[3]) {
    gLogger.warn("Mismatched counts from metatables : host %lu source %lu sourcetype %lu", (unsigned long)sums[1],
                 (unsigned long)sums[2], (unsigned long)sums[3]);
    return false;
  }
  return true;
}

bool DatabasePartitionPolicy::fireScript(const Str& script, const Pathname& dir) {
  Str command = script;
  size_t at = command.find("$DIR");
  if (at != Str::npos)
    command.replace(at, 4, dir.shellQuoted());
  else
    command += " " + dir.shellQuoted();
  Str how;
  if (runShell(command, how)) return true;
  gLogger.error("coldToFrozenScript exited with non-zero status: %s", how.c_str());
  return false;
}

bool DatabasePartitionPolicy::freezeColdDb(std::shared_ptr<TEDB> b) {
  decrementMetadataFromDbToBeFrozen(*b, false);
  b->close();
  bool ok = true;
  if (_params.coldToFrozenScript.empty())
    gLogger.info("No coldToFrozenScript executed because one was not specified in the config.");
  else
    ok = fireScript(_params.coldToFrozenScript, b->path());
  if (!ok) {
    gLogger.warn("Attempting to recover from failed archive!");
    if (!b->path().isDir()) {
      // The script took the bucket away and still failed: its counts can't
      // be read back, and whatever it left elsewhere is out of our hands.
      // The bucket leaves the lists, so that they match the directories.
      gLogger.fatal("Database is in an inconsistent state. All operations from here on are undefined");
      _table.remove(b.get());
      for (auto& t : _global) t->sync();
      writeManifest();
      return false;
    }
    decrementMetadataFromDbToBeFrozen(*b, true);
    for (auto& t : _global) t->sync();
    return false;
  }
  _table.remove(b.get());
  rmdashf(b->path());
  for (auto& t : _global) t->sync();
  writeManifest();
  gLogger.info("DB moved from cold to frozen %s", b->path().c_str());
  return true;
}

std::shared_ptr<TEDB> DatabasePartitionPolicy::loadColdDB(const std::shared_ptr<TEDB>& b) {
  ScopedRecursiveLock l(_mutex);
  if (!b->isOpen()) {
    gLogger.info("Loading cold db %s", b->path().c_str());
    b->open();
    _table.coldOpen.push_back(b);
  }
  return b;
}

void DatabasePartitionPolicy::cleanupColdOpenList() {
  ScopedWriter w(_tableLock);
  ScopedRecursiveLock l(_mutex);
  while (long(_table.coldOpen.size()) > _params.maxColdDBCount) {
    std::shared_ptr<TEDB> b = _table.coldOpen.front();
    if (b->inUse.load() > 0) break;
    gLogger.info("Chilling a cold open db %s", b->path().c_str());
    b->close();
    _table.coldOpen.pop_front();
  }
}
