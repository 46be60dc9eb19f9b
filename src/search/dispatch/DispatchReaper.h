// DispatchReaper: removes the directories of search jobs nobody needs any
// more. Every `periodSeconds` it looks at each directory below the dispatch
// root (names starting with "." are left alone):
//   1. no readable "status.csv": skipped (a job being made);
//   2. "save" exists: kept, whatever its age;
//   3. "cancel" exists: removed, running or not (the job's thread stops at
//      its next chunk and writes nothing more);
//   4. "done" is not 1: kept, the job still runs;
//   5. the modification time of "status.csv" (the job's last activity) lies
//      more than "ttl" seconds back: removed.
//
// DESIGN: one thread that sleeps on a condition between passes, so that
// signalShutdown() (the service's shutdown levels) or stop() ends it at once;
// both join the thread before they return. reapDispatchDirectories() is the
// pass itself, callable from any thread.
//
// Ownership: the service owns the reaper. REQUIRES: a MainThread exists.
#pragma once

#include <ctime>

#include "framework/MShutdownHandler.h"
#include "util/ConditionBaseClass.h"
#include "util/Mutex.h"
#include "util/Pathname.h"
#include "util/Thread.h"

class DispatchReaper : public Thread, public MShutdownHandler {
 public:
  // Reaps below DispatchDirs::dispatchRoot(), or below `root` when given.
  explicit DispatchReaper(long periodSeconds, const Pathname& root = Pathname());
  ~DispatchReaper() override;

  // Starts the thread. REQUIRES: called once.
  void start() { go(); }
  // Ends the thread and joins it; harmless when not started or stopped.
  void stop();
  bool signalShutdown() override;

  void setPeriod(long seconds);
  // One pass at time `now`; answers the number of directories removed.
  static size_t reapDispatchDirectories(const Pathname& root, time_t now);

 protected:
  void main() override;

 private:
  Pathname _root;
  Mutex _mutex;
  ConditionBaseClass _wake;
  long _period;
  bool _stopping = false;
};
