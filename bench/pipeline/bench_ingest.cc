// The write path of an index, end to end: DatabasePartitionPolicy::write of
// generated 200-byte lines (raw data append, word tables, segmentation,
// terms into the hot slice, slice flushes), then what the result costs on
// disk, then how long a rare term takes to find over 1, 10 and 100 buckets.
//
//   BM_WritePath/<t>    events/s (items_per_second) with t indexing threads
//                       (0: terms put on the writing thread, one core)
//   BM_DiskPerRawByte   bytes on disk (gzipped raw data, slices after the
//                       optimiser's forced merge, word tables) per byte of
//                       raw text: counter disk_per_raw
//   BM_DiskGenlogs      the same for 50 MB of the sample generator's logs
//                       (syslog, access, key=value, Java, JSON over several
//                       hosts), added with velmor-index and merged with
//                       velmor-optimize -f; counters break the slices down
//                       per event: values (8 bytes each), attribute bits,
//                       the fixed 24 bytes of each distinct term (list
//                       offset, statistics, reversed map), both lexicons,
//                       and the posting lists
//   BM_RareTerm/<k>     one query of a term held by one event in each
//                       bucket, over a time range covering k buckets
//                       (forked engine per bucket, as searches run it;
//                       /<k>/1 with direct handles)
//
// BENCH_MEMMB=<n> in the environment replaces the index's hot-slice memory
// budget (maxMemMB, 100 by default) to see how slice size trades put cost
// (cache misses) against flush cost.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "pipeline/indexer/DatabasePartitionPolicy.h"
#include "pipeline/indexer/EngineRunnerScope.h"
#include "searchthing/warmslice.h"
#include "util/MainThread.h"
#include "util/Pathname.h"

namespace {

class MThread : public MainThread {};

// Line `i` of the generated log: about 200 bytes, with a word "evt<i>" of its
// own and a "rare<bucket>" word on one line in each 2000.
std::string genLine(long i) {
  static const char* kActions[] = {"login", "logout", "read", "write", "delete", "update"};
  static const char* kAgents[] = {"Mozilla/5.0", "curl/7.88.1", "python-requests/2.31", "Go-http-client/1.1"};
  char buf[256];
  unsigned x = unsigned(i) * 2654435761u;
  int n = snprintf(buf, sizeof buf,
                   "2026-11-20T%02ld:%02ld:%02ldZ web%ld app[%u]: evt%ld user=u%u action=%s status=%u "
                   "latency=%ums bytes=%u agent=%s path=/api/v1/items/%u/detail session=%08x",
                   (i / 3600) % 24, (i / 60) % 60, i % 60, i % 7, 1000 + x % 9000, i, x % 500, kActions[x % 6],
                   200 + (x >> 3) % 4 * 100, (x >> 5) % 2000, (x >> 7) % 65536, kAgents[(x >> 9) % 4],
                   (x >> 11) % 100000, x);
  std::string s(buf, size_t(n));
  if (s.size() < 199) s.append(199 - s.size(), ' ');
  return s.substr(0, 199);
}

Pathname scratch() {
  char tmpl[] = "/tmp/bench_ingest.XXXXXX";
  if (!mkdtemp(tmpl)) abort();
  return Pathname(tmpl);
}

PolicyParameters params(const Pathname& root) {
  PolicyParameters p;
  p.name = "bench";
  p.homePath = root / "db";
  p.coldPath = root / "colddb";
  p.thawedPath = root / "thaweddb";
  p.maxResults = 1000000;
  p.compressRawdata = true;
  p.maxDataSize = 100000;
  p.maxDataSizeBytes = uint64_t(p.maxDataSize) << 20;
  p.maxTotalDataSizeMB = 100000000;
  p.frozenTimePeriodInSecs = 0;  // never freeze
  p.maxWarmDBCount = 1000;
  p.optimizeEvery = 0;
  if (getenv("BENCH_MEMMB")) p.maxMemMB = atol(getenv("BENCH_MEMMB"));
  return p;
}

// Writes lines [from, to) through the policy; returns the raw bytes.
uint64_t writeLines(DatabasePartitionPolicy& policy, const std::vector<std::string>& lines, long from, long to,
                    long idBase) {
  WritableEvent ev;
  ev.host = StrSegment("web1", 4);
  ev.source = StrSegment("/var/log/app.log", 16);
  ev.sourceType = StrSegment("app", 3);
  char t[24];
  uint64_t bytes = 0;
  for (long i = from; i < to; ++i) {
    const std::string& l = lines[size_t(i) % lines.size()];
    int n = snprintf(t, sizeof t, "%ld", 1795132800L + (idBase + i) / 10);
    ev.time = StrSegment(t, size_t(n));
    ev.raw = StrSegment(l.data(), l.size());
    policy.write(ev);
    bytes += l.size();
  }
  return bytes;
}

void BM_WritePath(benchmark::State& state) {
  // 300000 events and the sync that makes them searchable; with indexing
  // threads (the argument) the terms are put on them, so wall time counts.
  const long n = 300000;
  std::vector<std::string> lines;
  for (long i = 0; i < 100000; ++i) lines.push_back(genLine(i));
  for (auto _ : state) {
    state.PauseTiming();
    Pathname root = scratch();
    PolicyParameters p = params(root);
    p.indexThreads = state.range(0);
    auto policy = std::make_unique<DatabasePartitionPolicy>(p);
    policy->start();
    state.ResumeTiming();
    writeLines(*policy, lines, 0, n, 0);
    policy->sync(true);
    state.PauseTiming();
    policy.reset();
    root.removeRecursive();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(n * int64_t(state.iterations()));
}
BENCHMARK(BM_WritePath)->Arg(0)->Arg(1)->Arg(2)->Iterations(2)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_DiskPerRawByte(benchmark::State& state) {
  const long n = 500000;  // 100 MB of raw text
  std::vector<std::string> lines;
  for (long i = 0; i < n; ++i) lines.push_back(genLine(i));
  for (auto _ : state) {
    Pathname root = scratch();
    uint64_t raw;
    {
      DatabasePartitionPolicy policy(params(root));
      policy.start();
      raw = writeLines(policy, lines, 0, n, 0);
      policy.close();
    }
    Pathname hot = root / "db" / "db-hot";
    std::string cmd = std::string(VELMOR_BINARY_DIR "/bin/velmor-optimize -f ") + hot + " >/dev/null 2>&1";
    bool merged = system(cmd.c_str()) == 0;
    uint64_t disk = (root / "db").treeSize();
    state.counters["raw_MB"] = double(raw) / 1e6;
    state.counters["disk_MB"] = double(disk) / 1e6;
    state.counters["disk_per_raw"] = double(disk) / double(raw);
    state.counters["rawdata_per_raw"] = double((hot / "rawdata").treeSize()) / double(raw);
    state.counters["merged"] = merged ? 1 : 0;
    root.removeRecursive();
  }
}
BENCHMARK(BM_DiskPerRawByte)->Iterations(1)->Unit(benchmark::kSecond);

// Bytes of each part of the slices in a directory (st_warm_slice_sections).
struct SliceParts {
  double values = 0, attrs = 0, termFixed = 0, lexicons = 0, postings = 0;
  double events = 0, terms = 0, postingCount = 0;
};

SliceParts sliceParts(const Pathname& dir) {
  SliceParts s;
  std::vector<Str> names;
  if (!dir.readDirectory(names)) return s;
  for (const Str& n : names) {
    st_slice_sections sec;
    if (!n.endswith(".tsidx") || st_warm_slice_sections((dir / n).c_str(), &sec) != 0) continue;
    s.values += double(sec.bytes[ST_SECTION_VALUES]);
    s.attrs += double(sec.bytes[ST_SECTION_ATTRS]);
    s.termFixed += double(sec.bytes[ST_SECTION_PL_OFFSETS] + sec.bytes[ST_SECTION_METADATA] +
                          sec.bytes[ST_SECTION_RF_MAP]);
    s.lexicons += double(sec.bytes[ST_SECTION_FLEX] + sec.bytes[ST_SECTION_RLEX]);
    s.postings += double(sec.bytes[ST_SECTION_POSTINGS]);
    s.events += sec.num_values;
    s.terms += sec.num_terms;
    s.postingCount += sec.num_postings;
  }
  return s;
}

void BM_DiskGenlogs(benchmark::State& state) {
  for (auto _ : state) {
    Pathname root = scratch();
    Pathname home = root / "home", logs = root / "logs";
    std::string env = "VELMOR_HOME=" + std::string(home) + " VELMOR_DB=" + std::string(home / "var/lib/velmor/db");
    std::string cmds = std::string("bash " VELMOR_SOURCE_DIR "/scripts/mkhome.sh ") + home + " >/dev/null && " +
                       VELMOR_BINARY_DIR "/bin/velmor-genlogs --seed 7 --size 50M --days 2 --hosts 4 --out " +
                       logs + " >/dev/null 2>&1 && " + env + " " VELMOR_BINARY_DIR "/bin/velmor-index add main $(find " +
                       logs + " -name '*.log' | sort) >/dev/null 2>&1";
    if (system(cmds.c_str()) != 0) {
      state.SkipWithError("genlogs or velmor-index failed");
      root.removeRecursive();
      return;
    }
    Pathname hot = home / "var/lib/velmor/db/defaultdb/db/db-hot";
    std::string merge = std::string(VELMOR_BINARY_DIR "/bin/velmor-optimize -f ") + hot + " >/dev/null 2>&1";
    bool merged = system(merge.c_str()) == 0;
    double raw = double(logs.treeSize());
    double disk = double((home / "var/lib/velmor/db/defaultdb/db").treeSize());
    SliceParts p = sliceParts(hot);
    state.counters["raw_MB"] = raw / 1e6;
    state.counters["disk_per_raw"] = disk / raw;
    state.counters["rawdata_per_raw"] = double((hot / "rawdata").treeSize()) / raw;
    state.counters["slices_per_raw"] = (p.values + p.attrs + p.termFixed + p.lexicons + p.postings) / raw;
    state.counters["merged"] = merged ? 1 : 0;
    if (p.events > 0) {
      state.counters["raw_B_per_event"] = raw / p.events;
      state.counters["terms_per_event"] = p.terms / p.events;
      state.counters["postings_per_event"] = p.postingCount / p.events;
      state.counters["B_values"] = (p.values + p.attrs) / p.events;
      state.counters["B_term_fixed"] = p.termFixed / p.events;
      state.counters["B_lexicons"] = p.lexicons / p.events;
      state.counters["B_postings"] = p.postings / p.events;
    }
    root.removeRecursive();
  }
}
BENCHMARK(BM_DiskGenlogs)->Iterations(1)->Unit(benchmark::kSecond);

// 100 buckets of 2000 events each, event times rising, the newest bucket
// hot; "rare<k>" on one event of bucket k.
struct Buckets {
  Pathname root;
  std::unique_ptr<DatabasePartitionPolicy> policy;
  std::vector<int32_t> starts;  // first event time of each bucket
  Buckets() {
    root = scratch();
    policy = std::make_unique<DatabasePartitionPolicy>(params(root));
    policy->start();
    std::vector<std::string> lines;
    for (long i = 0; i < 2000; ++i) lines.push_back(genLine(i));
    for (int b = 0; b < 100; ++b) {
      lines[777] = genLine(777) + " rare" + std::to_string(b);
      starts.push_back(int32_t(1795132800L + long(b) * 2000 / 10));
      writeLines(*policy, lines, 0, 2000, long(b) * 2000);
      if (b < 99) policy->rollHotDb();
    }
    policy->sync(true);
  }
  ~Buckets() {
    policy.reset();
    root.removeRecursive();
  }
};

void BM_RareTerm(benchmark::State& state) {
  static Buckets* buckets = new Buckets();  // built once, kept for every variant
  const int k = int(state.range(0));
  if (state.range(1))
    setenv("VELMOR_ST_NEVER_FORK", "1", 1);
  else
    unsetenv("VELMOR_ST_NEVER_FORK");
  // The newest k buckets; the term sits in the oldest of them.
  int32_t start = buckets->starts[size_t(100 - k)];
  std::vector<Str> terms{Str("rare") + std::to_string(100 - k)};
  std::vector<ValueWrapper> out;
  for (auto _ : state) {
    out.clear();
    buckets->policy->query(terms, {}, {}, start, INT32_MAX, 100, out);
    if (out.size() != 1) state.SkipWithError("rare term not found once");
  }
  unsetenv("VELMOR_ST_NEVER_FORK");
}
BENCHMARK(BM_RareTerm)->Args({1, 0})->Args({10, 0})->Args({100, 0})->Args({1, 1})->Args({10, 1})->Args({100, 1})
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  MThread mainThread;
  // As in the tools: child processes (gzip, forked engines) start through
  // the process runner, not by forking this large process.
  EngineRunnerScope runner;
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
