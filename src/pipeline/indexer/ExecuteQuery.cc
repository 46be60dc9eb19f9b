// executeQuery (declared in CompiledQueryLanguage.h): the one entry that
// runs an inner query and writes its result document.
//
// States of a run: lookup in the query cache, created or taken from it,
// output opened, compiled, executed, frame closed, cached. The document is
// written to a temporary file beside <VELMOR_DB>/searches/<qid>.xml and
// renamed over it at the end. When the run fails, whatever the modules
// wrote is cut off again (it may end inside an element), so the document
// holds the frame, the performance line and the error.
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <new>

#include "pipeline/indexer/CompiledQueryLanguage.h"
#include "pipeline/indexer/Query.h"
#include "pipeline/indexer/QueryCacheManager.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("ExecuteQuery");
static Logger gPerformance("SearchPerformance");

namespace {

std::atomic<unsigned long> gTempCounter{0};

double wallNow() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  return tv.tv_sec + tv.tv_usec / 1e6;
}

// The result document while it is written: a temporary file that becomes
// the real one by commit(), or goes away.
class ResultFile {
 public:
  explicit ResultFile(const Pathname& path) : _path(path) {}
  ~ResultFile() {
    if (_f.isValid()) {
      _f.close();
      _tmp.unlink();
    }
  }
  ResultFile(const ResultFile&) = delete;
  ResultFile& operator=(const ResultFile&) = delete;

  bool open() {
    _path.toParent().mkdir_p();
    _tmp = Pathname(_path + Str::fromFormat(".%d.%lu.tmp", static_cast<int>(getpid()), ++gTempCounter));
    _f = _tmp.fopen("w");
    return _f.isValid();
  }
  FILE* file() const { return _f.get(); }
  long position() {
    std::fflush(_f.get());
    return std::ftell(_f.get());
  }
  // Drops everything written after pos.
  void cutBackTo(long pos) {
    if (pos < 0) return;
    std::fflush(_f.get());
    if (ftruncate(fileno(_f.get()), pos) != 0) gLogger.warn("Unable to cut back %s: %m", _tmp.c_str());
    std::fseek(_f.get(), pos, SEEK_SET);
  }
  // Closes the file and renames it into place; false (and no file) on any
  // write failure.
  bool commit() {
    bool ok = _f.flush() && !_f.error();
    ok = _f.close() && ok;
    if (ok && _tmp.renameTo(_path)) return true;
    int err = errno;
    _tmp.unlink();
    errno = err;
    return false;
  }

 private:
  Pathname _path;
  Pathname _tmp;
  FileStar _f;
};

Str performanceLine(Query& q, const Str& domain) {
  char submitted[64] = "";
  time_t s = q.getSubmitted();
  struct tm tm;
  if (localtime_r(&s, &tm)) strftime(submitted, sizeof submitted, "%m/%d/%Y:%H:%M:%S", &tm);
  double wait = q.getWallStarted() - q.getWallSubmitted();
  if (wait < 0) wait = 0;
  double exec = double(q.getCpuEnd() - q.getCpuStart()) / 1000000.0;
  if (exec < 0) exec = 0;
  const double total = wallNow() - q.getWallSubmitted();
  char line[1025];
  std::snprintf(line, sizeof line,
                "Queryid=%s user=%s result=\"%s\" results_returned=%ld submitted=%s "
                "time_between_submission_and_execution=%.3f execution_time=%.3f total_time=%.3f",
                q.getQueryId().c_str(), q.getUser().c_str(), q.hasFailed() ? "failed" : "success",
                static_cast<long>(q.results().size()), submitted, wait, exec, total);
  if (!domain.startswith('_') || gPerformance.isDebugEnabled()) gPerformance.info("%s", line);
  return Str(line);
}

// Compiles and runs q, writing its document. May throw only on a failure
// to build the frame's own texts (memory).
void runQuery(const std::shared_ptr<Query>& q, const Str& text, bool cached, bool wholeStringIsSearch) {
  ScopedLock runLock(q->runMutex());
  if (cached) {
    q->setFresh(false);
    q->setText(text);
  }
  q->clearError();

  ResultFile out(q->getOutputPath());
  if (!out.open()) {
    const int err = errno;
    gLogger.error("Cannot open \"%s\" for writing: %m", q->getOutputPath().c_str());
    q->setError(Str::fromFormat("Cannot open \"%s\" for writing: %s", q->getOutputPath().c_str(), std::strerror(err)));
    return;
  }
  std::fputs("<queryResult>\n", out.file());
  const long bodyStart = out.position();
  q->setOutput(out.file());

  try {
    CompiledQueryLanguage::getInstance().compile(q, true, wholeStringIsSearch);
    q->execute();
  } catch (const QueryParseException& e) {
    q->setError("Search Parse failed because " + Str(e.what()));
  } catch (const QueryException& e) {
    if (q->getError().empty())
      q->setError("Search Execute failed because " + Str(e.what()));
    else
      q->setError(q->getError());
  } catch (const std::bad_alloc&) {
    q->setError("Search failed because there was not enough memory.  Please simplify your search or roll your index");
  } catch (const std::exception& e) {
    gLogger.error("Unknown exception in search %s: %s", text.c_str(), e.what());
    q->setError("Unknown exception in search:" + text + "\n Please report this bug");
  } catch (...) {
    q->setError("Unknown exception in search:" + text + "\n Please report this bug");
  }
  q->setOutput(nullptr);
  if (q->hasFailed()) {
    gLogger.error("%s", q->getError().c_str());
    out.cutBackTo(bodyStart);
    q->setCpuEnd(clock());
  }

  const Str perf = performanceLine(*q, q->stateMachine().getDomain());
  Str tail = "<performance>" + CompiledQueryLanguage::xmlEscape(perf) + "</performance>\n<query>" +
             CompiledQueryLanguage::xmlEscape(text) + "</query>\n";
  if (q->hasFailed()) tail += "<error>" + CompiledQueryLanguage::xmlEscape(q->getError()) + "</error>";
  tail += "</queryResult>";
  std::fwrite(tail.data(), 1, tail.size(), out.file());
  if (!out.commit()) {
    gLogger.error("Unable to write the results of search %s to %s: %m", q->getQueryId().c_str(),
                  q->getOutputPath().c_str());
    q->setError("Unable to write the search results to " + q->getOutputPath());
  }
  if (!q->hasFailed() && !q->getQueryId().empty()) QueryCacheManager::getInstance().putInQueryCache(q, q->getQueryId());
}

}  // namespace

std::shared_ptr<Query> executeQuery(const Str& text, const Str& user, const Str& queryId, const Str& cancelId,
                                    bool wholeStringIsSearch) {
  std::shared_ptr<Query> q;
  bool cached = false;
  try {
    if (!queryId.empty()) q = QueryCacheManager::getInstance().getFromQueryCache(queryId, user);
    if (q) {
      cached = true;
      gLogger.info("Found cached search for %s", queryId.c_str());
    } else {
      q = std::make_shared<Query>(text, user, queryId, cancelId);
    }
  } catch (const std::exception& e) {
    gLogger.error("Unable to set up search %s: %s", queryId.c_str(), e.what());
    return nullptr;
  }
  try {
    runQuery(q, text, cached, wholeStringIsSearch);
  } catch (const std::exception& e) {
    gLogger.error("Unable to finish search %s: %s", queryId.c_str(), e.what());
    if (!q->hasFailed()) q->setError("Unknown exception in search:" + text + "\n Please report this bug");
  } catch (...) {
    gLogger.error("Unable to finish search %s", queryId.c_str());
  }
  return q;
}
