// Event loop and process runner costs: timer add/remove on a heap of
// 10,000; the round trip of an actor to a loop thread and back; spawns per
// second through the process runner against a direct fork + exec from this
// process after it has touched a large resident set (2 GB by default,
// VELMOR_BENCH_RSS_MB to change it). The runner is forked before the memory
// is touched, as a server forks it at start. The same comparison for the
// index engine's forked query handle: open, one term lookup, close, with
// the engine child started through the runner or forked from here.
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <random>
#include <vector>

#include "searchthing/ipcver.h"
#include "util/EventLoop.h"
#include "util/EventLoopThread.h"
#include "util/ExternalProcessGroup.h"
#include "util/InThreadActor.h"
#include "util/MainThread.h"
#include "util/ProcessRunner.h"

namespace {

class NopTimeout : public OneShotTimeout {
 public:
  void when_expired() override {}
};

void BM_TimerAddRemove(benchmark::State& state) {
  EventLoop loop;
  std::vector<NopTimeout> ts(10000);
  std::mt19937 rng(1);
  for (auto& t : ts) loop.add(&t, 1000 + rng() % 3600000);
  size_t i = 0;
  for (auto _ : state) {
    NopTimeout& t = ts[i];
    loop.remove(&t);
    loop.add(&t, 1000 + rng() % 3600000);
    i = (i * 7919 + 1) % ts.size();
  }
  state.SetItemsProcessed(state.iterations() * 2);
  for (auto& t : ts) loop.remove(&t);
}
BENCHMARK(BM_TimerAddRemove);

class NopActor : public InThreadActor {
 public:
  void run() override {}
};

void BM_ActorRoundTrip(benchmark::State& state) {
  EventLoopThread elt("bench-actors");
  elt.start();
  NopActor a;
  for (auto _ : state) elt.internal_runInThread(&a, true);
  elt.stop();
}
BENCHMARK(BM_ActorRoundTrip)->UseRealTime();

void BM_SpawnViaRunner(benchmark::State& state) {
  ExternalProcessGroup g;
  for (auto _ : state) {
    ExternalProcessToken t = g.start({Str("/bin/true")});
    if (!t.getStatus(true).statusOk()) state.SkipWithError("child failed");
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SpawnViaRunner)->UseRealTime()->MinTime(2.0);

void BM_SpawnDirectFork(benchmark::State& state) {
  for (auto _ : state) {
    pid_t pid = fork();
    if (pid == 0) {
      execl("/bin/true", "true", static_cast<char*>(nullptr));
      _exit(127);
    }
    int st;
    waitpid(pid, &st, 0);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SpawnDirectFork)->UseRealTime()->MinTime(2.0);

// A small index (one synced slice) that the query benchmarks open.
const std::string& benchIndex() {
  static std::string dir = [] {
    char tmpl[] = "/tmp/velmor_bench_idx_XXXXXX";
    std::string d = mkdtemp(tmpl) ? tmpl : "";
    setenv("VELMOR_ST_NEVER_FORK", "1", 1);
    st_handle* h = st_open(d.c_str());
    for (uint32_t i = 0; i < 1000; ++i) st_put(h, i % 2 ? "odd" : "even", 1000 + static_cast<int32_t>(i), i, 0, 0, 0, 0);
    st_close(h);
    unsetenv("VELMOR_ST_NEVER_FORK");
    return d;
  }();
  return dir;
}

void forkedQueries(benchmark::State& state) {
  const std::string& dir = benchIndex();
  st_tsval ans[16];
  for (auto _ : state) {
    st_handle* h = st_open_wflags(dir.c_str(), 5);
    if (h == nullptr || st_get(h, "odd", 0, 0x7fffffff, ans, 16, 0) < 0) state.SkipWithError("query failed");
    if (h != nullptr) st_close(h);
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_ForkedQueryHandleViaRunner(benchmark::State& state) {
  st_set_forkwait_helpers(ProcessRunnerForkHelper, ProcessRunnerWaitHelper);
  forkedQueries(state);
  st_set_forkwait_helpers(nullptr, nullptr);
}
BENCHMARK(BM_ForkedQueryHandleViaRunner)->UseRealTime()->MinTime(2.0);

void BM_ForkedQueryHandleDirectFork(benchmark::State& state) { forkedQueries(state); }
BENCHMARK(BM_ForkedQueryHandleDirectFork)->UseRealTime()->MinTime(2.0);

}  // namespace

int main(int argc, char** argv) {
  ProcessRunnerInit(nullptr, Pathname());
  new MainThread();
  size_t mb = 2048;
  if (const char* e = std::getenv("VELMOR_BENCH_RSS_MB")) mb = std::strtoul(e, nullptr, 10);
  auto* big = static_cast<char*>(std::malloc(mb << 20));
  if (big != nullptr) std::memset(big, 1, mb << 20);  // resident, not just reserved
  benchmark::DoNotOptimize(big);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::free(big);
  ProcessRunnerFini(nullptr);
  if (!benchIndex().empty()) {
    const std::string rm = "rm -rf " + benchIndex();
    if (std::system(rm.c_str()) != 0) return 1;
  }
  return 0;
}
