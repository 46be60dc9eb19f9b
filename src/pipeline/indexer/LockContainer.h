// LockContainer: the process-wide count of directory locks per path, so that
// nested scoped locks in one process take the cross-process lock
// (IPartitionPolicy::lockDir) once and give it back with the last release.
// ScopedPolicyLock takes an index's directories through it, always in the
// order home, cold, thawed, before the policy's table lock and mutex.
//
// Threads: a singleton; every member takes its mutex, so any thread may call
// it. The mutex is held across the first lockDir of a path, so a waiting
// process lock holds up other paths' first locks too; the order rule above
// keeps that free of deadlock.
#pragma once

#include <map>
#include <vector>

#include "util/Mutex.h"
#include "util/Pathname.h"

class LockContainer {
 public:
  static LockContainer& instance();

  // Counts one more holder of path, taking the directory lock for the
  // first. False (and nothing counted) when it cannot be taken.
  bool lock(const Pathname& path);
  // Counts one holder off; the last one gives the directory lock back.
  // REQUIRES: path is held.
  void unlock(const Pathname& path);
  // Holders of path in this process.
  unsigned count(const Pathname& path);

  // Paths in the order their first lock was taken since the last reset;
  // for checking the lock order in tests.
  std::vector<Pathname> takenOrder();
  void resetTakenOrder();

 private:
  LockContainer() = default;
  Mutex _mutex;
  std::map<Pathname, unsigned> _counts;
  std::vector<Pathname> _order;
};
