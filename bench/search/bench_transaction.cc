// `transaction` over synthetic web events, newest first as a search gives
// them: 100k and 1M rows, grouped by client (with a pause and a span), and
// by client and session with start events. Rows are made once per size;
// each iteration works on a copy.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "search/SearchParser.h"
#include "search/SearchProcessor.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/processors/SearchCommands.h"

namespace {

// n events over 2000 clients, about one a second, newest first; one in 20
// starts with "login", one in 12 has no client.
const SearchResults& rows(size_t n) {
  static std::unique_ptr<SearchResults> made[2];
  std::unique_ptr<SearchResults>& rs = made[n > 100000 ? 1 : 0];
  if (rs) return *rs;
  rs = std::make_unique<SearchResults>();
  sr_index_t t = rs->keyIndex("_time", true), raw = rs->keyIndex("_raw", true);
  sr_index_t ip = rs->keyIndex("clientip", true), sess = rs->keyIndex("session", true);
  unsigned long x = 12345;
  long now = 1700000000 + static_cast<long>(n);
  for (size_t i = 0; i < n; ++i) {
    x = x * 6364136223846793005UL + 1442695040888963407UL;
    unsigned long client = (x >> 33) % 2000;
    if ((x >> 20) % 3 == 0) --now;
    SearchResult* r = rs->addNewResult();
    r->setValue(t, std::to_string(now));
    r->setValue(raw, std::string((x >> 40) % 20 == 0 ? "login" : "GET /page") + " " + std::to_string(i));
    if ((x >> 45) % 12 != 0) r->setValue(ip, "10.0." + std::to_string(client / 256) + "." + std::to_string(client % 256));
    r->setValue(sess, "s" + std::to_string(client * 3 + (x >> 50) % 3));
  }
  return *rs;
}

void run(benchmark::State& state, const char* search) {
  SearchCommands::registerAll();
  size_t n = static_cast<size_t>(state.range(0));
  const SearchResults& in = rows(n);
  size_t out = 0;
  for (auto _ : state) {
    state.PauseTiming();
    SearchResults rs(in);
    SearchResultsInfo info;
    info.queryId = "bench";
    std::unique_ptr<SearchProcessor> p(SearchParser::parse(search, true));
    state.ResumeTiming();
    p->execute(rs, info);
    out = rs.size();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
  state.counters["transactions"] = static_cast<double>(out);
}

void BM_TransactionByClient(benchmark::State& state) {
  run(state, "transaction fields=clientip maxpause=5m maxspan=1h");
}

void BM_TransactionByClientSession(benchmark::State& state) {
  run(state, "transaction fields=clientip,session startswith=login maxevents=50");
}

}  // namespace

BENCHMARK(BM_TransactionByClient)->Arg(100000)->Arg(1000000)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TransactionByClientSession)->Arg(100000)->Arg(1000000)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
