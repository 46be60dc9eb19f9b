#include "pipeline/indexer/QueryCacheManager.h"

#include "pipeline/indexer/Query.h"
#include "util/Logger.h"

static Logger gLogger("QueryCacheManager");

QueryCacheManager& QueryCacheManager::getInstance() {
  static Mutex classMutex;
  static QueryCacheManager* inst = nullptr;
  ScopedLock lock(classMutex);
  if (!inst) inst = new QueryCacheManager();
  return *inst;
}

std::shared_ptr<Query> QueryCacheManager::getFromQueryCache(const Str& queryId, const Str& user) {
  return getFromQueryCache(queryId, user, ::time(nullptr));
}

std::shared_ptr<Query> QueryCacheManager::getFromQueryCache(const Str& queryId, const Str& user, time_t now) {
  ScopedLock lock(_mutex);
  cleanLocked(now);
  auto it = _cache.find(queryId);
  if (it == _cache.end()) return nullptr;
  if (now - it->second->getLastAccess() > kMaxIdleSeconds) {
    gLogger.debug("Cleaning up search %s", queryId.c_str());
    _cache.erase(it);
    return nullptr;
  }
  if (it->second->getUser() != user) {
    gLogger.debug("Cached search %s belongs to another user", queryId.c_str());
    return nullptr;
  }
  it->second->touch();
  return it->second;
}

void QueryCacheManager::putInQueryCache(const std::shared_ptr<Query>& query, const Str& queryId) {
  ScopedLock lock(_mutex);
  const time_t now = ::time(nullptr);
  cleanLocked(now);
  query->touch();
  _cache[queryId] = query;
}

void QueryCacheManager::checkCacheClean() { checkCacheClean(::time(nullptr)); }

void QueryCacheManager::checkCacheClean(time_t now) {
  ScopedLock lock(_mutex);
  cleanLocked(now);
}

void QueryCacheManager::cleanLocked(time_t now) {
  if (_lastClean != 0 && now >= _lastClean && now - _lastClean < kCleanIntervalSeconds) return;
  _lastClean = now;
  gLogger.debug("Running search cache clean check");
  for (auto it = _cache.begin(); it != _cache.end();) {
    if (now - it->second->getLastAccess() > kMaxIdleSeconds) {
      gLogger.debug("Cleaning up search %s", it->first.c_str());
      it = _cache.erase(it);
    } else {
      ++it;
    }
  }
}

void QueryCacheManager::cacheCleanService(void*) { getInstance().checkCacheClean(); }

void QueryCacheManager::clear() {
  ScopedLock lock(_mutex);
  _cache.clear();
}

size_t QueryCacheManager::size() {
  ScopedLock lock(_mutex);
  return _cache.size();
}
