#include "search/dispatch/SavedSearchScheduler.h"

#include <algorithm>
#include <cctype>
#include <exception>

#include "framework/SavedVelmor.h"
#include "framework/SavedVelmorManager.h"
#include "search/SLLimits.h"
#include "search/SearchCancel.h"
#include "search/SearchFactory.h"
#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "search/dispatch/DispatchThread.h"
#include "util/Logger.h"
#include "util/ScopedFileStar.h"

static Logger gLogger("SavedSearchScheduler");

namespace {

const char* const kSidPrefix = "scheduler__";
const char* const kMarkerFile = "savedsearch";

Str clean(const Str& text) {
  Str out;
  for (char c : text) out += (isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-' || c == '_') ? c : '_';
  return out;
}

Str ownerOf(const Str& owner) { return owner.empty() ? Str("nobody") : owner; }

Str prefixFor(const Str& owner, const Str& name) {
  return Str(kSidPrefix) + clean(ownerOf(owner)) + "__" + clean(name) + "_";
}

long limitOf(const char* stanza, const char* key, long dflt) {
  unsigned long v = static_cast<unsigned long>(dflt);
  SL::getLimit(stanza, key, v);
  return static_cast<long>(v);
}

time_t wallClock() { return time(nullptr); }

// The owner and name written in a run's directory; false when it has none.
bool readMarker(const Pathname& dir, Str& owner, Str& name) {
  ScopedFileStar f(fopen((dir / kMarkerFile).c_str(), "r"));
  if (!f.isValid()) return false;
  return f.readline(owner) && f.readline(name);
}

}  // namespace

SavedSearchScheduler::Settings SavedSearchScheduler::Settings::fromLimits() {
  Settings s;
  s.periodSeconds = std::max(1L, limitOf("scheduler", "period", s.periodSeconds));
  s.keepRuns = static_cast<size_t>(std::max(1L, limitOf("scheduler", "keep_runs", static_cast<long>(s.keepRuns))));
  s.runTtl = limitOf("scheduler", "run_ttl", s.runTtl);
  return s;
}

SavedSearchScheduler::SavedSearchScheduler(const Pathname& root, DispatchSearch::JobStarter starter,
                                           const Settings& settings, Clock clock, Source source, Ready ready)
    : Thread("SavedSearchScheduler"),
      _root(root),
      _starter(std::move(starter)),
      _settings(settings),
      _clock(clock ? std::move(clock) : Clock(&wallClock)),
      _source(std::move(source)),
      _ready(std::move(ready)) {
  if (!_source)
    _source = [](std::vector<SavedVelmor>& out) {
      SavedVelmorManager::instance().getAllVelmors("savedsearch", out, Str(), true);
    };
  if (_settings.keepRuns == 0) _settings.keepRuns = 1;
}

SavedSearchScheduler::~SavedSearchScheduler() { stop(); }

void SavedSearchScheduler::stop() {
  {
    ScopedLock lock(_mutex);
    _stopping = true;
    _wake.internal_wake_all();
  }
  joinEvenIfUnstarted();
  ScopedLock lock(_tickMutex);
  for (auto& [key, e] : _entries) {
    if (e.runningSid.empty()) continue;
    if (isRunning(e.runningSid)) {
      gLogger.info("Asking scheduled job %s to stop", e.runningSid.c_str());
      SearchCancel::instance()->stop(e.runningSid);
    }
    e.runningSid.clear();
  }
}

bool SavedSearchScheduler::signalShutdown() {
  stop();
  return true;
}

void SavedSearchScheduler::main() {
  ScopedLock lock(_mutex);
  while (!_stopping) {
    {
      ScopedUnlock unlock(_mutex);
      tick();
    }
    double wait = static_cast<double>(_settings.periodSeconds);
    {
      ScopedLock tickLock(_tickMutex);
      if (_waitingForReady) wait = 1;
    }
    if (!_stopping) _wake.wait(_mutex, wait);
  }
}

Str SavedSearchScheduler::sidFor(const Str& owner, const Str& name, time_t t) {
  return prefixFor(owner, name) + Str::fromFormat("%lld", static_cast<long long>(t));
}

std::vector<SavedSearchScheduler::Run> SavedSearchScheduler::history(const Pathname& root, const Str& owner,
                                                                     const Str& name) {
  std::vector<Run> out;
  std::vector<Str> names;
  if (!root.readDirectory(names)) return out;
  const Str prefix = prefixFor(owner, name);
  for (const Str& dirName : names) {
    if (!dirName.startswith(prefix.c_str())) continue;
    Str digits = dirName.substr(prefix.size());
    if (digits.empty() || !std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; }))
      continue;
    Pathname dir = root / dirName;
    if (!dir.isDir()) continue;
    Str o, n;
    if (readMarker(dir, o, n) && (o != ownerOf(owner) || n != name)) continue;
    Run r;
    r.sid = dirName;
    r.time = static_cast<time_t>(digits.toLong(0));
    out.push_back(r);
  }
  std::sort(out.begin(), out.end(), [](const Run& a, const Run& b) { return a.time > b.time; });
  return out;
}

Str SavedSearchScheduler::jobText(const Str& query) {
  Str q = query.trim();
  if (q.startswith('|')) return q;
  size_t end = 0;
  while (end < q.size() && !isspace(static_cast<unsigned char>(q[end]))) ++end;
  Str first = lowercase(Str(q.substr(0, end)));
  if (first == "search" ||
      (!first.empty() && first.find('=') == Str::npos && SearchFactory::isProcessorRegistered(first, false)))
    return q;
  return "search " + q;
}

bool SavedSearchScheduler::isRunning(const Str& sid) const {
  Pathname dir = _root / sid;
  if (!dir.isDir() || (dir / "cancel").exists()) return false;
  SearchResults status;
  if (!DispatchThread::readStatus(dir, status)) return true;  // made, not yet started
  Str done;
  status.front()->getValue("done", done);
  return done != "1";
}

std::vector<Str> SavedSearchScheduler::tick() {
  std::vector<Str> started;
  ScopedLock lock(_tickMutex);
  _waitingForReady = _ready && !_ready();
  if (_waitingForReady) {
    gLogger.debug("Searches cannot run yet; the scheduled ones wait");
    return started;
  }
  const time_t now = _clock();
  std::vector<SavedVelmor> all;
  try {
    _source(all);
  } catch (const std::exception& e) {
    gLogger.error("Could not read the saved searches: %s", e.what());
    return started;
  }
  for (auto& kv : _entries) kv.second.seen = false;
  for (const SavedVelmor& s : all) {
    if (!s.scheduled() || s.eventType() || s.schedule.trim().empty()) continue;
    try {
      Locked_consider(s, now, started);
    } catch (const std::exception& e) {
      gLogger.error("Scheduled run of saved search '%s' failed: %s", s.name.c_str(), e.what());
    }
  }
  // Searches no longer scheduled are forgotten (their runs age out).
  for (auto it = _entries.begin(); it != _entries.end();) {
    if (it->second.seen || (!it->second.runningSid.empty() && isRunning(it->second.runningSid)))
      ++it;
    else
      it = _entries.erase(it);
  }
  return started;
}

void SavedSearchScheduler::Locked_consider(const SavedVelmor& s, time_t now, std::vector<Str>& started) {
  SavedVelmorManager& store = SavedVelmorManager::instance();
  Entry& e = _entries[ownerOf(s.userid) + "\n" + s.name];
  e.seen = true;
  if (!e.known) {
    e.known = true;
    std::vector<Run> runs = history(_root, s.userid, s.name);
    e.schedule = s.schedule;
    e.next = store.getNextRun(s, runs.empty() ? now : runs.front().time);
    if (e.next == 0) gLogger.warn("Saved search '%s' has a schedule that does not parse: '%s'", s.name.c_str(),
                                  s.schedule.c_str());
  } else if (e.schedule != s.schedule) {
    e.schedule = s.schedule;
    e.next = store.getNextRun(s, now);
  }
  if (e.next == 0 || now < e.next) return;

  if (!e.runningSid.empty() && isRunning(e.runningSid)) {
    gLogger.warn("Saved search '%s' is due but its run %s still runs; this turn is skipped", s.name.c_str(),
                 e.runningSid.c_str());
    e.next = store.getNextRun(s, now);
    return;
  }
  Str sid;
  if (Locked_startRun(s, now, sid)) {
    e.runningSid = sid;
    started.push_back(sid);
  }
  e.next = store.getNextRun(s, now);
  prune(s);
}

bool SavedSearchScheduler::Locked_startRun(const SavedVelmor& s, time_t now, Str& sid) {
  sid = sidFor(s.userid, s.name, now);
  DispatchSearch::JobRequest job;
  job.sid = sid;
  job.dir = _root / sid;
  job.search = jobText(s.query);
  job.user = s.userid;
  job.statusBuckets = limitOf("search", "status_buckets", 300);
  job.maxCount = limitOf("search", "max_count", 10000);
  job.ttl = _settings.runTtl;
  if (job.dir.exists()) {
    gLogger.warn("Saved search '%s': the job directory %s exists already; not run again", s.name.c_str(),
                 job.dir.c_str());
    return false;
  }
  if (!job.dir.mkdir_p()) {
    gLogger.error("Saved search '%s': cannot make the job directory %s", s.name.c_str(), job.dir.c_str());
    return false;
  }
  {
    ScopedFileStar f(fopen((job.dir / kMarkerFile).c_str(), "w"));
    if (!f.isValid() || !f.printf("%s\n%s\n", ownerOf(s.userid).c_str(), s.name.c_str()))
      gLogger.warn("Could not write %s/%s", job.dir.c_str(), kMarkerFile);
  }
  Str err;
  bool ok = false;
  try {
    ok = _starter(job, err);
  } catch (const std::exception& e) {
    err = e.what();
  }
  if (!ok) {
    gLogger.error("Scheduled run of saved search '%s' (owner '%s') could not start: %s", s.name.c_str(),
                  ownerOf(s.userid).c_str(), err.c_str());
    job.dir.removeRecursive();
    return false;
  }
  gLogger.info("Scheduled run of saved search '%s' (owner '%s', schedule '%s') started as job %s", s.name.c_str(),
               ownerOf(s.userid).c_str(), s.schedule.c_str(), sid.c_str());
  return true;
}

void SavedSearchScheduler::prune(const SavedVelmor& s) {
  std::vector<Run> runs = history(_root, s.userid, s.name);
  for (size_t i = _settings.keepRuns; i < runs.size(); ++i) {
    Pathname dir = _root / runs[i].sid;
    if (isRunning(runs[i].sid)) {
      gLogger.info("Cancelling old scheduled run %s of saved search '%s'", runs[i].sid.c_str(), s.name.c_str());
      (dir / "cancel").openCreateOrReplace();
      SearchCancel::instance()->stop(runs[i].sid);
    } else {
      gLogger.info("Removing old scheduled run %s of saved search '%s'", runs[i].sid.c_str(), s.name.c_str());
      dir.removeRecursive();
    }
  }
}
