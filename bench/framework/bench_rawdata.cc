// Raw data journal speed: events/s and bytes/s appended for 200-byte log
// lines (rolls and background gzip included), and the latency of reading
// one event at a random address from plain and from gzipped files.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "framework/SplitCompression.h"

namespace {

// 200-byte events cut from real log lines, padded with the next lines.
std::vector<std::string> makeEvents() {
  std::ifstream in(std::string(VELMOR_SOURCE_DIR) + "/../shared/data/loghub/Thunderbird/Thunderbird_2k.log");
  std::string all, line;
  while (std::getline(in, line)) all += line + " ";
  if (all.size() < 400) all = std::string(4000, 'x');
  std::vector<std::string> events;
  for (size_t at = 0; at + 200 <= all.size(); at += 200) events.push_back(all.substr(at, 200));
  return events;
}

const std::vector<std::string>& events() {
  static const std::vector<std::string> e = makeEvents();
  return e;
}

struct Scratch {
  Scratch() {
    char tmpl[] = "/tmp/bench_rawdata.XXXXXX";
    dir = ::mkdtemp(tmpl);
  }
  ~Scratch() { Pathname(Str(dir)).removeRecursive(); }
  std::string dir;
};

void BM_Write200ByteEvents(benchmark::State& state) {
  Scratch s;
  SplitCompression sc(Pathname(Str(s.dir + "/rawdata")), SplitCompression::kDefaultRollSize, 5,
                      state.range(0) != 0);
  const std::vector<std::string>& ev = events();
  const std::string meta = "source::/var/log/messages";
  size_t i = 0;
  int64_t bytes = 0;
  for (auto _ : state) {
    const std::string& e = ev[i++ % ev.size()];
    benchmark::DoNotOptimize(sc.write(int32_t(i), e, meta));
    bytes += int64_t(e.size());
  }
  sc.waitForCompression();
  state.SetItemsProcessed(int64_t(state.iterations()));
  state.SetBytesProcessed(bytes);
}
BENCHMARK(BM_Write200ByteEvents)->Arg(1)->Arg(0)->ArgName("gzip")->UseRealTime();

// 30 MB of events: three rolled (gzipped or plain) files and the open one.
void BM_RandomRead(benchmark::State& state) {
  Scratch s;
  const bool gzip = state.range(0) != 0;
  SplitCompression sc(Pathname(Str(s.dir + "/rawdata")), SplitCompression::kDefaultRollSize, 5, gzip);
  const std::vector<std::string>& ev = events();
  std::vector<int64_t> addrs;
  for (size_t i = 0; i < 150000; ++i) addrs.push_back(sc.write(int32_t(i), ev[i % ev.size()], ""));
  sc.waitForCompression();
  // Only addresses in rolled files: the open file is always plain.
  const int64_t firstOpen = sc.files().rbegin()->first >> sc.addressShift();
  while (!addrs.empty() && addrs.back() >= firstOpen) addrs.pop_back();
  std::mt19937 rng(42);
  Str raw, meta;
  int32_t time;
  for (auto _ : state) {
    if (!sc.read(addrs[rng() % addrs.size()], raw, meta, time)) state.SkipWithError("read failed");
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(BM_RandomRead)->Arg(0)->Arg(1)->ArgName("gzip")->Unit(benchmark::kMicrosecond)->UseRealTime();

// Every event in address order through one kept context.
void BM_SequentialReadGz(benchmark::State& state) {
  Scratch s;
  SplitCompression sc(Pathname(Str(s.dir + "/rawdata")), SplitCompression::kDefaultRollSize, 5, true);
  const std::vector<std::string>& ev = events();
  std::vector<int64_t> addrs;
  for (size_t i = 0; i < 100000; ++i) addrs.push_back(sc.write(int32_t(i), ev[i % ev.size()], ""));
  sc.waitForCompression();
  std::unique_ptr<ReadContext> ctx;
  Str raw, meta;
  int32_t time;
  size_t i = 0;
  for (auto _ : state) {
    if (i == addrs.size()) i = 0;
    if (!sc.read(addrs[i++], raw, meta, time, &ctx)) state.SkipWithError("read failed");
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
  state.SetBytesProcessed(int64_t(state.iterations()) * 200);
}
BENCHMARK(BM_SequentialReadGz)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
