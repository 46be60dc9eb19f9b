// AuthSource: the authentication log of a Linux host in syslog form: SSH
// logins (accepted keys and passwords, failed passwords, invalid users from
// a handful of persistent guessing clients), PAM sessions, sudo commands and
// su.
#pragma once

#include "EventSource.h"

class AuthSource : public EventSource {
 public:
  explicit AuthSource(const SourceContext& context) : EventSource(context) {}
  void emit(int64_t millis, LineBuffer& out, Rng& rng) override;
  double typicalBytes() const override { return 120; }

 private:
  void header(int64_t millis, LineBuffer& out, const char* program, uint64_t pid);
  void sshd(int64_t millis, LineBuffer& out, Rng& rng);

  uint64_t _nextPid = 0;
};
