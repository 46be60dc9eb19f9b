#include "pipeline/indexer/IPartitionPolicy.h"

#include <errno.h>
#include <signal.h>

#include <unistd.h>

#include "libbundle/PropertiesMap.h"
#include "pipeline/indexer/GenericCleaner.h"
#include "pipeline/indexer/PolicyParameters.h"
#include "searchthing/lock.h"
#include "util/Logger.h"

static Logger gLogger("IPartitionPolicy");

bool IPartitionPolicy::lockDir(const Pathname& path) {
  for (int waited = 0;; ++waited) {
    int r = st_lock(path.c_str());
    if (r == 0) return true;
    if (r < 0) {
      gLogger.error("Unable to lock %s: %m", path.c_str());
      return false;
    }
    // A lock whose taker has died (a process killed while it held it) is
    // broken; one whose taker runs, or that names none, is waited for.
    long owner = st_lock_owner(path.c_str());
    if (owner > 0 && kill(pid_t(owner), 0) != 0 && errno == ESRCH && st_lock_owner(path.c_str()) == owner) {
      gLogger.warn("Removing the lock %s.lock of process %ld, which is gone", path.c_str(), owner);
      st_unlock(path.c_str());
      continue;
    }
    if (waited == 10 || (waited > 0 && waited % 60 == 0))
      gLogger.warn("%s is locked by %s; still waiting after %d s (remove %s.lock if no process holds it)",
                   path.c_str(), owner > 0 ? Str::fromFormat("process %ld", owner).c_str() : "another process",
                   waited, path.c_str());
    else
      gLogger.debug("%s is locked by another process, waiting", path.c_str());
    sleep(1);
  }
}

bool IPartitionPolicy::unlockDir(const Pathname& path) {
  for (int tries = 0; tries < 10; ++tries) {
    int r = st_unlock(path.c_str());
    if (r == 0) return true;
    if (r < 0) break;
  }
  gLogger.error("Unable to unlock %s: %m", path.c_str());
  return false;
}

bool IPartitionPolicy::query(QueryHint& hint, const std::vector<Str>& andTerms, const std::vector<Str>& orTerms,
                             const std::vector<Str>& notTerms, int32_t start, int32_t end, size_t count,
                             std::vector<ValueWrapper>& out) {
  out.clear();
  if (hint.exhausted || count == 0) return true;
  const int32_t top = hint.end(end);
  if (top < start) {
    hint.exhausted = true;
    return true;
  }
  // The values at the hint's time that were handed out come first in the
  // answer: ask for that many more and drop them.
  const size_t extra = hint.started ? hint.atTime.size() : 0;
  std::vector<ValueWrapper> got;
  if (!query(andTerms, orTerms, notTerms, start, top, count + extra, got)) return false;
  const bool complete = got.size() < count + extra;
  for (const ValueWrapper& v : got) {
    if (out.size() == count) break;
    if (!hint.seen(v)) out.push_back(v);
  }
  hint.advance(out, complete ? count + 1 : count);
  return true;
}

// --- neutral defaults for test doubles -------------------------------------------------

size_t IPartitionPolicy::read(const std::vector<ValueWrapper>& values, std::vector<DataWrapper>& out,
                              std::vector<bool>& ok, size_t, bool) {
  out.assign(values.size(), DataWrapper());
  ok.assign(values.size(), false);
  size_t n = 0;
  for (size_t i = 0; i < values.size(); ++i)
    if (read(values[i], out[i])) {
      ok[i] = true;
      ++n;
    }
  return n;
}

const Str& IPartitionPolicy::getName() const {
  static const Str kNone;
  return kNone;
}

const PolicyParameters& IPartitionPolicy::getPolicyParameters() const {
  static const PolicyParameters kNone;
  return kNone;
}

long IPartitionPolicy::getTermCount(const Str&) { return -1; }
bool IPartitionPolicy::lockedValidateConsistency() { return true; }

const GenericCleaner* IPartitionPolicy::cleanerByName(const Str&) {
  static const GenericCleaner* kDefault = new GenericCleaner(GenericCleaner::defaultStanza());
  return kDefault;
}

std::vector<WordPositionData> IPartitionPolicy::getHosts() { return {}; }
std::vector<WordPositionData> IPartitionPolicy::getSources() { return {}; }
std::vector<WordPositionData> IPartitionPolicy::getSourceTypes() { return {}; }
uint64_t IPartitionPolicy::getTotalEventCount() { return 0; }
bool IPartitionPolicy::getMinAndMaxTimes(int64_t&, int64_t&) { return false; }
void IPartitionPolicy::getBucketCodesForWord(int, const Str&, std::vector<std::pair<uint32_t, uint32_t>>& out) {
  out.clear();
}
bool IPartitionPolicy::getGlobalHostWordForCode(uint32_t, uint32_t, Str&) { return false; }
bool IPartitionPolicy::getGlobalSourceWordForCode(uint32_t, uint32_t, Str&) { return false; }
bool IPartitionPolicy::getGlobalSourceTypeWordForCode(uint32_t, uint32_t, Str&) { return false; }
std::vector<std::pair<Str, uint64_t>> IPartitionPolicy::getMatchingWordsAndCountsForPrefix(const Str&) { return {}; }
bool IPartitionPolicy::rollHotDb() { return false; }
void IPartitionPolicy::sync(bool) {}
void IPartitionPolicy::rescanDirectories() {}
void IPartitionPolicy::optimizeHotDb() {}
bool IPartitionPolicy::validate() { return true; }
size_t IPartitionPolicy::deleteByKeyword(const Str&, int32_t, int32_t, bool) { return 0; }
long IPartitionPolicy::exportByKeyword(const std::vector<Str>&, int32_t, int32_t, const Pathname&) { return -1; }
bool IPartitionPolicy::isReadOnly() const { return false; }
int64_t IPartitionPolicy::getCreationTime() const { return 0; }

void IPartitionPolicy::getBucketSpans(int32_t start, int32_t end, std::vector<BucketSpan>& out) {
  out.clear();
  if (start > end) return;
  BucketSpan whole;
  whole.earliest = start;
  whole.latest = end;
  out.push_back(whole);
}

bool IPartitionPolicy::queryBucket(uint32_t bucketId, const std::vector<Str>& andTerms, const std::vector<Str>& orTerms,
                                   const std::vector<Str>& notTerms, int32_t start, int32_t end, size_t count,
                                   std::vector<ValueWrapper>& out, size_t* answered) {
  out.clear();
  if (answered) *answered = 0;
  if (bucketId != 0) return true;
  bool ok = query(andTerms, orTerms, notTerms, start, end, count, out);
  if (answered) *answered = out.size();
  return ok;
}
