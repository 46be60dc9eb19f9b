#include "pipeline/indexer/search/UnifiedSearchDispatchThreadManager.h"

#include <openssl/sha.h>

#include <vector>

#include "loaderinfo/LoaderInfo.h"
#include "pipeline/indexer/search/UnifiedSearchDispatchThreadInfo.h"
#include "search/SearchCancel.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/Exceptions.h"
#include "util/Logger.h"
#include "util/Pathname.h"
#include "util/ReadWriteLock.h"

static Logger gLogger("UnifiedSearchDispatchThread");

namespace {

Str renderTime(const Timeval& t) {
  return Str::fromFormat("%lld.%06d", static_cast<long long>(t.sec()), static_cast<int>(t.usec()));
}

bool isPlainName(const Str& id) {
  return !id.empty() && id != "." && id != ".." && id.find('/') == Str::npos && id.find('\0') == Str::npos;
}

}  // namespace

UnifiedSearchDispatchThreadManager* UnifiedSearchDispatchThreadManager::instance() {
  // Never destroyed: threads may still call in while the process exits.
  static UnifiedSearchDispatchThreadManager* manager = new UnifiedSearchDispatchThreadManager();
  return manager;
}

Str UnifiedSearchDispatchThreadManager::makeKey(const Str& search, const SearchResultsInfo& info) {
  // The user's length first: no user name can pass for a range or a search.
  return Str::fromFormat("user=%zu:", info.userContext.size()) + info.userContext + "\nearliest=" + renderTime(info.earliestTime) +
         "\nlatest=" + renderTime(info.latestTime) + "\nsearch=" + search;
}

Str UnifiedSearchDispatchThreadManager::keyDigest(const Str& key) {
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(key.data()), key.size(), digest);
  static const char hex[] = "0123456789abcdef";
  Str out;
  out.reserve(2 * SHA256_DIGEST_LENGTH);
  for (unsigned char c : digest) {
    out += hex[c >> 4];
    out += hex[c & 0xf];
  }
  return out;
}

bool UnifiedSearchDispatchThreadManager::getResults(const Str& search, const Str& id, unsigned long start,
                                                    unsigned long count, SearchResults& out, Timeval& earliest,
                                                    Timeval& latest, SearchResultsInfo& info) {
  if (!isPlainName(id)) throw SearchProcessorException(Str::fromFormat("Invalid search id '%s'", id.c_str()));
  cleanup();
  const Str key = makeKey(search, info);
  std::shared_ptr<UnifiedSearchDispatchThreadInfo> run;
  ScopedReader reader;
  {
    ScopedLock l(_mutex);
    while (_removing.count(key)) _removed.wait(_mutex);
    auto it = _infos.find(key);
    if (it == _infos.end()) {
      const Pathname dir(LoaderInfo::getInstance().getHomePath() + "/var/run/velmor/" + id);
      if (!dir.mkdir_p())
        throw SearchProcessorException(Str::fromFormat("Unable to create directory '%s'", dir.c_str()));
      run = std::make_shared<UnifiedSearchDispatchThreadInfo>(key, search,
                                                              dir / ("unified-search-" + keyDigest(key) + ".csv"), info);
      auto lock = std::make_shared<ReadWriteLock>();
      SearchCancel::instance()->start(run->cancelId());
      try {
        run->startThread();
      } catch (...) {
        SearchCancel::instance()->stop(run->cancelId());
        throw;
      }
      _infos[key] = run;
      _locks[key] = lock;
      reader.setup(*lock);
    } else {
      if (gLogger.isDebugEnabled()) gLogger.debug("Found usdt for %s\n", key.c_str());
      run = it->second;
      reader.setup(*_locks[key]);
    }
  }
  return run->read(start, count, out, earliest, latest, info);
}

void UnifiedSearchDispatchThreadManager::remove(const Str& key) {
  std::shared_ptr<UnifiedSearchDispatchThreadInfo> run;
  std::shared_ptr<ReadWriteLock> lock;
  {
    ScopedLock l(_mutex);
    auto it = _infos.find(key);
    if (it == _infos.end()) return;
    run = it->second;
    lock = _locks[key];
    _infos.erase(it);
    _locks.erase(key);
    _removing.insert(key);
    run->cancel();
  }
  {
    // Readers counted themselves in under the manager's mutex while the key
    // was still listed; they leave once the cancelled run has finished.
    ScopedWriter writer(*lock);
    run->joinThread();
    run->removeFiles();
  }
  ScopedLock l(_mutex);
  _removing.erase(key);
  _removed.internal_wake_all();
}

void UnifiedSearchDispatchThreadManager::cleanup() {
  std::vector<Str> expired;
  {
    const Timeval now = Timeval::now();
    ScopedLock l(_mutex);
    for (const auto& [key, run] : _infos)
      if (run->isExpired(now)) expired.push_back(key);
  }
  for (const Str& key : expired) remove(key);
}

void UnifiedSearchDispatchThreadManager::clear() {
  std::vector<Str> keys;
  {
    ScopedLock l(_mutex);
    for (const auto& [key, run] : _infos) {
      keys.push_back(key);
      run->cancel();
    }
  }
  for (const Str& key : keys) remove(key);
}

size_t UnifiedSearchDispatchThreadManager::size() {
  ScopedLock l(_mutex);
  return _infos.size();
}
