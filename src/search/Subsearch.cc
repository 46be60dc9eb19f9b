#include "search/Subsearch.h"

#include <unistd.h>

#include <ctime>
#include <memory>

#include "loaderinfo/LoaderInfo.h"
#include "search/ProcessorArg.h"
#include "search/ResultsArg.h"
#include "search/ResultsFormatter.h"
#include "search/SL.h"
#include "search/SLLimits.h"
#include "search/SearchProcessor.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/StringArg.h"
#include "util/Hash.h"
#include "util/Logger.h"
#include "util/Mutex.h"
#include "util/Thread.h"

static Logger gLogger("Subsearch");

namespace {

struct Limits {
  unsigned long maxtime = 10;
  unsigned long maxout = 100;
  unsigned long timeout = 30;
  unsigned long ttl = 300;
  Limits() {
    SL::getLimit("subsearch", "maxtime", maxtime);
    SL::getLimit("subsearch", "maxout", maxout);
    SL::getLimit("subsearch", "timeout", timeout);
    SL::getLimit("subsearch", "ttl", ttl);
  }
};

const Limits& limits() {
  static const Limits l;
  return l;
}

Mutex gRootMutex;
Pathname gRoot;

// Runs one subsearch pipeline; the caller joins before touching the rows.
class SubsearchThread : public Thread {
 public:
  SubsearchThread(SearchProcessor* p, SearchResults& r, SearchResultsInfo& i)
      : Thread("subsearch"), proc(p), results(r), info(i) {}
  void main() override {
    try {
      proc->execute(results, info);
    } catch (const std::exception& e) {
      error = e.what();
      if (error.empty()) error = "Unknown subsearch failure";
    } catch (...) {
      error = "Unknown subsearch failure";
    }
  }
  SearchProcessor* proc;
  SearchResults& results;
  SearchResultsInfo& info;
  Str error;
};

void writeStatus(const Pathname& dir, const Str& search, const Str& error, size_t count, unsigned long ttl) {
  SearchResults status;
  SearchResult* r = status.addNewResult();
  r->setValue(status.keyIndex("search", true), search);
  r->setValue(status.keyIndex("count", true), ToString(static_cast<unsigned long>(count)));
  r->setValue(status.keyIndex("ttl", true), ToString(ttl));
  r->setValue(status.keyIndex("done", true), Str("1"));
  r->setValue(status.keyIndex("error", true), error);
  status.toCSV(dir / "status.csv");
}

}  // namespace

Str Subsearch::jobId(const Str& queryId, const Str& text) {
  return queryId + "_" + ToString(static_cast<unsigned long long>(djb2_hash(text.data(), text.size())));
}

Pathname Subsearch::dispatchRoot() {
  ScopedLock lock(gRootMutex);
  if (!gRoot.empty()) return gRoot;
  return Pathname(LoaderInfo::getInstance().getHomePath()) / "var/run/velmor/dispatch";
}

void Subsearch::setDispatchRoot(const Pathname& root) {
  ScopedLock lock(gRootMutex);
  gRoot = root;
}

Str Subsearch::rowsToSearch(SearchResults& rows) {
  if (rows.empty()) return Str();
  sr_index_t q = rows.keyIndex(SL::Query);
  const Str* first = q ? rows.front()->getValuePtr(q) : nullptr;
  if (first) return *first;
  // What `format` with its defaults would put into _query.
  return ResultsFormatter().format(rows);
}

void Subsearch::waitForResults(const Pathname& dir, unsigned long timeoutSecs, SearchResults& out) {
  Pathname results = dir / "results.csv";
  Pathname status = dir / "status.csv";
  time_t start = time(nullptr);
  while (!results.exists() && static_cast<unsigned long>(time(nullptr) - start) < timeoutSecs) {
    if (status.exists()) {
      SearchResults st;
      st.fromCSV(status);
      if (st.size() != 1) throw SearchProcessorException("Unknown subsearch failure");
      Str error, done;
      st.front()->getValue("error", error);
      st.front()->getValue("done", done);
      if (!error.empty()) throw SearchProcessorException(error);
      if (done == "1" && !results.exists()) throw SearchProcessorException("Unknown subsearch failure");
    }
    usleep(100000);
  }
  if (!results.exists())
    throw SearchProcessorException("Timed out (%lu secs) waiting for subsearch results.", timeoutSecs);
  out.fromCSV(results, 0, SearchResults::kAllRows);
}

Arg* Subsearch::run(ProcessorArg& arg, bool asResults, SearchResultsInfo& parentInfo) {
  const Limits& lim = limits();
  std::unique_ptr<SearchProcessor> proc(arg.release());
  Str text = proc ? proc->getLitSearch() : Str();
  std::unique_ptr<SearchResults> rows(new SearchResults());
  SearchResultsInfo info;
  info.cancelId = parentInfo.cancelId;
  info.roleList = parentInfo.roleList;
  Str id = jobId(parentInfo.queryId, text);
  info.queryId = id;
  Pathname dir = dispatchRoot() / id;
  if (dir.isDir()) {
    waitForResults(dir, lim.timeout, *rows);
  } else {
    if (dir.exists()) dir.removeRecursive();
    dir.mkdir_p();
    Str error;
    if (proc) {
      SubsearchThread t(proc.get(), *rows, info);
      t.go();
      t.join();
      error = t.error;
    }
    while (rows->size() > lim.maxout) {
      delete rows->back();
      rows->pop_back();
    }
    writeStatus(dir, text, error, rows->size(), lim.ttl);
    if (!error.empty()) throw SearchProcessorException(error);
    rows->toCSV(dir / "results.csv");
    gLogger.debug("subsearch '%s' gave %lu rows", text.c_str(), static_cast<unsigned long>(rows->size()));
  }
  if (asResults) return new ResultsArg(rows.release());
  return new StringArg(rowsToSearch(*rows), false, false);
}
