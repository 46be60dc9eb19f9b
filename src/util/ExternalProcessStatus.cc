#include "util/ExternalProcessStatus.h"

#include <sys/wait.h>

#include <cstring>

bool ExternalProcessStatus::statusOk() const { return exitCode() == 0; }

int ExternalProcessStatus::exitCode() const {
  if (_kind == kEnded && WIFEXITED(_value)) return WEXITSTATUS(_value);
  return -1;
}

int ExternalProcessStatus::termSignal() const {
  if (_kind == kEnded && WIFSIGNALED(_value)) return WTERMSIG(_value);
  return 0;
}

Str ExternalProcessStatus::describeStatus() const {
  switch (_kind) {
    case kRunning:
      return Str("child is still running");
    case kFailed: {
      char buf[256];
      const char* text = strerror_r(_value, buf, sizeof buf);
      return Str::fromFormat("child failed to start: %s", text);
    }
    case kEnded:
      break;
  }
  if (WIFSIGNALED(_value)) return Str::fromFormat("killed by signal %d", WTERMSIG(_value));
  return Str::fromFormat("exited with code %d", WEXITSTATUS(_value));
}
