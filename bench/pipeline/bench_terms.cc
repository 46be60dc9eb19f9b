// Events per second through IndexableValue + GenericCleaner with the shipped
// default segmenter, for generated log lines of about 200 bytes. The terms
// are counted, not stored, so the figure is the cost of term making alone.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <vector>

#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertiesMapConfig.h"
#include "pipeline/indexer/IndexableValue.h"

namespace {

class CountingValue : public IndexableValue {
 public:
  using IndexableValue::IndexableValue;
  size_t terms = 0;

 protected:
  void store(const char*, size_t) override { ++terms; }
};

std::vector<std::string> makeLines(size_t n) {
  const char* templates[] = {
      "%04u-11-%02u 10:%02u:%02u,%03u INFO dfs.DataNode$PacketResponder: Received block blk_-%u%u of size %u from "
      "/10.250.%u.%u:%u for user=Hadoop session=%08x",
      "Nov %2u 10:%02u:%02u combo sshd(pam_unix)[%u]: authentication failure; logname= uid=0 euid=0 tty=NODEVssh "
      "ruser= rhost=%u.%u.%u.%u user=root attempt=%u",
      "[Sun Dec %02u 04:%02u:%02u 2005] [error] [client 10.%u.%u.%u] Directory index forbidden by rule: "
      "/var/www/html/app%u/static/img/%u.png referer=http://example.com/p?id=%u",
  };
  std::vector<std::string> out;
  unsigned x = 12345;
  auto r = [&x](unsigned mod) {
    x = x * 1103515245u + 12345u;
    return (x >> 8) % mod;
  };
  char buf[512];
  for (size_t i = 0; i < n; ++i) {
    switch (i % 3) {
      case 0:
        std::snprintf(buf, sizeof buf, templates[0], 2008 + r(3), 1 + r(28), r(60), r(60), r(1000), r(99999),
                      r(999999), r(70000000), r(255), r(255), 50010 + r(10), r(0xffffffff));
        break;
      case 1:
        std::snprintf(buf, sizeof buf, templates[1], 1 + r(28), r(60), r(60), r(30000), r(255), r(255), r(255),
                      r(255), r(9));
        break;
      default:
        std::snprintf(buf, sizeof buf, templates[2], 1 + r(28), r(60), r(60), r(255), r(255), r(255), r(20),
                      r(100000), r(1000000));
    }
    out.emplace_back(std::string(buf) + " component=core.io.Reader thread=pool-3-worker");
  }
  return out;
}

void BM_TermsPerEvent(benchmark::State& state) {
  auto cfg = PropertiesMapConfig::fromFile(Pathname(VELMOR_SOURCE_DIR "/etc/bundles/default/segmenters.conf"), false);
  PropertiesMap m;
  if (!cfg || !cfg->getCopy("default", false, m)) {
    state.SkipWithError("no shipped segmenters.conf");
    return;
  }
  GenericCleaner cleaner(m);
  CountingValue v(&cleaner, nullptr);
  std::vector<std::string> lines = makeLines(4096);
  size_t bytes = 0;
  for (auto& l : lines) bytes += l.size();
  IndexableEvent ev;
  ev.meta = "host::node-17 source::/var/log/messages sourcetype::syslog";
  size_t i = 0;
  for (auto _ : state) {
    ev.raw = StrSegment(lines[i++ & 4095]);
    v.index(ev);
  }
  benchmark::DoNotOptimize(v.terms);
  state.SetItemsProcessed(int64_t(state.iterations()));
  state.counters["bytes_per_event"] = double(bytes) / double(lines.size());
  state.counters["terms_per_event"] = double(v.terms) / double(state.iterations());
}
BENCHMARK(BM_TermsPerEvent);

}  // namespace

BENCHMARK_MAIN();
