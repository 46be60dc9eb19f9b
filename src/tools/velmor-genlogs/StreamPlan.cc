#include "StreamPlan.h"

#include <cstdio>

namespace {

struct Kind {
  LogFormat format;
  const char* name;
  const char* source;
  const char* sourcetype;
  unsigned weight;
};

const Kind kKinds[] = {
    {LogFormat::Syslog, "syslog.log", "/var/log/syslog", "syslog", 2},
    {LogFormat::Syslog, "auth.log", "/var/log/auth.log", "auth_log", 1},
    {LogFormat::Access, "access.log", "/var/log/nginx/access.log", "web_access", 6},
    {LogFormat::Kv, "app.log", "/opt/shop/logs/app.log", "app_kv", 3},
    {LogFormat::Java, "server.log", "/opt/shop/logs/server.log", "java_log", 2},
    {LogFormat::Json, "events.log", "/var/log/shop/events.json", "app_json", 3}};
constexpr unsigned kKindCount = sizeof kKinds / sizeof kKinds[0];

const char* const kRoles[] = {"web", "app", "db"};
// Kinds of each role, by index into kKinds.
const std::vector<unsigned> kRoleKinds[] = {{0, 1, 2}, {0, 3, 4, 5}, {0, 1, 3}};

std::string hostName(unsigned index) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%s-%02u", kRoles[index % 3], index / 3 + 1);
  return buf;
}

}  // namespace

std::vector<StreamDef> StreamPlan::build(const GenOptions& options) {
  std::vector<std::vector<unsigned>> kindsOf(options.hosts);
  bool covered[kKindCount] = {};
  for (unsigned h = 0; h < options.hosts; ++h) {
    for (unsigned k : kRoleKinds[h % 3]) {
      if (!options.formats[static_cast<unsigned>(kKinds[k].format)]) continue;
      kindsOf[h].push_back(k);
      covered[k] = true;
    }
  }
  // Too few hosts for every role: hand the missing kinds out in turn.
  for (unsigned k = 0; k < kKindCount; ++k) {
    if (covered[k] || !options.formats[static_cast<unsigned>(kKinds[k].format)]) continue;
    kindsOf[k % options.hosts].push_back(k);
  }

  std::vector<StreamDef> plan;
  for (unsigned h = 0; h < options.hosts; ++h) {
    for (unsigned k = 0; k < kKindCount; ++k) {
      bool has = false;
      for (unsigned x : kindsOf[h]) has = has || x == k;
      if (!has) continue;
      plan.push_back(StreamDef{h, hostName(h), kKinds[k].format, k, kKinds[k].name, kKinds[k].source,
                                kKinds[k].sourcetype, kKinds[k].weight});
    }
  }
  return plan;
}
