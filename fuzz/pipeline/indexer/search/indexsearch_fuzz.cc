// Any bytes as the terms of a search over a real index: `search <bytes> |
// head 5` is parsed and run against a small index of a scratch installation
// (made once per process under /tmp, removed at exit). Parsing and running
// must either succeed or throw SearchProcessorException; any other
// exception, a crash or a hang is a finding.
//
// One thread: the index is written and searched on the fuzzing thread.
#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <memory>
#include <string>

#include "libbundle/PropertyPages.h"
#include "loaderinfo/LoaderInfo.h"
#include "framework/PipelineData.h"
#include "pipeline/indexer/DatabasePartitionPolicy.h"
#include "pipeline/indexer/IndexProcessor.h"
#include "pipeline/indexer/search/IndexSearchCommands.h"
#include "search/SearchParser.h"
#include "search/SearchProcessor.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/processors/SearchCommands.h"
#include "util/Exceptions.h"
#include "util/MainThread.h"

namespace {

class MThread : public MainThread {};

std::string gDir;

void removeScratch() {
  if (!gDir.empty()) {
    std::string cmd = "rm -rf '" + gDir + "'";
    if (system(cmd.c_str()) != 0) gDir.clear();
  }
}

// A few dozen events over two buckets of the index "fz" (also the default
// index): two hosts, two source types, words and key=value pairs, one
// event a minute from 2026-11-20T00:00:00Z.
void writeEvents(IndexProcessor& p) {
  static const char* kWords[] = {"error", "warn", "info", "failed password", "session opened", "timeout"};
  const long t0 = 1795132800;
  for (int i = 0; i < 48; ++i) {
    PipelineData ev;
    ev.put(PipelineData::rawKey, "evt" + std::to_string(i) + " " + kWords[i % 6] + " user=u" +
                                     std::to_string(i % 5) + " status=" + std::to_string(200 + 100 * (i % 4)) +
                                     " path=/api/v1/items/" + std::to_string(i));
    ev.put(PipelineData::hostKey, i % 2 ? "web-01" : "db-02");
    ev.put(PipelineData::sourceKey, "/var/log/app.log");
    ev.put(PipelineData::sourceTypeKey, i % 3 ? "app" : "syslog");
    ev.put(PipelineData::timeKey, std::to_string(t0 + 60L * i));
    ev.put("_sync", "1");
    if (p.execute(ev) != IndexProcessor::eOk) abort();
    if (i == 23 && p.getDatabaseByName("fz")) p.getDatabaseByName("fz")->rollHotDb();
  }
}

IndexProcessor& setUp() {
  static IndexProcessor* processor = [] {
    static MThread mainThread;
    char tmpl[] = "/tmp/velmor-indexsearch-fuzz-XXXXXX";
    if (!mkdtemp(tmpl)) abort();
    gDir = tmpl;
    atexit(removeScratch);
    std::string home = gDir + "/home";
    if (system(("bash " VELMOR_SOURCE_DIR "/scripts/mkhome.sh " + home + " >/dev/null").c_str()) != 0) abort();
    setenv("VELMOR_HOME", home.c_str(), 1);
    setenv("VELMOR_DB", (home + "/var/lib/velmor/db").c_str(), 1);
    LoaderInfo::getInstance().populateFromEnvironment();
    {
      std::ofstream conf(home + "/etc/bundles/local/indexes.conf");
      conf << "[default]\ndefaultDatabase = fz\n\n[fz]\nhomePath = $VELMOR_DB/fz/db\ncoldPath = $VELMOR_DB/fz/colddb\n"
           << "thawedPath = $VELMOR_DB/fz/thaweddb\nmaxResults = 1000\ncompressRawdata = true\nmaxDataSize = 10\n"
           << "maxTotalDataSizeMB = 1000\nfrozenTimePeriodInSecs = 2147483647\nmaxWarmDBCount = 100\n";
    }
    PropertyPages::instance("indexes").updateConfigs();
    SearchCommands::registerAll();
    IndexSearchCommands::install();
    auto* p = new IndexProcessor();  // lives until the process ends
    p->init(false, false);
    writeEvents(*p);
    return p;
  }();
  return *processor;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  setUp();
  Str text = "search " + Str(reinterpret_cast<const char*>(data), size) + " | head 5";
  try {
    SearchResultsInfo info;
    info.cancelId = "indexsearchfuzz";
    info.queryId = "indexsearchfuzz";
    SearchResults results;
    std::unique_ptr<SearchProcessor> p(SearchParser::parse(text, false));
    p->execute(results, info);
  } catch (const SearchProcessorException&) {
  }
  return 0;
}
