// ExternalProcessGroup: starts external commands through the process runner
// and keeps the tokens of those it started.
//
// start(argv, in, out, err) passes the given descriptors (invalid: the
// child keeps the runner's /dev/null) to the runner, which forks and execs
// argv[0] (searched in PATH) with the environment of
// ProcessRunnerSetEnvironmentSource (default: this process's environment at
// the call), "PATH=/usr/bin:/bin" added when there is none. A failed exec
// gives a token whose status is "child failed to start: ...".
// startViaShell runs "/bin/sh" "-c" command.
//
// Throws ProcessRunnerException "ProcessRunner function called before calling
// ProcessRunnerInit()" before the runner exists.
//
// Threads: any thread; one group object is used by one thread at a time.
#pragma once

#include <vector>

#include "util/ExternalProcessToken.h"
#include "util/FileDescriptor.h"
#include "util/Str.h"

class ExternalProcessGroup {
 public:
  ExternalProcessToken start(const std::vector<Str>& argv, FileDescriptor in = FileDescriptor(),
                             FileDescriptor out = FileDescriptor(), FileDescriptor err = FileDescriptor());
  // Runs routine(data, size) in a new child of the runner, which is a fork
  // of this same image, without exec. targets[i] becomes the child's
  // descriptor i (invalid: the runner's /dev/null); the child holds no other
  // descriptor. Its exit status is the routine's result.
  ExternalProcessToken startRoutine(int (*routine)(const void*, size_t), const void* data, size_t size,
                                    const std::vector<FileDescriptor>& targets);
  // start() when the runner exists, else a direct posix_spawnp (for tools
  // and tests without a runner), with the same environment and /dev/null
  // for a descriptor not given; the token works the same either way.
  ExternalProcessToken startOrSpawn(const std::vector<Str>& argv, FileDescriptor in = FileDescriptor(),
                                    FileDescriptor out = FileDescriptor(), FileDescriptor err = FileDescriptor());
  ExternalProcessToken startViaShell(const Str& command, FileDescriptor in = FileDescriptor(),
                                     FileDescriptor out = FileDescriptor(), FileDescriptor err = FileDescriptor());
  // SIGTERM to every running member, then waits; every warningSecs of
  // waiting logs a warning and sends SIGKILL to those still running.
  void terminateAll(int warningSecs);
  const std::vector<ExternalProcessToken>& tokens() const { return _tokens; }

 private:
  std::vector<ExternalProcessToken> _tokens;
};
