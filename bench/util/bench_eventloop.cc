// Event loop and process runner costs: timer add/remove on a heap of
// 10,000; the round trip of an actor to a loop thread and back; spawns per
// second through the process runner against a direct fork + exec from this
// process after it has touched a large resident set (2 GB by default,
// VELMOR_BENCH_RSS_MB to change it). The runner is forked before the memory
// is touched, as a server forks it at start.
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

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
  return 0;
}
