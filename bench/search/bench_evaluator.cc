// SearchEvaluator::isMatch in filter mode over the lines of the eight sample
// logs of ../shared/data/loghub: events per second for a search of 1, 10
// and 100 terms joined by OR. The terms are words that occur nowhere in the
// logs but share their first letters with common words, so every token of
// every line is looked up and no row ends early; the lookup goes through the
// prefix trie of the terms, so the cost per event should stay nearly flat
// as the number of terms grows. A second family mixes in one word that does
// occur, to show the cost when rows do match.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "loaderinfo/LoaderInfo.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/processors/SearchEvaluator.h"
#include "util/Pathname.h"

namespace {

// A scratch installation (for the segmenters) and the rows, made once.
struct Fixture {
  Pathname dir;
  SearchResults rows;

  Fixture() {
    char tmpl[] = "/tmp/bench_evaluator.XXXXXX";
    if (!mkdtemp(tmpl)) abort();
    dir = Pathname(tmpl);
    Pathname home = dir / "home";
    if (system(("bash " VELMOR_SOURCE_DIR "/scripts/mkhome.sh " + home + " >/dev/null").c_str()) != 0) abort();
    setenv("VELMOR_HOME", home.c_str(), 1);
    LoaderInfo::getInstance().populateFromEnvironment();
    sr_index_t raw = rows.keyIndex("_raw", true);
    for (const char* s : {"Apache", "HDFS", "Linux", "OpenSSH", "Spark", "Thunderbird", "Windows", "Zookeeper"}) {
      std::ifstream in(std::string(VELMOR_SOURCE_DIR) + "/../shared/data/loghub/" + s + "/" + s + "_2k.log");
      std::string line;
      while (std::getline(in, line)) rows.addNewResult()->setValue(raw, line);
    }
  }
  ~Fixture() {
    rows.free();
    dir.removeRecursive();
  }
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

// `n` terms that no line holds, spread over the alphabet so that the trie
// branches at the first letter like the words of the logs do.
std::string missingTerms(int n) {
  static const char* stems[] = {"block", "session", "connection", "error", "info", "packet", "user",
                                "kernel", "request", "warn", "node", "task",  "file",    "auth"};
  std::string text;
  for (int i = 0; i < n; ++i) {
    if (i) text += " OR ";
    text += std::string(stems[i % 14]) + "qz" + std::to_string(i);
  }
  return text;
}

void runFilter(benchmark::State& state, const std::string& text) {
  Fixture& f = fixture();
  if (f.rows.size() == 0) {
    state.SkipWithError("no sample logs under ../shared/data/loghub");
    return;
  }
  SearchEvaluator e(text);
  if (!e.optimize()) {
    state.SkipWithError("search matches nothing");
    return;
  }
  e.initKeys(f.rows);
  size_t matched = 0;
  for (auto _ : state) {
    matched = 0;
    for (SearchResult* r : f.rows) matched += e.isMatch(r);
    benchmark::DoNotOptimize(matched);
  }
  state.counters["events/s"] =
      benchmark::Counter(double(state.iterations()) * double(f.rows.size()), benchmark::Counter::kIsRate);
  state.counters["matched"] = double(matched);
}

void BM_FilterMissingTerms(benchmark::State& state) { runFilter(state, missingTerms(int(state.range(0)))); }
BENCHMARK(BM_FilterMissingTerms)->Arg(1)->Arg(10)->Arg(100)->Unit(benchmark::kMillisecond);

// The same, with "session" (a word of the sshd and syslog lines) as one of
// the terms.
void BM_FilterOneCommonTerm(benchmark::State& state) {
  int n = int(state.range(0));
  runFilter(state, n == 1 ? std::string("session") : "session OR " + missingTerms(n - 1));
}
BENCHMARK(BM_FilterOneCommonTerm)->Arg(1)->Arg(10)->Arg(100)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
