// .conf parsing speed (MB/s over a generated props/transforms file of a few
// MB) and merged-lookup speed (fillLayers calls/s over a home with local, two
// named bundles, default and learned).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "libbundle/PropertiesMapConfig.h"
#include "libbundle/PropertyPages.h"
#include "loaderinfo/LoaderInfo.h"

namespace {

std::string gScratch;

void removeScratch() {
  if (gScratch.empty()) return;
  std::string cmd = "rm -rf '" + gScratch + "'";
  if (system(cmd.c_str()) != 0) perror("rm");
}

const std::string& scratch() {
  if (gScratch.empty()) {
    char tmpl[] = "/tmp/velmor-bench-conf-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) abort();
    gScratch = tmpl;
    atexit(removeScratch);
  }
  return gScratch;
}

void writeFile(const std::string& path, const std::string& text) {
  std::string cmd = "mkdir -p '" + path.substr(0, path.rfind('/')) + "'";
  if (system(cmd.c_str()) != 0) abort();
  std::ofstream(path, std::ios::binary) << text;
}

// Stanzas shaped like real props and transforms settings: comments, host and
// source stanzas, long regular expressions, continued lines.
std::string realisticConf(int stanzas) {
  std::string out = "# Generated settings\n[default]\nTZ = UTC\nCHARSET = UTF-8\nMAX_EVENTS = 256\n\n";
  char buf[512];
  for (int i = 0; i < stanzas; ++i) {
    switch (i % 4) {
      case 0:
        snprintf(buf, sizeof buf,
                 "[host::web%04d]\n# front end %d\nTRANSFORMS-route = route_%d, mask_%d, drop_debug\n"
                 "SHOULD_LINEMERGE = false\nTRUNCATE = 10000\n\n",
                 i, i, i, i);
        break;
      case 1:
        snprintf(buf, sizeof buf,
                 "[source::/var/log/app%d/.../*.log]\nsourcetype = app_%d\nTIME_PREFIX = ^\\[\n"
                 "TIME_FORMAT = %%Y-%%m-%%d %%H:%%M:%%S.%%3N\nMAX_TIMESTAMP_LOOKAHEAD = 32\n\n",
                 i, i);
        break;
      case 2:
        snprintf(buf, sizeof buf,
                 "[route_%d]\nREGEX = ^(?<ts>\\S+ \\S+) (?<level>[A-Z]+) \\[(?<thread>[^\\]]+)\\] "
                 "(?<class>[\\w.$]+): (?<msg>.*)$\nFORMAT = level::$2 thread::$3\nDEST_KEY = _MetaData:Index\n"
                 "WRITE_META = true\n\n",
                 i);
        break;
      default:
        snprintf(buf, sizeof buf,
                 "[mask_%d]\nREGEX = (?m)^(.*)password=\\S+(.*)$\\\n"
                 "  continued across a line\nFORMAT = $1password=########$2\nDEST_KEY = _raw\n\n",
                 i);
        break;
    }
    out += buf;
  }
  return out;
}

void BM_ParseConf(benchmark::State& state) {
  std::string path = scratch() + "/parse/props.conf";
  std::string text = realisticConf(20000);
  writeFile(path, text);
  for (auto _ : state) {
    SettingsMap settings;
    PropertiesMapConfig::loadSettings(settings, Pathname(path));
    benchmark::DoNotOptimize(settings.size());
  }
  state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)text.size());
  state.counters["file_MB"] = (double)text.size() / 1e6;
}
BENCHMARK(BM_ParseConf)->Unit(benchmark::kMillisecond);

void BM_FillLayers(benchmark::State& state) {
  std::string home = scratch() + "/home";
  std::string bundles = home + "/etc/bundles/";
  writeFile(bundles + "local/props.conf", "[host::web0001]\nTRUNCATE = 5000\nTRANSFORMS-route = local_first, $+\n");
  writeFile(bundles + "app_a/props.conf", realisticConf(400));
  writeFile(bundles + "app_b/props.conf", "[syslog]\nSHOULD_LINEMERGE = true\n[host::web0001]\nextra = b\n");
  writeFile(bundles + "default/props.conf", realisticConf(2000) + "[syslog]\nTIME_FORMAT = %b %d %H:%M:%S\n");
  writeFile(bundles + "learned/props.conf", "[default]\nLEARNED = 1\n[syslog]\nlearned_key = x\n");
  setenv("VELMOR_HOME", home.c_str(), 1);
  LoaderInfo::getInstance().populateFromEnvironment();
  PropertyPages pages("props");
  pages.updateConfigs();

  const Str path = "host::web0001|source::/var/log/app1/x/y.log|syslog";
  for (auto _ : state) {
    PropertiesMap dest;
    pages.fillLayers(dest, path, true);
    benchmark::DoNotOptimize(dest.size());
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FillLayers);

}  // namespace

BENCHMARK_MAIN();
