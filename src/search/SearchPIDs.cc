#include "search/SearchPIDs.h"

#include "search/SL.h"
#include "search/SearchResults.h"
#include "util/Logger.h"

static Logger gLogger("SearchPIDs");

SearchPIDs* SearchPIDs::instance() {
  static Mutex m;
  static SearchPIDs* inst = nullptr;
  ScopedLock lock(m);
  if (!inst) inst = new SearchPIDs();
  return inst;
}

void SearchPIDs::init(const Str& pid, const Str& cancelId, const Str& search) {
  ScopedLock lock(_mutex);
  SearchPID& e = _pids[pid];
  e.startTime = Timeval::now();
  e.lastUpdate = e.startTime;
  e.cancelId = cancelId;
  e.search = search;
  e.currentProcessor.clear();
  e.currentResultCount = 0;
}

void SearchPIDs::update(const Str& pid, const Str& processorName, size_t rowCount) {
  ScopedLock lock(_mutex);
  auto it = _pids.find(pid);
  if (it == _pids.end()) {
    gLogger.error("unable to find pid: %s", pid.c_str());
    return;
  }
  it->second.lastUpdate = Timeval::now();
  it->second.currentProcessor = processorName;
  it->second.currentResultCount = rowCount;
}

void SearchPIDs::finalize(const Str& pid) {
  ScopedLock lock(_mutex);
  if (_pids.erase(pid) == 0) gLogger.error("unable to find pid: %s", pid.c_str());
}

size_t SearchPIDs::size() {
  ScopedLock lock(_mutex);
  return _pids.size();
}

void SearchPIDs::asResults(SearchResults& out) {
  ScopedLock lock(_mutex);
  sr_index_t kTime = out.keyIndex(SL::Timestamp, true);
  sr_index_t kCancel = out.keyIndex("cancel_id", true);
  sr_index_t kSearch = out.keyIndex("search", true);
  sr_index_t kProc = out.keyIndex("current_processor", true);
  sr_index_t kCount = out.keyIndex("current_result_count", true);
  sr_index_t kTotal = out.keyIndex("total_time", true);
  sr_index_t kProcTime = out.keyIndex("current_processor_time", true);
  Timeval now = Timeval::now();
  for (const auto& [pid, e] : _pids) {
    SearchResult* r = out.addNewResult();
    Str t;
    e.startTime.renderUnixTime(t, 3);
    r->setValue(kTime, t);
    r->setValue(kCancel, e.cancelId);
    r->setValue(kSearch, e.search);
    r->setValue(kProc, e.currentProcessor);
    r->setValue(kCount, ToString(static_cast<unsigned long>(e.currentResultCount)));
    r->setValue(kTotal, ToString(Timeval::usecDifference(now, e.startTime) / 1e6));
    r->setValue(kProcTime, ToString(Timeval::usecDifference(now, e.lastUpdate) / 1e6));
  }
}
