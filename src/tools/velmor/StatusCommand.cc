#include "tools/velmor/StatusCommand.h"
#include "util/StrSegment.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>

#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPages.h"
#include "loaderinfo/LoaderInfo.h"
#include "pipeline/indexer/DatabasePartitionPolicy.h"
#include "pipeline/indexer/IndexProcessor.h"
#include "search/SearchResults.h"
#include "searchthing/ipcver.h"
#include "tools/velmor/EventPrinter.h"
#include "tools/velmor/LocalRuntime.h"
#include "tools/velmor/ServerLogin.h"
#include "tools/velmor/TableWriter.h"
#include "util/ReadWriteLock.h"

namespace {

// Whether something accepts a TCP connection at addr:port within a second.
bool answers(const Str& addr, int port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(uint16_t(port));
  if (inet_pton(AF_INET, addr.c_str(), &a.sin_addr) != 1) {
    close(fd);
    return false;
  }
  bool ok = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  if (!ok && errno == EINPROGRESS) {
    pollfd p{fd, POLLOUT, 0};
    int err = 0;
    socklen_t len = sizeof err;
    ok = poll(&p, 1, 1000) == 1 && getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) == 0 && err == 0;
  }
  close(fd);
  return ok;
}

Str setting(const char* file, const char* stanza, const char* key, const char* fallback) {
  PropertiesMap map;
  PropertyPages::instance(file).fillLayers(map, stanza, false);
  Str v;
  if (!PropertyPages::layeredFind(key, map, v) || v.trim().empty()) return fallback;
  return v.trim();
}

}  // namespace

Str StatusCommand::humanBytes(uint64_t bytes) {
  if (bytes < 1024) return Str::fromFormat("%llu B", (unsigned long long)bytes);
  const char* units[] = {"KB", "MB", "GB", "TB", "PB"};
  double v = double(bytes) / 1024;
  size_t u = 0;
  while (v >= 1024 && u + 1 < sizeof units / sizeof *units) {
    v /= 1024;
    ++u;
  }
  return Str::fromFormat("%.1f %s", v, units[u]);
}

Str StatusCommand::serviceLine() {
  Pathname pidFile = Pathname(LoaderInfo::getInstance().getHomePath()) / "var/run/velmor/velmord.pid";
  long pid = 0;
  {
    std::ifstream f(pidFile.c_str());
    if (!(f >> pid)) pid = 0;
  }
  Str state;
  if (pid <= 0)
    state = "not running (no pid file)";
  else if (kill(pid_t(pid), 0) != 0 && errno == ESRCH)
    state = Str::fromFormat("not running (pid file names %ld, which is gone)", pid);
  else
    state = Str::fromFormat("running (pid %ld)", pid);
  int port = atoi(setting("server", "general", "mgmtPort", "8089").c_str());
  bool ssl = lowercase(setting("server", "sslConfig", "enableSsl", "true")) == "true";
  const char* bind = getenv("VELMOR_BINDIP");
  Str addr = bind && *bind && Str(bind) != "0.0.0.0" ? Str(bind) : Str("127.0.0.1");
  Str url = Str::fromFormat("%s://%s:%d", ssl ? "https" : "http", addr.c_str(), port);
  if (answers(addr, port)) return state + "; " + url + " answers";
  return state + "; " + url + " does not answer";
}

int StatusCommand::run() { return _o.server.empty() ? runLocal() : runServer(); }

int StatusCommand::runLocal() {
  Str err;
  if (!LocalRuntime::checkHome(err)) {
    fprintf(stderr, "velmor: %s\n", err.c_str());
    return 1;
  }
  ProcessScope scope;
  try {
    LocalRuntime runtime;
    printf("home     %s\n", LoaderInfo::getInstance().getHomePath().c_str());
    printf("service  %s\n\n", serviceLine().c_str());
    SearchResults table;
    const char* columns[] = {"index", "hot", "warm", "cold", "thawed", "events", "size", "earliest", "latest"};
    std::vector<sr_index_t> k;
    for (const char* c : columns) k.push_back(table.keyIndex(Str(c), true));
    std::vector<Str> names;
    runtime.indexes().enumerateDomains(names);
    for (const Str& name : names) {
      auto* policy = dynamic_cast<DatabasePartitionPolicy*>(runtime.indexes().getPolicyByDomain(name));
      if (!policy) continue;
      long states[4] = {0, 0, 0, 0};
      long long events = 0;
      uint64_t bytes = 0;
      int64_t earliest = INT64_MAX, latest = INT64_MIN;
      {
        ScopedReader r(policy->tableLock());
        for (const auto& b : policy->table().all()) {
          int s = int(b->state());
          if (s >= 0 && s < 4) ++states[s];
          bytes += b->path().treeSize();
          st_handle* h = st_open_wflags(b->path().c_str(), 1);
          st_meta_answer a{};
          if (h && st_meta(h, "meta::all", &a) >= 0 && a.count > 0) {
            events += a.count;
            earliest = std::min<int64_t>(earliest, a.earliest);
            latest = std::max<int64_t>(latest, a.latest);
          }
          if (h) st_close(h);
        }
      }
      SearchResult* row = table.addNewResult();
      row->setValue(k[0], name);
      for (int s = 0; s < 4; ++s) row->setValue(k[1 + s], Str::fromFormat("%ld", states[s]));
      row->setValue(k[5], Str::fromFormat("%lld", events));
      row->setValue(k[6], humanBytes(bytes));
      row->setValue(k[7], events ? EventPrinter::formatTime(Str::fromFormat("%lld", (long long)earliest)) : Str("-"));
      row->setValue(k[8], events ? EventPrinter::formatTime(Str::fromFormat("%lld", (long long)latest)) : Str("-"));
    }
    Str out = TableWriter().format(table);
    fwrite(out.data(), 1, out.size(), stdout);
  } catch (const std::exception& e) {
    fprintf(stderr, "velmor: %s\n", e.what());
    return 1;
  }
  return fflush(stdout) == 0 ? 0 : 1;
}

int StatusCommand::runServer() {
  ServerClient client(_o.server, !_o.insecure);
  Str err;
  std::map<Str, Str> info;
  if (!ServerLogin::login(_o, client, err) || !client.serverInfo(info, err)) {
    fprintf(stderr, "velmor: %s\n", err.c_str());
    return 1;
  }
  printf("server   %s (%s)\n", client.base().c_str(), info["serverName"].c_str());
  printf("service  running since %s\n", EventPrinter::formatTime(info["startupTime"]).c_str());
  printf("auth     %s\n", info["authSystem"].c_str());
  printf("user     %s (%s)\n", info["user"].c_str(), info["roles"].c_str());
  return fflush(stdout) == 0 ? 0 : 1;
}
