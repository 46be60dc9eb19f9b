// Log messages per second through a Logger to a file appender with
// PatternLayout "%d %p %c %m%n".
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "util/Logger.h"

namespace {

std::string gDir;

// initialize() runs once per process: the first benchmark sets it up.
Logger& benchLogger() {
  static Logger* logger = [] {
    char tmpl[] = "/tmp/velmor-bench-logger-XXXXXX";
    gDir = mkdtemp(tmpl);
    std::string cfg = gDir + "/log.cfg";
    std::ofstream(cfg) << "rootCategory=INFO,F\n"
                          "appender.F.fileName=${VELMOR_HOME}/bench.log\n"
                          "appender.F.maxFileSize=200000000\n"
                          "appender.F.maxBackupIndex=1\n"
                          "appender.F.layout=PatternLayout\n"
                          "appender.F.layout.ConversionPattern=%d %p %c %m%n\n";
    Logger::initialize(cfg, gDir, true);
    std::atexit([] { std::system(("rm -rf '" + gDir + "'").c_str()); });
    return new Logger("bench");
  }();
  return *logger;
}

void BM_LogFormatted(benchmark::State& state) {
  Logger& log = benchLogger();
  long i = 0;
  for (auto _ : state) log.info("processed event %ld from source %s in %d ms", ++i, "/var/log/messages", 17);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LogFormatted)->Threads(1)->Threads(2);

void BM_LogFiltered(benchmark::State& state) {
  Logger& log = benchLogger();
  for (auto _ : state) log.debug("not written %d", 1);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LogFiltered);

}  // namespace

BENCHMARK_MAIN();
