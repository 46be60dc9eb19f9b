#include "search/SearchPipeline.h"

#include <climits>
#include <iterator>

#include <ctime>

#include "search/IdProvider.h"
#include "search/SearchCancel.h"
#include "search/SearchPIDs.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/Logger.h"

static Logger gLogger("SearchPipeline");
static Logger gPerfLogger("SearchPipelinePerformance");

SearchPipeline::SearchPipeline() : SearchProcessor("PIPELINE") {}

SearchPipeline::~SearchPipeline() {
  for (SearchProcessor* p : processors) delete p;
}

void SearchPipeline::insertProcessor(SearchProcessor* p, unsigned int pos) {
  if (pos >= processors.size()) {
    processors.push_back(p);
    return;
  }
  auto it = processors.begin();
  std::advance(it, pos);
  processors.insert(it, p);
}

std::list<SearchProcessor*> SearchPipeline::releaseProcessors() {
  std::list<SearchProcessor*> out;
  out.swap(processors);
  return out;
}

void SearchPipeline::evalArgs(SearchResultsInfo& info) {
  if (pipelineArgsEvaluated) return;
  pipelineArgsEvaluated = true;
  bool first = true;
  for (SearchProcessor* p : processors) {
    evaluateMember(p, info, first);
    first = false;
  }
}

void SearchPipeline::evaluateMember(SearchProcessor* p, SearchResultsInfo& info, bool first) {
  info.firstInPipeline = first;
  try {
    p->evalArgs(info);
    p->processArguments();
  } catch (const SearchProcessorException&) {
    throw;
  } catch (const std::exception& e) {
    throw SearchProcessorException(e.what());
  } catch (...) {
    throw searchError(gLogger, "Unknown exception evaluating arguments for command: '%s'", p->getName().c_str());
  }
}

namespace {
// Sets and later restores the event window of a pipeline's first command
// (see execute).
class EventWindowHint {
 public:
  EventWindowHint(SearchResultsInfo& info, const std::list<SearchProcessor*>& procs)
      : _info(info), _first(info.firstEvent), _last(info.lastEvent) {
    if (procs.size() < 2 || info.firstEvent >= 0 || info.lastEvent >= 0) return;
    long n = (*std::next(procs.begin()))->inputRowLimit();
    if (n <= 0 || n > INT_MAX) return;
    info.firstEvent = 0;
    info.lastEvent = int(n - 1);
    _set = true;
  }
  ~EventWindowHint() { restore(); }
  void restore() {
    if (!_set) return;
    _info.firstEvent = _first;
    _info.lastEvent = _last;
    _set = false;
  }

 private:
  SearchResultsInfo& _info;
  int _first, _last;
  bool _set = false;
};
}  // namespace

void SearchPipeline::execute(SearchResults& results, SearchResultsInfo& info) {
  Str pid = IdProvider::getNextId();
  SearchPIDs* pids = SearchPIDs::instance();
  pids->init(pid, info.cancelId, getLitSearch());
  if (info.queryId.empty() && !processors.empty()) {
    gLogger.warn("Empty query id provided, generating a random one.  Search = '%s'", getLitSearch().c_str());
    info.queryId = "spgenqid_" + IdProvider::getNextId();
  }
  const char* current = "";
  try {
    evalArgs(info);
    info.firstInPipeline = true;
    // A first command followed by one that keeps only its first N rows (a
    // `search ... | head N`) is given the event window [0, N - 1] when the
    // caller set none, so that it stops producing once it has them. The
    // window is the caller's again for the commands after it.
    EventWindowHint hint(info, processors);
    for (SearchProcessor* p : processors) {
      current = p->getName().c_str();
      pids->update(pid, p->getName(), results.size());
      if (!SearchCancel::instance()->cont(info.cancelId)) {
        results.free(false);
        pids->finalize(pid);
        return;
      }
      clock_t start = clock();
      p->execute_dispatch(results, info);
      info.firstInPipeline = false;
      hint.restore();
      if (gPerfLogger.isDebugEnabled())
        gPerfLogger.debug("processor=%s cancel_id=%s executetime=%.3f secs", p->getName().c_str(),
                          info.cancelId.c_str(), double(clock() - start) / CLOCKS_PER_SEC);
    }
  } catch (const SearchProcessorException&) {
    pids->finalize(pid);
    throw;
  } catch (const std::exception& e) {
    pids->finalize(pid);
    throw SearchProcessorException(e.what());
  } catch (...) {
    pids->finalize(pid);
    throw searchError(gLogger, "Unknown exception executing command: '%s'", current);
  }
  pids->finalize(pid);
}

bool SearchPipeline::acceptsPartialResults() const {
  for (SearchProcessor* p : processors)
    if (!p->acceptsPartialResults()) return false;
  return true;
}

Str SearchPipeline::toString(unsigned int indent) const {
  Str out = Str(indent * 2, ' ') + "Pipeline";
  if (!acceptsPartialResults()) out += " (no partial results)";
  out += ":\n";
  for (SearchProcessor* p : processors) out += p->toString(indent + 1);
  return out;
}

Str SearchPipeline::processorListToSearch(const std::list<SearchProcessor*>& procs) {
  Str out;
  bool first = true;
  for (SearchProcessor* p : procs) {
    if (!first) out += "| ";
    first = false;
    out += p->getName() + " " + p->getSearch();
  }
  return out;
}
