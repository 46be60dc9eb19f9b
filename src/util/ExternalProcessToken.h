// ExternalProcessToken: the caller's handle on one process started through
// the process runner. Copies share the process's state.
//
// Threads: any thread; the state is guarded by the runner client's mutex.
#pragma once

#include <cstdint>
#include <memory>

#include "util/ExternalProcessStatus.h"

struct ChildProcess;

class ExternalProcessToken {
 public:
  ExternalProcessToken() = default;
  explicit ExternalProcessToken(std::shared_ptr<ChildProcess> c) : _c(std::move(c)) {}

  bool valid() const { return _c != nullptr; }
  // The runner's id of the process (never 0); 0 for an invalid token.
  uint64_t uniqueId() const;
  // With wait, blocks until the process has ended.
  ExternalProcessStatus getStatus(bool wait) const;
  // Sends a signal through the runner (nothing if it has ended).
  void kill(int sig) const;

 private:
  std::shared_ptr<ChildProcess> _c;
};
