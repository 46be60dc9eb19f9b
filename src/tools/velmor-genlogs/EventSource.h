// EventSource: one kind of log text (syslog, web access, key=value, Java,
// JSON ...) written for one host. The generator calls emit() with times that
// never decrease; each call writes one whole event, which is one line or,
// for stack traces, several.
//
// A source may keep state between events (process ids, uptime, sessions).
// Each source belongs to one file stream and one thread.
#pragma once

#include <cstdint>
#include <string>

class LineBuffer;
class Rng;

struct SourceContext {
  std::string host;       // host name written into the events
  unsigned hostIndex = 0;  // position of the host in the run
  uint64_t salt = 0;       // run-wide value derived from the seed; shared address pools use it
  std::string source;     // logical path of the file, e.g. "/var/log/syslog"
  std::string sourcetype;
};

class EventSource {
 public:
  explicit EventSource(const SourceContext& context) : _ctx(context) {}
  virtual ~EventSource() = default;

  // Writes one event stamped `millis` (UTC milliseconds since the epoch).
  virtual void emit(int64_t millis, LineBuffer& out, Rng& rng) = 0;

  // The usual size of one event in bytes; sets how far times may jitter.
  virtual double typicalBytes() const = 0;

  const SourceContext& context() const { return _ctx; }

 protected:
  SourceContext _ctx;
};
