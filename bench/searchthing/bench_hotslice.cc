// Postings per second into the hot slice, with terms cut from the sample
// logs (runs of letters and digits), one address per line.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "LoghubTokens.h"
#include "searchthing/hotslice.h"

namespace {

using bench::Tok;
const std::vector<Tok>& tokens() { return bench::loghubTokens(); }

void BM_HotSlicePut(benchmark::State& state) {
  const std::vector<Tok>& toks = tokens();
  if (toks.empty()) {
    state.SkipWithError("sample logs not found");
    return;
  }
  // Table sizes: pool bytes, terms, postings, values.
  st_hot_slice* hot = st_hot_slice_create(state.range(0), state.range(1), state.range(2), state.range(3));
  uint64_t puts = 0;
  uint32_t round = 0;
  for (auto _ : state) {
    // Each pass over the sample uses fresh addresses, so values keep growing
    // until a table fills and the slice is reset, as a sync would.
    uint32_t base = round++ * 20000;
    for (const Tok& t : toks) {
      uint32_t addr = base + t.line;
      if (st_hot_slice_put(hot, t.term.c_str(), (int32_t)(addr / 10), addr, 1, 2, 3, 4) != 0) {
        st_hot_slice_reset(hot);
        st_hot_slice_put(hot, t.term.c_str(), (int32_t)(addr / 10), addr, 1, 2, 3, 4);
      }
    }
    puts += toks.size();
  }
  state.SetItemsProcessed((int64_t)puts);
  st_hot_slice_close(hot);
}
// The engine's starting sizes (16384 each), a slice sized as autotuning makes
// it for a budget of some tens of megabytes, and one far larger than a cache.
BENCHMARK(BM_HotSlicePut)
    ->Args({16384, 16384, 16384, 16384})
    ->Args({1 << 20, 1 << 16, 1 << 20, 1 << 17})
    ->Args({64 << 20, 1 << 20, 1 << 23, 1 << 20})
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
