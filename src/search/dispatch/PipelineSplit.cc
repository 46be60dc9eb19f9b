#include "search/dispatch/PipelineSplit.h"

#include <iterator>
#include <memory>

#include "search/SearchCancel.h"
#include "search/SearchParser.h"
#include "search/SearchPipeline.h"
#include "search/SearchProcessor.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/Logger.h"

static Logger gLogger("PipelineSplit");

namespace {

// The members of a parsed search: a pipeline gives up its commands, a
// single command is a list of one.
std::list<SearchProcessor*> membersOf(SearchProcessor* parsed) {
  std::list<SearchProcessor*> out;
  if (!parsed) return out;
  if (auto* pipe = dynamic_cast<SearchPipeline*>(parsed)) {
    out = pipe->releaseProcessors();
    delete pipe;
  } else {
    out.push_back(parsed);
  }
  return out;
}

void deleteAll(std::list<SearchProcessor*>& l) {
  for (SearchProcessor* p : l) delete p;
  l.clear();
}

}  // namespace

PipelineSplit::PipelineSplit(SearchProcessor* parsed, SearchResultsInfo& info) {
  std::list<SearchProcessor*> todo = membersOf(parsed);
  info.streamingSearch = true;
  try {
    bool first = true, inPrefix = true;
    while (!todo.empty()) {
      SearchProcessor* p = todo.front();
      todo.pop_front();
      _rest.push_back(p);  // owned by a list before anything can throw
      SearchPipeline::evaluateMember(p, info, first);
      first = false;
      if (p->isTransforming() || !p->getStreamingOp().empty()) _reduces = true;
      if (inPrefix) {
        if (p->isStreamable()) {
          _rest.pop_back();
          _prefix.push_back(p);
          continue;
        }
        // The end of the prefix. A producer that is not streamable (a
        // generator that gives all its rows at once) leaves no prefix: the
        // whole search then runs once, as the rest.
        inPrefix = false;
        Str op = p->getStreamingOp();
        if (!op.empty() && !_prefix.empty()) {
          std::list<SearchProcessor*> ops = membersOf(SearchParser::parse(op, true));
          _map.splice(_map.end(), ops);
          for (SearchProcessor* m : _map) SearchPipeline::evaluateMember(m, info, false);
        }
      } else if (p->isStreamingOpRequired()) {
        Str op = p->getStreamingOp();
        if (op.empty()) continue;
        _rest.pop_back();
        std::list<SearchProcessor*> ahead;
        try {
          ahead = membersOf(SearchParser::parse(op, true));
        } catch (...) {
          delete p;
          throw;
        }
        for (SearchProcessor* m : ahead) _rest.push_back(m);
        _rest.push_back(p);
        for (SearchProcessor* m : ahead) SearchPipeline::evaluateMember(m, info, false);
      }
    }
  } catch (...) {
    deleteAll(todo);
    release();
    info.firstInPipeline = true;
    throw;
  }
  info.firstInPipeline = true;
  // A producer that can give the map half's rows itself (an index reader
  // counting by stored fields) does so without a row per event.
  if (_prefix.size() == 1 && !_map.empty() && _prefix.front()->absorbMap(_map)) _mapAbsorbed = true;
  // A map half that arrives written out (a peer runs "search ... | prestats
  // count by host" as the head sent it) stands in the prefix behind the
  // producer; it is offered the same way, so that a peer counts as the
  // head would.
  if (_map.empty() && _prefix.size() >= 2) {
    std::list<SearchProcessor*> tail(std::next(_prefix.begin()), _prefix.end());
    if (_prefix.front()->absorbMap(tail)) {
      _prefix.resize(1);
      _map = std::move(tail);
      _mapAbsorbed = true;
    }
  }
  gLogger.debug("split %s%s", describe().c_str(), _mapAbsorbed ? " (map half absorbed)" : "");
}

PipelineSplit::~PipelineSplit() { release(); }

void PipelineSplit::release() {
  deleteAll(_prefix);
  deleteAll(_map);
  deleteAll(_rest);
}

Str PipelineSplit::describe() const {
  auto names = [](const std::list<SearchProcessor*>& l) {
    Str out;
    for (const SearchProcessor* p : l) {
      if (!out.empty()) out += " | ";
      out += p->getName();
    }
    return out;
  };
  return "prefix: " + names(_prefix) + "; map: " + names(_map) + "; rest: " + names(_rest);
}

bool PipelineSplit::fetch(SearchResults& batch, SearchResultsInfo& info) {
  batch.free(false);
  bool more = false, first = true;
  for (SearchProcessor* p : _prefix) {
    if (!SearchCancel::instance()->cont(info.cancelId)) {
      batch.free(false);
      info.firstInPipeline = false;
      return false;
    }
    info.firstInPipeline = first;
    if (first) info.resultsComplete = true;  // a producer that says nothing gives once
    p->execute_dispatch(batch, info);
    if (first) {
      more = !info.resultsComplete;
      info.resultsComplete = false;
    }
    first = false;
  }
  info.firstInPipeline = false;
  // A later command of the prefix may end the input (an empty search).
  if (info.resultsComplete) more = false;
  info.resultsComplete = !more;
  return more;
}

bool PipelineSplit::map(SearchResults& batch, SearchResultsInfo& info) {
  bool wasComplete = info.resultsComplete;
  info.resultsComplete = false;
  info.firstInPipeline = false;
  if (!_mapAbsorbed)
    for (SearchProcessor* p : _map) p->execute_dispatch(batch, info);
  bool wantsMore = !info.resultsComplete;
  info.resultsComplete = wasComplete || !wantsMore;
  return wantsMore;
}

void PipelineSplit::reduce(SearchResults& rows, SearchResultsInfo& info) {
  bool first = _prefix.empty();
  for (SearchProcessor* p : _rest) {
    if (!SearchCancel::instance()->cont(info.cancelId)) {
      rows.free(false);
      return;
    }
    info.firstInPipeline = first;
    first = false;
    p->execute_dispatch(rows, info);
  }
  info.firstInPipeline = false;
}
