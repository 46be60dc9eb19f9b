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
