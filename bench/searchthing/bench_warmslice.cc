// Warm slices from the sample logs: write speed of both writers (MB/s of
// slice file), index bytes per posting, the latency of a query for a rare
// term on one slice (with the handle held, and with open and close), and the
// merge of two slices whose events interleave in time (postings per second).
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "LoghubTokens.h"
#include "searchthing/warmslice.h"
#include "searchthing/warmslice_merge.h"

namespace {

using bench::Tok;
const std::vector<Tok>& tokens() { return bench::loghubTokens(); }

struct Scratch {
  std::string dir;
  Scratch() {
    char t[] = "/tmp/bench_warmslice_XXXXXX";
    dir = mkdtemp(t);
  }
  ~Scratch() { rmdir(dir.c_str()); }
};

st_hot_slice* filledHot() {
  st_hot_slice* hot = st_hot_slice_create(16 << 20, 1 << 19, 1 << 21, 1 << 16);
  for (const Tok& t : tokens()) st_hot_slice_put(hot, t.term.c_str(), (int32_t)(t.line / 10), t.line, 1, 2, 3, 4);
  return hot;
}

uint64_t fileSize(const char* path) {
  struct stat sb;
  return stat(path, &sb) == 0 ? (uint64_t)sb.st_size : 0;
}

void syncBench(benchmark::State& state, bool by_fd) {
  if (tokens().empty()) {
    state.SkipWithError("sample logs not found");
    return;
  }
  Scratch s;
  st_hot_slice* hot = filledHot();
  uint32_t postings = 0;
  st_hot_slice_prepare(hot, nullptr, nullptr, nullptr, nullptr, &postings);
  uint64_t bytes = 0, size = 0;
  char name[4096];
  for (auto _ : state) {
    if (by_fd) {
      free(st_warm_slice_create_by_fd(hot, name, sizeof name, s.dir.c_str(), ".tsidx"));
    } else {
      st_warm_slice_close(st_warm_slice_create(hot, name, sizeof name, s.dir.c_str(), ".tsidx"));
    }
    state.PauseTiming();
    size = fileSize(name);
    bytes += size;
    unlink(name);
    state.ResumeTiming();
  }
  state.SetBytesProcessed((int64_t)bytes);
  state.counters["file_bytes"] = (double)size;
  state.counters["postings"] = postings;
  state.counters["bytes_per_posting"] = postings ? (double)size / postings : 0;
  st_hot_slice_close(hot);
}

void BM_SyncInMemoryWriter(benchmark::State& state) { syncBench(state, false); }
void BM_SyncDescriptorWriter(benchmark::State& state) { syncBench(state, true); }
BENCHMARK(BM_SyncInMemoryWriter)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SyncDescriptorWriter)->Unit(benchmark::kMillisecond);

// A slice of the whole sample and one of its terms that occurs once.
struct QuerySlice {
  Scratch s;
  std::string path, rare;
  QuerySlice() {
    std::map<std::string, int> freq;
    for (const Tok& t : tokens()) freq[t.term]++;
    for (auto& [term, n] : freq)
      if (n == 1 && term.size() > 6) rare = term;
    st_hot_slice* hot = filledHot();
    char name[4096];
    free(st_warm_slice_create_by_fd(hot, name, sizeof name, s.dir.c_str(), ".tsidx"));
    path = name;
    st_hot_slice_close(hot);
  }
  ~QuerySlice() { unlink(path.c_str()); }
};

void BM_RareTermQuery(benchmark::State& state) {
  if (tokens().empty()) {
    state.SkipWithError("sample logs not found");
    return;
  }
  QuerySlice q;
  st_warm_slice* ws = st_warm_slice_open_fd(q.path.c_str(), 0);
  st_tsval ans[16];
  int found = 0;
  for (auto _ : state) found = st_warm_slice_get(ws, q.rare.c_str(), INT32_MIN, INT32_MAX, ans, 16, nullptr);
  state.counters["answers"] = found;
  st_warm_slice_close(ws);
}
BENCHMARK(BM_RareTermQuery)->Unit(benchmark::kMicrosecond);

void BM_RareTermQueryWithOpen(benchmark::State& state) {
  if (tokens().empty()) {
    state.SkipWithError("sample logs not found");
    return;
  }
  QuerySlice q;
  st_tsval ans[16];
  int found = 0;
  for (auto _ : state) {
    st_warm_slice* ws = st_warm_slice_open_fd(q.path.c_str(), 0);
    found = st_warm_slice_get(ws, q.rare.c_str(), INT32_MIN, INT32_MAX, ans, 16, nullptr);
    st_warm_slice_close(ws);
  }
  state.counters["answers"] = found;
}
BENCHMARK(BM_RareTermQueryWithOpen)->Unit(benchmark::kMicrosecond);

// Two slices of the sample, lines alternating between them (so that their
// value numbers interleave in the merge, as those of slices written one after
// another by several inputs do), merged into a third.
void BM_MergeTwoSlices(benchmark::State& state) {
  if (tokens().empty()) {
    state.SkipWithError("sample logs not found");
    return;
  }
  Scratch s;
  std::string paths[2];
  for (int half = 0; half < 2; ++half) {
    st_hot_slice* hot = st_hot_slice_create(16 << 20, 1 << 19, 1 << 21, 1 << 16);
    for (const Tok& t : tokens())
      if ((int)(t.line & 1) == half) st_hot_slice_put(hot, t.term.c_str(), (int32_t)(t.line / 10), t.line, 1, 2, 3, 4);
    char name[4096];
    free(st_warm_slice_create_by_fd(hot, name, sizeof name, s.dir.c_str(), ".tsidx"));
    paths[half] = name;
    st_hot_slice_close(hot);
  }
  st_warm_slice* a = st_warm_slice_open(paths[0].c_str(), 0);
  st_warm_slice* b = st_warm_slice_open(paths[1].c_str(), 0);
  std::string out = s.dir + "/merged.merge";
  uint64_t postings = 0, size = 0;
  for (auto _ : state) {
    st_warm_slice* m = st_warm_slice_merge(out.c_str(), a, b);
    if (!m) {
      state.SkipWithError("merge failed");
      break;
    }
    postings += m->lay.num_postings;
    size = st_warm_slice_size(m);
    st_warm_slice_close(m);
  }
  state.SetItemsProcessed((int64_t)postings);
  state.counters["mapped_bytes"] = (double)size;
  st_warm_slice_close(a);
  st_warm_slice_close(b);
  unlink(out.c_str());
  for (const std::string& p : paths) unlink(p.c_str());
}
BENCHMARK(BM_MergeTwoSlices)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
