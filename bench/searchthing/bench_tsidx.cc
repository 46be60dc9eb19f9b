// Index-level costs of the engine: rare-term query latency as the number of
// slices grows (direct and forked handles), merge throughput, and the time
// to merge 100 slices down to one. Values are the lines of the loghub
// samples, tokenized; without them, synthetic lines.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "searchthing/ipcver.h"
#include "searchthing/osfile.h"
#include "searchthing/warmslice.h"
#include "searchthing/warmslice_merge.h"

namespace {

std::vector<std::string> loadLines() {
  std::vector<std::string> lines;
  for (const char* sys : {"Apache", "HDFS", "Linux", "OpenSSH", "Spark", "Thunderbird", "Windows", "Zookeeper"}) {
    std::ifstream in(std::string(VELMOR_SOURCE_DIR "/../shared/data/loghub/") + sys + "/" + sys + "_2k.log");
    for (std::string l; std::getline(in, l);) lines.push_back(l);
  }
  if (lines.empty()) {
    for (int i = 0; i < 16000; ++i)
      lines.push_back("host" + std::to_string(i % 37) + " sshd[" + std::to_string(i % 991) +
                      "]: session opened for user u" + std::to_string(i % 113) + " status=" + std::to_string(i % 7));
  }
  return lines;
}

const std::vector<std::string>& lines() {
  static std::vector<std::string> l = loadLines();
  return l;
}

struct Scratch {
  std::string root;
  Scratch() {
    char tmpl[] = "/tmp/bench_tsidx_XXXXXX";
    root = mkdtemp(tmpl) ? tmpl : "/tmp";
  }
  ~Scratch() { removeTree(root); }
  static void removeTree(const std::string& p) {
    if (DIR* d = opendir(p.c_str())) {
      while (struct dirent* e = readdir(d)) {
        std::string n = e->d_name;
        if (n == "." || n == "..") continue;
        std::string c = p + "/" + n;
        struct stat st;
        if (lstat(c.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) removeTree(c);
        else unlink(c.c_str());
      }
      closedir(d);
    }
    rmdir(p.c_str());
  }
};

Scratch& scratch() {
  static Scratch s;
  return s;
}

// Writes `slices` slices of `per_slice` tokenized lines each into dir; the
// term "needle" goes into one value of every 10th slice.
void build(const std::string& dir, int slices, int per_slice) {
  mkdir(dir.c_str(), 0755);
  st_handle* h = st_open_wflags(dir.c_str(), 3);
  // Tables large enough that only the explicit syncs below cut slices.
  st_options(h, 1u << 24, 1u << 18, 1u << 22, 1u << 17);
  uint32_t addr = 1;
  size_t line = 0;
  for (int s = 0; s < slices; ++s) {
    for (int v = 0; v < per_slice; ++v, ++addr) {
      int32_t t = 1000000 + static_cast<int32_t>(addr);
      st_tokenize(h, lines()[line++ % lines().size()].c_str(), t, addr, 1, 2, 3, 4);
      if (v == 0 && s % 10 == 0) st_put(h, "needle", t, addr, 1, 2, 3, 4);
    }
    st_sync(h);
  }
  st_close(h);
}

const std::string& indexWith(int slices) {
  static std::map<int, std::string> dirs;
  auto it = dirs.find(slices);
  if (it != dirs.end()) return it->second;
  std::string dir = scratch().root + "/q" + std::to_string(slices);
  build(dir, slices, 100);
  return dirs[slices] = dir;
}

void BM_RareTermQuery(benchmark::State& state) {
  const std::string& dir = indexWith(static_cast<int>(state.range(0)));
  st_handle* h = st_open_wflags(dir.c_str(), state.range(1) ? 5 : 1);
  char needle[] = "needle";
  char* kw[] = {needle};
  st_query_spec q;
  st_query_init(&q);
  q.start = INT32_MIN;
  q.end = INT32_MAX;
  q.and_keywords = {kw, 1};
  st_tsval ans[200];
  int n = 0;
  for (auto _ : state) {
    n = st_query(h, &q, ans, 200, 0);
    benchmark::DoNotOptimize(n);
  }
  state.counters["answers"] = n;
  state.SetLabel(state.range(1) ? "forked" : "direct");
  st_close(h);
}
BENCHMARK(BM_RareTermQuery)
    ->ArgsProduct({{1, 10, 100, 1000}, {0, 1}})
    ->ArgNames({"slices", "forked"})
    ->Unit(benchmark::kMicrosecond);

// st_warm_slice_merge of two slices of 8000 tokenized lines each.
void BM_MergeTwoSlices(benchmark::State& state) {
  static std::string dir;
  if (dir.empty()) {
    dir = scratch().root + "/m2";
    build(dir, 2, 8000);
  }
  std::vector<std::string> paths;
  if (DIR* d = opendir(dir.c_str())) {
    while (struct dirent* e = readdir(d))
      if (e->d_name[0] != '.') paths.push_back(dir + "/" + e->d_name);
    closedir(d);
  }
  st_warm_slice* a = st_warm_slice_open(paths[0].c_str(), 0);
  st_warm_slice* b = st_warm_slice_open(paths[1].c_str(), 0);
  int64_t in_bytes = ospath_get_size(paths[0].c_str()) + ospath_get_size(paths[1].c_str());
  std::string out = scratch().root + "/merged.out";
  for (auto _ : state) {
    st_warm_slice* m = st_warm_slice_merge(out.c_str(), a, b);
    if (!m) state.SkipWithError("merge failed");
    else st_warm_slice_close(m);
  }
  state.SetBytesProcessed(state.iterations() * in_bytes);
  state.counters["input_MB"] = static_cast<double>(in_bytes) / 1e6;
  unlink(out.c_str());
  st_warm_slice_close(a);
  st_warm_slice_close(b);
}
BENCHMARK(BM_MergeTwoSlices)->Unit(benchmark::kMillisecond);

// 100 slices of 200 tokenized lines merged down to one (forced pairs).
void BM_Merge100ToOne(benchmark::State& state) {
  int round = 0;
  for (auto _ : state) {
    state.PauseTiming();
    std::string dir = scratch().root + "/h" + std::to_string(round++);
    build(dir, 100, 200);
    st_handle* h = st_open_wflags(dir.c_str(), 3);
    state.ResumeTiming();
    int merges = 0;
    while (st_optimize_ex(h, 1) == 0) ++merges;
    state.PauseTiming();
    state.counters["merges"] = merges;
    st_close(h);
    Scratch::removeTree(dir);
    state.ResumeTiming();
  }
}
BENCHMARK(BM_Merge100ToOne)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
