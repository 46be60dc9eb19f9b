#include "search/SearchCancel.h"

#include "util/Logger.h"

static Logger gLogger("SearchCancel");

SearchCancel* SearchCancel::instance() {
  static Mutex m;
  static SearchCancel* inst = nullptr;
  ScopedLock lock(m);
  if (!inst) inst = new SearchCancel();
  return inst;
}

void SearchCancel::start(const Str& id) {
  ScopedLock lock(_mutex);
  if (!_ids.insert(id).second) gLogger.error("Search pipeline: %s started multiple times", id.c_str());
}

bool SearchCancel::cont(const Str& id) {
  if (id.empty()) return true;
  ScopedLock lock(_mutex);
  return _ids.count(id) != 0;
}

void SearchCancel::stop(const Str& id) {
  ScopedLock lock(_mutex);
  _ids.erase(id);
}

void SearchCancel::stopAll() {
  ScopedLock lock(_mutex);
  _ids.clear();
}
