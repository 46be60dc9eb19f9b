// Rows per second through the field-extraction commands over 1M synthetic
// application-log rows: `rex` with two named groups, `kv` with the automatic
// key=value scanner, and one REGEX/FORMAT rule with names taken from the
// text (the JSON-member rule form), through the same inserter `kv` uses.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "search/SearchParser.h"
#include "search/SearchProcessor.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/processors/KVRegex.h"
#include "search/processors/ResultInserter.h"
#include "search/processors/SearchCommands.h"

namespace {

const size_t kRows = 1000000;
const char* const kLevels[] = {"INFO", "WARN", "ERROR", "DEBUG"};
const char* const kComponents[] = {"orders", "payments", "inventory", "auth"};

void makeKvRows(SearchResults& rs) {
  rs.free(false);
  sr_index_t raw = rs.keyIndex("_raw", true);
  unsigned long x = 12345;
  for (size_t i = 0; i < kRows; ++i) {
    x = x * 6364136223846793005UL + 1442695040888963407UL;
    std::string line = "2026-11-24T13:05:56Z level=" + std::string(kLevels[(x >> 40) & 3]) +
                       " component=" + kComponents[(x >> 42) & 3] + " user=u" + std::to_string((x >> 20) % 500) +
                       " duration_ms=" + std::to_string((x >> 33) % 5000) + " request_id=" + std::to_string(x % 99991);
    rs.addNewResult()->setValue(raw, line);
  }
}

void makeJsonRows(SearchResults& rs) {
  rs.free(false);
  sr_index_t raw = rs.keyIndex("_raw", true);
  unsigned long x = 777;
  for (size_t i = 0; i < kRows; ++i) {
    x = x * 6364136223846793005UL + 1442695040888963407UL;
    std::string line = "{\"time\":\"2026-11-24T13:05:56Z\",\"service\":\"" + std::string(kComponents[(x >> 42) & 3]) +
                       "\",\"latency_ms\":\"" + std::to_string((x >> 33) % 5000) + "\",\"user\":\"u" +
                       std::to_string((x >> 20) % 500) + "\"}";
    rs.addNewResult()->setValue(raw, line);
  }
}

void runSearch(benchmark::State& state, const char* search) {
  SearchCommands::registerAll();
  SearchResults rs;
  for (auto _ : state) {
    state.PauseTiming();
    makeKvRows(rs);
    std::unique_ptr<SearchProcessor> p(SearchParser::parse(search, true));
    SearchResultsInfo info;
    info.queryId = "bench";
    state.ResumeTiming();
    p->execute(rs, info);
  }
  state.counters["rows/s"] = benchmark::Counter(double(kRows) * double(state.iterations()), benchmark::Counter::kIsRate);
}

void BM_Rex(benchmark::State& state) {
  runSearch(state, "rex \"level=(?<lvl>\\w+) component=(?<comp>\\w+)\"");
}

void BM_KvAuto(benchmark::State& state) { runSearch(state, "kv"); }

void BM_KVRegexNamesFromText(benchmark::State& state) {
  KVRegex rule;
  rule.init("\"(\\w+)\":\"([^\"]*)\"", "$1::$2", "bench");
  SearchResults rs;
  for (auto _ : state) {
    state.PauseTiming();
    makeJsonRows(rs);
    state.ResumeTiming();
    ResultInserter ins(nullptr, false, 50);
    ins.bind(rs);
    sr_index_t raw = rs.keyIndex("_raw");
    for (SearchResult* r : rs) {
      ins.setRow(r);
      const Str* t = r->getValuePtr(raw);
      rule.matchAndInsert(StrSegment(*t), ins);
    }
  }
  state.counters["rows/s"] = benchmark::Counter(double(kRows) * double(state.iterations()), benchmark::Counter::kIsRate);
}

}  // namespace

BENCHMARK(BM_Rex)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_KvAuto)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_KVRegexNamesFromText)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
