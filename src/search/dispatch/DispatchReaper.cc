#include "search/dispatch/DispatchReaper.h"

#include <vector>

#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/dispatch/DispatchDirs.h"
#include "search/dispatch/DispatchThread.h"
#include "util/Logger.h"
#include "util/Timeval.h"

static Logger gLogger("DispatchReaper");

DispatchReaper::DispatchReaper(long periodSeconds, const Pathname& root)
    : Thread("DispatchReaper"), _root(root), _period(periodSeconds > 0 ? periodSeconds : 1) {}

DispatchReaper::~DispatchReaper() { stop(); }

void DispatchReaper::stop() {
  {
    ScopedLock lock(_mutex);
    _stopping = true;
    _wake.internal_wake_all();
  }
  joinEvenIfUnstarted();
}

bool DispatchReaper::signalShutdown() {
  stop();
  return true;
}

void DispatchReaper::setPeriod(long seconds) {
  ScopedLock lock(_mutex);
  _period = seconds > 0 ? seconds : 1;
  _wake.internal_wake_all();
}

void DispatchReaper::main() {
  ScopedLock lock(_mutex);
  while (!_stopping) {
    {
      ScopedUnlock unlock(_mutex);
      reapDispatchDirectories(_root.empty() ? DispatchDirs::dispatchRoot() : _root, time(nullptr));
    }
    if (!_stopping) _wake.wait(_mutex, static_cast<double>(_period));
  }
}

size_t DispatchReaper::reapDispatchDirectories(const Pathname& root, time_t now) {
  std::vector<Str> names;
  if (!root.readDirectory(names)) return 0;
  size_t removed = 0;
  for (const Str& name : names) {
    if (name.startswith('.')) continue;
    Pathname dir = root / name;
    if (!dir.isDir()) continue;
    SearchResults status;
    if (!DispatchThread::readStatus(dir, status)) continue;
    if ((dir / "save").exists()) {
      gLogger.debug("%s is marked for save so it won't be reaped", dir.c_str());
      continue;
    }
    if ((dir / "cancel").exists()) {
      gLogger.info("Reaping %s because it was cancelled", dir.c_str());
      if (dir.removeRecursive()) ++removed;
      continue;
    }
    Str done, ttlText;
    status.front()->getValue("done", done);
    if (done != "1") {
      gLogger.debug("%s is not done yet.  It will not be reaped.", dir.c_str());
      continue;
    }
    status.front()->getValue("ttl", ttlText);
    long ttl = ttlText.toLong(0);
    Timeval mtime;
    if (!(dir / "status.csv").getMtime(mtime)) continue;
    if (ttl >= 0 && static_cast<long>(now - mtime.sec()) > ttl) {
      gLogger.info("Reaping %s because ttl = %lu mtime = %ld", dir.c_str(), static_cast<unsigned long>(ttl),
                   static_cast<long>(mtime.sec()));
      if (dir.removeRecursive()) ++removed;
    }
  }
  return removed;
}
