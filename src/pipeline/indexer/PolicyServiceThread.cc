#include "pipeline/indexer/PolicyServiceThread.h"

#include <ctime>

#include "pipeline/indexer/DatabasePartitionPolicy.h"
#include "util/Logger.h"

static Logger gLogger("DatabasePartitionPolicy");

PolicyServiceThread::PolicyServiceThread(DatabasePartitionPolicy& policy)
    : Thread("dbservice-%s", policy.getName().c_str()), _policy(policy) {}

PolicyServiceThread::~PolicyServiceThread() { stop(); }

void PolicyServiceThread::main() {
  for (;;) {
    {
      ScopedLock l(_mutex);
      if (_stop) return;
    }
    try {
      _policy.service(int64_t(time(nullptr)));
    } catch (const std::exception& e) {
      gLogger.error(e);
    }
    if (_policy.isShutdownComplete()) return;
    ScopedLock l(_mutex);
    if (!_stop) _cond.wait(_mutex, 1.0);
  }
}

void PolicyServiceThread::stop() {
  {
    ScopedLock l(_mutex);
    _stop = true;
    _cond.internal_wake_all();
  }
  joinEvenIfUnstarted();
}
