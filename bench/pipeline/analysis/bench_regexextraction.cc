// Regex step speed: events per second through RegexExtractionProcessor with
// the shipped routing, term and host rules switched on (cached rule lists,
// so the cost is the matching and the writing); with 0, 5 and 20 rules of
// the same kind; with events from over a thousand sources (so the path
// cache is cleared and rebuilt as it fills); one rule with REPEAT_MATCH on
// its own, and template filling alone.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "libbundle/PropertyPages.h"
#include "loaderinfo/LoaderInfo.h"
#include "pipeline/analysis/MapRegexNameResolver.h"
#include "pipeline/analysis/RegexExtractionProcessor.h"
#include "pipeline/analysis/RegexExtractor.h"
#include "pipeline/analysis/StringTemplate.h"

namespace {

std::string gScratch;

void removeScratch() {
  if (gScratch.empty()) return;
  std::string cmd = "rm -rf '" + gScratch + "'";
  if (system(cmd.c_str()) != 0) perror("rm");
}

void writeFile(const std::string& path, const std::string& text) {
  std::string cmd = "mkdir -p '" + path.substr(0, path.rfind('/')) + "'";
  if (system(cmd.c_str()) != 0) abort();
  std::ofstream(path, std::ios::binary) << text;
}

// A home with the shipped transforms.conf and props lines that use it.
void setUpHome() {
  if (!gScratch.empty()) return;
  char tmpl[] = "/tmp/velmor-bench-regex-XXXXXX";
  if (mkdtemp(tmpl) == nullptr) abort();
  gScratch = tmpl;
  atexit(removeScratch);
  std::ifstream in(VELMOR_SOURCE_DIR "/etc/bundles/default/transforms.conf", std::ios::binary);
  std::stringstream transforms;
  transforms << in.rdbuf();
  // Twenty rules "k0" ... "k19", each adding the term k<i>::<value> for
  // "k<i>=<value>"; the sources /var/log/rules<n>/ use the first n.
  std::string generated, props =
                              "[source::/var/log/web/*.log]\nTRANSFORMS-routing = route_alerts, user_terms, client_terms\n"
                              "[host::relay]\nTRANSFORMS-host = host_from_text\n"
                              "[source::/var/log/many/*.log]\nTRANSFORMS-routing = route_alerts, user_terms, client_terms\n";
  for (int n : {5, 20}) {
    props += "[source::/var/log/rules" + std::to_string(n) + "/*.log]\nTRANSFORMS-kv = ";
    for (int i = 0; i < n; ++i) props += (i ? ", k" : "k") + std::to_string(i);
    props += "\n";
  }
  for (int i = 0; i < 20; ++i) {
    const std::string k = "k" + std::to_string(i);
    generated += "[" + k + "]\nREGEX = \\b" + k + "=(\\w+)\nFORMAT = " + k + "::$1\nWRITE_META = true\n";
  }
  writeFile(gScratch + "/etc/bundles/default/transforms.conf", transforms.str() + "\n" + generated);
  writeFile(gScratch + "/etc/bundles/default/props.conf", props);
  setenv("VELMOR_HOME", gScratch.c_str(), 1);
  LoaderInfo::getInstance().populateFromEnvironment();
  PropertyPages::propsInstance().updateConfigs();
  PropertyPages::regexInstance().updateConfigs();
}

const char* const kLines[] = {
    "10.0.0.7 - - [24/Nov/2026:17:28:35 +0000] \"GET /index.html HTTP/1.1\" 200 5120 \"-\" \"curl/8.0\"",
    "2026-11-24 17:28:35,120 level=ERROR user=ann client=10.0.0.7 payment failed: timeout after 30s",
    "2026-11-24 17:28:35,121 level=INFO user=bob session renewed for another 3600 seconds",
    "10.0.0.9 - - [24/Nov/2026:17:28:36 +0000] \"POST /api/v1/orders HTTP/1.1\" 503 87 \"-\" \"app/2.1\"",
};

void BM_ExecuteShippedRules(benchmark::State& state) {
  setUpHome();
  RegexExtractionProcessor p;
  const bool relay = state.range(0) != 0;
  size_t i = 0, bytes = 0;
  for (auto _ : state) {
    auto rec = std::make_shared<PipelineData>();
    rec->put(PipelineData::sourceKey, "source::/var/log/web/app.log");
    rec->put(PipelineData::hostKey, relay ? "host::relay" : "host::web1");
    const char* line = kLines[i++ % 4];
    rec->put(PipelineData::rawKey, line);
    bytes += strlen(line);
    benchmark::DoNotOptimize(p.execute(rec));
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(bytes);
}
BENCHMARK(BM_ExecuteShippedRules)->Arg(0)->Arg(1);

// Events of a key=value log through 0, 5 or 20 rules; a rule matches one
// line in two.
void BM_RuleCount(benchmark::State& state) {
  setUpHome();
  RegexExtractionProcessor p;
  const std::string source = "source::/var/log/rules" + std::to_string(state.range(0)) + "/app.log";
  std::string lines[2];
  for (int i = 0; i < 20; ++i) lines[i % 2] += "k" + std::to_string(i) + "=v" + std::to_string(i) + " ";
  lines[0] = "2026-11-24 17:28:35,120 level=INFO " + lines[0];
  lines[1] = "2026-11-24 17:28:35,121 level=INFO " + lines[1];
  size_t i = 0;
  for (auto _ : state) {
    auto rec = std::make_shared<PipelineData>();
    rec->put(PipelineData::sourceKey, source);
    rec->put(PipelineData::hostKey, "host::app1");
    rec->put(PipelineData::rawKey, lines[i++ % 2]);
    benchmark::DoNotOptimize(p.execute(rec));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RuleCount)->Arg(0)->Arg(5)->Arg(20);

// The shipped rules for events from `range(0)` sources in turn: past the
// cache's thousand paths the rule lists are built again.
void BM_ManySources(benchmark::State& state) {
  setUpHome();
  RegexExtractionProcessor p;
  std::vector<std::string> sources;
  for (long k = 0; k < state.range(0); ++k) sources.push_back("source::/var/log/many/f" + std::to_string(k) + ".log");
  size_t i = 0;
  for (auto _ : state) {
    auto rec = std::make_shared<PipelineData>();
    rec->put(PipelineData::sourceKey, sources[i % sources.size()]);
    rec->put(PipelineData::hostKey, "host::web1");
    rec->put(PipelineData::rawKey, kLines[i % 4]);
    ++i;
    benchmark::DoNotOptimize(p.execute(rec));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ManySources)->Arg(100)->Arg(1500)->Arg(5000);

void BM_ExtractRepeatedTerms(benchmark::State& state) {
  PropertiesMap stanza;
  stanza.put("REGEX", "\\buser=([\\w.-]+)");
  stanza.put("FORMAT", "user::$1");
  stanza.put("WRITE_META", "true");
  stanza.put("REPEAT_MATCH", "true");
  MapRegexNameResolver none;
  auto e = RegexExtractor::build("user_terms", stanza, none);
  if (!e) abort();
  std::string line = "batch";
  for (long k = 0; k < state.range(0); ++k) line += " user=u" + std::to_string(k) + " did something";
  for (auto _ : state) {
    PipelineData rec;
    rec.put(PipelineData::rawKey, line);
    benchmark::DoNotOptimize(e->extract(rec));
  }
  state.SetBytesProcessed(state.iterations() * line.size());
}
BENCHMARK(BM_ExtractRepeatedTerms)->Arg(1)->Arg(10)->Arg(100);

void BM_Interpolate(benchmark::State& state) {
  StringTemplate t("sourcetype::$2-$1:$3");
  StringPiece groups[] = {"access", "nginx", "combined"};
  Str out;
  for (auto _ : state) {
    out.clear();
    t.interpolate(groups, 3, out);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Interpolate);

}  // namespace

BENCHMARK_MAIN();
