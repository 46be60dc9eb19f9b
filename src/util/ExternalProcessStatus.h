// ExternalProcessStatus: how a process started through the process runner
// stands: still running, failed to start (with the errno of the failed
// exec or fork), or ended with a wait status. A plain value.
#pragma once

#include "util/Str.h"

class ExternalProcessStatus {
 public:
  static ExternalProcessStatus running() { return ExternalProcessStatus(kRunning, 0); }
  static ExternalProcessStatus ended(int waitStatus) { return ExternalProcessStatus(kEnded, waitStatus); }
  static ExternalProcessStatus failedToStart(int err) { return ExternalProcessStatus(kFailed, err); }

  bool isRunning() const { return _kind == kRunning; }
  bool isFailedToStart() const { return _kind == kFailed; }
  // The errno of a failed start, or 0.
  int startErrno() const { return _kind == kFailed ? _value : 0; }
  // The wait status of an ended process, or -1.
  int waitStatus() const { return _kind == kEnded ? _value : -1; }
  // Exited with code 0.
  bool statusOk() const;
  // The exit code, or -1 when it did not exit normally.
  int exitCode() const;
  // The terminating signal, or 0.
  int termSignal() const;
  // "exited with code %d", "killed by signal %d", "child failed to start: %m",
  // "child is still running".
  Str describeStatus() const;

 private:
  enum Kind { kRunning, kEnded, kFailed };
  ExternalProcessStatus(Kind k, int v) : _kind(k), _value(v) {}
  Kind _kind;
  int _value;
};
