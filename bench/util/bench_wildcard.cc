// WildcardMatcher throughput over real log lines: matches attempted per second
// (one item = one line) for the pattern shapes that searches use: an exact
// word, a prefix, an infix and several pieces in order. The lines of the
// eight sample logs are loaded once; the counter "hits" is the number of
// lines matched per pass, as a check that the pattern is realistic.
#include <benchmark/benchmark.h>

#include <fstream>
#include <string>
#include <vector>

#include "util/StrSegment.h"
#include "util/WildcardList.h"
#include "util/WildcardMatcher.h"

namespace {

const char* const kSystems[] = {"Apache", "HDFS", "Linux", "OpenSSH", "Spark", "Thunderbird", "Windows", "Zookeeper"};

const std::vector<std::string>& logLines() {
  static const std::vector<std::string> lines = [] {
    std::vector<std::string> v;
    for (const char* sys : kSystems) {
      std::ifstream in(std::string(VELMOR_SOURCE_DIR "/../shared/data/loghub/") + sys + "/" + sys + "_2k.log");
      std::string line;
      while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();  // the files end lines with CRLF
        v.push_back(line);
      }
    }
    return v;
  }();
  return lines;
}

void runPattern(benchmark::State& state, const char* pattern) {
  const auto& lines = logLines();
  if (lines.empty()) {
    state.SkipWithError("no loghub data");
    return;
  }
  const WildcardMatcher m(pattern);
  int64_t hits = 0;
  for (auto _ : state) {
    hits = 0;
    for (const std::string& line : lines) hits += m.isMatch(StrSegment(line));
    benchmark::DoNotOptimize(hits);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(lines.size()));
  state.counters["hits"] = static_cast<double>(hits);
}

// The C-string entry, which finds the length itself.
void runPatternCString(benchmark::State& state, const char* pattern) {
  const auto& lines = logLines();
  if (lines.empty()) {
    state.SkipWithError("no loghub data");
    return;
  }
  const WildcardMatcher m(pattern);
  int64_t hits = 0;
  for (auto _ : state) {
    hits = 0;
    for (const std::string& line : lines) hits += m.isMatch(line.c_str());
    benchmark::DoNotOptimize(hits);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(lines.size()));
  state.counters["hits"] = static_cast<double>(hits);
}

void BM_WildcardList(benchmark::State& state) {
  const auto& lines = logLines();
  if (lines.empty()) {
    state.SkipWithError("no loghub data");
    return;
  }
  WildcardList list;
  for (const char* p : {"*error*", "*ERROR*", "*failure*", "*Exception*", "*denied*"}) list.add(p);
  int64_t hits = 0;
  for (auto _ : state) {
    hits = 0;
    for (const std::string& line : lines) hits += list.isHit(StrSegment(line));
    benchmark::DoNotOptimize(hits);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(lines.size()));
  state.counters["hits"] = static_cast<double>(hits);
}

}  // namespace

BENCHMARK_CAPTURE(runPattern, exact_word, "INFO");
BENCHMARK_CAPTURE(runPattern, prefix, "081109*");
BENCHMARK_CAPTURE(runPattern, infix, "*authentication failure*");
BENCHMARK_CAPTURE(runPattern, pieces, "081109*blk_*terminating");
BENCHMARK_CAPTURE(runPattern, pieces_soft, "*INFO*Receiving block*src:*");
BENCHMARK_CAPTURE(runPatternCString, infix_cstring, "*authentication failure*");
BENCHMARK(BM_WildcardList);

BENCHMARK_MAIN();
