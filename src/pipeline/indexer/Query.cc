#include "pipeline/indexer/Query.h"

#include <sys/time.h>

#include <algorithm>

#include "loaderinfo/LoaderInfo.h"
#include "pipeline/indexer/CompiledQueryLanguage.h"
#include "pipeline/indexer/DatabaseContainer.h"
#include "pipeline/indexer/IPartitionPolicy.h"
#include "pipeline/indexer/PolicyParameters.h"
#include "pipeline/indexer/ScopedPolicyLock.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("Query");
static Logger gHistory("SearchHistory");

namespace {

double wallNow() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  return tv.tv_sec + tv.tv_usec / 1e6;
}

// Arrival order: the bucket, then the place in its raw data.
bool arrivedBefore(const ValueWrapper& a, const ValueWrapper& b) {
  if (a.bucketId != b.bucketId) return a.bucketId < b.bucketId;
  return a.address < b.address;
}

}  // namespace

Query::Query(const Str& text, const Str& user, const Str& queryId, const Str& cancelId)
    : _text(text), _user(user), _queryId(queryId), _cancelId(cancelId), _sm(queryId, cancelId) {
  CompiledQueryLanguage& lang = CompiledQueryLanguage::getInstance();
  _sm.setContainer(&lang);
  _sm.setCancelChecker(&lang);
  _sm.setMaxQueryIds(lang.getMaxQueryIds());
  _sm.setOptimize(lang.getUseAdvancedQuery());
  _sm.setUser(user);
  // Related searches score ids into the query's own map.
  _sm.setScoreMap(&_scores);
  // The id names a file in the searches directory and no other place.
  Str leaf = queryId + ".xml";
  for (char& c : leaf)
    if (c == '/' || c == '\0') c = '_';
  _outputPath = Pathname(LoaderInfo::getInstance().getDbPath()) / "searches" / leaf;
  stampSubmitted();
  touch();
}

Query::~Query() = default;

const std::vector<Str>& Query::controlOrder() {
  static const std::vector<Str> kOrder{"SEARCH", "SORT", "GET", "OUTPUT"};
  return kOrder;
}

void Query::stampSubmitted() {
  _submitted = ::time(nullptr);
  _wallSubmitted = wallNow();
}

size_t Query::getApproxSizeInK() const {
  size_t bytes = sizeof(*this) + _results.capacity() * sizeof(ValueWrapper);
  for (const auto& [kind, events] : _resultMap) {
    bytes += kind.size() + events.capacity() * sizeof(std::shared_ptr<PipelineData>);
    for (const auto& ev : events) {
      if (!ev) continue;
      bytes += sizeof(PipelineData);
      for (const auto& [key, value] : ev->map()) bytes += key->size() + (value ? value->size() : 0) + 64;
    }
  }
  for (const auto& [cd, score] : _scores) bytes += cd.size() + sizeof(score) + 32;
  return (bytes + 1023) / 1024;
}

void Query::execute() {
  // The index's directories stay locked from the end of "SEARCH" to the end
  // of the run, however it ends.
  struct ReleaseLock {
    Query* q;
    ~ReleaseLock() { q->_policyLock.reset(); }
  } release{this};

  // After "SEARCH": the index's policy, checked, its directories locked.
  auto takePolicy = [this] {
    DatabaseContainer* c = _sm.getContainer();
    IPartitionPolicy* p = c ? c->getPolicyByDomain(_sm.getDomain()) : nullptr;
    if (!p) throw QueryException("\"" + _sm.getDomain() + "\" does not appear to be a valid index");
    if (!p->lockedValidateConsistency())
      gLogger.warn("Index %s did not pass its consistency check before the search", _sm.getDomain().c_str());
    const PolicyParameters& params = p->getPolicyParameters();
    // An index without directories (a memory index in tests) has nothing to lock.
    if (!params.homePath.empty() && !_policyLock) {
      _policyLock = std::make_unique<ScopedPolicyLock>(params);
      if (!_policyLock->ok())
        gLogger.warn("Unable to lock every directory of index %s for the search", _sm.getDomain().c_str());
    }
    _policy = p;
  };

  _wallStarted = wallNow();
  _resultMap.clear();
  const bool hasSearch = !_modules["SEARCH"].empty();
  for (const Str& control : controlOrder()) {
    const clock_t start = clock();
    // A cached query keeps its ids: its "SEARCH" (and the "SORT" that
    // ordered them) ran when it was first asked.
    const bool skip = !_fresh && (control == "SEARCH" || control == "SORT");
    if (!skip) {
      std::vector<std::shared_ptr<Module>>& list = _modules[control];
      for (size_t i = 0; i < list.size(); ++i) {
        std::shared_ptr<Module> m = list[i];  // a module may add to the lists
        m->runModule();
      }
    }
    if (control == "SEARCH" && hasSearch) {
      takePolicy();
      postQuery();
      if (gLogger.isDebugEnabled()) {
        gLogger.debug("Keys : ----------------------");
        for (const Str& k : _sm.getKeySet()) gLogger.debug("%s", k.c_str());
        gLogger.debug("End Keys : ----------------------");
      }
    }
    gLogger.debug("%s took %.3f seconds", control.c_str(), double(clock() - start) / CLOCKS_PER_SEC);
  }
  _cpuEnd = clock();
}

void Query::postQuery() {
  gLogger.debug("Finalizing !!");
  if (!_fresh) {
    gLogger.debug("Using the %lu ids of the cached search %s", (unsigned long)_results.size(), _queryId.c_str());
    return;
  }
  _sm.finalize();
  _results.clear();
  _sm.execute(_results);

  const unsigned long limit = _sm.getResultLimit();
  const bool atLeast = _results.size() >= limit;
  if (_results.size() > limit) _results.resize(limit);

  const Str& domain = _sm.getDomain();
  if (domain != "_thefileseeks" || gHistory.isDebugEnabled()) {
    Str echo = _searchEcho;
    if (echo.find("index::") == Str::npos) echo += " \"index::" + domain + "\"";
    gHistory.info("\nFound%s%u results\n\"user::%s\"\n%s", atLeast ? " at least " : " ",
                  static_cast<unsigned>(_results.size()), _user.empty() ? "default_user" : _user.c_str(),
                  echo.c_str());
  }

  if (_useScore || _sm.getUseScore()) {
    auto score = [this](const ValueWrapper& v) {
      auto it = _scores.find(v.cd());
      return it == _scores.end() ? 0.0f : it->second;
    };
    std::stable_sort(_results.begin(), _results.end(), [&](const ValueWrapper& a, const ValueWrapper& b) {
      float sa = score(a), sb = score(b);
      if (sa != sb) return sa > sb;
      return a < b;
    });
    return;
  }
  switch (_sortOrder) {
    case kNewestLast:
      std::sort(_results.begin(), _results.end());
      std::reverse(_results.begin(), _results.end());
      break;
    case kArrival:
      std::sort(_results.begin(), _results.end(), arrivedBefore);
      break;
    case kReverseArrival:
      std::sort(_results.begin(), _results.end(), arrivedBefore);
      std::reverse(_results.begin(), _results.end());
      break;
    default:
      std::sort(_results.begin(), _results.end());
  }
}
