// StreamPlan: which files a run writes. Hosts get roles that decide their
// logs, as in a small shop's estate:
//   web-NN: syslog, auth log, web access log
//   app-NN: syslog, key=value log, Java service log, JSON events
//   db-NN:  syslog, auth log, key=value log
// Formats not selected are left out; a selected format that no host's role
// carries (too few hosts) is given to one host anyway, so every selected
// format appears. Each stream has a weight: its share of the total size or
// event count.
//
// A value type; any thread.
#pragma once

#include <string>
#include <vector>

#include "GenOptions.h"

struct StreamDef {
  unsigned hostIndex;
  std::string host;
  LogFormat format;
  unsigned kind;           // index into the stream kinds, part of the stream's seed
  std::string name;        // file name, e.g. "access.log"
  std::string source;      // logical path, e.g. "/var/log/nginx/access.log"
  std::string sourcetype;  // e.g. "web_access"
  unsigned weight;
};

class StreamPlan {
 public:
  // REQUIRES: options.hosts >= 1 and at least one format selected.
  static std::vector<StreamDef> build(const GenOptions& options);
};
