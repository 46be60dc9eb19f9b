#include "pipeline/indexer/search/UnifiedSearchDispatchThreadInfo.h"

#include <algorithm>
#include <climits>

#include "pipeline/indexer/search/UnifiedSearchDispatchThread.h"
#include "search/IdProvider.h"
#include "search/SearchCancel.h"
#include "util/Logger.h"

static Logger gLogger("UnifiedSearchDispatchThread");

UnifiedSearchDispatchThreadInfo::UnifiedSearchDispatchThreadInfo(const Str& key, const Str& search,
                                                                 const Pathname& resultsFile,
                                                                 const SearchResultsInfo& seed)
    : _key(key), _search(search), _resultsFile(resultsFile), _cancelId("unified_" + IdProvider::getNextId()) {
  _runInfo.earliestTime = seed.earliestTime;
  _runInfo.latestTime = seed.latestTime;
  _runInfo.userContext = seed.userContext;
  _runInfo.roleList = seed.roleList;
  _runInfo.searchText = search;
  _runInfo.cancelId = _cancelId;
  _runInfo.queryId = _cancelId;
  _earliest = seed.earliestTime;
  _latest = seed.latestTime;
}

UnifiedSearchDispatchThreadInfo::~UnifiedSearchDispatchThreadInfo() {
  if (_thread) {
    cancel();
    _thread.reset();  // joins
  }
}

void UnifiedSearchDispatchThreadInfo::cancel() {
  SearchCancel::instance()->stop(_cancelId);
  ScopedLock l(_mutex);
  _cancelled = true;
  _cond.internal_wake_all();
}

bool UnifiedSearchDispatchThreadInfo::waitForDemand() {
  ScopedLock l(_mutex);
  while (!_cancelled && _total > 0 && _total >= 2 * _wanted) _cond.wait(_mutex);
  return !_cancelled;
}

void UnifiedSearchDispatchThreadInfo::startThread() {
  _thread = std::make_unique<UnifiedSearchDispatchThread>(*this);
  _thread->go();
}

void UnifiedSearchDispatchThreadInfo::joinThread() {
  if (_thread) _thread->joinEvenIfUnstarted();
}

void UnifiedSearchDispatchThreadInfo::removeFiles() {
  _resultsFile.unlink();
  Pathname(_resultsFile + ".tmp").unlink();
  // The run directory may hold other files of the same search id.
  Pathname dir(_resultsFile);
  size_t slash = dir.rfind('/');
  if (slash != Str::npos && slash > 0) Pathname(dir.substr(0, slash)).rmdir();
}

bool UnifiedSearchDispatchThreadInfo::isExpired(const Timeval& now) {
  ScopedLock l(_mutex);
  if (!_finished) return false;
  return now.sec() - _finishTime.sec() >= static_cast<long long>(std::min<unsigned long>(_ttlSeconds, LLONG_MAX));
}

bool UnifiedSearchDispatchThreadInfo::isFinished() {
  ScopedLock l(_mutex);
  return _finished;
}

unsigned long UnifiedSearchDispatchThreadInfo::rowCount() {
  ScopedLock l(_mutex);
  return _total;
}

bool UnifiedSearchDispatchThreadInfo::read(unsigned long start, unsigned long count, SearchResults& out,
                                           Timeval& earliest, Timeval& latest, SearchResultsInfo& info) {
  const unsigned long need = count > ULONG_MAX - start ? ULONG_MAX : start + count;
  SearchResults memoryRows;
  unsigned long fileEnd = 0;
  bool finished;
  {
    ScopedLock l(_mutex);
    if (need > _wanted) {
      _wanted = need;
      _cond.internal_wake_all();  // a thread waiting for demand goes on
    }
    while (!_finished && _total < need) {
      if (gLogger.isDebugEnabled())
        gLogger.debug("Waiting on %s for results got %ld already waiting for %lu\n", _key.c_str(),
                      static_cast<long>(_total), need);
      _cond.wait(_mutex);
    }
    const unsigned long end = std::min(need, _total);
    fileEnd = std::min(end, _written);
    const unsigned long memoryStart = std::max(start, _written);
    if (end > memoryStart) {
      memoryRows.copyKeyMap(_unwritten);
      memoryRows.append(_unwritten, memoryStart - _written, end - memoryStart);
    }
    earliest = _earliest;
    latest = _latest;
    for (const auto& [type, texts] : _messages) {
      std::vector<Str>& into = info.messages[type];
      for (const Str& t : texts)
        if (std::find(into.begin(), into.end(), t) == into.end()) into.push_back(t);
    }
    finished = _finished;
  }
  if (fileEnd > start) {
    SearchResults fileRows;
    fileRows.fromCSV(_resultsFile, start, fileEnd - start);
    out.appendKeyMap(fileRows);
    out.append(fileRows);
  }
  if (!memoryRows.empty()) {
    out.appendKeyMap(memoryRows);
    out.append(memoryRows);
  }
  return finished;
}

void UnifiedSearchDispatchThreadInfo::takeRunInfoLocked() {
  _earliest = _runInfo.earliestTime;
  _latest = _runInfo.latestTime;
  _messages = _runInfo.messages;
}

void UnifiedSearchDispatchThreadInfo::publish(SearchResults& batch) {
  ScopedLock l(_mutex);
  if (_unwritten.empty()) {
    _unwritten.usurp(batch, true);
  } else {
    while (!batch.empty()) _unwritten.moveResult(batch.begin(), true);
  }
  _total = _written + _unwritten.size();
  takeRunInfoLocked();
  _cond.internal_wake_all();
}

void UnifiedSearchDispatchThreadInfo::markWritten() {
  ScopedLock l(_mutex);
  _written = _total;
  _unwritten.free(false);
  _cond.internal_wake_all();
}

void UnifiedSearchDispatchThreadInfo::addError(const Str& text) {
  _runInfo.addError(text);
  ScopedLock l(_mutex);
  takeRunInfoLocked();
}

void UnifiedSearchDispatchThreadInfo::finish(unsigned long ttlSeconds) {
  ScopedLock l(_mutex);
  takeRunInfoLocked();
  _finished = true;
  _finishTime = Timeval::now();
  _ttlSeconds = ttlSeconds;
  _cond.internal_wake_all();
}
