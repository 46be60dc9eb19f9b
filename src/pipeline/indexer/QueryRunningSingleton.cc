#include "pipeline/indexer/QueryRunningSingleton.h"

#include "search/SearchCancel.h"

QueryRunningSingleton* QueryRunningSingleton::instance() {
  static QueryRunningSingleton* s = new QueryRunningSingleton;
  return s;
}

void QueryRunningSingleton::setMaxQueryIds(unsigned long n) {
  ScopedLock l(_mutex);
  _max = n;
}

unsigned long QueryRunningSingleton::getMaxQueryIds() {
  ScopedLock l(_mutex);
  return _max;
}

bool QueryRunningSingleton::start(const Str& queryId) {
  ScopedLock l(_mutex);
  if (_ids.count(queryId) || (_max > 0 && _ids.size() >= _max)) return false;
  _ids.insert(queryId);
  _cancelled.erase(queryId);
  SearchCancel::instance()->start(queryId);
  return true;
}

bool QueryRunningSingleton::finish(const Str& queryId) {
  ScopedLock l(_mutex);
  _ids.erase(queryId);
  SearchCancel::instance()->stop(queryId);
  return _cancelled.erase(queryId) != 0;
}

bool QueryRunningSingleton::cancel(const Str& queryId) {
  ScopedLock l(_mutex);
  if (!_ids.count(queryId)) return false;
  _cancelled.insert(queryId);
  SearchCancel::instance()->stop(queryId);
  return true;
}

size_t QueryRunningSingleton::running() {
  ScopedLock l(_mutex);
  return _ids.size();
}
