#include "search/dispatch/StreamingSearch.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "search/IdProvider.h"
#include "search/SLLimits.h"
#include "search/SearchCancel.h"
#include "search/SearchPIDs.h"
#include "search/SearchProcessor.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/FileStar.h"
#include "util/Logger.h"

static Logger gLogger("StreamingSearch");

StreamingSearch::StreamingSearch(SearchProcessor* parsed, SearchResultsInfo& info, Options options)
    : _split(std::make_unique<PipelineSplit>(parsed, info)), _options(std::move(options)) {
  if (_options.maxEvents == 0) {
    unsigned long v = 10000;
    SL::getLimit("search", "max_count", v);
    _options.maxEvents = v == 0 ? 10000 : v;
  }
  if (_options.spillRows == 0) _options.spillRows = SearchResults::getMaxResultRows();
}

StreamingSearch::StreamingSearch(SearchProcessor* parsed, SearchResultsInfo& info)
    : StreamingSearch(parsed, info, Options()) {}

StreamingSearch::~StreamingSearch() {
  if (!_spillDir.empty() && !_dirHandedOver) _spillDir.removeRecursive();
}

void StreamingSearch::gather(SearchResults& batch, SearchResults& gathered) {
  if (gathered.empty() && gathered.getMaxKeyIndex() == 0) {
    gathered.usurp(batch, true);
    return;
  }
  gathered.takeRows(batch);
  batch.free(false);
}

void StreamingSearch::spill(SearchResults& gathered, std::vector<Pathname>& files) {
  if (gathered.empty()) return;
  if (_spillDir.empty()) {
    Pathname parent = _options.spillParent;
    if (parent.empty()) {
      const char* tmp = getenv("TMPDIR");
      parent = Pathname(tmp && *tmp ? tmp : "/tmp");
    }
    Str templ = parent + "/velmor-search.XXXXXX";
    if (!mkdtemp(templ.data()))
      throw SearchProcessorException(
          Str::fromFormat("Could not make a directory for search rows in '%s': %s", parent.c_str(), strerror(errno)));
    _spillDir = Pathname(templ);
  }
  Pathname path(_spillDir + "/" + ToString(static_cast<unsigned long>(_events)) + "_" +
                ToString(static_cast<unsigned long>(files.size())) + ".csv");
  FileStar f(fopen(path.c_str(), "w"));
  bool ok = f.isValid();
  int err = ok ? 0 : errno;
  if (ok) {
    gathered.toCSV(f, true);
    ok = f.flush() && !f.error();
    if (!ok) err = errno;
    if (!f.close() && ok) {
      ok = false;
      err = errno;
    }
  }
  if (!ok)
    throw SearchProcessorException(
        Str::fromFormat("Could not write search rows to '%s': %s", path.c_str(), strerror(err ? err : EIO)));
  files.push_back(path);
  ++_spilled;
  gathered.free(false);
}

void StreamingSearch::run(SearchResults& out, SearchResultsInfo& info) {
  Str pid = IdProvider::getNextId();
  SearchPIDs* pids = SearchPIDs::instance();
  pids->init(pid, info.cancelId, info.searchText);
  struct Finalize {
    SearchPIDs* pids;
    const Str& pid;
    ~Finalize() { pids->finalize(pid); }
  } finalize{pids, pid};
  if (info.queryId.empty()) info.queryId = "spgenqid_" + IdProvider::getNextId();

  SearchResults gathered;
  try {
    if (_split->hasPrefix()) {
      const auto& rest = _split->rest();
      const size_t cap = _split->needsAllRows() ? 0 : _options.maxEvents;
      const long restLimit = rest.empty() ? -1 : rest.front()->inputRowLimit();
      const bool spillable = !rest.empty() && rest.front()->isTransforming();
      std::vector<Pathname> files;
      SearchResults batch;
      for (;;) {
        pids->update(pid, "streaming part", _events);
        bool more = _split->fetch(batch, info);
        _events += batch.size();
        ++_chunks;
        if (_options.onChunk) {
          ChunkAction action = _options.onChunk(batch);
          if (action == ChunkAction::Cancel) {
            _hookCancelled = true;
            batch.free(false);
            gathered.free(false);
            return;  // `out` is left without rows
          }
          if (action == ChunkAction::Finish) more = false;
        }
        if (!batch.empty() && !rest.empty() && !_split->map(batch, info)) more = false;
        gather(batch, gathered);
        if (cap && gathered.size() >= cap) {
          while (gathered.size() > cap) {
            delete gathered.back();
            gathered.pop_back();
          }
          if (more)
            info.addInfo(Str::fromFormat("The search returned its first %lu events; more match (limit "
                                         "max_count of stanza \"search\" in limits.conf)",
                                         static_cast<unsigned long>(cap)));
          more = false;
        }
        if (restLimit >= 0 && gathered.size() >= static_cast<size_t>(restLimit)) more = false;
        if (spillable && gathered.size() >= _options.spillRows) spill(gathered, files);
        if (_options.progress) _options.progress(_events, _chunks);
        if (!more) break;
        if (!SearchCancel::instance()->cont(info.cancelId)) break;
      }
      if (!files.empty()) {
        spill(gathered, files);
        for (const Pathname& p : files) gathered.addFile(p);
        gathered.addTempDir(_spillDir);
        _dirHandedOver = true;
      }
      if (!SearchCancel::instance()->cont(info.cancelId)) {
        gathered.free(false);
        out.usurp(gathered);
        return;
      }
    }
    pids->update(pid, "reduce", gathered.size());
    _split->reduce(gathered, info);
  } catch (const SearchProcessorException&) {
    throw;
  } catch (const std::exception& e) {
    throw SearchProcessorException(e.what());
  }
  // Spilled rows a non-transforming rest left in files come back to memory.
  if (gathered.hasFiles()) {
    SearchResults all;
    gathered.firstFile();
    while (gathered.readFile()) {
      all.append(gathered);
      gathered.nextFile();
    }
    gathered.clearFileList();
    gathered.usurp(all, true);
  }
  out.usurp(gathered);
}
