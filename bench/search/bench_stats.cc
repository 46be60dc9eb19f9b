// Speed of `stats count sum(x) avg(x) by g` over 1,000,000 rows, at 10 and
// at 100,000 groups, with and without median(x) (which keeps and sorts the
// numbers). The rows are made once; each iteration runs a fresh command's
// reduce side over them (execute_input, then execute_output into a result
// set of its own), so the input is not consumed. A scratch home raises the
// group limit of the `stats` stanza to 200,000 so that no group is dropped.
// To reproduce:
//   ninja -C build bench_stats && build/bench/search/bench_stats
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdio>
#include <memory>
#include <random>
#include <string>

#include "loaderinfo/LoaderInfo.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/StringArg.h"
#include "search/processors/StatsProcessor.h"
#include "util/Pathname.h"

namespace {

const size_t kRows = 1000000;

void scratchHome() {
  static bool done = false;
  if (done) return;
  done = true;
  char tmpl[] = "/tmp/velmor-bench-stats-XXXXXX";
  if (!mkdtemp(tmpl)) abort();
  Pathname home(tmpl);
  (home / "etc/bundles/default").mkdir_p();
  FILE* f = fopen((home / "etc/bundles/default/limits.conf").c_str(), "w");
  if (!f) abort();
  fputs("[stats]\nmaxresultrows = 200000\n", f);
  fclose(f);
  setenv("VELMOR_HOME", tmpl, 1);
  LoaderInfo::getInstance().populateFromEnvironment();
  static struct Remover {
    Pathname dir;
    ~Remover() { dir.removeRecursive(); }
  } remover{home};
}

SearchResults& rows(unsigned groups) {
  static std::unique_ptr<SearchResults> cached;
  static unsigned cachedGroups = 0;
  if (cached && cachedGroups == groups) return *cached;
  cached = std::make_unique<SearchResults>();
  cachedGroups = groups;
  std::mt19937 rng(1);
  sr_index_t g = cached->keyIndex("g", true), x = cached->keyIndex("x", true);
  for (size_t i = 0; i < kRows; ++i) {
    SearchResult* r = cached->addNewResult();
    r->setValue(g, Str("g" + std::to_string((i * 7919) % groups)));
    r->setValue(x, Str(std::to_string(rng() % 100000)));
  }
  return *cached;
}

void runStats(benchmark::State& state, const char* text) {
  scratchHome();
  SearchResults& in = rows(static_cast<unsigned>(state.range(0)));
  for (auto _ : state) {
    StatsProcessor p("stats");
    p.addArgument(new StringArg(text, false, false));
    SearchResultsInfo info;
    p.evalArgs(info);
    p.processArguments();
    SearchResults out;
    p.execute_input(in, info);
    p.execute_output(out, info);
    if (out.size() != static_cast<size_t>(state.range(0))) state.SkipWithError("wrong group count");
    benchmark::DoNotOptimize(out.size());
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kRows));
}

void BM_StatsSums(benchmark::State& state) { runStats(state, "count sum(x) avg(x) by g"); }
void BM_StatsSumsMedian(benchmark::State& state) { runStats(state, "count sum(x) avg(x) median(x) by g"); }

BENCHMARK(BM_StatsSums)->Arg(10)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StatsSumsMedian)->Arg(10)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
