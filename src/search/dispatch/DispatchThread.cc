#include "search/dispatch/DispatchThread.h"

#include <math.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <set>

#include "framework/UserManager.h"
#include "pipeline/indexer/TimeParser.h"
#include "search/SearchCancel.h"
#include "search/SearchPIDs.h"
#include "search/SearchParser.h"
#include "search/SearchPipeline.h"
#include "search/SearchProcessor.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/dispatch/DispatchDirs.h"
#include "search/dispatch/PeerList.h"
#include "search/dispatch/PeerSearch.h"
#include "search/dispatch/Timeliner.h"
#include "util/ConditionBaseClass.h"
#include "util/Exceptions.h"
#include "util/Logger.h"
#include "util/MainThread.h"
#include "util/Mutex.h"

static Logger gLogger("DispatchThread");

namespace {

// The jobs started in this process, for stopAll().
struct Running {
  Mutex mutex;
  ConditionBaseClass ended;
  std::set<DispatchThread*> jobs;
  std::set<Str> sids;
};

Running& running() {
  static Running* r = new Running();  // outlives every job thread
  return *r;
}

double wallClock() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6;
}

Str number(double d) { return Str::fromFormat("%.15g", d); }

const std::vector<Str>& statusColumns() {
  static const std::vector<Str> cols = {"user",  "start", "count",    "cursor", "keywords", "ttl",       "done",
                                        "search", "streaming", "error", "setStart", "setEnd", "startTime", "endTime"};
  return cols;
}

// The text of a list of commands, "name args | name args".
Str commandsText(const std::list<SearchProcessor*>& l, Str out) {
  for (const SearchProcessor* p : l) {
    if (!out.empty()) out += " | ";
    out += p->getName();
    if (!p->getSearchString().empty()) out += " " + p->getSearchString();
  }
  return out;
}

}  // namespace

DispatchThread::DispatchThread(const Pathname& dir, const Str& sid, const Str& search, const DispatchOptions& o)
    : Thread("dispatch %s", sid.c_str()),
      _dir(dir),
      _sid(sid),
      _search(search),
      _opts(o),
      _pauseWait([] { sleep(1); }),
      _clock(&wallClock) {
  _info.cancelId = sid;
  _info.queryId = sid;
  _info.searchText = search;
  _info.userContext = o.user;
  _startTime = _clock();
}

DispatchThread::~DispatchThread() {
  joinEvenIfUnstarted();
  if (_cancelStarted) SearchCancel::instance()->stop(_sid);
}

bool DispatchThread::parseBound(const Str& text, const char* what, int64_t& out) {
  out = 0;
  if (text.empty()) return true;
  if (TimeParser::parseTime(text, Str(), time(nullptr), out)) return true;
  _error = Str::fromFormat("Invalid %s: '%s'", what, text.c_str());
  return false;
}

bool DispatchThread::evaluate() {
  if (_evaluated) return _error.empty();
  _evaluated = true;
  if (!_error.empty()) return false;
  if (!parseBound(_opts.setStart, "start time", _boundStart) || !parseBound(_opts.setEnd, "end time", _boundEnd))
    return false;
  if (_boundStart != 0) _info.earliestTime = Timeval(static_cast<time_t>(_boundStart), 0);
  if (_boundEnd != 0) _info.latestTime = Timeval(static_cast<time_t>(_boundEnd), 0);
  try {
    // Owned here until the run takes it, also when the rewrite below throws
    // (an index the user may not read is refused there).
    std::unique_ptr<SearchProcessor> parsed(SearchParser::parse(_search, false));
    // Over peers: every server runs the streaming part and its map half, and
    // the rest reduces here. The map halves are internal commands.
    const PeerList peers = PeerList::fromConfig();
    if (!peers.empty()) {
      const Str spread = PeerSearch::rewrite(_search, peers.servers);
      if (spread != _search) parsed.reset(SearchParser::parse(spread, true));
    }
    StreamingSearch::Options options;
    if (_opts.maxCount > 0) options.maxEvents = static_cast<size_t>(_opts.maxCount);
    options.onChunk = [this](SearchResults& chunk) { return onChunk(chunk); };
    _run = std::make_unique<StreamingSearch>(parsed.release(), _info, std::move(options));
    if (_opts.eventTyping) {
      _typer.reset(SearchParser::parse("typer", false));
      _typerInfo.cancelId = _sid;
      _typerInfo.queryId = _sid;
      SearchPipeline::evaluateMember(_typer.get(), _typerInfo, false);
    }
  } catch (const std::exception& e) {
    _error = e.what();
    if (_error.empty()) _error = "Unknown search failure";
    _run.reset();
    _typer.reset();
    return false;
  }
  _keywords.clear();
  for (const Str& k : _info.keywords) {
    if (!_keywords.empty()) _keywords += ' ';
    _keywords += k;
  }
  if (_keywords.empty()) _keywords = "*";
  _streaming = commandsText(_run->split().mapOps(), commandsText(_run->split().prefix(), Str()));
  if (_opts.statusBuckets > 0)
    _timeliner = std::make_unique<Timeliner>(_dir, static_cast<size_t>(_opts.statusBuckets), _boundStart, _boundEnd);
  return true;
}

bool DispatchThread::readStatus(const Pathname& dir, SearchResults& out) {
  out.free(false);
  Pathname path = dir / "status.csv";
  if (!path.isFile()) return false;
  out.fromCSV(path);
  return !out.empty();
}

bool DispatchThread::writeStatus(bool done) {
  SearchResults status;
  const std::vector<Str>& cols = statusColumns();
  SearchResult* row = status.addNewResult();
  auto set = [&](size_t col, const Str& v) { row->setValue(status.keyIndex(cols[col], true), v); };
  set(0, _opts.user);
  set(1, Str::fromFormat("%.3f", _startTime));
  set(2, ToString(static_cast<unsigned long>(_count)));
  set(3, _anyTime ? number(_oldest) : Str());
  set(4, _keywords.empty() ? Str("*") : _keywords);
  set(5, ToString(_opts.ttl));
  set(6, Str(done ? "1" : "0"));
  set(7, _search);
  set(8, _streaming);
  set(9, _error);
  set(10, _boundStart != 0 ? ToString(static_cast<long long>(_boundStart)) : _opts.setStart);
  set(11, _boundEnd != 0 ? ToString(static_cast<long long>(_boundEnd)) : _opts.setEnd);
  set(12, _anyTime ? number(_newest) : Str());
  set(13, _anyTime ? number(_oldest) : Str());
  // The messages for the user (a peer that did not answer, a time limit
  // reached) stand beside the status, one row each.
  if (!_info.messages.empty()) {
    SearchResults msgs;
    const std::vector<Str> msgCols{"type", "text"};
    for (const auto& [type, texts] : _info.messages) {
      for (const Str& text : texts) {
        SearchResult* m = msgs.addNewResult();
        m->setValue(msgs.keyIndex(msgCols[0], true), type);
        m->setValue(msgs.keyIndex(msgCols[1], true), text);
      }
    }
    DispatchDirs::writeCsv(msgs, _dir / "messages.csv", &msgCols);
  }
  return DispatchDirs::writeCsv(status, _dir / "status.csv", &cols);
}

bool DispatchThread::obtainUserContext() {
  if (_opts.user.empty()) return true;  // a service without authentication
  if (UserManager::getAuthManager() && !UserManager::instance().isUserSessionValid(_opts.user)) return false;
  return true;
}

DispatchThread::Stop DispatchThread::lookAtMarkers() {
  const Pathname pause = _dir / "pause", finalize = _dir / "finalize", cancel = _dir / "cancel";
  for (;;) {
    if (cancel.exists()) return Stop::Cancel;
    if (finalize.exists()) return Stop::Finalize;
    if (!pause.exists() || !SearchCancel::instance()->cont(_sid)) return Stop::None;
    _pauseWait();
  }
}

void DispatchThread::noteTimes(const SearchResults& chunk) {
  sr_index_t k = chunk.keyIndex("_time");
  if (k == SearchResults::nkeyindex) return;
  for (const SearchResult* r : chunk) {
    const Str* v = r->getValuePtr(k);
    double t;
    if (v == nullptr || !v->tryToDouble(t) || !isfinite(t)) continue;
    if (!_anyTime || t < _oldest) _oldest = t;
    if (!_anyTime || t > _newest) _newest = t;
    _anyTime = true;
  }
}

StreamingSearch::ChunkAction DispatchThread::onChunk(SearchResults& chunk) {
  using Action = StreamingSearch::ChunkAction;
  if (_typer && !chunk.empty()) _typer->execute_dispatch(chunk, _typerInfo);
  _count += chunk.size();
  noteTimes(chunk);
  // A producer that counted by itself for the map half gives no events.
  if (_timeliner && !_run->split().mapAbsorbed() && !_timeliner->processResults(chunk)) {
    _error = "Could not write the events of the search job to " + _dir;
    return Action::Cancel;
  }
  SearchPIDs::instance()->update(_sid, "dispatch", _count);
  writeStatus(false);
  switch (lookAtMarkers()) {
    case Stop::Cancel:
      _cancelled = true;
      SearchCancel::instance()->stop(_sid);
      return Action::Cancel;
    case Stop::Finalize:
      _finalized = true;
      return Action::Finish;
    case Stop::None:
      break;
  }
  if (!SearchCancel::instance()->cont(_sid)) return Action::Cancel;
  if (_opts.maxTime > 0 && _clock() >= _startTime + static_cast<double>(_opts.maxTime)) {
    Str msg = Str::fromFormat("Maximum search time limit reached (%lu seconds).  Results may be incomplete.",
                              static_cast<unsigned long>(_opts.maxTime));
    _info.addInfo(msg);
    gLogger.info("%s: %s", _sid.c_str(), msg.c_str());
    _finalized = true;
    return Action::Finish;
  }
  return Action::Continue;
}

void DispatchThread::start() {
  {
    Running& r = running();
    ScopedLock lock(r.mutex);
    r.jobs.insert(this);
    r.sids.insert(_sid);
    _registered = true;
  }
  if (!_cancelStarted) {
    SearchCancel::instance()->start(_sid);
    _cancelStarted = true;
  }
  writeStatus(false);
  go();
}

void DispatchThread::main() {
  runJob();
  {
    Running& r = running();
    ScopedLock lock(r.mutex);
    r.jobs.erase(this);
    r.sids.erase(_sid);
    r.ended.internal_wake_all();
  }
  MainThread::instance()->joinAndDeleteMe(this);
}

void DispatchThread::run() { runJob(); }

void DispatchThread::runJob() {
  if (!_cancelStarted) {
    SearchCancel::instance()->start(_sid);
    _cancelStarted = true;
  }
  if (_error.empty() && !obtainUserContext()) _error = "Unable to obtain a valid user context for dispatch thread";
  if (_error.empty()) evaluate();
  if (!_error.empty()) {
    gLogger.warn("Search job %s failed: %s", _sid.c_str(), _error.c_str());
    writeStatus(true);
    SearchCancel::instance()->stop(_sid);
    return;
  }
  UserContext ctx;
  ctx.user = _opts.user;
  if (!_opts.user.empty()) ctx.searchFilters = UserManager::getSearchFilters(_opts.user);
  UserContext::Scope scope(ctx);

  SearchPIDs* pids = SearchPIDs::instance();
  pids->init(_sid, _sid, _search);
  pids->update(_sid, "streaming part", 0);
  writeStatus(false);
  SearchResults results;
  try {
    _run->run(results, _info);
  } catch (const std::exception& e) {
    if (_error.empty()) _error = e.what();
    if (_error.empty()) _error = "Unknown search failure";
  }
  pids->finalize(_sid);
  if (_cancelled) {
    // Cancelled through its directory: the directory goes, nothing more is
    // written into it.
    gLogger.info("Search job %s was cancelled", _sid.c_str());
    SearchCancel::instance()->stop(_sid);
    return;
  }
  if (_error.empty() && (_run->cancelledByHook() || !SearchCancel::instance()->cont(_sid)))
    _error = "The search job was stopped before it finished.";
  if (_timeliner && !_timeliner->commit(_error.empty() && !_finalized) && _error.empty())
    _error = "Could not write the timeline of the search job to " + _dir;
  // A search without a streaming producer (`| inputcsv x | ...`) reads its
  // rows at once: its count is what it gave.
  if (!_run->split().hasPrefix()) _count = results.size();
  // A search that returns events keeps at most max_count of them (the rest
  // is told in a message): its count is what a reader can page through.
  if (!_run->split().needsAllRows() && results.size() < _count) _count = results.size();
  if (_error.empty()) {
    writeStatus(false);
    if (!DispatchDirs::writeCsv(results, _dir / "results.csv"))
      _error = "Could not write the results of the search job to " + _dir;
  }
  if (!_error.empty()) gLogger.warn("Search job %s failed: %s", _sid.c_str(), _error.c_str());
  writeStatus(true);
  SearchCancel::instance()->stop(_sid);
}

void DispatchThread::stopAll(double waitSeconds) {
  Running& r = running();
  ScopedLock lock(r.mutex);
  for (const Str& sid : r.sids) SearchCancel::instance()->stop(sid);
  double deadline = wallClock() + waitSeconds;
  while (!r.jobs.empty()) {
    double left = deadline - wallClock();
    if (left <= 0) {
      gLogger.warn("%lu search jobs still running at shutdown", static_cast<unsigned long>(r.jobs.size()));
      return;
    }
    r.ended.wait(r.mutex, left);
  }
}
