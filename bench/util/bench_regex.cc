// Regex throughput over real log lines: matches attempted per second (one
// item = one line) for a few patterns of the kind extraction rules use, all
// JIT-compiled.
#include <benchmark/benchmark.h>

#include <fstream>
#include <string>
#include <vector>

#include "util/RE.h"
#include "util/Regex.h"

namespace {

const char* const kSystems[] = {"Apache", "HDFS", "Linux", "OpenSSH", "Spark", "Thunderbird", "Windows", "Zookeeper"};

const std::vector<std::string>& logLines() {
  static const std::vector<std::string> lines = [] {
    std::vector<std::string> v;
    for (const char* sys : kSystems) {
      std::ifstream in(std::string(VELMOR_SOURCE_DIR "/../shared/data/loghub/") + sys + "/" + sys + "_2k.log");
      std::string line;
      while (std::getline(in, line)) v.push_back(line);
    }
    return v;
  }();
  return lines;
}

void runRegex(benchmark::State& state, const char* pattern) {
  const auto& lines = logLines();
  if (lines.empty()) {
    state.SkipWithError("no loghub data");
    return;
  }
  Regex re(pattern, true);
  RegexMatch m;
  int64_t hits = 0;
  for (auto _ : state) {
    for (const std::string& line : lines) {
      StrSegment text(line);
      hits += re.match(text, &m);
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(lines.size()));
  state.counters["hit_ratio"] = static_cast<double>(hits) / (state.iterations() * lines.size());
}

void BM_Regex_IPv4(benchmark::State& s) { runRegex(s, "(?<ip>\\d{1,3}(?:\\.\\d{1,3}){3})"); }
void BM_Regex_Time(benchmark::State& s) { runRegex(s, "(\\d{2}):(\\d{2}):(\\d{2})"); }
void BM_Regex_KeyValue(benchmark::State& s) { runRegex(s, "(\\w+)=([^\\s,;]+)"); }
void BM_Regex_Severity(benchmark::State& s) { runRegex(s, "(?i)\\b(error|fail(?:ed|ure)?|warn(?:ing)?)\\b"); }
void BM_Regex_SshFailure(benchmark::State& s) {
  runRegex(s, "Failed password for (?:invalid user )?(?<user>\\S+) from (?<src>[\\d.]+) port (?<port>\\d+)");
}

// Every match on the line, moving past each one.
void BM_Regex_AllWordsAdvance(benchmark::State& state) {
  const auto& lines = logLines();
  if (lines.empty()) {
    state.SkipWithError("no loghub data");
    return;
  }
  Regex re("[A-Za-z_]\\w+", true);
  RegexMatch m;
  int64_t words = 0;
  for (auto _ : state) {
    for (const std::string& line : lines) {
      StrSegment text(line);
      while (re.match(text, &m, true)) ++words;
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(lines.size()));
  state.counters["words_per_line"] = static_cast<double>(words) / (state.iterations() * lines.size());
}

// The typed-capture wrapper on the same lines.
void BM_RE_PartialMatchCaptures(benchmark::State& state) {
  const auto& lines = logLines();
  if (lines.empty()) {
    state.SkipWithError("no loghub data");
    return;
  }
  RE re("(\\d{2}):(\\d{2}):(\\d{2})");
  int h, mi, sec;
  for (auto _ : state) {
    for (const std::string& line : lines) benchmark::DoNotOptimize(re.PartialMatch(line, &h, &mi, &sec));
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(lines.size()));
}

}  // namespace

BENCHMARK(BM_Regex_IPv4);
BENCHMARK(BM_Regex_Time);
BENCHMARK(BM_Regex_KeyValue);
BENCHMARK(BM_Regex_Severity);
BENCHMARK(BM_Regex_SshFailure);
BENCHMARK(BM_Regex_AllWordsAdvance);
BENCHMARK(BM_RE_PartialMatchCaptures);
BENCHMARK_MAIN();
