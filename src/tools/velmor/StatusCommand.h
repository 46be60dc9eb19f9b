// StatusCommand: `velmor status`: what an installation holds and whether
// its service runs.
//
// In this process (VELMOR_HOME): one table row per index of the indexes
// configuration with its buckets counted per state (hot, warm, cold,
// thawed), its events, its bytes on disk and the time range of its events;
// above it the home and the service: running or not by the pid file
// (var/run/velmor/velmord.pid and a live process), and whether its
// management port (mgmtPort of server.conf, https when enableSsl) answers
// on the loopback address (or VELMOR_BINDIP). A service started with -p
// PORT listens elsewhere; the line then says the port does not answer.
//
// With --server: the server's own answer to /services/server/info (name,
// start time, authentication, the user and roles) and its address.
//
// Exit status: 0 shown, 1 the indexes or the server could not be read.
// Used once, on the main thread.
#pragma once

#include <cstdint>

#include "tools/velmor/CliOptions.h"

class StatusCommand {
 public:
  explicit StatusCommand(const CliOptions& o) : _o(o) {}
  int run();

  // "0 B", "512 B", "1.5 KB", "20.0 MB", "3.1 GB" (powers of 1024).
  static Str humanBytes(uint64_t bytes);

 private:
  int runLocal();
  int runServer();
  // The service line: running or not, and whether its port answers.
  static Str serviceLine();

  const CliOptions& _o;
};
