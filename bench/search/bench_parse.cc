// Parse time per search for realistic searches, from a one-command search to
// pipelines with quoted text and nested subsearches. Parsing includes the
// command lookup and, per command, the argument tokenizing.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdlib>
#include <memory>

#include "search/SearchFactory.h"
#include "search/SearchParser.h"
#include "search/SearchPipeline.h"
#include "util/Logger.h"

namespace {

class Plain : public SearchProcessor {
 public:
  explicit Plain(const Str& n) : SearchProcessor(n) {}
  static SearchProcessor* create(const Str& n) { return new Plain(n); }
};

// Messages are silenced: the measure is the parse, not the log appender.
void quietLogs() {
  static bool done = false;
  if (done) return;
  done = true;
  char path[] = "/tmp/velmor-bench-parse-XXXXXX";
  int fd = mkstemp(path);
  if (fd < 0) return;
  const char cfg[] = "rootCategory=WARN,quiet\nappender.quiet=ConsoleAppender\n";
  if (write(fd, cfg, sizeof cfg - 1) < 0) {}
  close(fd);
  Logger::initialize(path, "/tmp", false);
  unlink(path);
}

void registerCommands() {
  quietLogs();
  for (const char* n : {"search", "stats", "head", "eval", "fields", "sort", "top", "rex", "where", "timechart",
                        "dedup", "rename", "outputxml"})
    SearchFactory::registerBuiltin(n, &Plain::create, false);
}

const char* const kSearches[] = {
    "search error",
    "search sourcetype=syslog error OR failed | stats count by host",
    "search host=web* \"connection refused\" | rex \"port (?<port>\\d+)\" | top limit=5 port | outputxml",
    "search [search fatal | dedup session | fields session] | sort -_time | head 100",
    "search index=main (status=500 OR status=503) | eval ms=duration*1000 | where ms > 250 | timechart span=1m "
    "avg(ms) by host | rename \"avg(ms)\" as latency",
};

void BM_Parse(benchmark::State& state) {
  registerCommands();
  const Str search = kSearches[state.range(0)];
  for (auto _ : state) {
    std::unique_ptr<SearchProcessor> p(SearchParser::parse(search, true));
    for (SearchProcessor* c : static_cast<SearchPipeline*>(p.get())->getProcessors()) c->parseArguments();
    benchmark::DoNotOptimize(p.get());
  }
  state.SetLabel(Str(search.substr(0, 40)));
}
BENCHMARK(BM_Parse)->DenseRange(0, 4);

}  // namespace

BENCHMARK_MAIN();
