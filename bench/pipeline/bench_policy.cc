// Events per second written through DatabasePartitionPolicy::write (raw data
// record, word tables, terms into the hot slice) and read back newest first
// across rolled buckets, with the lines of a sample log (generated lines
// when the sample logs are absent). Scratch indexes live under /tmp.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "libbundle/PropertiesMap.h"
#include "pipeline/indexer/DatabasePartitionPolicy.h"
#include "util/MainThread.h"

namespace {

std::vector<std::string> loadLines() {
  std::vector<std::string> out;
  std::ifstream in(VELMOR_SOURCE_DIR "/../shared/data/loghub/Linux/Linux_2k.log");
  for (std::string line; std::getline(in, line);)
    if (!line.empty()) out.push_back(line);
  if (out.empty())
    for (int i = 0; i < 2000; ++i)
      out.push_back("Jun 14 15:16:01 combo sshd(pam_unix)[19939]: authentication failure; rhost=10.0.0." +
                    std::to_string(i % 250) + " user=u" + std::to_string(i % 17));
  return out;
}

PolicyParameters params(const Pathname& at) {
  PropertiesMap m;
  m.put("homePath", at / "db");
  m.put("coldPath", at / "colddb");
  m.put("thawedPath", at / "thaweddb");
  m.put("maxResults", "100000");
  m.put("compressRawdata", "false");
  m.put("maxDataSize", "0");
  m.put("maxTotalDataSizeMB", "0");
  m.put("optimizeEvery", "0");
  m.put("frozenTimePeriodInSecs", "0");  // sample times are old: keep them
  return PolicyParameters::fromStanza("bench", m);
}

void writeAll(DatabasePartitionPolicy& p, const std::vector<std::string>& lines, int64_t base) {
  std::string t;
  for (size_t i = 0; i < lines.size(); ++i) {
    t = std::to_string(base + int64_t(i));
    WritableEvent ev;
    ev.raw = StrSegment(lines[i]);
    ev.time = StrSegment(t);
    ev.host = "combo";
    ev.source = "/var/log/messages";
    ev.sourceType = "syslog";
    p.write(ev);
  }
}

void BM_PolicyWrite(benchmark::State& state) {
  if (!MainThread::instance()) new MainThread();
  std::vector<std::string> lines = loadLines();
  char tmpl[] = "/tmp/bench_policy.XXXXXX";
  Pathname root(mkdtemp(tmpl));
  for (auto _ : state) {
    state.PauseTiming();
    Pathname at = root / "w";
    at.removeRecursive();
    {
      DatabasePartitionPolicy p(params(at));
      p.start();
      state.ResumeTiming();
      writeAll(p, lines, 1700000000);
      p.sync(true);
      state.PauseTiming();
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(int64_t(state.iterations() * lines.size()));
  root.removeRecursive();
}
BENCHMARK(BM_PolicyWrite)->Unit(benchmark::kMillisecond);

// All events of 4 rolled buckets (4 x the sample log), newest first, read back.
void BM_PolicyQueryAndRead(benchmark::State& state) {
  if (!MainThread::instance()) new MainThread();
  setenv("VELMOR_ST_NEVER_FORK", "1", 1);
  std::vector<std::string> lines = loadLines();
  char tmpl[] = "/tmp/bench_policy.XXXXXX";
  Pathname root(mkdtemp(tmpl));
  size_t events = 0;
  {
    DatabasePartitionPolicy p(params(root / "q"));
    p.start();
    for (int b = 0; b < 4; ++b) {
      writeAll(p, lines, 1700000000 + int64_t(b) * 10000);
      p.rollHotDb();
    }
    for (auto _ : state) {
      std::vector<ValueWrapper> vals;
      p.query({}, {}, {}, INT32_MIN, INT32_MAX, 100000, vals);
      std::vector<DataWrapper> out;
      std::vector<bool> ok;
      events = p.read(vals, out, ok, size_t(state.range(0)));
    }
  }
  state.SetItemsProcessed(int64_t(state.iterations() * events));
  root.removeRecursive();
}
BENCHMARK(BM_PolicyQueryAndRead)->Arg(0)->Arg(2)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
