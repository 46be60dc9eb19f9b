// Reading an index through the search side, in process, on a scratch
// installation with one index "c" of 1,000,000 events in 10 buckets
// (compressed raw data, 100 events a second; every other event holds
// "common", one in 10,000 "rare", none "qzxvbnmw"):
//
//   BM_CursorFirst100/<term>  CursoredSearch over the 10 buckets until 100
//                             rows: 0 rare, 1 common, 2 no hit. The time to
//                             the first 100 results, newest first.
//   BM_CursorAll/<n>          every hit of "common" in the newest n buckets,
//                             in batches of 10,000 rows dropped as they come;
//                             counter events_per_s
//   BM_SearchHead100/<term>   the pipeline "search index=c <term> | head 100"
//                             as velmor-search runs it (unified search in a
//                             background thread), parse included
//
// The installation is made once per process under /tmp and removed at exit.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

#include "libbundle/PropertyPages.h"
#include "loaderinfo/LoaderInfo.h"
#include "pipeline/indexer/DatabasePartitionPolicy.h"
#include "pipeline/indexer/EngineRunnerScope.h"
#include "pipeline/indexer/IndexProcessor.h"
#include "pipeline/indexer/search/CursoredSearch.h"
#include "pipeline/indexer/search/IndexSearchCommands.h"
#include "pipeline/indexer/search/UnifiedSearchDispatchThreadManager.h"
#include "search/SearchCancel.h"
#include "search/SearchParser.h"
#include "search/SearchProcessor.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/processors/SearchCommands.h"
#include "search/processors/SearchEvaluator.h"
#include "util/MainThread.h"
#include "util/Pathname.h"

namespace {

class MThread : public MainThread {};

const long kT0 = 1795132800L;  // 2026-11-20T00:00:00Z
const long kPerBucket = 100000;
const int kBuckets = 10;
const char* const kTerms[] = {"rare", "common", "qzxvbnmw"};

struct Installation {
  Pathname dir;
  std::unique_ptr<IndexProcessor> processor;
  DatabasePartitionPolicy* index = nullptr;

  Installation() {
    char tmpl[] = "/tmp/bench_cursor.XXXXXX";
    if (!mkdtemp(tmpl)) abort();
    dir = Pathname(tmpl);
    Pathname home = dir / "home";
    if (system(("bash " VELMOR_SOURCE_DIR "/scripts/mkhome.sh " + home + " >/dev/null").c_str()) != 0) abort();
    setenv("VELMOR_HOME", home.c_str(), 1);
    setenv("VELMOR_DB", (home / "var/lib/velmor/db").c_str(), 1);
    LoaderInfo::getInstance().populateFromEnvironment();
    {
      std::ofstream conf(home / "etc/bundles/local/indexes.conf");
      conf << "[default]\ndefaultDatabase = c\n\n[c]\nhomePath = $VELMOR_DB/c/db\ncoldPath = $VELMOR_DB/c/colddb\n"
           << "thawedPath = $VELMOR_DB/c/thaweddb\nmaxResults = 1000000\ncompressRawdata = true\n"
           << "maxDataSize = 100000\nmaxTotalDataSizeMB = 100000000\nfrozenTimePeriodInSecs = 2147483647\n"
           << "maxWarmDBCount = 1000\noptimizeEvery = 0\n";
    }
    PropertyPages::instance("indexes").updateConfigs();
    SearchCommands::registerAll();
    IndexSearchCommands::install();
    processor = std::make_unique<IndexProcessor>();
    processor->init(false, false);
    index = processor->getDatabaseByName("c");
    WritableEvent ev;
    ev.host = StrSegment("web1", 4);
    ev.source = StrSegment("/var/log/app.log", 16);
    ev.sourceType = StrSegment("app", 3);
    char t[24], line[160];
    for (int b = 0; b < kBuckets; ++b) {
      for (long i = b * kPerBucket; i < (b + 1) * kPerBucket; ++i) {
        int n = snprintf(line, sizeof line, "2026-11-20 web1 app: evt%ld user=u%ld action=read status=200%s%s", i,
                         i % 500, i % 2 == 0 ? " common" : "", i % 10000 == 4321 ? " rare" : "");
        int m = snprintf(t, sizeof t, "%ld", kT0 + i / 100);
        ev.raw = StrSegment(line, size_t(n));
        ev.time = StrSegment(t, size_t(m));
        index->write(ev);
      }
      index->sync(true);
      if (b < kBuckets - 1) index->rollHotDb();
    }
  }
  ~Installation() {
    UnifiedSearchDispatchThreadManager::instance()->clear();
    processor.reset();
    dir.removeRecursive();
  }
};

Installation& inst() {
  static Installation* i = new Installation();
  return *i;
}

void BM_CursorFirst100(benchmark::State& state) {
  const char* term = kTerms[state.range(0)];
  inst();  // built before the clock starts
  size_t rows = 0;
  for (auto _ : state) {
    SearchEvaluator ev{StringPiece(term)};
    ev.optimize();
    CursoredSearch cursor(&ev, inst().index, Timeval(), Timeval(), false);
    SearchResults out;
    while (out.size() < 100 && cursor.fetchResults(out, 100 - out.size())) {
    }
    rows = out.size();
  }
  state.counters["rows"] = double(rows);
}
BENCHMARK(BM_CursorFirst100)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond);

void BM_CursorAll(benchmark::State& state) {
  const int n = int(state.range(0));
  inst();
  const Timeval from(kT0 + (kBuckets - n) * kPerBucket / 100, 0);
  size_t events = 0;
  for (auto _ : state) {
    SearchEvaluator ev{StringPiece("common")};
    ev.optimize();
    CursoredSearch cursor(&ev, inst().index, from, Timeval(), false);
    events = 0;
    for (;;) {
      SearchResults out;
      if (!cursor.fetchResults(out, 10000)) break;
      events += out.size();
    }
  }
  state.counters["events"] = double(events);
  state.counters["events_per_s"] =
      benchmark::Counter(double(events) * double(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_CursorAll)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_SearchHead100(benchmark::State& state) {
  inst();
  const std::string text = std::string("search index=c ") + kTerms[state.range(0)] + " | head 100";
  size_t rows = 0;
  long n = 0;
  for (auto _ : state) {
    SearchResultsInfo info;
    info.cancelId = "bench_cursor";
    info.queryId = "bench_cursor_" + std::to_string(++n);
    SearchCancel::instance()->start(info.cancelId);
    SearchResults out;
    std::unique_ptr<SearchProcessor> p(SearchParser::parse(Str(text), true));
    p->execute(out, info);
    rows = out.size();
    SearchCancel::instance()->stop(info.cancelId);
    // Each run is a fresh search: drop the finished one so the next one runs.
    UnifiedSearchDispatchThreadManager::instance()->clear();
  }
  state.counters["rows"] = double(rows);
}
BENCHMARK(BM_SearchHead100)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  MThread mainThread;
  EngineRunnerScope runner;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  delete &inst();
  return 0;
}
