// velmor-search: runs one search from the command line and prints the field
// "_xml" of every result row.
//
//   velmor-search                      usage, exit 1
//   velmor-search '<search>'           internal commands allowed, random qid
//   velmor-search '<search>' nointernal  internal refused, qid "nointernal"
//   velmor-search file <path>          every line of <path> is a search
//   velmor-search test cat             random searches until a crash
//   velmor-search '<search>' <qid>     internal allowed, the given qid
// Mode words ignore case; "nointernal" is tested before "file".
//
// A search runs to its end through StreamingSearch: a report (stats, chart,
// top...) reads every event it selects chunk by chunk, through its map
// half; a search that returns events keeps the newest `max_count` (stanza
// "search" of limits, 10000). The search's messages (warnings, limits
// reached) go to standard error as "<TYPE>: <text>" lines.
//
// DESIGN: two threads live for the whole run: the main thread, which does
// all search work, and the EventLoopThread that serves the process runner
// (external commands). Start-up builds, in order: SIGPIPE ignored, the XML
// guard, round-to-nearest, LoaderInfo and logging, the main Thread object,
// the event loop thread, the process runner, the event loop's start, the
// index side; shutdown undoes them in reverse, also when a start-up step
// throws. A failed search is reported as text on standard output and exit
// status 0: callers read the output. Searches that run in the background
// (unified search threads) are cancelled and joined before the indexes close.
//
// The index side is the real IndexProcessor, opened read-only: the tool
// never writes to an index, so it can run beside the service that does.
#include <fenv.h>
#include <signal.h>
#include <stdio.h>
#include <strings.h>
#include <time.h>
#include <unistd.h>

#include <memory>

#include "framework/UserManager.h"
#include "framework/auth/ToolUser.h"
#include "loaderinfo/LoaderInfo.h"
#include "pipeline/indexer/IndexProcessor.h"
#include "pipeline/indexer/PersistentHashManager.h"
#include "pipeline/indexer/search/IndexSearchCommands.h"
#include "pipeline/indexer/search/UnifiedSearchDispatchThreadManager.h"
#include "search/SL.h"
#include "search/SearchCancel.h"
#include "search/SearchParser.h"
#include "search/SearchProcessor.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/dispatch/DispatchCommands.h"
#include "search/dispatch/StreamingSearch.h"
#include "search/processors/SavedVelmorResolver.h"
#include "search/processors/SearchCommands.h"
#include "search/processors/ToolCommands.h"
#include "searchthing/ipcver.h"
#include "util/EventLoopThread.h"
#include "util/Pathname.h"
#include "util/PortableRand.h"
#include "util/ProcessRunner.h"
#include "util/ScopedFileStar.h"
#include "util/MainThread.h"
#include "util/Thread.h"
#include "util/xml/XmlInit.h"
#include "util/xml/XmlNode.h"

namespace {

// The Thread object of the main thread, so that code asking for the current
// thread finds one.
class MThread : public MainThread {};

Str randomId(const char* prefix) { return Str(prefix) + ToString(static_cast<unsigned long>(portable_rand())); }

void runAndDrop(const Str& search, const char* cancelId, const char* qidPrefix) {
  SearchResultsInfo info;
  info.cancelId = cancelId;
  info.queryId = randomId(qidPrefix);
  SearchCancel::instance()->start(cancelId);
  SearchResults results;
  StreamingSearch run(SearchParser::parse(search, false), info);
  run.run(results, info);
  SearchCancel::instance()->cont(cancelId);
}

void doQueries(const Pathname& path) {
  ScopedFileStar f(fopen(path.c_str(), "r"));
  if (!f.get()) {
    fprintf(stderr, "Unable to open %s.\n", path.c_str());
    return;
  }
  Str line;
  long count = 0;
  while (f.readline(line)) {
    ++count;
    printf("query%ld\t %s\n", count, line.c_str());
    fflush(stdout);
    try {
      runAndDrop(line, "cattest", "cattest_");
    } catch (const SearchProcessorException&) {
    } catch (...) {
      fprintf(stderr, "Query... %s\n", line.c_str());
      fprintf(stderr, "FAILED: unknown exception\n");
    }
  }
}

void doCatTyping() {
  Str text;
  for (;;) {
    text.clear();
    unsigned n = portable_rand() % 100 + 4;
    for (unsigned i = 0; i < n; ++i) {
      char c = static_cast<char>(portable_rand() % 96 + 32);
      if (c == '<' || c == '>' || c == '=' || c == '*' || c == '"' || c == '[' || c == ']') c = ' ';
      text += c;
    }
    printf("query =\"%s\"\n", text.c_str());
    fflush(stdout);
    try {
      runAndDrop("search " + text, "searchtest", "searchtest_");
    } catch (const SearchProcessorException&) {
    } catch (...) {
      fprintf(stderr, "Query... %s\n", text.c_str());
      fprintf(stderr, "FAILED: unknown exception\n");
      return;
    }
  }
}

void printXml(const SearchResults& results) {
  sr_index_t k = results.keyIndex(SL::XML);
  if (k == SearchResults::nkeyindex) return;
  for (const SearchResult* r : results) {
    const Str* v = r->getValuePtr(k);
    if (v) printf("%s", v->c_str());
  }
}

// The search's messages on standard error, "<TYPE>: <text>" each.
void printMessages(const SearchResultsInfo& info) {
  for (const auto& [type, texts] : info.messages)
    for (const Str& t : texts) fprintf(stderr, "%s: %s\n", type.c_str(), t.c_str());
}

// Runs one search to its end with the streaming driver: a report reads
// every event it selects, chunk by chunk; a search for events keeps the
// newest `max_count` of them. On a terminal, standard error shows how many
// events have been read while a long search runs.
void plainSearch(const char* search, Str queryId, bool internal, SearchResults& results) {
  auto info = std::make_unique<SearchResultsInfo>();
  info->cancelId = "searchtest";
  if (queryId.empty()) queryId = randomId("searchtest_");
  info->queryId = queryId;
  SearchCancel::instance()->start("searchtest");
  try {
    StreamingSearch::Options options;
    if (isatty(2)) {
      options.progress = [last = time(nullptr)](size_t events, size_t) mutable {
        time_t now = time(nullptr);
        if (now == last) return;
        last = now;
        fprintf(stderr, "\r%zu events read", events);
      };
    }
    StreamingSearch run(SearchParser::parse(Str(search), internal), *info, std::move(options));
    run.run(results, *info);
    if (isatty(2) && run.eventsRead() > 0) fprintf(stderr, "\r%zu events read\n", run.eventsRead());
    if (!SearchCancel::instance()->cont(info->cancelId)) puts("search cancelled");
  } catch (const SearchProcessorException& e) {
    printf("search processor exception: %s\n", e.what());
  }
  printMessages(*info);
  printXml(results);
}

// Everything between start-up and shutdown of the runtime.
void runModes(int argc, char** argv) {
  ToolUser toolUser;
  SearchCommands::registerAll();
  DispatchCommands::registerAll();
  ToolCommands::registerAll();
  IndexSearchCommands::install();
  SavedVelmorResolver::installForProcess();  // event types, tags, saved searches
  xml::node config;
  auto index = std::make_unique<IndexProcessor>();
  // Background searches end before the indexes they read close, also when
  // a search throws past this frame.
  struct UnifiedGuard {
    ~UnifiedGuard() { UnifiedSearchDispatchThreadManager::instance()->clear(); }
  } unifiedGuard;
  index->init(/*readOnly=*/true, /*startService=*/false);
  PersistentHashManager::instance()->init(config);
  SearchResults results;
  const char* second = argc > 2 ? argv[2] : nullptr;
  if (!second) {
    plainSearch(argv[1], Str(), true, results);
  } else if (strcasecmp(second, "nointernal") == 0) {
    plainSearch(argv[1], Str(second), false, results);
  } else if (strcasecmp(argv[1], "file") == 0) {
    doQueries(Pathname(Str(second)));
  } else if (strcasecmp(argv[1], "test") == 0 && strcasecmp(second, "cat") == 0) {
    doCatTyping();
  } else {
    plainSearch(argv[1], Str(second), true, results);
  }
  fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: %s 'search'\n", argv[0]);
    return 1;
  }
  signal(SIGPIPE, SIG_IGN);
  xml::init xmlGuard;
  fesetround(FE_TONEAREST);
  LoaderInfo::common_main_setup(false);
  MThread mainThread;
  int status = 0;
  {
    EventLoopThread loop;
    ProcessRunnerInit(&loop, Pathname());
    // Forked engine handles start their children through the runner too.
    st_set_forkwait_helpers(ProcessRunnerForkHelper, ProcessRunnerWaitHelper);
    struct RunnerGuard {
      EventLoopThread& loop;
      ~RunnerGuard() {
        loop.stop();
        st_set_forkwait_helpers(nullptr, nullptr);
        ProcessRunnerFini(&loop);
      }
    } runnerGuard{loop};
    loop.start();
    try {
      runModes(argc, argv);
    } catch (const std::exception& e) {
      // A configuration that cannot be opened (a missing index path, an
      // unreadable language file) or an index that fails under a search ends
      // the tool with its own text and status 1, after an orderly shutdown.
      fprintf(stderr, "%s: %s\n", argv[0], e.what());
      status = 1;
    }
  }
  Thread::mainThreadDying();
  return status;
}
