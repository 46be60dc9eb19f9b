// SyslogSource: the general system log of a Linux host, in the classic
// "Mmm dd hh:mm:ss host program[pid]: message" form: cron runs, kernel
// messages with uptime stamps (link changes, firewall drops, OOM kills),
// systemd unit runs and time synchronisation.
#pragma once

#include "EventSource.h"

class SyslogSource : public EventSource {
 public:
  explicit SyslogSource(const SourceContext& context) : EventSource(context) {}
  void emit(int64_t millis, LineBuffer& out, Rng& rng) override;
  double typicalBytes() const override { return 110; }

 private:
  void header(int64_t millis, LineBuffer& out, const char* program, uint64_t pid);
  void kernel(int64_t millis, LineBuffer& out, Rng& rng);

  int64_t _bootMillis = -1;  // set at the first event
  uint64_t _nextPid = 0;
};
