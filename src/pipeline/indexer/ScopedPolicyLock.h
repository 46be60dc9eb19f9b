// ScopedPolicyLock: holds the directory locks of one index (home, cold,
// thawed, in that order, through LockContainer) for its lifetime, released
// in reverse order. Used around rolls, freezes and multi-bucket reads.
//
// Threads: the guard belongs to the thread that made it.
#pragma once

#include "pipeline/indexer/PolicyParameters.h"

class ScopedPolicyLock {
 public:
  explicit ScopedPolicyLock(const PolicyParameters& p);
  ~ScopedPolicyLock();
  ScopedPolicyLock(const ScopedPolicyLock&) = delete;
  ScopedPolicyLock& operator=(const ScopedPolicyLock&) = delete;
  // False when one of the locks could not be taken (those taken are held).
  bool ok() const { return _ok; }

 private:
  Pathname _paths[3];
  bool _held[3] = {false, false, false};
  bool _ok = true;
};
