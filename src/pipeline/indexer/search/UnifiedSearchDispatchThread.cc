#include "pipeline/indexer/search/UnifiedSearchDispatchThread.h"

#include <memory>

#include "pipeline/indexer/search/UnifiedSearchDispatchThreadInfo.h"
#include "search/IdProvider.h"
#include "search/SL.h"
#include "search/SLLimits.h"
#include "search/SearchCancel.h"
#include "search/SearchPIDs.h"
#include "search/SearchParser.h"
#include "search/SearchProcessor.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("UnifiedSearchDispatchThread");

namespace {

const char kRawSizeError[] = "Your search generated more data than specified as max_results_raw_size in limits.conf.";

// Ends the run's entry in the table of running pipelines on every way out.
struct PidGuard {
  Str pid;
  ~PidGuard() { SearchPIDs::instance()->finalize(pid); }
};

// Drops rows from the end until `rows` holds `keep`.
void truncate(SearchResults& rows, size_t keep) {
  while (rows.size() > keep) {
    delete rows.back();
    rows.pop_back();
  }
}

size_t rawBytes(const SearchResults& rows) {
  const sr_index_t raw = rows.keyIndex(SL::Raw);
  if (raw == SearchResults::nkeyindex) return 0;
  size_t n = 0;
  for (const SearchResult* r : rows)
    if (const Str* v = r->getValuePtr(raw)) n += v->size();
  return n;
}

}  // namespace

UnifiedSearchDispatchThread::UnifiedSearchDispatchThread(UnifiedSearchDispatchThreadInfo& info)
    : Thread("UnifiedSearchDispatch"), _info(info) {}

UnifiedSearchDispatchThread::~UnifiedSearchDispatchThread() { joinEvenIfUnstarted(); }

void UnifiedSearchDispatchThread::main() {
  try {
    runSearch();
  } catch (const SearchProcessorException& e) {
    gLogger.error("Search dispatch thread failed: %s", e.what());
    _info.addError(e.what());
  } catch (...) {
    gLogger.error("Search dispatch thread failed");
    _info.addError("Search dispatch thread failed");
  }
  _file.reset();
  unsigned long ttl = 300;
  SL::getLimit("search", "cache_ttl", ttl);
  _info.finish(ttl);
  SearchCancel::instance()->stop(_info.cancelId());
}

void UnifiedSearchDispatchThread::runSearch() {
  const Str& cancelId = _info.cancelId();
  PidGuard pid{IdProvider::getNextId()};
  SearchPIDs::instance()->init(pid.pid, cancelId, _info.search());
  unsigned long maxRawSize = 0;  // 0: no bound
  SL::getLimit("search", "max_results_raw_size", maxRawSize);
  unsigned long maxEvents = kDefaultMaxEvents;  // 0: no bound
  SL::getLimit("search", "max_events", maxEvents);

  std::unique_ptr<SearchProcessor> pipeline(SearchParser::parse(_info.search(), true));
  SearchResultsInfo& info = _info.runInfo();
  unsigned long total = 0;
  unsigned long rawTotal = 0;
  bool first = true;
  while (SearchCancel::instance()->cont(cancelId)) {
    // No further than the readers need: a `search ... | head 10` stops here
    // once its rows exist, and ends when the reader cancels.
    if (!first && !_info.waitForDemand()) break;
    first = false;
    SearchResults batch;
    info.resultsComplete = true;
    pipeline->execute(batch, info);
    if (!SearchCancel::instance()->cont(cancelId)) break;
    bool full = false;
    if (maxEvents != 0 && total + batch.size() >= maxEvents) {
      truncate(batch, maxEvents - total);
      full = true;
    }
    rawTotal += rawBytes(batch);
    total += batch.size();
    if (gLogger.isDebugEnabled())
      gLogger.debug("Ran %s generated %lu results\n", _info.search().c_str(), static_cast<unsigned long>(batch.size()));
    SearchPIDs::instance()->update(pid.pid, "UnifiedSearchDispatch", total);
    _info.publish(batch);
    writeRows(_info.unwritten());
    _info.markWritten();
    if (maxRawSize != 0 && rawTotal > maxRawSize) {
      _info.addError(kRawSizeError);
      break;
    }
    if (full || info.resultsComplete) break;
  }
  if (gLogger.isDebugEnabled()) {
    gLogger.debug("FINISHED Ran %s generated %lu results\n", _info.search().c_str(), total);
    gLogger.debug("DONE !!\n");
  }
}

void UnifiedSearchDispatchThread::writeRows(const SearchResults& rows) {
  if (rows.empty()) return;
  std::vector<Str> names;
  std::vector<sr_index_t> inds;
  rows.genFieldList(names, inds, false, false);
  if (names.empty()) return;
  const Pathname& path = _info.resultsFile();
  if (!_file.isValid()) {
    // A new file, never the one an earlier run of the same name may still
    // hold open.
    // The directory may have gone with the last other search of this id.
    const size_t slash = path.rfind('/');
    if (slash != Str::npos && slash > 0) Pathname(path.substr(0, slash)).mkdir_p();
    path.unlink();
    _file.reset(fopen(path.c_str(), "w"));
    if (!_file.isValid())
      throw SearchProcessorException(Str::fromFormat("Unable to write search results to '%s'", path.c_str()));
    rows.toCSV(_file);
    _header = names;
    _headerSet.clear();
    _headerSet.insert(names.begin(), names.end());
  } else {
    bool fits = true;
    for (const Str& n : names)
      if (!_headerSet.count(n)) {
        fits = false;
        break;
      }
    if (fits)
      rows.appendCSV(_file, _header, true);
    else
      rewriteWith(rows);
  }
  if (!_file.flush() || _file.error())
    throw SearchProcessorException(Str::fromFormat("Unable to write search results to '%s'", path.c_str()));
}

void UnifiedSearchDispatchThread::rewriteWith(const SearchResults& rows) {
  const Pathname& path = _info.resultsFile();
  const Pathname tmp(path + ".tmp");
  if (!_file.flush())
    throw SearchProcessorException(Str::fromFormat("Unable to write search results to '%s'", path.c_str()));
  SearchResults all;
  all.fromCSV(path);
  all.appendKeyMap(rows);
  all.append(rows);
  {
    ScopedFileStar out(fopen(tmp.c_str(), "w"));
    bool ok = out.isValid();
    if (ok) {
      all.toCSV(out);
      ok = out.flush() && !out.error();
    }
    if (!ok || !out.close() || !tmp.renameTo(path)) {
      tmp.unlink();
      throw SearchProcessorException(Str::fromFormat("Unable to write search results to '%s'", path.c_str()));
    }
  }
  _file.reset(fopen(path.c_str(), "a"));
  if (!_file.isValid())
    throw SearchProcessorException(Str::fromFormat("Unable to write search results to '%s'", path.c_str()));
  std::vector<sr_index_t> inds;
  _header.clear();
  all.genFieldList(_header, inds, false, false);
  _headerSet.clear();
  _headerSet.insert(_header.begin(), _header.end());
}
