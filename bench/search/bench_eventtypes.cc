// Event types at work, with 100 of them defined in a scratch installation.
//
//   BM_ExpandOne       expansion of a search naming one event type (whose
//                      text names another through %name%), in process
//   BM_ExpandHundred   expansion of a search ORing all 100 event types
//   BM_ToolSearch/0    `search eventtype::server_error | stats count` by
//                      velmor-search over an index of 30000 access events
//   BM_ToolSearch/1    the same search written as its plain text
// The two tool runs include the start of the process, common to both, so
// their difference is what naming the event type costs (its lookup and
// expansion) in a whole search.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "framework/SavedVelmorManager.h"
#include "loaderinfo/LoaderInfo.h"
#include "search/processors/SavedVelmorResolver.h"
#include "search/processors/StringSearchExpander.h"

namespace {

const std::string kBin = VELMOR_BINARY_DIR "/bin/";

struct Fixture {
  std::string dir, home;
  bool indexed = false;

  Fixture() {
    char tmpl[] = "/tmp/bench_eventtypes.XXXXXX";
    if (!mkdtemp(tmpl)) abort();
    dir = tmpl;
    home = dir + "/home";
    if (system(("bash " VELMOR_SOURCE_DIR "/scripts/mkhome.sh " + home + " >/dev/null").c_str()) != 0) abort();
    setenv("VELMOR_HOME", home.c_str(), 1);
    setenv("VELMOR_DB", (home + "/var/lib/velmor/db").c_str(), 1);
    LoaderInfo::getInstance().populateFromEnvironment();
    // et0..et97, each a few terms, every tenth naming the one before it;
    // and the two the tool searches use.
    std::ofstream et(home + "/etc/bundles/local/eventtypes.conf");
    for (int i = 0; i < 98; ++i) {
      et << "[et" << i << "]\nquery = sourcetype=web_access status=" << 200 + i << " uri=/p" << i;
      if (i % 10 == 9) et << " OR %et" << i - 1 << "%";
      et << "\ntags = t" << i % 7 << "\n";
    }
    et << "[server_error]\nquery = sourcetype=web_access status>=500\n"
       << "[any_error]\nquery = %server_error% OR status=404\n";
    et.close();
    SavedVelmorManager::instance().reload();
    SavedVelmorResolver::installForProcess();

    std::ofstream log(dir + "/access.log");
    const int codes[] = {200, 200, 200, 304, 404, 500, 503, 200};
    for (int i = 0; i < 30000; ++i)
      log << "10.0." << i % 200 << "." << i % 7 << " - - [01/Nov/2026:" << (10 + i / 3600 % 10) << ":"
          << (10 + i / 60 % 50) << ":" << (10 + i % 50) << " +0000] \"GET /p" << i % 500 << " HTTP/1.1\" "
          << codes[i % 8] << " " << 100 + i % 900 << " \"-\" \"agent\" " << i % 97 << "\n";
    log.close();
    indexed = run({kBin + "velmor-index", "add", "main", dir + "/access.log", "--sourcetype", "web_access"}) == 0;
  }
  ~Fixture() {
    if (system(("rm -rf " + dir).c_str()) != 0) fprintf(stderr, "cleanup of %s failed\n", dir.c_str());
  }

  int run(const std::vector<std::string>& args) {
    pid_t pid = fork();
    if (pid == 0) {
      if (!freopen("/dev/null", "w", stdout) || !freopen("/dev/null", "w", stderr)) _exit(126);
      std::vector<char*> argv;
      for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      _exit(127);
    }
    int st = 0;
    waitpid(pid, &st, 0);
    return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  }
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

void BM_ExpandOne(benchmark::State& state) {
  fixture();
  StringSearchExpander expander;
  for (auto _ : state) {
    std::vector<Str> warnings;
    benchmark::DoNotOptimize(expander.expandSearch("error eventtype::et49", warnings));
  }
}
BENCHMARK(BM_ExpandOne);

void BM_ExpandHundred(benchmark::State& state) {
  fixture();
  std::string text;
  for (int i = 0; i < 98; ++i) text += (i ? " OR eventtype::et" : "eventtype::et") + std::to_string(i);
  text += " OR eventtype::server_error OR eventtype::any_error";
  StringSearchExpander expander;
  for (auto _ : state) {
    std::vector<Str> warnings;
    benchmark::DoNotOptimize(expander.expandSearch(text, warnings));
  }
}
BENCHMARK(BM_ExpandHundred);

void BM_ToolSearch(benchmark::State& state) {
  Fixture& f = fixture();
  if (!f.indexed) {
    state.SkipWithError("velmor-index failed or is not built");
    return;
  }
  const std::string search = state.range(0) == 0 ? "search eventtype::server_error | stats count"
                                                 : "search sourcetype=web_access status>=500 | stats count";
  for (auto _ : state) {
    if (f.run({kBin + "velmor-search", search}) != 0) {
      state.SkipWithError("velmor-search failed");
      return;
    }
  }
}
BENCHMARK(BM_ToolSearch)->Arg(0)->Arg(1)->Iterations(5)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
