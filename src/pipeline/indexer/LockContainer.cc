#include "pipeline/indexer/LockContainer.h"

#include <cassert>

#include "pipeline/indexer/IPartitionPolicy.h"

LockContainer& LockContainer::instance() {
  static LockContainer* inst = new LockContainer();
  return *inst;
}

bool LockContainer::lock(const Pathname& path) {
  ScopedLock l(_mutex);
  unsigned& n = _counts[path];
  if (n == 0) {
    if (!IPartitionPolicy::lockDir(path)) {
      _counts.erase(path);
      return false;
    }
    _order.push_back(path);
  }
  ++n;
  return true;
}

void LockContainer::unlock(const Pathname& path) {
  ScopedLock l(_mutex);
  auto it = _counts.find(path);
  assert(it != _counts.end() && it->second > 0);
  if (--it->second == 0) {
    _counts.erase(it);
    IPartitionPolicy::unlockDir(path);
  }
}

unsigned LockContainer::count(const Pathname& path) {
  ScopedLock l(_mutex);
  auto it = _counts.find(path);
  return it == _counts.end() ? 0 : it->second;
}

std::vector<Pathname> LockContainer::takenOrder() {
  ScopedLock l(_mutex);
  return _order;
}

void LockContainer::resetTakenOrder() {
  ScopedLock l(_mutex);
  _order.clear();
}
