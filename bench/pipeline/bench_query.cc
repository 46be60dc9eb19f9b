// Inner queries through the index processor, on a scratch installation:
//
//   BM_QueryRare/<k>          "SEARCH rare<b> GET events::0-99 OUTPUT
//                             velmorui::2.2" over a time range covering the
//                             newest k of 100 buckets (the term sits in the
//                             oldest of them), a fresh query id each time
//   BM_QueryRareProcess/<k>   the same as a whole `velmor-index query` process
//   BM_QueryCache/<hit>       one query over the 100 buckets: a fresh id each
//                             time (0: miss) or the same id (1: cache hit)
//   BM_QueryIds/<common>      ids of one term over 1,000,000 events (in 10
//                             buckets): a rare term (held by 1 in 1000
//                             events) or a common one (every other event);
//                             counters: ids_per_s and bytes_per_id (heap held
//                             by the finished query, per id)
//
// The installation is made once per process under /tmp and removed at exit.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "libbundle/PropertyPages.h"
#include "loaderinfo/LoaderInfo.h"
#include "pipeline/indexer/CompiledQueryLanguage.h"
#include "pipeline/indexer/DatabasePartitionPolicy.h"
#include "pipeline/indexer/EngineRunnerScope.h"
#include "pipeline/indexer/IndexProcessor.h"
#include "pipeline/indexer/Query.h"
#include "pipeline/indexer/QueryCacheManager.h"
#include "util/MainThread.h"
#include "util/Pathname.h"

namespace {

class MThread : public MainThread {};

const long kT0 = 1795132800L;  // 2026-11-20T00:00:00Z

void writeEvents(DatabasePartitionPolicy& p, long from, long to, long perSecond,
                 const std::function<std::string(long)>& line) {
  WritableEvent ev;
  ev.host = StrSegment("web1", 4);
  ev.source = StrSegment("/var/log/app.log", 16);
  ev.sourceType = StrSegment("app", 3);
  char t[24];
  for (long i = from; i < to; ++i) {
    std::string l = line(i);
    int n = snprintf(t, sizeof t, "%ld", kT0 + i / perSecond);
    ev.raw = StrSegment(l.data(), l.size());
    ev.time = StrSegment(t, size_t(n));
    p.write(ev);
  }
}

struct Installation {
  Pathname dir;
  std::vector<long> starts;  // first time of each bucket of index "q"
  std::unique_ptr<IndexProcessor> processor;

  Installation() {
    char tmpl[] = "/tmp/bench_query.XXXXXX";
    if (!mkdtemp(tmpl)) abort();
    dir = Pathname(tmpl);
    Pathname home = dir / "home";
    if (system(("bash " VELMOR_SOURCE_DIR "/scripts/mkhome.sh " + home + " >/dev/null").c_str()) != 0) abort();
    setenv("VELMOR_HOME", home.c_str(), 1);
    setenv("VELMOR_DB", (home / "var/lib/velmor/db").c_str(), 1);
    LoaderInfo::getInstance().populateFromEnvironment();
    {
      std::ofstream conf(home / "etc/bundles/local/indexes.conf");
      conf << "[default]\ndefaultDatabase = q\n\n";
      for (const char* name : {"q", "big"})
        conf << "[" << name << "]\nhomePath = $VELMOR_DB/" << name << "/db\ncoldPath = $VELMOR_DB/" << name
             << "/colddb\nthawedPath = $VELMOR_DB/" << name << "/thaweddb\nmaxResults = 1000000\n"
             << "compressRawdata = true\nmaxDataSize = 100000\nmaxTotalDataSizeMB = 100000000\n"
             << "frozenTimePeriodInSecs = 2147483647\nmaxWarmDBCount = 1000\noptimizeEvery = 0\n\n";
    }
    PropertyPages::instance("indexes").updateConfigs();
    processor = std::make_unique<IndexProcessor>();
    processor->init(false, false);
    // Index q: 100 buckets of 2000 events, "rare<b>" once in bucket b.
    DatabasePartitionPolicy& q = *processor->getDatabaseByName("q");
    for (int b = 0; b < 100; ++b) {
      starts.push_back(kT0 + long(b) * 200);
      writeEvents(q, long(b) * 2000, long(b + 1) * 2000, 10, [b](long i) {
        std::string s = "2026-11-20 web1 app: evt" + std::to_string(i) + " user=u" + std::to_string(i % 500) +
                        " action=read status=200 path=/api/v1/items/" + std::to_string(i % 9973);
        if (i % 2000 == 777) s += " rare" + std::to_string(b);
        return s;
      });
      q.sync(true);
      if (b < 99) q.rollHotDb();
    }
    // Index big: 1,000,000 events in 10 buckets.
    DatabasePartitionPolicy& big = *processor->getDatabaseByName("big");
    for (int b = 0; b < 10; ++b) {
      writeEvents(big, long(b) * 100000, long(b + 1) * 100000, 50, [](long i) {
        std::string s = "evt" + std::to_string(i) + " status=200";
        if (i % 2 == 0) s += " common";
        if (i % 1000 == 0) s += " scarce";
        return s;
      });
      big.sync(true);
      if (b < 9) big.rollHotDb();
    }
  }
  ~Installation() {
    processor.reset();
    dir.removeRecursive();
  }
};

Installation& inst() {
  static Installation* i = new Installation();
  return *i;
}

std::string freshId() {
  static long n = 0;
  return "bench_" + std::to_string(getpid()) + "_" + std::to_string(++n);
}

std::string rareQuery(int k) {
  return "SEARCH rare" + std::to_string(100 - k) + " starttimeu::" + std::to_string(inst().starts[size_t(100 - k)]) +
         " GET events::0-99 OUTPUT velmorui::2.2";
}

void BM_QueryRare(benchmark::State& state) {
  std::string text = rareQuery(int(state.range(0)));
  Str doc;
  for (auto _ : state) {
    inst().processor->runQuery(text.c_str(), "admin", freshId().c_str(), doc);
    if (doc.find("<r ") == Str::npos && doc.find("\t<r") == Str::npos) state.SkipWithError("no event in the document");
  }
}
BENCHMARK(BM_QueryRare)->Arg(1)->Arg(10)->Arg(100)->Unit(benchmark::kMillisecond);

void BM_QueryRareProcess(benchmark::State& state) {
  std::string text = rareQuery(int(state.range(0)));
  std::string tool = VELMOR_BINARY_DIR "/bin/velmor-index";
  for (auto _ : state) {
    pid_t pid = fork();
    if (pid == 0) {
      freopen("/dev/null", "w", stdout);
      freopen("/dev/null", "w", stderr);
      execl(tool.c_str(), tool.c_str(), "query", text.c_str(), (char*)nullptr);
      _exit(127);
    }
    int st = 0;
    waitpid(pid, &st, 0);
    if (!WIFEXITED(st) || WEXITSTATUS(st) != 0) state.SkipWithError("velmor-index query failed");
  }
}
BENCHMARK(BM_QueryRareProcess)->Arg(1)->Arg(10)->Arg(100)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_QueryCache(benchmark::State& state) {
  std::string text = "SEARCH action=read NOT rare5 GET events::0-99 OUTPUT velmorui::2.2";
  std::string id = freshId();
  Str doc;
  inst().processor->runQuery(text.c_str(), "admin", id.c_str(), doc);
  for (auto _ : state) {
    std::string qid = state.range(0) ? id : freshId();
    inst().processor->runQuery(text.c_str(), "admin", qid.c_str(), doc);
  }
}
BENCHMARK(BM_QueryCache)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_QueryIds(benchmark::State& state) {
  std::string term = state.range(0) ? "common" : "scarce";
  std::string text = "SEARCH " + term + " index::big maxresults::1000000";
  size_t ids = 0;
  double bytes = 0;
  for (auto _ : state) {
    QueryCacheManager::getInstance().clear();
    struct mallinfo2 before = mallinfo2();
    std::shared_ptr<Query> q = executeQuery(text, "admin", freshId(), "", false);
    struct mallinfo2 after = mallinfo2();
    ids = q->results().size();
    if (q->hasFailed()) state.SkipWithError(q->getError().c_str());
    bytes = ids ? double(after.uordblks) - double(before.uordblks) : 0;
  }
  state.counters["ids"] = double(ids);
  state.counters["ids_per_s"] = benchmark::Counter(double(ids) * double(state.iterations()), benchmark::Counter::kIsRate);
  state.counters["bytes_per_id"] = ids ? bytes / double(ids) : 0;
}
BENCHMARK(BM_QueryIds)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

int main(int argc, char** argv) {
  MThread mainThread;
  EngineRunnerScope runner;
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  inst().processor.reset();
  return 0;
}
