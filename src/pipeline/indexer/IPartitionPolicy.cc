#include "pipeline/indexer/IPartitionPolicy.h"

#include <unistd.h>

#include "searchthing/lock.h"
#include "util/Logger.h"

static Logger gLogger("IPartitionPolicy");

bool IPartitionPolicy::lockDir(const Pathname& path) {
  for (;;) {
    int r = st_lock(path.c_str());
    if (r == 0) return true;
    if (r < 0) {
      gLogger.error("Unable to lock %s: %m", path.c_str());
      return false;
    }
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
