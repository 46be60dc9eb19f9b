// EngineRunnerScope: the process runner for the life of a tool's command,
// with the engine's forked query handles starting their children through
// it, so that the tool itself forks only the runner.
//
// Construct it on the main thread before any other thread starts (the
// runner is forked there) and let it go out of scope after the last engine
// handle is closed. Tools with an event loop thread of their own start the
// runner against that loop instead.
#pragma once

#include "searchthing/ipcver.h"
#include "util/Pathname.h"
#include "util/ProcessRunner.h"

struct EngineRunnerScope {
  EngineRunnerScope() {
    ProcessRunnerInit(nullptr, Pathname());
    st_set_forkwait_helpers(ProcessRunnerForkHelper, ProcessRunnerWaitHelper);
  }
  ~EngineRunnerScope() {
    st_set_forkwait_helpers(nullptr, nullptr);
    ProcessRunnerFini(nullptr);
  }
  EngineRunnerScope(const EngineRunnerScope&) = delete;
  EngineRunnerScope& operator=(const EngineRunnerScope&) = delete;
};
