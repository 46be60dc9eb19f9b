#include "pipeline/indexer/ScopedPolicyLock.h"

#include "pipeline/indexer/LockContainer.h"

ScopedPolicyLock::ScopedPolicyLock(const PolicyParameters& p) {
  _paths[0] = p.homePath;
  _paths[1] = p.coldPath;
  _paths[2] = p.thawedPath;
  for (int i = 0; i < 3; ++i) {
    _held[i] = LockContainer::instance().lock(_paths[i]);
    if (!_held[i]) _ok = false;
  }
}

ScopedPolicyLock::~ScopedPolicyLock() {
  for (int i = 2; i >= 0; --i)
    if (_held[i]) LockContainer::instance().unlock(_paths[i]);
}
