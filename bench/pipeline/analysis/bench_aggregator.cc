// Lines per second through the line merger: Java-style logs (a stamped
// line, sometimes a stack trace under it) merged by a BREAK_ONLY_BEFORE
// pattern, the same lines merged by learned shape rules, and the shape
// function alone. Dates are not looked at (the date patterns are off), so
// the figures are the cost of merging alone.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "libbundle/PropertyPages.h"
#include "loaderinfo/LoaderInfo.h"
#include "pipeline/analysis/Aggregator.h"
#include "pipeline/analysis/LineShape.h"

namespace {

void setUpHome() {
  static bool done = false;
  if (done) return;
  done = true;
  char tmpl[] = "/tmp/velmor-bench-agg-XXXXXX";
  if (!mkdtemp(tmpl)) return;
  std::string etc = std::string(tmpl) + "/etc/bundles/default";
  if (system(("mkdir -p " + etc).c_str()) != 0) return;
  std::ofstream(etc + "/props.conf") << "[source::pattern]\n"
                                        "BREAK_ONLY_BEFORE = ^\\d{4}-\\d\\d-\\d\\d\n"
                                        "DATETIME_CONFIG = NONE\n"
                                        "[source::learned]\n"
                                        "BREAK_BEFORE_DATE = false\n"
                                        "DATETIME_CONFIG = NONE\n";
  setenv("VELMOR_HOME", tmpl, 1);
  LoaderInfo::getInstance().populateFromEnvironment();
  PropertyPages::propsInstance().updateConfigs();
}

std::vector<std::shared_ptr<PipelineData>> makeRecords(const char* source, size_t n) {
  std::vector<std::shared_ptr<PipelineData>> out;
  unsigned x = 12345;
  auto r = [&x](unsigned mod) {
    x = x * 1103515245u + 12345u;
    return (x >> 8) % mod;
  };
  char buf[256];
  for (size_t i = 0; i < n; ++i) {
    if (i % 10 < 7) {
      std::snprintf(buf, sizeof buf,
                    "2026-11-24 13:%02u:%02u,%03u INFO  [exec-%u] com.example.shop.orders.OrderService - "
                    "Processed request for order %u in %u ms",
                    r(60), r(60), r(1000), r(8), 40000 + r(60000), 1 + r(300));
    } else {
      std::snprintf(buf, sizeof buf, "\tat com.example.shop.orders.OrderService.step%u(OrderService.java:%u)", r(9),
                    100 + r(400));
    }
    auto rec = std::make_shared<PipelineData>();
    rec->put(PipelineData::sourceKey, Str(std::string("source::") + source));
    rec->put(PipelineData::hostKey, "host::bench");
    rec->put(PipelineData::sourceTypeKey, "sourcetype::bench");
    rec->put(PipelineData::rawKey, Str(buf));
    rec->put(PipelineData::seekAddrKey, Str(std::to_string(i * 120)));
    out.push_back(std::move(rec));
  }
  return out;
}

void merge(benchmark::State& state, const char* source) {
  setUpHome();
  auto records = makeRecords(source, 100000);
  size_t events = 0;
  for (auto _ : state) {
    Aggregator a(Str(std::string("source::") + source + "|host::bench|sourcetype::bench|"));
    for (auto& rec : records)
      if (a.processLine(rec)) ++events;
    if (a.processLine(nullptr)) ++events;
  }
  state.SetItemsProcessed(int64_t(state.iterations() * records.size()));
  state.counters["events"] = double(events) / double(state.iterations());
}

void BM_MergeByPattern(benchmark::State& state) { merge(state, "pattern"); }
void BM_MergeByLearnedRules(benchmark::State& state) { merge(state, "learned"); }

void BM_LineShape(benchmark::State& state) {
  auto records = makeRecords("shape", 1000);
  char out[LineShape::kMaxShape];
  size_t total = 0;
  for (auto _ : state)
    for (auto& rec : records) {
      const Str& raw = rec->getStr(PipelineData::rawKey);
      total += LineShape::normalize(raw.data(), raw.size(), out);
    }
  benchmark::DoNotOptimize(total);
  state.SetItemsProcessed(int64_t(state.iterations() * records.size()));
}

BENCHMARK(BM_MergeByPattern)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MergeByLearnedRules)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LineShape);

}  // namespace

BENCHMARK_MAIN();
